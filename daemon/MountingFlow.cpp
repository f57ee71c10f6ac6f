// The daemon's handling of local volumes: mount, publish, link and announce
// what UDisks2 reports, and undo it when the volume goes.

#include "daemon/LarkDaemon.h"

#include "daemon/Logging.h"
#include "sharing/ServicePublisher.h"
#include "storage/FileSystem.h"
#include "storage/FileSystemInfo.h"
#include "storage/VolumeDescription.h"
#include "udisks2/UDisks2.h"
#include "udisks2/UDisks2Block.h"
#include "udisks2/UDisks2FileSystem.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSet>

#include <memory>

namespace
{
const char* const cMediaDirectory = "/run/media";
constexpr int cLocalShareType = 1;
constexpr int cInternalShareType = 0;

QString MediaDirectory()
{
    return QString::fromLatin1(cMediaDirectory);
}

// The map in QDebug's own form: QMap((key, value), ...).
QByteArray Describe(const QMap<QString, tFileSystem*>& fileSystems)
{
    QString text;
    QDebug(&text).nospace().noquote() << fileSystems;
    return text.toUtf8();
}
// The friendly link of a volume: beside its mount directory.
QString FriendlyLinkPath(const QFileInfo& mountInfo, const QString& friendlyName)
{
    return mountInfo.absoluteDir().absolutePath() + QLatin1Char('/') + friendlyName;
}

bool LeadsTo(const QString& linkPath, const QFileInfo& mountInfo)
{
    const QFileInfo link(linkPath);
    return link.isSymLink() && link.symLinkTarget() == mountInfo.absoluteFilePath();
}
} // namespace

QString tLarkDaemon::PathForApp(const QString& nfsRoot, const QString& mountPoint)
{
    if (!nfsRoot.isEmpty() && mountPoint.startsWith(nfsRoot))
        return QStringLiteral("/mnt") + mountPoint.mid(nfsRoot.size());
    return mountPoint;
}

void tLarkDaemon::OnFileSystemAdded(const QString& node)
{
    qCDebug(lcDaemon, "tLarkDaemon::OnFileSystemAdded(): node = %s", qUtf8Printable(node));
    // A node is handled once while mounted or being mounted. A rescan enters
    // nodes in the map unmounted (SIGUSR2 unmounts first), and those must be
    // mounted again.
    if (tFileSystem* known = m_FileSystems.value(node, nullptr)) {
        if (m_MountedFileSystems.contains(known) || m_MountingFileSystems.contains(known))
            return;
    }
    tUDisks2Block* block = tUDisks2::Block(node);
    tFileSystem* fileSystem = block ? block->FileSystem() : nullptr;
    if (!fileSystem || !fileSystem->IsValid())
        return;
    m_FileSystems.insert(node, fileSystem);

    // A volume the service has mounted already (larkd restarted, say) is
    // adopted where it is, and handled from here on as if just mounted.
    const QString mountPoint = fileSystem->MountPoints().value(0);
    if (!mountPoint.isEmpty()) {
        OnLocalVolumeMounted(node, fileSystem, mountPoint);
        return;
    }
    m_MountingFileSystems.insert(fileSystem);
    connect(fileSystem, &tFileSystem::MountFinished, this, &tLarkDaemon::OnLocalMountFinished, Qt::UniqueConnection);
    const bool vfat = block->Property(QStringLiteral("IdType")).toString() == QLatin1String("vfat");
    fileSystem->Mount(vfat ? m_VfatMountOpts : QString());
}

void tLarkDaemon::OnLocalMountFinished(const QString& mountPoint)
{
    // Only a mount still wanted: a volume removed meanwhile is forgotten.
    auto* fileSystem = qobject_cast<tFileSystem*>(sender());
    if (!m_MountingFileSystems.remove(fileSystem))
        return;
    const QString node = m_FileSystems.key(fileSystem);
    if (node.isEmpty())
        return;
    if (mountPoint.isEmpty()) {
        qCWarning(lcDaemon, "tLarkDaemon::OnFileSystemAdded(): failed to mount");
        m_FileSystems.remove(node);
        return;
    }
    OnLocalVolumeMounted(node, fileSystem, mountPoint);
}

void tLarkDaemon::OnLocalVolumeMounted(const QString& node, tFileSystem* fileSystem, const QString& mountPoint)
{
    qCDebug(lcDaemon, "tLarkDaemon::OnFileSystemAdded(): mounted at %s", qUtf8Printable(mountPoint));
    m_MountedFileSystems.append(fileSystem);
    const QString contentId = ContentId();
    const QString serialNumber = SerialNumber();

    const tFileSystemInfo* info = fileSystem->Info();
    const QString friendlyName = info->FriendlyName();
    const QString cid = info->Cid();
    const bool readOnly = info->ReadOnly();
    const QString linkName = info->SymlinkName();

    if (m_Publisher) {
        if (m_ChartSharingEnabled) {
            m_Publisher->AddServiceNFS(mountPoint, cLocalShareType, cid, contentId, serialNumber, friendlyName,
                                       readOnly || !m_WriteableExports);
        }
        MakeFriendlySymlink(mountPoint, linkName);
    }
    m_MountedVolumes.insert(node, {mountPoint, linkName});

    if (AppConnected() && !friendlyName.isEmpty()) {
        SendToApp(tVolumeDescription(true, !cid.isEmpty(), false, false, readOnly, PathForApp(m_NfsRoot, mountPoint),
                                     friendlyName, cid, contentId, serialNumber));
    }
}

void tLarkDaemon::OnFileSystemRemoved(const QString& node)
{
    qCDebug(lcDaemon, "tLarkDaemon::OnFileSystemRemoved(): node = %s", qUtf8Printable(node));
    if (!m_FileSystems.contains(node))
        return;
    tFileSystem* fileSystem = m_FileSystems.value(node);
    // A pulled medium's object is gone while the kernel still holds its
    // mount, and the service removes the directory only after that.
    const tMountedVolume mounted = m_MountedVolumes.take(node);
    const QString& mountPoint = mounted.mountPoint;

    if (m_Publisher && m_MountedFileSystems.contains(fileSystem) && !mountPoint.isEmpty()) {
        m_Publisher->RemoveServiceNFS(mountPoint);
        if (AppConnected()) {
            SendToApp(tVolumeDescription(QVariant(), QVariant(), QVariant(), QVariant(), QVariant(),
                                         PathForApp(m_NfsRoot, mountPoint), QVariant(), QVariant(), QVariant(),
                                         QVariant()));
        }
        RemoveFriendlySymlink(mountPoint, mounted.linkName);
    }
    // Once its unexport has run: the NFS server holds an exported filesystem
    // busy. The object is gone by then, so the call names the node. A volume
    // entered on the node meanwhile (a rescan's, a re-inserted medium's) is
    // another mount, and stays.
    m_Publisher->AfterCommands(this, [this, node] {
        if (!m_FileSystems.contains(node))
            tUDisks2FileSystem::UnmountNode(node);
    });

    m_MountingFileSystems.remove(fileSystem);
    m_MountedFileSystems.removeAll(fileSystem);
    m_FileSystems.remove(node);
    RemoveStaleLinks(MediaDirectory());
}

void tLarkDaemon::OnFileSystemChanged(const QString& node)
{
    qCDebug(lcDaemon, "tLarkDaemon::OnFileSystemChanged(): node = %s", qUtf8Printable(node));
}

void tLarkDaemon::MakeFriendlySymlink(const QString& mountPoint, const QString& friendlyName)
{
    const QFileInfo mountInfo(mountPoint);
    const QString linkPath = FriendlyLinkPath(mountInfo, friendlyName);
    // Relative, so the link stays right wherever the directory is seen from.
    const QString target = mountInfo.fileName();
    // An existing link is left alone: two cards with one name keep the first
    // link. One that already leads here (made by an earlier run) is no clash.
    if (LeadsTo(linkPath, mountInfo))
        return;
    if (!QFile::link(target, linkPath)) {
        qCWarning(lcDaemon, "tLarkDaemon::MakeFriendlySymlink(): failed to create symlink %s -> %s",
                  qUtf8Printable(target), qUtf8Printable(linkPath));
    }
}

void tLarkDaemon::RemoveFriendlySymlink(const QString& mountPoint, const QString& friendlyName)
{
    // Only the volume's own link: one of that name may lead to another card.
    const QFileInfo mountInfo(mountPoint);
    const QString linkPath = FriendlyLinkPath(mountInfo, friendlyName);
    if (LeadsTo(linkPath, mountInfo))
        QFile::remove(linkPath);
}

void tLarkDaemon::RemoveStaleLinks(const QString& directory)
{
    // System entries are listed too: that is where broken links show up.
    const QFileInfoList entries = QDir(directory).entryInfoList(
        QDir::Dirs | QDir::Files | QDir::Drives | QDir::System | QDir::NoDotAndDotDot, QDir::Unsorted);
    for (const QFileInfo& entry : entries) {
        if (!entry.exists())
            QFile::remove(entry.absoluteFilePath());
    }
}

void tLarkDaemon::ManualScan()
{
    qCInfo(lcDaemon, "tLarkDaemon::ManualScan()");
    RemoveStaleLinks(MediaDirectory());

    for (const QString& node : tUDisks2::BlockDevices()) {
        // Only a valid filesystem is entered: an invalid one (a whole disk's)
        // is replaced by the registry when the enumeration below revisits it.
        tUDisks2Block* block = tUDisks2::Block(node);
        tFileSystem* fileSystem = block ? block->FileSystem() : nullptr;
        if (fileSystem && fileSystem->IsValid())
            m_FileSystems.insert(node, fileSystem);
    }
    qCDebug(lcDaemon, "tLarkDaemon::ManualScan(): filesystems = %s", Describe(m_FileSystems).constData());

    // The internal store follows once the service's objects are in: its
    // export comes after those of the volumes found, as it always has.
    m_ScanPending = true;
    m_UDisks2->Enumerate();
}

void tLarkDaemon::OnEnumerationFinished()
{
    if (!m_ScanPending)
        return;
    m_ScanPending = false;
    // Disabled chart sharing exports nothing, the internal store included.
    if (!m_InternalSharePath.isEmpty() && m_Publisher && m_ChartSharingEnabled) {
        m_Publisher->AddServiceNFS(m_InternalSharePath, cInternalShareType, QString(), ContentId(), SerialNumber(),
                                   QStringLiteral("Internal HD Charts"), true);
    }
    emit ScanFinished();
}

void tLarkDaemon::UnmountAll(const std::function<void()>& then)
{
    qCInfo(lcDaemon, "tLarkDaemon::UnmountAll()");
    // The local volumes still to be answered for, or gone (a volume whose
    // unmount the service reported first is removed before its answer). The
    // round's connections go with it.
    auto* round = new QObject(this);
    auto waiting = std::make_shared<QSet<tFileSystem*>>();
    const auto settled = [this, round, waiting, then](tFileSystem* fileSystem) {
        if (waiting->remove(fileSystem) && waiting->isEmpty()) {
            round->deleteLater();
            QMetaObject::invokeMethod(this, then, Qt::QueuedConnection);
        }
    };
    while (!m_MountedFileSystems.isEmpty()) {
        tFileSystem* fileSystem = m_MountedFileSystems.takeFirst();
        m_MountedVolumes.remove(m_FileSystems.key(fileSystem));
        const QStringList mountPoints = fileSystem->MountPoints();
        qCDebug(lcDaemon, "tLarkDaemon::UnmountAll(): umounting %s",
                qUtf8Printable(mountPoints.value(0)));
        if (m_FileSystems.key(fileSystem).isEmpty()) {
            fileSystem->Unmount();
            continue;
        }
        waiting->insert(fileSystem);
        connect(fileSystem, &tFileSystem::UnmountFinished, round, [settled, fileSystem] { settled(fileSystem); });
        connect(fileSystem, &QObject::destroyed, round, [settled, fileSystem] { settled(fileSystem); });
        fileSystem->Unmount();
    }
    if (waiting->isEmpty()) {
        delete round;
        QMetaObject::invokeMethod(this, then, Qt::QueuedConnection);
    }
}
