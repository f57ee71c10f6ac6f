#pragma once

#include "storage/FileSystem.h"

struct tNfsData;
class tNfsFileSystemInfo;

// A peer's chart share mounted over NFS with the system's mount tools.
class tNfsFileSystem : public tFileSystem
{
    Q_OBJECT
public:
    explicit tNfsFileSystem(const tNfsData& data, QObject* parent = nullptr);

    // Directory under which the mount directory is made.
    void SetMountRoot(const QString& root);

    tFileSystemInfo* Info() const override;
    bool IsValid() const override;
    QString Mount(const QString& options) override;
    // Always one element, the mount path, even before the first mount.
    QStringList MountPoints() const override;
    void Unmount() override;

    // The mount directory for a share: the root, then the source with every
    // "/" turned into "-".
    QString MountPathFor(const QString& source);

private:
    QString m_MountPath;
    QString m_MountRoot;
    QString m_Source;
    tNfsFileSystemInfo* m_Info;
};
