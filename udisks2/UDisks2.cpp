#include "udisks2/UDisks2.h"

#include "daemon/Logging.h"
#include "udisks2/UDisks2Block.h"
#include "udisks2/UDisks2Bus.h"
#include "udisks2/UDisks2Drive.h"
#include "udisks2/UDisks2Names.h"

#include <QDBusConnection>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusServiceWatcher>
#include <QDBusVariant>

tUDisks2Objects tUDisks2::m_Objects;
QMap<QString, tUDisks2Block*> tUDisks2::m_Blocks;
QMap<QString, tUDisks2Drive*> tUDisks2::m_Drives;

tUDisks2::tUDisks2(QObject* parent)
    : QObject(parent)
{
    tUDisks2Objects::RegisterTypes();
    // One connection for every signal and call: on it the service's signals
    // and answers keep the order it sent them in (a pulled card's Size 0
    // before its partition's removal, a mount's MountPoints before its answer).
    QDBusConnection bus = QDBusConnection::systemBus();
    bus.connect(UDisks2Names::Service, UDisks2Names::RootPath, UDisks2Names::ObjectManagerInterface,
                UDisks2Names::InterfacesAddedSignal, this,
                SLOT(OnInterfaceAdded(QDBusObjectPath, tUDisks2Interfaces)));
    bus.connect(UDisks2Names::Service, UDisks2Names::RootPath, UDisks2Names::ObjectManagerInterface,
                UDisks2Names::InterfacesRemovedSignal, this, SLOT(OnInterfaceRemoved(QDBusObjectPath, QStringList)));
    // Every object's changes, whatever its path: the cache needs them all.
    bus.connect(UDisks2Names::Service, QString(), UDisks2Names::PropertiesInterface,
                UDisks2Names::PropertiesChangedSignal, this,
                SLOT(OnPropertiesChanged(QString, QVariantMap, QStringList)));
    // The service may restart, or start after larkd: whatever changed while
    // it was away is only learnt by looking again when it returns.
    auto* watcher = new QDBusServiceWatcher(UDisks2Names::Service, bus, QDBusServiceWatcher::WatchForOwnerChange, this);
    connect(watcher, &QDBusServiceWatcher::serviceOwnerChanged, this, &tUDisks2::OnServiceOwnerChanged);
}

tUDisks2::~tUDisks2()
{
    // The proxies are this object's children: clear the maps rather than
    // leave them pointing at deleted objects.
    qDeleteAll(m_Blocks);
    m_Blocks.clear();
    qDeleteAll(m_Drives);
    m_Drives.clear();
    m_Objects.Reset({});
}

void tUDisks2::Enumerate()
{
    const QDBusPendingCall call =
        CallUDisks2(UDisks2Names::RootPath, UDisks2Names::ObjectManagerInterface, UDisks2Names::GetManagedObjectsMethod);
    auto* watcher = new QDBusPendingCallWatcher(call, this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, &tUDisks2::OnManagedObjects);
}

void tUDisks2::OnManagedObjects(QDBusPendingCallWatcher* call)
{
    call->deleteLater();
    const QDBusPendingReply<tUDisks2ManagedObjects> reply = *call;
    if (reply.isError()) {
        // A service that does not answer must not make every volume look gone.
        qCWarning(lcUDisks2, "tUDisks2::Enumerate(): the service does not answer: %s",
                  qUtf8Printable(reply.error().message()));
    } else {
        Synchronise(reply.value());
    }
    emit EnumerationFinished();
}

void tUDisks2::Synchronise(const tUDisks2ManagedObjects& objects)
{
    m_Objects.Reset(objects);
    // Filesystems go before their drives, as on a pull, and removals before
    // additions, so that a medium swapped meanwhile is first reported gone.
    const QStringList blocks = BlockDevices();
    for (const QString& node : m_Blocks.keys()) {
        if (!blocks.contains(node)) {
            RemoveBlock(node);
            emit BlockDeviceRemoved(node);
        } else if (tUDisks2Block* block = m_Blocks.value(node, nullptr)) {
            block->Resynchronise();
        }
    }
    const QStringList drives = Drives();
    for (const QString& node : m_Drives.keys()) {
        if (!drives.contains(node)) {
            RemoveDrive(node);
            emit DriveRemoved(node);
        }
    }
    for (const QString& name : drives)
        AddDrive(name);
    for (const QString& name : blocks)
        AddBlock(name);
}

const tUDisks2Objects& tUDisks2::Objects()
{
    return m_Objects;
}

QStringList tUDisks2::BlockDevices()
{
    const QStringList names = m_Objects.Children(UDisks2Names::BlockDevicesPath);
    qCDebug(lcUDisks2) << "tUDisks2::BlockDevices(): block devices:" << names;
    return names;
}

QStringList tUDisks2::Drives()
{
    const QStringList names = m_Objects.Children(UDisks2Names::DrivesPath);
    qCDebug(lcUDisks2) << "tUDisks2::Drives(): drives:" << names;
    return names;
}

tUDisks2Block* tUDisks2::Block(const QString& node)
{
    return m_Blocks.value(node, nullptr);
}

tUDisks2Drive* tUDisks2::Drive(tUDisks2Block* block)
{
    const QString path =
        block->Property(UDisks2Names::DriveProperty).value<QDBusObjectPath>().path();
    if (path.isEmpty()) {
        qCWarning(lcUDisks2) << "tUDisks2::Drive(tUDisks2Block*): block is invalid";
        return nullptr;
    }
    // A block without a drive has the path "/", hence no name.
    return m_Drives.value(NodeName(path), nullptr);
}

void tUDisks2::OnInterfaceAdded(const QDBusObjectPath& path, const tUDisks2Interfaces& interfaces)
{
    qCDebug(lcUDisks2) << "tUDisks2::OnInterfaceAdded(): path:" << path.path();
    qCDebug(lcUDisks2) << "tUDisks2::OnInterfaceAdded(): interfaces:" << interfaces.keys();
    m_Objects.Add(path.path(), interfaces);
    const QString node = NodeName(path.path());
    if (path.path().startsWith(UDisks2Names::BlockDevicesPrefix)) {
        if (interfaces.contains(UDisks2Names::FilesystemInterface))
            AddBlock(node);
    } else if (path.path().startsWith(UDisks2Names::DrivesPrefix)) {
        if (interfaces.contains(UDisks2Names::DriveInterface))
            AddDrive(node);
    }
}

void tUDisks2::OnInterfaceRemoved(const QDBusObjectPath& path, const QStringList& interfaces)
{
    qCDebug(lcUDisks2) << "tUDisks2::OnInterfaceRemoved(): path:" << path.path();
    qCDebug(lcUDisks2) << "tUDisks2::OnInterfaceRemoved(): interfaces:" << interfaces;
    m_Objects.Remove(path.path(), interfaces);
    const QString node = NodeName(path.path());
    if (path.path().startsWith(UDisks2Names::BlockDevicesPrefix)) {
        if (tUDisks2Block* block = m_Blocks.value(node, nullptr))
            block->RemoveFilesystem();
    } else if (path.path().startsWith(UDisks2Names::DrivesPrefix)) {
        RemoveDrive(node);
        emit DriveRemoved(node);
    }
    if (interfaces.contains(UDisks2Names::FilesystemInterface)) {
        RemoveBlock(node);
        emit BlockDeviceRemoved(node);
    }
}

void tUDisks2::OnPropertiesChanged(const QString& interface, const QVariantMap& changed,
                                   const QStringList& invalidated)
{
    const QString path = message().path();
    m_Objects.Change(path, interface, changed);
    for (const QString& name : invalidated)
        Refetch(path, interface, name);
    // The proxies hear the change once the cache holds it, in plain values.
    QVariantMap plain;
    for (auto it = changed.cbegin(); it != changed.cend(); ++it)
        plain.insert(it.key(), tUDisks2Objects::Plain(it.value()));
    const QString node = NodeName(path);
    if (path.startsWith(UDisks2Names::BlockDevicesPrefix)) {
        if (tUDisks2Block* block = m_Blocks.value(node, nullptr))
            block->OnPropertiesChanged(interface, plain, invalidated);
    } else if (path.startsWith(UDisks2Names::DrivesPrefix)) {
        if (tUDisks2Drive* drive = m_Drives.value(node, nullptr))
            drive->OnPropertiesChanged(interface, plain, invalidated);
    }
}

void tUDisks2::Refetch(const QString& path, const QString& interface, const QString& name)
{
    const QDBusPendingCall call =
        CallUDisks2(path, UDisks2Names::PropertiesInterface, UDisks2Names::GetMethod, {interface, name});
    auto* watcher = new QDBusPendingCallWatcher(call, this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [path, interface, name](QDBusPendingCallWatcher* w) {
        w->deleteLater();
        const QDBusPendingReply<QDBusVariant> reply = *w;
        if (!reply.isError())
            m_Objects.Set(path, interface, name, reply.value().variant());
    });
}

void tUDisks2::OnBlockDeviceEjected(const QString& path)
{
    qCDebug(lcUDisks2) << "tUDisks2::OnBlockDeviceEjected(): path:" << path;
    // The block stays registered: a new filesystem may appear on it later.
    if (tUDisks2Block* block = m_Blocks.value(path, nullptr))
        block->RemoveFilesystem();
}

void tUDisks2::OnServiceOwnerChanged(const QString& service, const QString& oldOwner, const QString& newOwner)
{
    Q_UNUSED(service)
    Q_UNUSED(oldOwner)
    if (newOwner.isEmpty()) {
        // Mounts outlive the service: nothing is undone while it is away.
        qCInfo(lcUDisks2) << "tUDisks2::OnServiceOwnerChanged(): the service left the bus";
        return;
    }
    qCInfo(lcUDisks2) << "tUDisks2::OnServiceOwnerChanged(): the service is on the bus as" << newOwner;
    Enumerate();
}

void tUDisks2::AddBlock(const QString& node)
{
    qCDebug(lcUDisks2) << "tUDisks2::AddBlock(): block:" << node;
    tUDisks2Block* block = m_Blocks.value(node, nullptr);
    if (block) {
        block->Update();
        if (block->HintSystem())
            return;
    } else {
        block = new tUDisks2Block(node, this);
        m_Blocks.insert(node, block);
        // The unit's own partitions never reach the daemon.
        if (block->HintSystem())
            return;
        connect(block, &tUDisks2Block::FileSystemAdded, this, &tUDisks2::FileSystemAdded);
        connect(block, &tUDisks2Block::FileSystemRemoved, this, &tUDisks2::FileSystemRemoved);
        connect(block, &tUDisks2Block::FileSystemChanged, this, &tUDisks2::FileSystemChanged);
        connect(block, &tUDisks2Block::Changed, this, &tUDisks2::BlockDeviceChanged);
        connect(block, &tUDisks2Block::Ejected, this, &tUDisks2::OnBlockDeviceEjected);
    }
    block->AddFilesystem();
}

void tUDisks2::RemoveBlock(const QString& node)
{
    qCDebug(lcUDisks2) << "tUDisks2::RemoveBlock(): block:" << node;
    tUDisks2Block* block = m_Blocks.take(node);
    // Whoever holds the block's filesystem hears of its end before it goes.
    if (block)
        block->RemoveFilesystem();
    delete block;
}

void tUDisks2::AddDrive(const QString& node)
{
    qCDebug(lcUDisks2) << "tUDisks2::AddDrive(): drive:" << node;
    if (tUDisks2Drive* drive = m_Drives.value(node, nullptr)) {
        drive->Update();
        return;
    }
    auto* drive = new tUDisks2Drive(node, this);
    connect(drive, &tUDisks2Drive::Changed, this, &tUDisks2::DriveChanged);
    m_Drives.insert(node, drive);
    emit DriveAdded(node);
}

void tUDisks2::RemoveDrive(const QString& node)
{
    qCDebug(lcUDisks2) << "tUDisks2::RemoveDrive(): drive:" << node;
    delete m_Drives.take(node);
}
