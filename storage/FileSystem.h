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
    // Mounts with a comma-separated option string (may be empty); returns
    // the mount path (where it already is, for a volume mounted before), or
    // an empty string on failure.
    virtual QString Mount(const QString& options) = 0;
    virtual QStringList MountPoints() const = 0;
    // Failures are only logged.
    virtual void Unmount() = 0;
};
