// The peer's chart shares: mounted over NFS while the peer announces them.

#include "daemon/LarkDaemon.h"

#include "daemon/Logging.h"
#include "sharing/NfsData.h"
#include "sharing/ServiceListener.h"
#include "storage/FileSystemInfo.h"
#include "storage/NfsFileSystem.h"
#include "storage/NfsFileSystemInfo.h"
#include "storage/VolumeDescription.h"

#include <memory>

namespace
{
const char* const cNfsMountOptions = "rsize=1280,soft,udp,noatime,nodiratime,";

// The volume as a peer share of the source, or null.
tNfsFileSystem* ShareFrom(tFileSystem* fileSystem, const QString& source)
{
    auto* nfs = qobject_cast<tNfsFileSystem*>(fileSystem);
    auto* info = nfs ? qobject_cast<tNfsFileSystemInfo*>(nfs->Info()) : nullptr;
    return info && info->Source() == source ? nfs : nullptr;
}
} // namespace

bool tLarkDaemon::TreatedAsLocal(const tFileSystemInfo& info) const
{
    // Units of one class may treat each other's storage as their own.
    return !m_TreatRemoteAsLocal.isEmpty() && info.CodeName() == m_TreatRemoteAsLocal;
}

tVolumeDescription tLarkDaemon::RemoteDescription(const tFileSystemInfo& info, const QString& mountPath) const
{
    bool remote = true;
    if (info.FromPeer())
        remote = false;
    else if (TreatedAsLocal(info))
        remote = info.ReadOnly();
    const QString cid = info.Cid();
    return tVolumeDescription(true, !cid.isEmpty(), false, remote, remote || info.ReadOnly(),
                              PathForApp(m_NfsRoot, mountPath), info.FriendlyName(), cid, info.ContentId(),
                              info.SerialNumber());
}

void tLarkDaemon::AddNfsShare(const tNfsData& share)
{
    auto* fileSystem = new tNfsFileSystem(share);
    const tFileSystemInfo* info = fileSystem->Info();
    if (!m_NfsRoot.isEmpty())
        fileSystem->SetMountRoot(m_NfsRoot);

    const bool writable = !share.readOnly && (TreatedAsLocal(*info) || share.fromPeer);
    const QString access = writable ? QStringLiteral("rw") : QStringLiteral("ro");
    const QString options = QLatin1String(cNfsMountOptions) + access;

    // Listed and reported once mount has answered, which a peer that never
    // does may take the whole process time-out for.
    connect(fileSystem, &tNfsFileSystem::MountFinished, this, [this, fileSystem](const QString& mountPath) {
        // Mounted again after SIGUSR2: the application knows it where it was.
        const auto remounted = m_RemountingShares.constFind(fileSystem);
        if (remounted != m_RemountingShares.cend()) {
            const QString knownPath = remounted.value();
            m_RemountingShares.erase(remounted);
            if (knownPath != mountPath && AppConnected())
                SendRemovalToApp(knownPath);
        }
        if (AppConnected())
            SendToApp(RemoteDescription(*fileSystem->Info(), mountPath));
        // Listed even when the mount failed: the share's removal cleans it up.
        m_MountedFileSystems.append(fileSystem);
        qCDebug(lcDaemon, "tLarkDaemon::AddNfsShare(): mounted %s", qUtf8Printable(mountPath));
    });
    // Owned from here on: the daemon's end kills a mount still running.
    m_RemoteFileSystems.append(fileSystem);

    // A share announced again while its old mount directory is still being
    // unmounted waits for that, or the late umount would take the new mount.
    for (tNfsFileSystem* leaving : findChildren<tNfsFileSystem*>(QString(), Qt::FindDirectChildrenOnly)) {
        if (leaving->Busy() && ShareFrom(leaving, share.source)) {
            fileSystem->MountAfter(leaving, options);
            return;
        }
    }
    fileSystem->Mount(options);
}

void tLarkDaemon::RemoveNfsShare(const tNfsData& share)
{
    // The first mounted one, else one whose mount has not answered yet (or
    // is being mounted again).
    tNfsFileSystem* nfs = nullptr;
    for (int i = 0; !nfs && i < m_MountedFileSystems.size(); ++i)
        nfs = ShareFrom(m_MountedFileSystems.at(i), share.source);
    for (int i = 0; !nfs && i < m_RemoteFileSystems.size(); ++i)
        nfs = ShareFrom(m_RemoteFileSystems.at(i), share.source);
    if (!nfs)
        return;
    // The application never heard of a share whose first mount had not answered.
    ForgetNfsShare(nfs, m_MountedFileSystems.contains(nfs) || m_RemountingShares.contains(nfs));
}

void tLarkDaemon::ForgetNfsShare(tNfsFileSystem* nfs, bool reported)
{
    const QString mountPoint =
        m_RemountingShares.contains(nfs) ? m_RemountingShares.take(nfs) : nfs->MountPoints().value(0);
    m_MountedFileSystems.removeAll(nfs);
    m_RemoteFileSystems.removeAll(nfs);
    // Kept until umount has answered; the daemon's end kills it all the same.
    nfs->setParent(this);
    connect(nfs, &tNfsFileSystem::UnmountFinished, nfs, &QObject::deleteLater);
    nfs->Unmount();
    if (reported && AppConnected())
        SendRemovalToApp(mountPoint);
}

void tLarkDaemon::SendRemovalToApp(const QString& mountPoint)
{
    const QByteArray document =
        SendToApp(tVolumeDescription(QVariant(), QVariant(), QVariant(), QVariant(), QVariant(),
                                     PathForApp(m_NfsRoot, mountPoint), QVariant(), QVariant(), QVariant(), QVariant()));
    qCDebug(lcServiceListener, "tLarkDaemon::RemoveNfsShare - %s", document.constData());
}

QList<tFileSystem*> tLarkDaemon::MountedRemoteVolumes() const
{
    QList<tFileSystem*> remote;
    for (tFileSystem* fileSystem : m_MountedFileSystems) {
        if (m_RemoteFileSystems.contains(fileSystem))
            remote << fileSystem;
    }
    return remote;
}

void tLarkDaemon::RemountRemoteVolumes(const QList<tFileSystem*>& unmounted)
{
    for (tFileSystem* fileSystem : unmounted) {
        auto* nfs = qobject_cast<tNfsFileSystem*>(fileSystem);
        const auto* info = nfs ? qobject_cast<const tNfsFileSystemInfo*>(nfs->Info()) : nullptr;
        if (!info || !m_RemoteFileSystems.contains(nfs))
            continue;
        if (!m_Listener || !m_Listener->Announces(info->Source())) {
            ForgetNfsShare(nfs, true);
            continue;
        }
        m_RemountingShares.insert(nfs, nfs->MountPoints().value(0));
        // Its umount, started by UnmountAll, always answers later than this.
        auto connection = std::make_shared<QMetaObject::Connection>();
        *connection = connect(nfs, &tNfsFileSystem::UnmountFinished, this, [this, nfs, connection] {
            disconnect(*connection);
            // Unless withdrawn meanwhile: then it is on its way out.
            if (m_RemountingShares.contains(nfs))
                nfs->Mount(nfs->MountOptions());
        });
    }
}
