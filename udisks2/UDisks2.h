#pragma once

#include <QDBusObjectPath>
#include <QMap>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariant>

class tUDisks2Block;
class tUDisks2Drive;

// The daemon's client of UDisks2: a live mirror of its blocks and drives,
// keyed by node name, that turns block events into filesystem signals.
class tUDisks2 : public QObject
{
    Q_OBJECT
public:
    explicit tUDisks2(QObject* parent = nullptr);
    ~tUDisks2() override;

    // Registers every drive, then every block, so that a block finds its
    // drive when its filesystem is created. Repeating it re-announces the
    // known filesystems.
    void Enumerate();

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

public slots:
    void OnInterfaceAdded(const QDBusObjectPath& path, const QMap<QString, QVariant>& interfaces);
    void OnInterfaceRemoved(const QDBusObjectPath& path, const QStringList& interfaces);
    // The argument is a node name.
    void OnBlockDeviceEjected(const QString& path);

private slots:
    void OnServiceOwnerChanged(const QString& service, const QString& oldOwner, const QString& newOwner);

private:
    // Brings the registry level with a service that was away: what went is
    // removed, what stayed is checked, what came is added.
    void Resynchronise();

    static QMap<QString, tUDisks2Block*> m_Blocks;
    static QMap<QString, tUDisks2Drive*> m_Drives;
};
