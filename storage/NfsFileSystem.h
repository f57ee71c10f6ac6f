#pragma once

#include "storage/FileSystem.h"

class QProcess;
class QTimer;
struct tNfsData;
class tNfsFileSystemInfo;

// A peer's chart share mounted over NFS with the system's mount tools.
//
// The tools run without blocking the caller: a peer that never answers would
// otherwise hold the whole daemon for as long as mount waits. One program runs
// at a time; one that runs past the process time-out is killed and counts as
// failed. A program still running when the object goes is killed.
class tNfsFileSystem : public tFileSystem
{
    Q_OBJECT
public:
    explicit tNfsFileSystem(const tNfsData& data, QObject* parent = nullptr);
    ~tNfsFileSystem() override;

    // Directory under which the mount directory is made.
    void SetMountRoot(const QString& root);
    // How long one program may run; 30 s unless set.
    void SetProcessTimeout(int ms);

    tFileSystemInfo* Info() const override;
    bool IsValid() const override;
    // Not to be called while a program of this object runs.
    void Mount(const QString& options) override;
    // Mount once `previous` is gone: an object whose unmount of the same
    // directory is still running, and would otherwise undo this mount.
    void MountAfter(QObject* previous, const QString& options);
    // Always one element, the mount path, even before the first mount.
    QStringList MountPoints() const override;
    // Starts "umount"; UnmountFinished follows. A mount still in progress is
    // abandoned: its program is killed and, once it has ended, the path is
    // unmounted all the same (the mount may have completed before the kill
    // took effect); one still waiting for MountAfter's object never starts.
    // An abandoned mount reports no MountFinished.
    void Unmount() override;

    // The options of the last Mount.
    QString MountOptions() const { return m_Options; }
    // From Mount or MountAfter until MountFinished.
    bool MountPending() const { return m_Mounting; }
    // Some program of this object is still running.
    bool Busy() const { return m_Process != nullptr; }

    // The mount directory for a share: the root, then the source with every
    // "/" turned into "-".
    QString MountPathFor(const QString& source);

private:
    enum class tStep { Check, Mount, Unmount };
    enum class tOutcome { Succeeded, Failed, FailedToStart, TimedOut };

    void Run(tStep step, const QString& program, const QStringList& arguments);
    void OnProcessEnded(QProcess* process, tOutcome outcome);
    void StartMountCommand(bool makeDirectory);
    void OnMountEnded(QProcess& process, tOutcome outcome);
    void StartUmount();
    void OnUmountEnded(QProcess& process, tOutcome outcome);

    QString m_MountPath;
    QString m_MountRoot;
    QString m_Source;
    tNfsFileSystemInfo* m_Info;
    QString m_Options;
    QProcess* m_Process = nullptr;
    QTimer* m_Timeout;
    tStep m_Step = tStep::Check;
    int m_ProcessTimeoutMs = 30000;
    bool m_TimedOut = false;
    bool m_Mounting = false;
    bool m_MadeDirectory = false;
    bool m_UnmountRequested = false;
};
