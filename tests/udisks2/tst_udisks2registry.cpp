// The UDisks2 registry driven through a unit's life: enumeration, cards and
// sticks coming and going, unmounts behind its back, cards pulled from a
// reader, a rescan. The UDisks2 service is stood in for by the project's
// simulator (same object tree, types and signals) on a private bus.

#include "SimulatedUnit.h"
#include "storage/MmcFileSystemInfo.h"
#include "storage/UsbFileSystemInfo.h"
#include "udisks2/UDisks2.h"
#include "udisks2/UDisks2Block.h"
#include "udisks2/UDisks2FileSystem.h"

#include <QDBusConnection>
#include <QDir>
#include <QtTest>

#include <memory>

namespace {

QString StorageUnit()
{
    return QDir(qEnvironmentVariable("LARKD_STORAGE_UNITS")).filePath(QStringLiteral("storage-unit.json"));
}

// Every signal of the registry, one line each, in emission order.
class tRegistryLog : public QObject
{
public:
    explicit tRegistryLog(tUDisks2* registry)
    {
        const struct
        {
            void (tUDisks2::*signal)(const QString&);
            const char* name;
        } signalNames[] = {
            { &tUDisks2::BlockDeviceAdded, "BlockDeviceAdded" },   { &tUDisks2::BlockDeviceChanged, "BlockDeviceChanged" },
            { &tUDisks2::BlockDeviceRemoved, "BlockDeviceRemoved" }, { &tUDisks2::DriveAdded, "DriveAdded" },
            { &tUDisks2::DriveChanged, "DriveChanged" },           { &tUDisks2::DriveRemoved, "DriveRemoved" },
            { &tUDisks2::FileSystemAdded, "FileSystemAdded" },     { &tUDisks2::FileSystemChanged, "FileSystemChanged" },
            { &tUDisks2::FileSystemRemoved, "FileSystemRemoved" },
        };
        for (const auto& entry : signalNames) {
            const QString name = QLatin1String(entry.name);
            connect(registry, entry.signal, this, [this, name](const QString& node) { lines << name + ' ' + node; });
        }
    }
    // The lines of the given kinds (about node, if given), in order.
    QStringList Only(const QStringList& kinds, const QString& node = QString()) const
    {
        QStringList selected;
        for (const QString& line : lines)
            if (kinds.contains(line.section(' ', 0, 0)) && (node.isEmpty() || line.section(' ', 1) == node))
                selected << line;
        return selected;
    }
    QStringList lines;
};

} // namespace

class tst_UDisks2Registry : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void init();
    void cleanup();

    void enumerationAtStart();
    void insertionAnnouncesOneFileSystem();
    void removalTakesFileSystemBeforeBlock();
    void unmountBehindTheBackEjectsOnce();
    void cardPulledFromReaderEjectsOnce();
    void rescanReannouncesWithoutNewDrives();
    void systemPartitionsNeverReachTheDaemon();
    void mountSendsOnlyTheOptionsKey();
    void mountPointsSurviveAnEmptyReply();
    void objectManagerEventsOutsideTheUsualSequence();

private:
    // Lets every signal the simulator sent so far reach the registry.
    void Settle();
    // Asks for the service's objects and waits until the registry has them.
    bool Enumerated();
    QString MountedPath(const QString& node);

    std::unique_ptr<tSimulatedUnit> m_Unit;
    std::unique_ptr<tUDisks2> m_Registry;
    std::unique_ptr<tRegistryLog> m_Log;
    QStringList m_Filled;
    QStringList m_Emptied;
};

void tst_UDisks2Registry::initTestCase()
{
    m_Unit.reset(new tSimulatedUnit(StorageUnit()));
    QString error;
    QVERIFY2(m_Unit->Start(true, &error), qPrintable(error));
}

void tst_UDisks2Registry::init()
{
    m_Registry.reset(new tUDisks2);
    m_Log.reset(new tRegistryLog(m_Registry.get()));
}

void tst_UDisks2Registry::cleanup()
{
    if (QTest::currentTestFailed())
        qInfo() << "registry signals:" << m_Log->lines << "simulator calls:" << m_Unit->Calls();
    for (const QString& slot : qAsConst(m_Filled))
        m_Unit->Remove(slot);
    m_Filled.clear();
    // Put the boot-time card back for the other cases.
    for (const QString& slot : qAsConst(m_Emptied))
        m_Unit->Insert(slot, QStringLiteral("charts"));
    m_Emptied.clear();
    Settle();
    m_Log.reset();
    m_Registry.reset();
}

void tst_UDisks2Registry::Settle()
{
    // The simulator answers a ping only after the signals it sent before.
    QDBusConnection::systemBus().call(QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.UDisks2"),
                                                                     QStringLiteral("/org/freedesktop/UDisks2"),
                                                                     QStringLiteral("org.freedesktop.DBus.Peer"),
                                                                     QStringLiteral("Ping")));
    for (int i = 0; i < 3; ++i)
        QCoreApplication::processEvents();
}

bool tst_UDisks2Registry::Enumerated()
{
    QSignalSpy finished(m_Registry.get(), &tUDisks2::EnumerationFinished);
    m_Registry->Enumerate();
    return finished.wait(5000);
}

// Mounts and waits for the answer: the mount path, or "no answer".
QString MountAndWait(tFileSystem& fileSystem, const QString& options)
{
    QSignalSpy finished(&fileSystem, &tFileSystem::MountFinished);
    fileSystem.Mount(options);
    return finished.wait(5000) ? finished.first().first().toString() : QStringLiteral("no answer");
}

QString tst_UDisks2Registry::MountedPath(const QString& node)
{
    tUDisks2Block* block = tUDisks2::Block(node);
    if (!block || !block->FileSystem())
        return QString();
    const QString path = MountAndWait(*block->FileSystem(), QString());
    // The service's property change about it is handled before going on.
    Settle();
    return block->FileSystem() && block->FileSystem()->MountPoints() == QStringList{ path } ? path : QString();
}

void tst_UDisks2Registry::enumerationAtStart()
{
    QVERIFY(Enumerated());
    // The card in the left slot and the three empty readers.
    QCOMPARE(tUDisks2::BlockDevices(),
             QStringList({ "mmcblk0", "mmcblk0p1", "sdb", "sdc", "sdd" }));

    // Drives first: the card in the left slot and the three readers.
    QCOMPARE(m_Log->Only({ "DriveAdded" }).size(), 4);
    QCOMPARE(m_Log->Only({ "FileSystemAdded" }), QStringList{ "FileSystemAdded mmcblk0p1" });
    QCOMPARE(m_Log->lines.indexOf(QStringLiteral("FileSystemAdded mmcblk0p1")), 4);

    tUDisks2Block* card = tUDisks2::Block(QStringLiteral("mmcblk0p1"));
    QVERIFY(card && card->FileSystem());
    QVERIFY(card->FileSystem()->IsValid());
    QVERIFY(qobject_cast<tMmcFileSystemInfo*>(card->FileSystem()->Info()));
    // Enumeration registers every block; the whole disk's proxy is not valid.
    QVERIFY(tUDisks2::Block(QStringLiteral("mmcblk0")));
    QVERIFY(tUDisks2::Block(QStringLiteral("mmcblk0"))->FileSystem());
    QVERIFY(!tUDisks2::Block(QStringLiteral("mmcblk0"))->FileSystem()->IsValid());
    QVERIFY(!tUDisks2::Block(QStringLiteral("no-such-node")));
}

void tst_UDisks2Registry::insertionAnnouncesOneFileSystem()
{
    QVERIFY(m_Unit->Insert(QStringLiteral("right"), QStringLiteral("photos")));
    m_Filled << QStringLiteral("right");
    QTRY_VERIFY(m_Log->lines.contains(QStringLiteral("FileSystemAdded mmcblk1p1")));
    Settle();
    QCOMPARE(m_Log->Only({ "FileSystemAdded", "DriveAdded" }),
             QStringList({ "DriveAdded SL32G_0x5e6f7a8b", "FileSystemAdded mmcblk1p1" }));
    // The whole disk came without a filesystem and stays unregistered.
    QVERIFY(!tUDisks2::Block(QStringLiteral("mmcblk1")));
    QVERIFY(qobject_cast<tMmcFileSystemInfo*>(tUDisks2::Block(QStringLiteral("mmcblk1p1"))->FileSystem()->Info()));

    QVERIFY(m_Unit->Insert(QStringLiteral("usb"), QStringLiteral("stick")));
    m_Filled << QStringLiteral("usb");
    QTRY_VERIFY(m_Log->lines.contains(QStringLiteral("FileSystemAdded sda1")));
    Settle();
    QCOMPARE(m_Log->Only({ "FileSystemAdded" }).size(), 2);
    QVERIFY(qobject_cast<tUsbFileSystemInfo*>(tUDisks2::Block(QStringLiteral("sda1"))->FileSystem()->Info()));
}

void tst_UDisks2Registry::removalTakesFileSystemBeforeBlock()
{
    QVERIFY(m_Unit->Insert(QStringLiteral("right"), QStringLiteral("photos")));
    QTRY_VERIFY(tUDisks2::Block(QStringLiteral("mmcblk1p1")));
    m_Log->lines.clear();

    QVERIFY(m_Unit->Remove(QStringLiteral("right")));
    QTRY_VERIFY(m_Log->lines.contains(QStringLiteral("DriveRemoved SL32G_0x5e6f7a8b")));
    Settle();
    QCOMPARE(m_Log->Only({ "FileSystemRemoved", "BlockDeviceRemoved", "DriveRemoved" }),
             QStringList({ "FileSystemRemoved mmcblk1p1", "BlockDeviceRemoved mmcblk1p1",
                           "DriveRemoved SL32G_0x5e6f7a8b" }));
    QVERIFY(!tUDisks2::Block(QStringLiteral("mmcblk1p1")));
}

void tst_UDisks2Registry::unmountBehindTheBackEjectsOnce()
{
    QVERIFY(Enumerated());
    const QString path = MountedPath(QStringLiteral("mmcblk0p1"));
    QVERIFY(!path.isEmpty());
    m_Log->lines.clear();

    QVERIFY(m_Unit->Unmount(QStringLiteral("mmcblk0p1")));
    QTRY_VERIFY(m_Log->lines.contains(QStringLiteral("FileSystemRemoved mmcblk0p1")));
    Settle();
    // Removed before the change handler goes on, and the block stays.
    QCOMPARE(m_Log->Only({ "FileSystemRemoved", "FileSystemChanged" }, QStringLiteral("mmcblk0p1")),
             QStringList({ "FileSystemRemoved mmcblk0p1", "FileSystemChanged mmcblk0p1" }));
    QVERIFY(tUDisks2::Block(QStringLiteral("mmcblk0p1")));
    QVERIFY(!tUDisks2::Block(QStringLiteral("mmcblk0p1"))->FileSystem());

    // Pulling the card later brings no second removal of the filesystem.
    QVERIFY(m_Unit->Remove(QStringLiteral("left")));
    m_Emptied << QStringLiteral("left");
    QTRY_VERIFY(m_Log->lines.contains(QStringLiteral("BlockDeviceRemoved mmcblk0p1")));
    Settle();
    QCOMPARE(m_Log->Only({ "FileSystemRemoved" }, QStringLiteral("mmcblk0p1")).size(), 1);
}

void tst_UDisks2Registry::cardPulledFromReaderEjectsOnce()
{
    QVERIFY(Enumerated());
    QVERIFY(m_Unit->Insert(QStringLiteral("rv20"), QStringLiteral("photos")));
    QTRY_VERIFY(m_Log->lines.contains(QStringLiteral("FileSystemAdded sdc1")));
    QVERIFY(!MountedPath(QStringLiteral("sdc1")).isEmpty());
    m_Log->lines.clear();

    QVERIFY(m_Unit->Remove(QStringLiteral("rv20")));
    QTRY_VERIFY(m_Log->lines.contains(QStringLiteral("BlockDeviceRemoved sdc1")));
    Settle();
    // Removed on the size change, before the block's own change and long
    // before the partition object goes.
    const QStringList removal =
        m_Log->Only({ "FileSystemRemoved", "BlockDeviceChanged", "BlockDeviceRemoved" }, QStringLiteral("sdc1"));
    QCOMPARE(removal, QStringList({ "FileSystemRemoved sdc1", "BlockDeviceChanged sdc1", "BlockDeviceRemoved sdc1" }));
    // The reader itself stays: no drive goes.
    QVERIFY(m_Log->Only({ "DriveRemoved" }).isEmpty());
}

void tst_UDisks2Registry::rescanReannouncesWithoutNewDrives()
{
    QVERIFY(Enumerated());
    QVERIFY(m_Unit->Insert(QStringLiteral("usb"), QStringLiteral("stick")));
    QVERIFY(m_Unit->Insert(QStringLiteral("rv20"), QStringLiteral("photos")));
    m_Filled << QStringLiteral("usb") << QStringLiteral("rv20");
    QTRY_VERIFY(m_Log->lines.contains(QStringLiteral("FileSystemAdded sdc1")));
    Settle();
    QVERIFY(tUDisks2::Block(QStringLiteral("sda1")));
    tUDisks2FileSystem* stick = tUDisks2::Block(QStringLiteral("sda1"))->FileSystem();
    m_Log->lines.clear();

    QVERIFY(Enumerated());
    QVERIFY(m_Log->Only({ "DriveAdded" }).isEmpty());
    QStringList announced = m_Log->Only({ "FileSystemAdded" });
    announced.sort();
    QCOMPARE(announced, QStringList({ "FileSystemAdded mmcblk0p1", "FileSystemAdded sda1", "FileSystemAdded sdc1" }));
    // The same proxies: a rescan does not rebuild what the daemon holds.
    QCOMPARE(tUDisks2::Block(QStringLiteral("sda1"))->FileSystem(), stick);
}

void tst_UDisks2Registry::systemPartitionsNeverReachTheDaemon()
{
    QVERIFY(m_Unit->Insert(QStringLiteral("internal"), QStringLiteral("emmc")));
    m_Filled << QStringLiteral("internal");
    QTRY_VERIFY(tUDisks2::Block(QStringLiteral("mmcblk2p2")));
    Settle();
    QVERIFY(Enumerated());
    for (const QString& node : { QStringLiteral("mmcblk2p1"), QStringLiteral("mmcblk2p2") }) {
        QVERIFY(tUDisks2::Block(node));
        QVERIFY(tUDisks2::Block(node)->HintSystem());
        QVERIFY(!tUDisks2::Block(node)->FileSystem());
    }
    QCOMPARE(m_Log->Only({ "FileSystemAdded" }), QStringList{ "FileSystemAdded mmcblk0p1" });
}

void tst_UDisks2Registry::mountSendsOnlyTheOptionsKey()
{
    QVERIFY(Enumerated());
    QVERIFY(tUDisks2::Block(QStringLiteral("mmcblk0p1")));
    tUDisks2FileSystem* card = tUDisks2::Block(QStringLiteral("mmcblk0p1"))->FileSystem();
    QVERIFY(card);

    // Another client's proxy, made while the volume is not mounted.
    tUDisks2FileSystem other(QStringLiteral("mmcblk0p1"), nullptr);
    const QString path = MountAndWait(*card, QStringLiteral("ro,uid=1000,utf8"));
    QVERIFY(!path.isEmpty());
    QVERIFY(QFileInfo(path).isDir());
    QCOMPARE(m_Unit->Calls().last(), QStringLiteral("Mount mmcblk0p1 %1 options=ro,uid=1000,utf8").arg(path));
    // Known at once, before the service's property change arrives.
    QCOMPARE(card->MountPoints(), QStringList{ path });
    // Mounted already: refused by the service, and taken where it is.
    QVERIFY(other.MountPoints().isEmpty());
    QCOMPARE(MountAndWait(other, QString()), path);
    QCOMPARE(m_Unit->Calls().last(), QStringLiteral("Mount-refused mmcblk0p1"));
    QCOMPARE(other.MountPoints(), QStringList{ path });

    // The service reports the unmount before it answers: the proxy goes with
    // the report, and its answer with it.
    card->Unmount();
    QTRY_VERIFY(!tUDisks2::Block(QStringLiteral("mmcblk0p1"))->FileSystem());
    QCOMPARE(m_Unit->Calls().last(), QStringLiteral("Unmount mmcblk0p1"));
    Settle();
    m_Registry->AddBlock(QStringLiteral("mmcblk0p1"));
    card = tUDisks2::Block(QStringLiteral("mmcblk0p1"))->FileSystem();
    QVERIFY(card);

    QCOMPARE(MountAndWait(*card, QString()), path);
    QCOMPARE(m_Unit->Calls().last(), QStringLiteral("Mount mmcblk0p1 %1").arg(path));
    // Wanting no answer: the object may be gone by the time it is sent.
    tUDisks2FileSystem::UnmountNode(QStringLiteral("mmcblk0p1"));
    QTRY_COMPARE(m_Unit->Calls().last(), QStringLiteral("Unmount mmcblk0p1"));
    Settle();
    m_Registry->AddBlock(QStringLiteral("mmcblk0p1"));
    card = tUDisks2::Block(QStringLiteral("mmcblk0p1"))->FileSystem();

    QVERIFY(m_Unit->FailNextMount(QStringLiteral("wrong fs type")));
    QCOMPARE(MountAndWait(*card, QString()), QString());
}

void tst_UDisks2Registry::mountPointsSurviveAnEmptyReply()
{
    QVERIFY(Enumerated());
    // A proxy of its own, outside the registry, so nothing deletes it on ejection.
    tUDisks2FileSystem card(QStringLiteral("mmcblk0p1"), nullptr);
    QVERIFY(card.IsValid());
    QVERIFY(card.MountPoints().isEmpty());
    const QString path = MountAndWait(card, QString());
    QVERIFY(!path.isEmpty());
    Settle();
    card.Update();
    QCOMPARE(card.MountPoints(), QStringList{ path });

    QVERIFY(m_Unit->Unmount(QStringLiteral("mmcblk0p1")));
    Settle();
    card.Update();
    QCOMPARE(card.MountPoints(), QStringList{ path });
}

void tst_UDisks2Registry::objectManagerEventsOutsideTheUsualSequence()
{
    QVERIFY(Enumerated());
    const QString blocks = QStringLiteral("/org/freedesktop/UDisks2/block_devices/");
    const QString filesystem = QStringLiteral("org.freedesktop.UDisks2.Filesystem");
    m_Log->lines.clear();

    // A block announced without a filesystem is not registered.
    m_Registry->OnInterfaceAdded(QDBusObjectPath(blocks + "sdb"), tUDisks2Interfaces{ { "org.freedesktop.UDisks2.Block", {} } });
    QVERIFY(m_Log->lines.isEmpty());
    // The same filesystem announced twice is announced twice, with one proxy.
    tUDisks2FileSystem* card = tUDisks2::Block(QStringLiteral("mmcblk0p1"))->FileSystem();
    m_Registry->OnInterfaceAdded(QDBusObjectPath(blocks + "mmcblk0p1"), tUDisks2Interfaces{ { filesystem, {} } });
    QCOMPARE(m_Log->lines, QStringList{ "FileSystemAdded mmcblk0p1" });
    QCOMPARE(tUDisks2::Block(QStringLiteral("mmcblk0p1"))->FileSystem(), card);

    // Losing only the Block interface takes the filesystem, not the block.
    m_Log->lines.clear();
    m_Registry->OnInterfaceRemoved(QDBusObjectPath(blocks + "mmcblk0p1"), { "org.freedesktop.UDisks2.Block" });
    QCOMPARE(m_Log->lines, QStringList{ "FileSystemRemoved mmcblk0p1" });
    QVERIFY(tUDisks2::Block(QStringLiteral("mmcblk0p1")));
    QVERIFY(!tUDisks2::Block(QStringLiteral("mmcblk0p1"))->FileSystem());

    // Removals are reported for nodes the registry never held.
    m_Log->lines.clear();
    m_Registry->OnInterfaceRemoved(QDBusObjectPath(blocks + "sdz9"), { filesystem });
    m_Registry->OnInterfaceRemoved(QDBusObjectPath(QStringLiteral("/org/freedesktop/UDisks2/drives/Nobody")),
                                   { "org.freedesktop.UDisks2.Ata" });
    // The drive prefix needs its "/": this is no drive path.
    m_Registry->OnInterfaceAdded(QDBusObjectPath(QStringLiteral("/org/freedesktop/UDisks2/drivesX")),
                                 tUDisks2Interfaces{ { "org.freedesktop.UDisks2.Drive", {} } });
    QCOMPARE(m_Log->lines, QStringList({ "BlockDeviceRemoved sdz9", "DriveRemoved Nobody" }));
}

QTEST_GUILESS_MAIN(tst_UDisks2Registry)
#include "tst_udisks2registry.moc"
