#pragma once

#include "storage/FileSystem.h"

class QDBusPendingCallWatcher;

// The filesystem of one UDisks2 block: mounts and unmounts it through the
// service without waiting, and keeps its last known mount points.
class tUDisks2FileSystem : public tFileSystem
{
    Q_OBJECT
public:
    // Takes ownership of info. Valid when the block carries a filesystem.
    tUDisks2FileSystem(const QString& node, tFileSystemInfo* info, QObject* parent = nullptr);
    ~tUDisks2FileSystem() override;

    tFileSystemInfo* Info() const override;
    bool IsValid() const override;
    // A call still unanswered when the object goes is forgotten: nothing of
    // its answer is reported.
    void Mount(const QString& options) override;
    QStringList MountPoints() const override;
    void Unmount() override;

    // Asks the service to unmount the node's filesystem, wanting no answer:
    // for a volume whose object may be gone by the time it is sent.
    static void UnmountNode(const QString& node);

    // Takes "MountPoints" from the service's last report; an empty list keeps
    // the last known one, because ejection is judged against the points a
    // volume had.
    void Update();

private:
    void OnMountAnswered(QDBusPendingCallWatcher* call);
    void OnUnmountAnswered(QDBusPendingCallWatcher* call);

    QString m_Path;
    bool m_Valid;
    QStringList m_MountPoints;
    QString m_Name;
    tFileSystemInfo* m_Info;
};
