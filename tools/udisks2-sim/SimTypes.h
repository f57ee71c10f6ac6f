#pragma once

#include <QByteArray>
#include <QDBusArgument>
#include <QDBusObjectPath>
#include <QList>
#include <QMap>
#include <QMetaType>
#include <QString>
#include <QVariantMap>

// The composite D-Bus types of the object model, marshalled exactly as the
// real service sends them.

// a{sa{sv}}: interface name to its properties.
using tInterfaceMap = QMap<QString, QVariantMap>;
// a{oa{sa{sv}}}: the reply of GetManagedObjects.
using tManagedObjects = QMap<QDBusObjectPath, tInterfaceMap>;

// a(sa{sv}): one entry of a block's "Configuration".
struct tConfigurationItem
{
    QString type;
    QVariantMap details;
};
using tConfigurationItems = QList<tConfigurationItem>;

Q_DECLARE_METATYPE(tInterfaceMap)
Q_DECLARE_METATYPE(tManagedObjects)
Q_DECLARE_METATYPE(tConfigurationItem)
Q_DECLARE_METATYPE(tConfigurationItems)

QDBusArgument& operator<<(QDBusArgument& argument, const tConfigurationItem& item);
const QDBusArgument& operator>>(const QDBusArgument& argument, tConfigurationItem& item);

// Registers the types above (and aay, ao) with QtDBus; call once before any traffic.
void RegisterSimTypes();

// "text" as UDisks2 sends byte-string properties: UTF-8 with a trailing NUL.
QByteArray NulTerminated(const QString& text);
