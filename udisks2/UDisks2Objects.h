#pragma once

#include <QDBusObjectPath>
#include <QMap>
#include <QMetaType>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVariantMap>

// a{sa{sv}}: an object's interfaces with their properties, as InterfacesAdded
// carries them; a{oa{sa{sv}}}: every object, as GetManagedObjects answers.
using tUDisks2Interfaces = QMap<QString, QVariantMap>;
using tUDisks2ManagedObjects = QMap<QDBusObjectPath, tUDisks2Interfaces>;
Q_DECLARE_METATYPE(tUDisks2Interfaces)
Q_DECLARE_METATYPE(tUDisks2ManagedObjects)

// The service's objects and their properties as it last reported them. Kept
// from its own signals, so that reading a property never waits on the bus.
//
// Values are kept in plain Qt types: "MountPoints" (aay) as a QStringList of
// the paths without their NUL. Composite values nothing here reads are not
// kept; they would hold on to the whole message they came in.
class tUDisks2Objects
{
public:
    static void RegisterTypes();

    void Reset(const tUDisks2ManagedObjects& objects);
    void Add(const QString& path, const tUDisks2Interfaces& interfaces);
    // The object goes with its last interface.
    void Remove(const QString& path, const QStringList& interfaces);
    void Change(const QString& path, const QString& interface, const QVariantMap& changed);
    void Set(const QString& path, const QString& interface, const QString& name, const QVariant& value);

    bool Has(const QString& path, const QString& interface) const;
    // Invalid when the object, the interface or the property is unknown.
    QVariant Property(const QString& path, const QString& interface, const QString& name) const;
    // The names of the objects directly below parent, in path order.
    QStringList Children(const QString& parent) const;

    // A value as it comes off the bus, in the form this cache keeps.
    static QVariant Plain(const QVariant& value);

private:
    static QVariantMap Plain(const QVariantMap& properties);

    QMap<QString, tUDisks2Interfaces> m_Objects;
};
