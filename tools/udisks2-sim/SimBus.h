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

    // The next calls of method ("Mount" or "Unmount") are answered only after
    // milliseconds, their effects coming with the answer, as from a slow
    // card; 0 answers at once again.
    bool SetHold(const QString& method, int milliseconds, QString* error);

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
    // How long the answer to message is held; 0 if it is answered at once.
    int HoldFor(const QDBusMessage& message) const;
    void AnswerLater(const QDBusMessage& message, int milliseconds);
    QStringList Children(const QString& path) const;
    QStringList InterfacesOf(const QString& path) const;

    tSimDevices* m_Devices;
    QDBusConnection m_Connection;
    bool m_Away = false;
    QMap<QString, int> m_Holds;   // method name to milliseconds
};
