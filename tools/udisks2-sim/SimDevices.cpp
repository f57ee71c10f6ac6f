#include "SimDevices.h"

#include "SimNames.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTimer>

#include <chrono>

namespace
{
const QString Version = QStringLiteral("2.9.4");
// How long after a pulled medium's objects are gone the service's clean-up
// removes the mount directories it left: within 1.4 s for a card and 1.0 s
// for a stick in an emulated Debian 12 machine, less on real hardware, but
// always after the removals.
constexpr int cCleanUpDelayMs = 250;

QString BlockPath(const QString& node)
{
    return SimNames::BlockDevicesPath + QLatin1Char('/') + node;
}

QString Node(const QString& path)
{
    return path.section(QLatin1Char('/'), -1);
}

// Object path elements allow only [A-Za-z0-9_].
QString PathElement(const QStringList& parts)
{
    QStringList present = parts;
    present.removeAll(QString());
    QString element = present.join(QLatin1Char('_'));
    static const QRegularExpression invalid(QStringLiteral("[^A-Za-z0-9_]"));
    return element.replace(invalid, QStringLiteral("_"));
}

QString IdStem(const QString& vendor, const QString& model, const QString& serial)
{
    QStringList present{vendor, model, serial};
    present.removeAll(QString());
    QString stem = present.join(QLatin1Char('_'));
    return stem.replace(QLatin1Char(' '), QLatin1Char('_'));
}

quint64 Microseconds()
{
    return quint64(QDateTime::currentMSecsSinceEpoch()) * 1000;
}

// The clock of the timeline: the same in every process, so that a client can
// set its own moments beside the simulator's.
qint64 MonotonicNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// What blkid reports of a filesystem, as udisksd puts it on its block.
void AddFilesystemIdentity(QVariantMap* block, const tUnitPartition& filesystem)
{
    if (filesystem.fsType.isEmpty())
        return;
    QByteArrayList symlinks = block->value(QStringLiteral("Symlinks")).value<QByteArrayList>();
    if (!filesystem.label.isEmpty())
        symlinks << NulTerminated(QStringLiteral("/dev/disk/by-label/") + filesystem.label);
    if (!filesystem.uuid.isEmpty()) {
        symlinks << NulTerminated(QStringLiteral("/dev/disk/by-uuid/") + filesystem.uuid);
        block->insert(QStringLiteral("Id"), QStringLiteral("by-uuid-") + filesystem.uuid);
    }
    block->insert(QStringLiteral("Symlinks"), QVariant::fromValue(symlinks));
    block->insert(QStringLiteral("IdUsage"), QStringLiteral("filesystem"));
    block->insert(QStringLiteral("IdType"), filesystem.fsType);
    block->insert(QStringLiteral("IdVersion"), filesystem.fsType == QLatin1String("vfat")   ? QStringLiteral("FAT32")
                                               : filesystem.fsType == QLatin1String("ext4") ? QStringLiteral("1.0")
                                                                                            : QString());
    block->insert(QStringLiteral("IdLabel"), filesystem.label);
    block->insert(QStringLiteral("IdUUID"), filesystem.uuid);
}

// The Block properties that change with the medium in a reader.
QVariantMap Identity(const QVariantMap& block)
{
    QVariantMap identity;
    for (const char* key : {"Id", "IdUsage", "IdType", "IdVersion", "IdLabel", "IdUUID", "Symlinks"})
        identity.insert(QLatin1String(key), block.value(QLatin1String(key)));
    return identity;
}

QVariantMap FilesystemProperties(quint64 size)
{
    return {{QStringLiteral("MountPoints"), QVariant::fromValue(QByteArrayList())}, {QStringLiteral("Size"), size}};
}

QString FormatOptions(const QVariantMap& options)
{
    QStringList fields;
    for (auto it = options.constBegin(); it != options.constEnd(); ++it)
        fields << it.key() + QLatin1Char('=') + it.value().toString();
    return fields.join(QLatin1Char(' '));
}
} // namespace

tSimDevices::tSimDevices(const tUnitDescription& unit, const QString& mountBase, QObject* parent)
    : QObject(parent)
    , m_Unit(unit)
    , m_MountBase(mountBase)
{
}

bool tSimDevices::Start(QString* error)
{
    AddInterfaces(SimNames::ManagerPath,
                  {{SimNames::ManagerInterface,
                    {{QStringLiteral("Version"), Version},
                     {QStringLiteral("SupportedFilesystems"),
                      QStringList{QStringLiteral("ext2"), QStringLiteral("ext3"), QStringLiteral("ext4"), QStringLiteral("vfat"),
                                  QStringLiteral("ntfs"), QStringLiteral("exfat"), QStringLiteral("xfs"), QStringLiteral("reiserfs"),
                                  QStringLiteral("nilfs2"), QStringLiteral("btrfs"), QStringLiteral("minix"), QStringLiteral("udf"),
                                  QStringLiteral("f2fs"), QStringLiteral("swap")}},
                     {QStringLiteral("SupportedEncryptionTypes"), QStringList{QStringLiteral("luks1"), QStringLiteral("luks2")}},
                     {QStringLiteral("DefaultEncryptionType"), QStringLiteral("luks1")}}}});
    for (const tUnitSlot& slot : m_Unit.Slots()) {
        if (!slot.hasReader)
            continue;
        const QString drive = DrivePath(slot, nullptr);
        m_Drives.insert(slot.name, drive);
        AddInterfaces(drive, {{SimNames::DriveInterface, DriveProperties(slot, nullptr)}});
        AddInterfaces(BlockPath(slot.device), {{SimNames::BlockInterface, DiskProperties(slot, nullptr)}});
    }
    for (const tUnitPresence& presence : m_Unit.Present())
        if (!Insert(presence.slot, presence.medium, error))
            return false;
    m_Starting = false;
    return true;
}

const tInterfaceMap* tSimDevices::Object(const QString& path) const
{
    const auto it = m_Objects.constFind(path);
    return it == m_Objects.constEnd() ? nullptr : &*it;
}

tManagedObjects tSimDevices::ManagedObjects() const
{
    tManagedObjects objects;
    for (auto it = m_Objects.constBegin(); it != m_Objects.constEnd(); ++it)
        objects.insert(QDBusObjectPath(it.key()), it.value());
    return objects;
}

QStringList tSimDevices::Inserted() const
{
    QStringList lines;
    for (auto it = m_Inserted.constBegin(); it != m_Inserted.constEnd(); ++it)
        lines << it.key() + QLatin1Char(' ') + it.value();
    return lines;
}

bool tSimDevices::Insert(const QString& slotName, const QString& mediumName, QString* error)
{
    const tUnitSlot* slot = m_Unit.Slot(slotName);
    const tUnitMedium* medium = m_Unit.Medium(mediumName);
    if (!slot || !medium) {
        *error = QStringLiteral("no slot \"%1\" or no medium \"%2\"").arg(slotName, mediumName);
        return false;
    }
    if (m_Inserted.contains(slotName)) {
        *error = QStringLiteral("slot \"%1\" already holds \"%2\"").arg(slotName, m_Inserted.value(slotName));
        return false;
    }
    // One medium is one piece of hardware: its drive object exists once.
    const QString elsewhere = m_Inserted.key(mediumName);
    if (!elsewhere.isEmpty()) {
        *error = QStringLiteral("medium \"%1\" is in slot \"%2\"").arg(mediumName, elsewhere);
        return false;
    }
    m_Inserted.insert(slotName, mediumName);
    Record(QStringLiteral("Insert %1 %2").arg(slotName, mediumName));
    const QString disk = BlockPath(slot->device);
    if (slot->hasReader) {
        // The reader's drive and block exist already: the card shows as changed
        // media first, and only then do its partitions appear.
        const QVariantMap drive = DriveProperties(*slot, medium);
        SetProperties(m_Drives.value(slotName), SimNames::DriveInterface,
                      {{QStringLiteral("MediaAvailable"), true},
                       {QStringLiteral("Media"), drive.value(QStringLiteral("Media"))},
                       {QStringLiteral("Size"), drive.value(QStringLiteral("Size"))},
                       {QStringLiteral("TimeMediaDetected"), drive.value(QStringLiteral("TimeMediaDetected"))}});
        QVariantMap changed{{QStringLiteral("Size"), medium->size}, {QStringLiteral("ReadOnly"), medium->readOnly}};
        if (!medium->filesystem.fsType.isEmpty())
            changed.insert(Identity(DiskProperties(*slot, medium)));
        SetProperties(disk, SimNames::BlockInterface, changed);
        if (!medium->partitions.isEmpty())
            AddInterfaces(disk, {{SimNames::PartitionTableInterface, PartitionTableProperties(*slot, *medium)}});
        if (!medium->filesystem.fsType.isEmpty())
            AddInterfaces(disk, {{SimNames::FilesystemInterface, FilesystemProperties(medium->size)}});
    } else {
        const QString drive = DrivePath(*slot, medium);
        m_Drives.insert(slotName, drive);
        AddInterfaces(drive, {{SimNames::DriveInterface, DriveProperties(*slot, medium)}});
        tInterfaceMap interfaces{{SimNames::BlockInterface, DiskProperties(*slot, medium)}};
        if (!medium->partitions.isEmpty())
            interfaces.insert(SimNames::PartitionTableInterface, PartitionTableProperties(*slot, *medium));
        if (!medium->filesystem.fsType.isEmpty())
            interfaces.insert(SimNames::FilesystemInterface, FilesystemProperties(medium->size));
        AddInterfaces(disk, interfaces);
    }
    for (int i = 0; i < medium->partitions.size(); ++i)
        AddInterfaces(BlockPath(slot->PartitionDevice(i + 1)), PartitionInterfaces(*slot, *medium, i));
    return true;
}

bool tSimDevices::Remove(const QString& slotName, QString* error)
{
    const tUnitSlot* slot = m_Unit.Slot(slotName);
    if (!slot || !m_Inserted.contains(slotName)) {
        *error = QStringLiteral("slot \"%1\" is unknown or empty").arg(slotName);
        return false;
    }
    const tUnitMedium* medium = m_Unit.Medium(m_Inserted.take(slotName));
    Record(QStringLiteral("Remove %1").arg(slotName));
    const QString disk = BlockPath(slot->device);
    QStringList partitions;
    for (int i = 0; i < medium->partitions.size(); ++i)
        partitions << BlockPath(slot->PartitionDevice(i + 1));
    // The kernel keeps a pulled medium's mounts; the service's clean-up
    // undoes them only after its objects went.
    QStringList mounts;
    for (const QString& partition : partitions)
        mounts << MountPoints(partition);
    mounts << MountPoints(disk);
    if (slot->hasReader) {
        // A pulled card first shows as zero-sized blocks and absent media; the
        // partitions go afterwards, while a mount may still hold them.
        for (const QString& partition : partitions)
            SetProperties(partition, SimNames::BlockInterface, {{QStringLiteral("Size"), quint64(0)}});
        SetProperties(disk, SimNames::BlockInterface, {{QStringLiteral("Size"), quint64(0)}});
        SetProperties(m_Drives.value(slotName), SimNames::DriveInterface,
                      {{QStringLiteral("MediaAvailable"), false},
                       {QStringLiteral("Media"), QString()},
                       {QStringLiteral("Size"), quint64(0)}});
        for (const QString& partition : partitions)
            RemoveObject(partition);
        if (!partitions.isEmpty())
            RemoveInterfaces(disk, {SimNames::PartitionTableInterface});
        if (!medium->filesystem.fsType.isEmpty()) {
            RemoveInterfaces(disk, {SimNames::FilesystemInterface});
            SetProperties(disk, SimNames::BlockInterface, Identity(DiskProperties(*slot, nullptr)));
        }
    } else {
        for (const QString& partition : partitions)
            RemoveObject(partition);
        RemoveObject(disk);
        RemoveObject(m_Drives.take(slotName));
    }
    if (!mounts.isEmpty())
        QTimer::singleShot(cCleanUpDelayMs, this, [this, mounts] { CleanUp(mounts); });
    return true;
}

// The service's clean-up of mounts whose device is gone, as a "cleanup" job
// announced around the unmount: recorded on udisksd 2.9.4 after pulling a
// mounted card from an SD slot (mmcblk0) and a mounted USB stick (sda):
//   InterfacesRemoved  block_devices/mmcblk0p1  [Filesystem, Partition, Block]
//   InterfacesRemoved  block_devices/mmcblk0    [PartitionTable, Block]
//   InterfacesRemoved  drives/QEMU__0xdeadbeef  [Drive]
//   InterfacesAdded    jobs/2  {Job: Operation "cleanup", Progress 0.0, ProgressValid false,
//                      Bytes 0, Rate 0, StartTime <us>, ExpectedEndTime 0, Objects [],
//                      StartedByUID 0, Cancelable true}
//     ("Cleaning up mount point /media/LABCARD (device 179:1 no longer exists)")
//   Job.Completed      jobs/2  (true, "")
//   InterfacesRemoved  jobs/2  [Job]
// No PropertiesChanged at all: MountPoints is never cleared, the objects
// being gone already. The stick's story is the same with sda1, sda and its drive.
void tSimDevices::CleanUp(const QStringList& directories)
{
    const QString job = SimNames::JobsPath + QLatin1Char('/') + QString::number(m_NextJob++);
    Q_EMIT InterfacesAdded(job, {{SimNames::JobInterface,
                                  {{QStringLiteral("Operation"), QStringLiteral("cleanup")},
                                   {QStringLiteral("Progress"), 0.0},
                                   {QStringLiteral("ProgressValid"), false},
                                   {QStringLiteral("Bytes"), quint64(0)},
                                   {QStringLiteral("Rate"), quint64(0)},
                                   {QStringLiteral("StartTime"), Microseconds()},
                                   {QStringLiteral("ExpectedEndTime"), quint64(0)},
                                   {QStringLiteral("Objects"), QVariant::fromValue(QList<QDBusObjectPath>())},
                                   {QStringLiteral("StartedByUID"), 0u},
                                   {QStringLiteral("Cancelable"), true}}}});
    for (const QString& directory : directories) {
        QDir().rmdir(directory);
        Record(QStringLiteral("Cleanup %1").arg(directory));
    }
    Q_EMIT JobCompleted(job, true, QString());
    Q_EMIT InterfacesRemoved(job, {SimNames::JobInterface});
}

bool tSimDevices::UnmountBehind(const QString& node, QString* error)
{
    const QString path = BlockPath(node);
    if (MountPoints(path).isEmpty()) {
        *error = QStringLiteral("%1 is not mounted").arg(node);
        return false;
    }
    ForgetMounts(path);
    SetProperties(path, SimNames::FilesystemInterface, {{QStringLiteral("MountPoints"), QVariant::fromValue(QByteArrayList())}});
    Record(QStringLiteral("Unmount-behind %1").arg(node));
    return true;
}

void tSimDevices::FailNextMount(const QString& message)
{
    m_FailNextMount = true;
    m_FailMessage = message.isEmpty() ? QStringLiteral("Error mounting: simulated failure") : message;
}

bool tSimDevices::Mount(const QString& path, const QVariantMap& options, QString* mountPath, tError* error)
{
    // The timeline shows when the call came, not when its directory was made.
    const qint64 arrived = MonotonicNs();
    const QString node = Node(path);
    const QVariantMap block = m_Objects.value(path).value(SimNames::BlockInterface);
    const QString device = QString::fromUtf8(block.value(QStringLiteral("Device")).toByteArray().constData());
    const QStringList mounted = MountPoints(path);
    if (m_FailNextMount) {
        m_FailNextMount = false;
        *error = {SimNames::ErrorFailed, m_FailMessage};
        Record(QStringLiteral("Mount-failed %1 %2").arg(node, FormatOptions(options)).trimmed());
        return false;
    }
    if (!mounted.isEmpty()) {
        *error = {SimNames::ErrorAlreadyMounted,
                  QStringLiteral("Device %1 is already mounted at `%2'.\n").arg(device, mounted.first())};
        Record(QStringLiteral("Mount-refused %1 %2").arg(node, FormatOptions(options)).trimmed());
        return false;
    }
    const QString directory = MountDirectory(block);
    if (!QDir().mkpath(directory)) {
        *error = {SimNames::ErrorFailed, QStringLiteral("Error creating mount point `%1'").arg(directory)};
        return false;
    }
    Record(QStringLiteral("Mount %1 %2 %3").arg(node, directory, FormatOptions(options)).trimmed(), arrived);
    SetProperties(path, SimNames::FilesystemInterface,
                  {{QStringLiteral("MountPoints"), QVariant::fromValue(QByteArrayList{NulTerminated(directory)})}});
    *mountPath = directory;
    return true;
}

bool tSimDevices::Unmount(const QString& path, const QVariantMap& options, tError* error)
{
    const QString node = Node(path);
    if (MountPoints(path).isEmpty()) {
        const QByteArray device = m_Objects.value(path).value(SimNames::BlockInterface).value(QStringLiteral("Device")).toByteArray();
        *error = {SimNames::ErrorNotMounted, QStringLiteral("Device `%1' is not mounted").arg(QString::fromUtf8(device.constData()))};
        Record(QStringLiteral("Unmount-refused %1").arg(node));
        return false;
    }
    ForgetMounts(path);
    Record(QStringLiteral("Unmount %1 %2").arg(node, FormatOptions(options)).trimmed());
    SetProperties(path, SimNames::FilesystemInterface, {{QStringLiteral("MountPoints"), QVariant::fromValue(QByteArrayList())}});
    return true;
}

tSimDevices::tHeldCall tSimDevices::Hold(const QString& path, const QString& method, const QVariantMap& options)
{
    const QVariantMap block = m_Objects.value(path).value(SimNames::BlockInterface);
    tHeldCall call{path, method, options, m_Incarnations.value(path),
                   QString::fromUtf8(block.value(QStringLiteral("Device")).toByteArray().constData()), MountDirectory(block)};
    Record(QStringLiteral("%1-held %2 %3").arg(method, Node(path), FormatOptions(options)).trimmed());
    return call;
}

bool tSimDevices::Answer(const tHeldCall& call, QString* mountPath, tError* error)
{
    const auto current = m_Incarnations.constFind(call.path);
    if (current != m_Incarnations.constEnd() && *current == call.incarnation)
        return call.method == QLatin1String("Mount") ? Mount(call.path, call.options, mountPath, error)
                                                     : Unmount(call.path, call.options, error);
    // The medium went while the service worked on the call. udisksd reports
    // its handler's failure, here that of mount(2) on a device node that is
    // gone (libmount's words), after removing the directory it had made.
    const QString reason = QStringLiteral("special device %1 does not exist").arg(call.device);
    *error = {SimNames::ErrorFailed, call.method == QLatin1String("Mount")
                                         ? QStringLiteral("Error mounting %1 at %2: %3").arg(call.device, call.directory, reason)
                                         : QStringLiteral("Error unmounting %1: %2").arg(call.device, reason)};
    Record(QStringLiteral("%1-vanished %2").arg(call.method, Node(call.path)));
    return false;
}

QStringList tSimDevices::Timeline() const
{
    QStringList lines;
    for (int i = 0; i < m_Calls.size(); ++i)
        lines << QString::number(double(m_CallTimes.at(i)) / 1e6, 'f', 3) + QLatin1Char(' ') + m_Calls.at(i);
    return lines;
}

void tSimDevices::Record(const QString& line, qint64 at)
{
    m_Calls << line;
    m_CallTimes << (at ? at : MonotonicNs());
}

void tSimDevices::AddInterfaces(const QString& path, const tInterfaceMap& interfaces)
{
    if (interfaces.contains(SimNames::FilesystemInterface))
        m_Incarnations.insert(path, ++m_NextIncarnation);
    tInterfaceMap& object = m_Objects[path];
    for (auto it = interfaces.constBegin(); it != interfaces.constEnd(); ++it)
        object.insert(it.key(), it.value());
    Q_EMIT InterfacesAdded(path, interfaces);
}

void tSimDevices::RemoveObject(const QString& path)
{
    // The service names Block last.
    QStringList interfaces = m_Objects.value(path).keys();
    if (interfaces.removeAll(SimNames::BlockInterface))
        interfaces << SimNames::BlockInterface;
    RemoveInterfaces(path, interfaces);
}

void tSimDevices::RemoveInterfaces(const QString& path, const QStringList& interfaces)
{
    if (interfaces.contains(SimNames::FilesystemInterface))
        m_Incarnations.remove(path);
    tInterfaceMap& object = m_Objects[path];
    for (const QString& interface : interfaces)
        object.remove(interface);
    if (object.isEmpty())
        m_Objects.remove(path);
    Q_EMIT InterfacesRemoved(path, interfaces);
}

void tSimDevices::SetProperties(const QString& path, const QString& interface, const QVariantMap& changed)
{
    QVariantMap& properties = m_Objects[path][interface];
    for (auto it = changed.constBegin(); it != changed.constEnd(); ++it)
        properties.insert(it.key(), it.value());
    Q_EMIT PropertiesChanged(path, interface, changed);
}

QStringList tSimDevices::MountPoints(const QString& path) const
{
    QStringList points;
    const QVariant value = m_Objects.value(path).value(SimNames::FilesystemInterface).value(QStringLiteral("MountPoints"));
    for (const QByteArray& point : value.value<QByteArrayList>())
        points << QString::fromUtf8(point.constData());
    return points;
}

void tSimDevices::ForgetMounts(const QString& path)
{
    for (const QString& point : MountPoints(path))
        QDir().rmdir(point);
}

QString tSimDevices::MountDirectory(const QVariantMap& block) const
{
    QString name = block.value(QStringLiteral("IdLabel")).toString();
    if (name.isEmpty())
        name = block.value(QStringLiteral("IdUUID")).toString();
    if (name.isEmpty())
        name = QStringLiteral("disk");
    name.replace(QLatin1Char('/'), QLatin1Char('_'));
    // A name already taken gets a number appended, as the real service does.
    QString directory = m_MountBase + QLatin1Char('/') + name;
    for (int n = 1; QFileInfo::exists(directory); ++n)
        directory = m_MountBase + QLatin1Char('/') + name + QString::number(n);
    return directory;
}

QString tSimDevices::DrivePath(const tUnitSlot& slot, const tUnitMedium* medium) const
{
    QString element = slot.hasReader ? PathElement({slot.reader.vendor, slot.reader.model, slot.reader.serial})
                                     : PathElement({medium->vendor, medium->model, medium->serial});
    if (element.isEmpty())
        element = slot.device;
    return SimNames::DrivesPath + QLatin1Char('/') + element;
}

QVariantMap tSimDevices::DriveProperties(const tUnitSlot& slot, const tUnitMedium* medium) const
{
    const bool usb = slot.bus == QLatin1String("usb");
    const bool reader = slot.hasReader;
    const QString vendor = reader ? slot.reader.vendor : medium->vendor;
    const QString model = reader ? slot.reader.model : medium->model;
    const QString serial = reader ? slot.reader.serial : medium->serial;
    const QString revision = reader ? slot.reader.revision : medium->revision;
    QString media, compatibility;
    if (reader)
        media = medium ? QStringLiteral("flash_sd") : QString(), compatibility = QStringLiteral("flash_sd");
    else if (usb)
        media = compatibility = QStringLiteral("thumb");
    else if (!slot.system)
        media = compatibility = QStringLiteral("flash_sd");
    const quint64 now = Microseconds();
    QString id = IdStem(vendor, model, serial);
    id.replace(QLatin1Char('_'), QLatin1Char('-'));
    return {
        {QStringLiteral("Vendor"), vendor},
        {QStringLiteral("Model"), model},
        {QStringLiteral("Revision"), revision},
        {QStringLiteral("Serial"), serial},
        {QStringLiteral("WWN"), QString()},
        {QStringLiteral("Id"), id},
        {QStringLiteral("Configuration"), QVariantMap()},
        {QStringLiteral("Media"), media},
        {QStringLiteral("MediaCompatibility"), compatibility.isEmpty() ? QStringList() : QStringList{compatibility}},
        {QStringLiteral("MediaRemovable"), usb},
        {QStringLiteral("MediaAvailable"), medium != nullptr},
        {QStringLiteral("MediaChangeDetected"), true},
        {QStringLiteral("Size"), medium ? medium->size : quint64(0)},
        {QStringLiteral("TimeDetected"), now},
        {QStringLiteral("TimeMediaDetected"), medium ? now : quint64(0)},
        {QStringLiteral("Optical"), false},
        {QStringLiteral("OpticalBlank"), false},
        {QStringLiteral("OpticalNumTracks"), 0u},
        {QStringLiteral("OpticalNumAudioTracks"), 0u},
        {QStringLiteral("OpticalNumDataTracks"), 0u},
        {QStringLiteral("OpticalNumSessions"), 0u},
        {QStringLiteral("RotationRate"), 0},
        {QStringLiteral("ConnectionBus"), slot.bus},
        {QStringLiteral("Seat"), QStringLiteral("seat0")},
        {QStringLiteral("Removable"), !slot.system},
        {QStringLiteral("Ejectable"), usb},
        {QStringLiteral("SortKey"), m_Starting ? QStringLiteral("00coldplug/10removable/") + slot.device
                                               : QStringLiteral("01hotplug/") + QString::number(now / 1000000)},
        {QStringLiteral("CanPowerOff"), usb},
        {QStringLiteral("SiblingId"), QString()},
    };
}

namespace
{
QVariantMap BlockProperties(const tUnitSlot& slot, const QString& device, quint64 deviceNumber, const QString& drive,
                            quint64 size, bool readOnly, const QByteArrayList& symlinks)
{
    return {
        {QStringLiteral("Device"), NulTerminated(QStringLiteral("/dev/") + device)},
        {QStringLiteral("PreferredDevice"), NulTerminated(QStringLiteral("/dev/") + device)},
        {QStringLiteral("Symlinks"), QVariant::fromValue(symlinks)},
        {QStringLiteral("DeviceNumber"), deviceNumber},
        {QStringLiteral("Size"), size},
        {QStringLiteral("ReadOnly"), readOnly},
        {QStringLiteral("Drive"), QVariant::fromValue(QDBusObjectPath(drive))},
        {QStringLiteral("MDRaid"), QVariant::fromValue(QDBusObjectPath(QStringLiteral("/")))},
        {QStringLiteral("MDRaidMember"), QVariant::fromValue(QDBusObjectPath(QStringLiteral("/")))},
        {QStringLiteral("IdUsage"), QString()},
        {QStringLiteral("IdType"), QString()},
        {QStringLiteral("IdVersion"), QString()},
        {QStringLiteral("IdLabel"), QString()},
        {QStringLiteral("IdUUID"), QString()},
        {QStringLiteral("Configuration"), QVariant::fromValue(tConfigurationItems())},
        {QStringLiteral("CryptoBackingDevice"), QVariant::fromValue(QDBusObjectPath(QStringLiteral("/")))},
        {QStringLiteral("HintPartitionable"), true},
        {QStringLiteral("HintSystem"), slot.system},
        {QStringLiteral("HintIgnore"), false},
        {QStringLiteral("HintAuto"), !slot.system},
        {QStringLiteral("HintName"), QString()},
        {QStringLiteral("HintIconName"), QString()},
        {QStringLiteral("HintSymbolicIconName"), QString()},
        {QStringLiteral("UserspaceMountOptions"), QStringList()},
    };
}

QString ByIdName(const tUnitSlot& slot, const tUnitMedium* medium)
{
    if (slot.hasReader)
        return QStringLiteral("usb-") + IdStem(slot.reader.vendor, slot.reader.model, slot.reader.serial) + QStringLiteral("-0:0");
    if (slot.bus == QLatin1String("usb"))
        return QStringLiteral("usb-") + IdStem(medium->vendor, medium->model, medium->serial) + QStringLiteral("-0:0");
    return QStringLiteral("mmc-") + IdStem(QString(), medium->model, medium->serial);
}

// A DOS disk signature, stable for one medium in one slot.
QString DiskSignature(const tUnitSlot& slot, const tUnitMedium& medium)
{
    return QString::number(qHash(slot.device + medium.name) & 0xffffffffu, 16).rightJustified(8, QLatin1Char('0'));
}
} // namespace

QVariantMap tSimDevices::DiskProperties(const tUnitSlot& slot, const tUnitMedium* medium) const
{
    const QString byId = ByIdName(slot, medium);
    QVariantMap block = BlockProperties(slot, slot.device, slot.DeviceNumber(), m_Drives.value(slot.name),
                                        medium ? medium->size : 0, medium && medium->readOnly,
                                        {NulTerminated(QStringLiteral("/dev/disk/by-id/") + byId)});
    block.insert(QStringLiteral("Id"), QStringLiteral("by-id-") + byId);
    if (medium)
        AddFilesystemIdentity(&block, medium->filesystem);
    return block;
}

QVariantMap tSimDevices::PartitionTableProperties(const tUnitSlot& slot, const tUnitMedium& medium) const
{
    QList<QDBusObjectPath> partitions;
    for (int i = 0; i < medium.partitions.size(); ++i)
        partitions << QDBusObjectPath(BlockPath(slot.PartitionDevice(i + 1)));
    return {{QStringLiteral("Partitions"), QVariant::fromValue(partitions)}, {QStringLiteral("Type"), QStringLiteral("dos")}};
}

tInterfaceMap tSimDevices::PartitionInterfaces(const tUnitSlot& slot, const tUnitMedium& medium, int index) const
{
    const tUnitPartition& partition = medium.partitions.at(index);
    const int number = index + 1;
    const QString device = slot.PartitionDevice(number);
    const QString byId = QStringLiteral("%1-part%2").arg(ByIdName(slot, &medium)).arg(number);
    QVariantMap block = BlockProperties(slot, device, tUnitDescription::MakeDeviceNumber(slot.major, slot.minor + number),
                                        m_Drives.value(slot.name), partition.size, medium.readOnly,
                                        {NulTerminated(QStringLiteral("/dev/disk/by-id/") + byId)});
    block.insert(QStringLiteral("Id"), QStringLiteral("by-id-") + byId);
    AddFilesystemIdentity(&block, partition);
    tInterfaceMap interfaces{
        {SimNames::BlockInterface, block},
        {SimNames::PartitionInterface,
         {{QStringLiteral("Number"), uint(number)},
          {QStringLiteral("Type"), partition.partitionType},
          {QStringLiteral("Flags"), quint64(0)},
          {QStringLiteral("Offset"), partition.offset},
          {QStringLiteral("Size"), partition.size},
          {QStringLiteral("Name"), QString()},
          {QStringLiteral("UUID"), QStringLiteral("%1-%2").arg(DiskSignature(slot, medium)).arg(number, 2, 10, QLatin1Char('0'))},
          {QStringLiteral("Table"), QVariant::fromValue(QDBusObjectPath(BlockPath(slot.device)))},
          {QStringLiteral("IsContainer"), false},
          {QStringLiteral("IsContained"), false}}},
    };
    if (!partition.fsType.isEmpty())
        interfaces.insert(SimNames::FilesystemInterface, FilesystemProperties(partition.size));
    return interfaces;
}
