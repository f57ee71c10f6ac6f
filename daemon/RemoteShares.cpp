// The peer's chart shares: mounted over NFS while the peer announces them.

#include "daemon/LarkDaemon.h"

#include "daemon/Logging.h"
#include "sharing/NfsData.h"
#include "storage/FileSystemInfo.h"
#include "storage/NfsFileSystem.h"
#include "storage/NfsFileSystemInfo.h"
#include "storage/VolumeDescription.h"

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
    // The first mounted one, else one whose mount has not answered yet.
    tNfsFileSystem* nfs = nullptr;
    for (int i = 0; !nfs && i < m_MountedFileSystems.size(); ++i)
        nfs = ShareFrom(m_MountedFileSystems.at(i), share.source);
    const bool reported = nfs != nullptr;
    for (int i = 0; !nfs && i < m_RemoteFileSystems.size(); ++i) {
        tNfsFileSystem* candidate = ShareFrom(m_RemoteFileSystems.at(i), share.source);
        if (candidate && candidate->MountPending())
            nfs = candidate;
    }
    if (!nfs)
        return;

    m_MountedFileSystems.removeAll(nfs);
    m_RemoteFileSystems.removeAll(nfs);
    // Kept until umount has answered; the daemon's end kills it all the same.
    nfs->setParent(this);
    connect(nfs, &tNfsFileSystem::UnmountFinished, nfs, &QObject::deleteLater);
    nfs->Unmount();
    // The application never heard of a share whose mount had not answered.
    if (reported && AppConnected()) {
        const QByteArray document = SendToApp(
            tVolumeDescription(QVariant(), QVariant(), QVariant(), QVariant(), QVariant(),
                               PathForApp(m_NfsRoot, nfs->MountPoints().value(0)), QVariant(), QVariant(),
                               QVariant(), QVariant()));
        qCDebug(lcServiceListener, "tLarkDaemon::RemoveNfsShare - %s", document.constData());
    }
}
