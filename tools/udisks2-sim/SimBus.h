#pragma once

#include "SimTypes.h"

#include <QDBusConnection>
#include <QDBusVirtualObject>

class tSimDevices;

// Serves the object tree under /org/freedesktop/UDisks2 by hand, so that the
// introspection data, property types and signals are exactly those of the
// real service rather than what QtDBus would generate from a QObject.
class tSimBus : public QDBusVirtualObject
{
    Q_OBJECT
public:
    tSimBus(tSimDevices* devices, const QDBusConnection& connection, QObject* parent = nullptr);

    // Exports the tree and takes the service name.
    bool Register(QString* error);
    // Gives the service name up, as a stopped service does, or takes it
    // again, as a restarted one does: the objects, and what is mounted, stay.
    bool SetAway(bool away, QString* error);

    QString introspect(const QString& path) const override;
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override;

private slots:
    void OnInterfacesAdded(const QString& path, const tInterfaceMap& interfaces);
    void OnInterfacesRemoved(const QString& path, const QStringList& interfaces);
    void OnPropertiesChanged(const QString& path, const QString& interface, const QVariantMap& changed);
    void OnJobCompleted(const QString& path, bool success, const QString& message);

private:
    QDBusMessage Dispatch(const QDBusMessage& message) const;
    QDBusMessage Properties(const QDBusMessage& message, const tInterfaceMap& interfaces) const;
    QDBusMessage Filesystem(const QDBusMessage& message) const;
    QStringList Children(const QString& path) const;
    QStringList InterfacesOf(const QString& path) const;

    tSimDevices* m_Devices;
    QDBusConnection m_Connection;
    bool m_Away = false;
};
