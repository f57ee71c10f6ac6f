#pragma once

#include <QObject>
#include <QString>
#include <QStringList>

class tFileSystemInfo;

// One volume the daemon can mount: a local UDisks2 filesystem or a peer's
// NFS share. The daemon talks to volumes only through this interface.
class tFileSystem : public QObject
{
    Q_OBJECT
public:
    using QObject::QObject;
    ~tFileSystem() override = default;

    // The volume's description, owned by this object.
    virtual tFileSystemInfo* Info() const = 0;
    virtual bool IsValid() const = 0;
    // Starts mounting with a comma-separated option string (may be empty)
    // and returns at once: MountFinished follows.
    virtual void Mount(const QString& options) = 0;
    virtual QStringList MountPoints() const = 0;
    // Starts unmounting; UnmountFinished follows. Failures are only logged.
    virtual void Unmount() = 0;

signals:
    // The mount path (where it already was, for a volume mounted before), or
    // an empty string when the mount failed.
    void MountFinished(const QString& mountPath);
    void UnmountFinished();
};
