#include "udisks2/UDisks2.h"

#include "daemon/Logging.h"
#include "udisks2/UDisks2Block.h"
#include "udisks2/UDisks2Bus.h"
#include "udisks2/UDisks2Drive.h"
#include "udisks2/UDisks2Names.h"

#include <QDBusConnection>
#include <QDBusServiceWatcher>

QMap<QString, tUDisks2Block*> tUDisks2::m_Blocks;
QMap<QString, tUDisks2Drive*> tUDisks2::m_Drives;

tUDisks2::tUDisks2(QObject* parent)
    : QObject(parent)
{
    // The connection the proxies hear their property changes on: on one
    // connection the service's signals keep the order it sent them in (a
    // pulled card's Size 0 before its partition's removal).
    QDBusConnection bus = QDBusConnection::systemBus();
    bus.connect(UDisks2Names::Service, UDisks2Names::RootPath, UDisks2Names::ObjectManagerInterface,
                UDisks2Names::InterfacesAddedSignal, this,
                SLOT(OnInterfaceAdded(QDBusObjectPath, QMap<QString, QVariant>)));
    bus.connect(UDisks2Names::Service, UDisks2Names::RootPath, UDisks2Names::ObjectManagerInterface,
                UDisks2Names::InterfacesRemovedSignal, this, SLOT(OnInterfaceRemoved(QDBusObjectPath, QStringList)));
    // The service may restart, or start after larkd: whatever changed while
    // it was away is only learnt by looking again when it returns.
    auto* watcher = new QDBusServiceWatcher(UDisks2Names::Service, QDBusConnection::systemBus(),
                                            QDBusServiceWatcher::WatchForOwnerChange, this);
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
}

void tUDisks2::Enumerate()
{
    for (const QString& name : Drives())
        AddDrive(name);
    for (const QString& name : BlockDevices())
        AddBlock(name);
}

QStringList tUDisks2::BlockDevices()
{
    const QStringList names = UDisks2ChildNodes(UDisks2Names::BlockDevicesPath);
    qCDebug(lcUDisks2) << "tUDisks2::BlockDevices(): block devices:" << names;
    return names;
}

QStringList tUDisks2::Drives()
{
    const QStringList names = UDisks2ChildNodes(UDisks2Names::DrivesPath);
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

void tUDisks2::OnInterfaceAdded(const QDBusObjectPath& path, const QMap<QString, QVariant>& interfaces)
{
    qCDebug(lcUDisks2) << "tUDisks2::OnInterfaceAdded(): path:" << path.path();
    // Only the names: the per-interface property maps do not survive the
    // flattening into QVariantMap and are not used.
    qCDebug(lcUDisks2) << "tUDisks2::OnInterfaceAdded(): interfaces:" << interfaces.keys();
    const QString node = NodeName(path.path());
    if (path.path().startsWith(UDisks2Names::BlockDevicesPath)) {
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
    const QString node = NodeName(path.path());
    if (path.path().startsWith(UDisks2Names::BlockDevicesPath)) {
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
    Resynchronise();
}

void tUDisks2::Resynchronise()
{
    // A service that does not answer yet must not make every volume look gone.
    bool answered = false;
    const QStringList top = UDisks2ChildNodes(UDisks2Names::RootPath, &answered);
    if (!answered) {
        qCWarning(lcUDisks2) << "tUDisks2::Resynchronise(): the service does not answer";
        return;
    }
    // Filesystems go before their drives, as on a pull, and removals before
    // additions, so that a medium swapped meanwhile is first reported gone.
    const QStringList blocks = top.contains(NodeName(UDisks2Names::BlockDevicesPath)) ? BlockDevices() : QStringList();
    for (const QString& node : m_Blocks.keys()) {
        if (!blocks.contains(node)) {
            RemoveBlock(node);
            emit BlockDeviceRemoved(node);
        } else if (tUDisks2Block* block = m_Blocks.value(node, nullptr)) {
            block->Resynchronise();
        }
    }
    const QStringList drives = top.contains(NodeName(UDisks2Names::DrivesPath)) ? Drives() : QStringList();
    for (const QString& node : m_Drives.keys()) {
        if (!drives.contains(node)) {
            RemoveDrive(node);
            emit DriveRemoved(node);
        }
    }
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
