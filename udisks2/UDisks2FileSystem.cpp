#include "udisks2/UDisks2FileSystem.h"

#include "daemon/Logging.h"
#include "storage/FileSystemInfo.h"
#include "udisks2/UDisks2Bus.h"
#include "udisks2/UDisks2Names.h"
#include "udisks2/UDisks2Text.h"

#include <QDBusArgument>
#include <QDBusVariant>
#include <QVariantMap>

tUDisks2FileSystem::tUDisks2FileSystem(const QString& node, tFileSystemInfo* info, QObject* parent)
    : tFileSystem(parent)
    , m_Path(UDisks2Names::BlockDevicesPrefix + node)
    , m_Valid(HasUDisks2Interface(m_Path, UDisks2Names::FilesystemInterface))
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

QString tUDisks2FileSystem::Mount(const QString& options)
{
    QVariantMap arguments;
    if (!options.isEmpty())
        arguments.insert(UDisks2Names::MountOptionsKey, options);
    const QDBusMessage reply = CallUDisks2(m_Path, UDisks2Names::FilesystemInterface,
                                           UDisks2Names::MountMethod, { arguments });
    if (reply.type() == QDBusMessage::ErrorMessage) {
        // Mounted before (by an earlier run, say): the volume is taken where
        // it is rather than given up.
        if (reply.errorName() != UDisks2Names::AlreadyMountedError)
            return QString();
        Update();
        return m_MountPoints.value(0);
    }
    if (reply.arguments().isEmpty())
        return QString();
    const QString mountPoint = reply.arguments().first().toString();
    // The service's property change follows later; until then the path it
    // returned is the mount point, so the volume can be reported at once.
    if (!mountPoint.isEmpty() && !m_MountPoints.contains(mountPoint))
        m_MountPoints = QStringList{ mountPoint };
    return mountPoint;
}

QStringList tUDisks2FileSystem::MountPoints() const
{
    return m_MountPoints;
}

void tUDisks2FileSystem::Unmount()
{
    CallUDisks2(m_Path, UDisks2Names::FilesystemInterface, UDisks2Names::UnmountMethod, { QVariantMap() });
}

QStringList tUDisks2FileSystem::ReadMountPoints(bool* ok) const
{
    QStringList points;
    *ok = false;
    const QDBusMessage reply = CallUDisks2(m_Path, UDisks2Names::PropertiesInterface, UDisks2Names::GetMethod,
                                           { UDisks2Names::FilesystemInterface, UDisks2Names::MountPointsProperty });
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty())
        return points;
    const QVariant value = reply.arguments().first().value<QDBusVariant>().variant();
    if (value.userType() != qMetaTypeId<QDBusArgument>())
        return points;
    *ok = true;
    const QDBusArgument argument = value.value<QDBusArgument>();
    argument.beginArray();
    while (!argument.atEnd()) {
        QByteArray point;
        argument >> point;
        points.append(TextUpToNul(point));
    }
    argument.endArray();
    return points;
}

void tUDisks2FileSystem::Update()
{
    bool ok = false;
    const QStringList points = ReadMountPoints(&ok);
    if (ok && !points.isEmpty())
        m_MountPoints = points;
    qCDebug(lcUDisks2) << "tUDisks2FileSystem::Update(): mountpoints:" << m_MountPoints;
}
