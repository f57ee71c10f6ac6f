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
    const QString mountPath = fileSystem->Mount(QLatin1String(cNfsMountOptions) + access);

    if (AppConnected())
        SendToApp(RemoteDescription(*info, mountPath));
    // Listed even when the mount failed: the share's removal cleans it up.
    m_RemoteFileSystems.append(fileSystem);
    m_MountedFileSystems.append(fileSystem);
    qCDebug(lcDaemon, "tLarkDaemon::AddNfsShare(): mounted %s", qUtf8Printable(mountPath));
}

void tLarkDaemon::RemoveNfsShare(const tNfsData& share)
{
    const QList<tFileSystem*> mounted = m_MountedFileSystems;
    for (tFileSystem* fileSystem : mounted) {
        auto* nfs = qobject_cast<tNfsFileSystem*>(fileSystem);
        auto* info = nfs ? qobject_cast<tNfsFileSystemInfo*>(nfs->Info()) : nullptr;
        if (!info || info->Source() != share.source)
            continue;
        nfs->Unmount();
        if (AppConnected()) {
            const QByteArray document = SendToApp(
                tVolumeDescription(QVariant(), QVariant(), QVariant(), QVariant(), QVariant(),
                                   PathForApp(m_NfsRoot, nfs->MountPoints().value(0)), QVariant(), QVariant(),
                                   QVariant(), QVariant()));
            qCDebug(lcServiceListener, "tLarkDaemon::RemoveNfsShare - %s", document.constData());
        }
        m_MountedFileSystems.removeAll(fileSystem);
        m_RemoteFileSystems.removeAll(fileSystem);
        delete nfs;
        return;
    }
}
