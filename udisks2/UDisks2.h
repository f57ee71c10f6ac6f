#pragma once

#include "udisks2/UDisks2Objects.h"

#include <QDBusContext>
#include <QDBusObjectPath>
#include <QMap>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantMap>

class QDBusPendingCallWatcher;
class tUDisks2Block;
class tUDisks2Drive;

// The daemon's client of UDisks2: a live mirror of its blocks and drives,
// keyed by node name, that turns block events into filesystem signals.
//
// Every property is read from the service's own reports (the object list it
// gives on request, then its signals), so nothing here waits on the bus.
class tUDisks2 : public QObject, protected QDBusContext
{
    Q_OBJECT
public:
    explicit tUDisks2(QObject* parent = nullptr);
    ~tUDisks2() override;

    // Asks the service for its objects; once they arrive the registry is
    // brought level with them (what went is removed, what stayed is checked),
    // every drive then every block is registered, so that a block finds its
    // drive, and the known filesystems are announced again. EnumerationFinished
    // follows, also when the service did not answer.
    void Enumerate();

    static const tUDisks2Objects& Objects();
    static QStringList BlockDevices();
    static QStringList Drives();
    static tUDisks2Block* Block(const QString& node);
    static tUDisks2Drive* Drive(tUDisks2Block* block);

    void AddBlock(const QString& node);
    void RemoveBlock(const QString& node);
    void AddDrive(const QString& node);
    void RemoveDrive(const QString& node);

signals:
    void BlockDeviceAdded(const QString& node);
    void BlockDeviceChanged(const QString& node);
    void BlockDeviceRemoved(const QString& node);
    void DriveAdded(const QString& node);
    void DriveChanged(const QString& node);
    void DriveRemoved(const QString& node);
    void FileSystemAdded(const QString& node);
    void FileSystemChanged(const QString& node);
    void FileSystemRemoved(const QString& node);
    void EnumerationFinished();

public slots:
    void OnInterfaceAdded(const QDBusObjectPath& path, const tUDisks2Interfaces& interfaces);
    void OnInterfaceRemoved(const QDBusObjectPath& path, const QStringList& interfaces);
    // The argument is a node name.
    void OnBlockDeviceEjected(const QString& path);

private slots:
    void OnPropertiesChanged(const QString& interface, const QVariantMap& changed, const QStringList& invalidated);
    void OnServiceOwnerChanged(const QString& service, const QString& oldOwner, const QString& newOwner);

private:
    void OnManagedObjects(QDBusPendingCallWatcher* call);
    void Synchronise(const tUDisks2ManagedObjects& objects);
    void Refetch(const QString& path, const QString& interface, const QString& name);

    static tUDisks2Objects m_Objects;
    static QMap<QString, tUDisks2Block*> m_Blocks;
    static QMap<QString, tUDisks2Drive*> m_Drives;
};
