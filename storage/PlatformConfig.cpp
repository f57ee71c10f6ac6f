#include "storage/PlatformConfig.h"

#include <QFile>

const char* const PlatformConfigPath = "/run/corvex_platform/config";

PlatformConfig ReadPlatformConfig()
{
    QFile file(QString::fromLatin1(PlatformConfigPath));
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return PlatformConfig();
    return ParsePlatformConfig(file);
}

PlatformConfig ParsePlatformConfig(QIODevice& input)
{
    PlatformConfig config;
    while (!input.atEnd()) {
        const QByteArray raw = input.readLine();
        // The platform layer may leave NUL padding; a line ends at its first NUL.
        const QString line = QString::fromLocal8Bit(raw.constData());
        const int equals = line.indexOf(QLatin1Char('='));
        if (equals < 0)
            continue;
        // The key is taken as written: " sd_slots" or "sd_slots " is another key.
        config[line.left(equals)].append(line.mid(equals + 1).trimmed());
    }
    return config;
}

QString ConfigValue(const PlatformConfig& config, const QString& key)
{
    const auto values = config.constFind(key);
    if (values == config.constEnd() || values->isEmpty())
        return QString();
    return values->first();
}
