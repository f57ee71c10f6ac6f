#pragma once

#include <QHash>
#include <QString>
#include <QStringList>

class QIODevice;

// The platform layer's key/value file: every value given for a key, in
// file order.
using PlatformConfig = QHash<QString, QStringList>;

extern const char* const PlatformConfigPath;

// A missing or unreadable file gives an empty configuration.
PlatformConfig ReadPlatformConfig();
// The lines of an open text device, "key=value" each.
PlatformConfig ParsePlatformConfig(QIODevice& input);

// The first value given for key, or an empty string.
QString ConfigValue(const PlatformConfig& config, const QString& key);
