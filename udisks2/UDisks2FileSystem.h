#pragma once

#include "storage/FileSystem.h"

// The filesystem of one UDisks2 block: mounts and unmounts it through the
// service and keeps its last known mount points.
class tUDisks2FileSystem : public tFileSystem
{
    Q_OBJECT
public:
    // Takes ownership of info.
    tUDisks2FileSystem(const QString& node, tFileSystemInfo* info, QObject* parent = nullptr);
    ~tUDisks2FileSystem() override;

    tFileSystemInfo* Info() const override;
    bool IsValid() const override;
    QString Mount(const QString& options) override;
    QStringList MountPoints() const override;
    void Unmount() override;

    // Re-reads "MountPoints"; an empty or failed reply keeps the last known
    // list, because ejection is judged against the points a volume had.
    void Update();
    // The service's list as it is now; ok is false when it could not be read.
    QStringList ReadMountPoints(bool* ok) const;

private:
    QString m_Path;
    bool m_Valid;
    QStringList m_MountPoints;
    QString m_Name;
    tFileSystemInfo* m_Info;
};
