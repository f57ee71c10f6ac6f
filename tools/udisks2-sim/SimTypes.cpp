#include "SimTypes.h"

#include <QDBusMetaType>

QDBusArgument& operator<<(QDBusArgument& argument, const tConfigurationItem& item)
{
    argument.beginStructure();
    argument << item.type << item.details;
    argument.endStructure();
    return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, tConfigurationItem& item)
{
    argument.beginStructure();
    argument >> item.type >> item.details;
    argument.endStructure();
    return argument;
}

void RegisterSimTypes()
{
    qDBusRegisterMetaType<QByteArrayList>();
    qDBusRegisterMetaType<QList<QDBusObjectPath>>();
    qDBusRegisterMetaType<tInterfaceMap>();
    qDBusRegisterMetaType<tManagedObjects>();
    qDBusRegisterMetaType<tConfigurationItem>();
    qDBusRegisterMetaType<tConfigurationItems>();
}

QByteArray NulTerminated(const QString& text)
{
    QByteArray bytes = text.toUtf8();
    bytes.append('\0');
    return bytes;
}
