#include "udisks2/UDisks2Block.h"

#include "daemon/Logging.h"
#include "storage/MmcFileSystemInfo.h"
#include "storage/UsbFileSystemInfo.h"
#include "udisks2/UDisks2.h"
#include "udisks2/UDisks2Bus.h"
#include "udisks2/UDisks2Drive.h"
#include "udisks2/UDisks2FileSystem.h"
#include "udisks2/UDisks2Names.h"
#include "udisks2/UDisks2Text.h"

#include <QDBusObjectPath>


tUDisks2Block::tUDisks2Block(const QString& node, QObject* parent)
    : QObject(parent)
    , m_Path(UDisks2Names::BlockDevicesPrefix + node)
    , m_Name(node)
{
    Update();
}

tUDisks2Block::~tUDisks2Block()
{
    delete m_FileSystem;
}

QVariant tUDisks2Block::Property(const QString& name) const
{
    return tUDisks2::Objects().Property(m_Path, UDisks2Names::BlockInterface, name);
}

void tUDisks2Block::Update()
{
    m_Device = TextUpToNul(Property(UDisks2Names::DeviceProperty).toByteArray());
    m_Id = Property(UDisks2Names::IdProperty).toString();
    m_Drive = NodeName(Property(UDisks2Names::DriveProperty).value<QDBusObjectPath>().path());
    m_Size = Property(UDisks2Names::SizeProperty).toULongLong();
    m_ReadOnly = Property(UDisks2Names::ReadOnlyProperty).toBool();
    m_Usage = Property(UDisks2Names::IdUsageProperty).toString();
    m_Type = Property(UDisks2Names::IdTypeProperty).toString();
    m_System = Property(UDisks2Names::HintSystemProperty).toBool();
    qCDebug(lcUDisks2) << "tUDisks2Block::Update(): name:" << m_Name << "dev:" << m_Device << "id:" << m_Id
                       << "drive:" << m_Drive << "size:" << m_Size << "readonly:" << m_ReadOnly
                       << "usage:" << m_Usage << "type:" << m_Type << "system:" << m_System;
}

tUDisks2FileSystem* tUDisks2Block::FileSystem() const
{
    return m_FileSystem;
}

bool tUDisks2Block::HintSystem() const
{
    return m_System;
}

QString tUDisks2Block::Device() const
{
    return m_Device;
}

QString tUDisks2Block::DriveName() const
{
    return m_Drive;
}

bool tUDisks2Block::IsMounted() const
{
    return m_FileSystem && !m_FileSystem->MountPoints().isEmpty();
}

void tUDisks2Block::OnPropertiesChanged(const QString& interface, const QVariantMap& changedProp,
                                        const QStringList& invalidatedProp)
{
    Q_UNUSED(invalidatedProp)
    qCDebug(lcUDisks2) << "tUDisks2Block::OnPropertiesChanged(): block:" << m_Name;
    for (auto it = changedProp.cbegin(); it != changedProp.cend(); ++it) {
        // Whoever unmounted the volume, it is gone for the daemon.
        if (it.key() == UDisks2Names::MountPointsProperty) {
            if (it.value().toStringList().isEmpty() && IsMounted())
                emit Ejected(m_Name);
        } else if (it.key() == UDisks2Names::SizeProperty) {
            // The medium was pulled from a reader while mounted.
            if (it.value().toULongLong() == 0 && IsMounted())
                emit Ejected(m_Name);
        }
    }
    if (interface == UDisks2Names::BlockInterface) {
        Update();
        emit Changed(m_Name);
    } else if (interface == UDisks2Names::FilesystemInterface) {
        if (m_FileSystem)
            m_FileSystem->Update();
        emit FileSystemChanged(m_Name);
    }
}

void tUDisks2Block::AddFilesystem()
{
    qCDebug(lcUDisks2) << "tUDisks2Block::AddFilesystem(): filesystem:" << m_Name;
    if (m_FileSystem && m_FileSystem->IsValid()) {
        emit FileSystemAdded(m_Name);
        return;
    }
    if (tUDisks2Drive* drive = tUDisks2::Drive(this)) {
        const QString bus = drive->Property(UDisks2Names::ConnectionBusProperty).toString();
        tFileSystemInfo* info = nullptr;
        if (bus == UDisks2Names::SdioBus)
            info = new tMmcFileSystemInfo(this);
        else if (bus == UDisks2Names::UsbBus)
            info = new tUsbFileSystemInfo(this);
        if (info)
            SetFileSystem(new tUDisks2FileSystem(m_Name, info));
    }
    if (m_FileSystem && m_FileSystem->IsValid())
        emit FileSystemAdded(m_Name);
}

void tUDisks2Block::Resynchronise()
{
    const QString id = m_Id;
    Update();
    if (!m_FileSystem || !m_FileSystem->IsValid())
        return;
    const tUDisks2Objects& objects = tUDisks2::Objects();
    const bool unmounted =
        IsMounted() &&
        objects.Property(m_Path, UDisks2Names::FilesystemInterface, UDisks2Names::MountPointsProperty).toStringList().isEmpty();
    // An unreadable Id says nothing about the medium; a different one, that it was swapped.
    const bool swapped = !m_Id.isEmpty() && m_Id != id;
    if (swapped || unmounted || !objects.Has(m_Path, UDisks2Names::FilesystemInterface))
        RemoveFilesystem();
}

void tUDisks2Block::SetFileSystem(tUDisks2FileSystem* fileSystem)
{
    // A replaced filesystem goes the one way every filesystem goes, announced
    // first, so that nobody keeps a pointer to it.
    if (fileSystem != m_FileSystem)
        RemoveFilesystem();
    m_FileSystem = fileSystem;
}

void tUDisks2Block::RemoveFilesystem()
{
    if (!m_FileSystem)
        return;
    qCDebug(lcUDisks2) << "tUDisks2Block::RemoveFilesystem(): filesystem:" << m_Name;
    // Receivers may still read the mount points while the signal is delivered.
    emit FileSystemRemoved(m_Name);
    delete m_FileSystem;
    m_FileSystem = nullptr;
}
