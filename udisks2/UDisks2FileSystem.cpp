#include "udisks2/UDisks2FileSystem.h"

#include "daemon/Logging.h"
#include "storage/FileSystemInfo.h"
#include "udisks2/UDisks2.h"
#include "udisks2/UDisks2Bus.h"
#include "udisks2/UDisks2Names.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QVariantMap>

namespace
{
QString PathOf(const QString& node)
{
    return UDisks2Names::BlockDevicesPrefix + node;
}
} // namespace

tUDisks2FileSystem::tUDisks2FileSystem(const QString& node, tFileSystemInfo* info, QObject* parent)
    : tFileSystem(parent)
    , m_Path(PathOf(node))
    , m_Valid(tUDisks2::Objects().Has(m_Path, UDisks2Names::FilesystemInterface))
    , m_Name(node)
    , m_Info(info)
{
    if (m_Info)
        m_Info->setParent(this);
    Update();
}

tUDisks2FileSystem::~tUDisks2FileSystem() = default;

tFileSystemInfo* tUDisks2FileSystem::Info() const
{
    return m_Info;
}

bool tUDisks2FileSystem::IsValid() const
{
    return m_Valid;
}

void tUDisks2FileSystem::Mount(const QString& options)
{
    QVariantMap arguments;
    if (!options.isEmpty())
        arguments.insert(UDisks2Names::MountOptionsKey, options);
    const QDBusPendingCall call =
        CallUDisks2(m_Path, UDisks2Names::FilesystemInterface, UDisks2Names::MountMethod, {arguments});
    // A child: a volume that goes while its mount is pending takes the
    // answer with it.
    auto* watcher = new QDBusPendingCallWatcher(call, this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, &tUDisks2FileSystem::OnMountAnswered);
}

void tUDisks2FileSystem::OnMountAnswered(QDBusPendingCallWatcher* call)
{
    call->deleteLater();
    const QDBusPendingReply<QString> reply = *call;
    if (reply.isError()) {
        // Mounted before (by an earlier run, say): the volume is taken where
        // the service last said it is rather than given up.
        if (reply.error().name() != UDisks2Names::AlreadyMountedError) {
            emit MountFinished(QString());
            return;
        }
        Update();
        emit MountFinished(m_MountPoints.value(0));
        return;
    }
    const QString mountPoint = reply.value();
    // The service's property change may follow later; until then the path it
    // returned is the mount point, so the volume can be reported at once.
    if (!mountPoint.isEmpty() && !m_MountPoints.contains(mountPoint))
        m_MountPoints = QStringList{mountPoint};
    emit MountFinished(mountPoint);
}

QStringList tUDisks2FileSystem::MountPoints() const
{
    return m_MountPoints;
}

void tUDisks2FileSystem::Unmount()
{
    const QDBusPendingCall call =
        CallUDisks2(m_Path, UDisks2Names::FilesystemInterface, UDisks2Names::UnmountMethod, {QVariantMap()});
    auto* watcher = new QDBusPendingCallWatcher(call, this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, &tUDisks2FileSystem::OnUnmountAnswered);
}

void tUDisks2FileSystem::OnUnmountAnswered(QDBusPendingCallWatcher* call)
{
    call->deleteLater();
    emit UnmountFinished();
}

void tUDisks2FileSystem::UnmountNode(const QString& node)
{
    QDBusMessage call = QDBusMessage::createMethodCall(UDisks2Names::Service, PathOf(node),
                                                       UDisks2Names::FilesystemInterface, UDisks2Names::UnmountMethod);
    call.setArguments({QVariantMap()});
    QDBusConnection::systemBus().send(call);
}

void tUDisks2FileSystem::Update()
{
    const QStringList points = tUDisks2::Objects()
                                   .Property(m_Path, UDisks2Names::FilesystemInterface, UDisks2Names::MountPointsProperty)
                                   .toStringList();
    if (!points.isEmpty())
        m_MountPoints = points;
    qCDebug(lcUDisks2) << "tUDisks2FileSystem::Update(): mountpoints:" << m_MountPoints;
}
