// The UDisks2 registry driven through a unit's life: the order in which it
// reports drives, blocks and filesystems coming and going, and the answers
// to mounts. The UDisks2 service is stood in for by the project's simulator
// (same object tree, types and signals) on a private bus.

#include "SimulatedUnit.h"
#include "udisks2/UDisks2.h"
#include "udisks2/UDisks2Block.h"
#include "udisks2/UDisks2FileSystem.h"

#include <QDBusConnection>
#include <QtTest>

#include <memory>

namespace {

// Every signal of the registry, one line each, in emission order.
class tRegistryLog : public QObject
{
public:
    explicit tRegistryLog(tUDisks2* registry)
    {
        const std::pair<void (tUDisks2::*)(const QString&), const char*> signalNames[] = {
            { &tUDisks2::BlockDeviceAdded, "BlockDeviceAdded" }, { &tUDisks2::BlockDeviceChanged, "BlockDeviceChanged" },
            { &tUDisks2::BlockDeviceRemoved, "BlockDeviceRemoved" }, { &tUDisks2::DriveAdded, "DriveAdded" },
            { &tUDisks2::DriveChanged, "DriveChanged" }, { &tUDisks2::DriveRemoved, "DriveRemoved" },
            { &tUDisks2::FileSystemAdded, "FileSystemAdded" }, { &tUDisks2::FileSystemChanged, "FileSystemChanged" },
            { &tUDisks2::FileSystemRemoved, "FileSystemRemoved" },
        };
        for (const auto& [signal, name] : signalNames)
            connect(registry, signal, this, [this, name = QLatin1String(name)](const QString& node) { lines << name + ' ' + node; });
    }

    QStringList lines;
};

// Mounts and waits for the answer: the mount path, or "no answer".
QString MountAndWait(tFileSystem& fileSystem, const QString& options)
{
    QSignalSpy finished(&fileSystem, &tFileSystem::MountFinished);
    fileSystem.Mount(options);
    return finished.wait(5000) ? finished.first().first().toString() : QStringLiteral("no answer");
}

} // namespace

class tst_UDisks2Registry : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase()
    {
        m_Unit.reset(new tSimulatedUnit(
            QDir(qEnvironmentVariable("LARKD_STORAGE_UNITS")).filePath(QStringLiteral("storage-unit.json"))));
        QString error;
        QVERIFY2(m_Unit->Start(true, &error), qPrintable(error));
    }

    void init()
    {
        m_Registry.reset(new tUDisks2);
        m_Log.reset(new tRegistryLog(m_Registry.get()));
    }

    void cleanup()
    {
        if (QTest::currentTestFailed())
            qInfo() << "registry signals:" << m_Log->lines << "simulator calls:" << m_Unit->Calls();
        for (const QString& slot : qAsConst(m_Filled))
            m_Unit->Remove(slot);
        m_Filled.clear();
        // Put the boot-time card back for the other cases.
        if (std::exchange(m_LeftEmptied, false))
            m_Unit->Insert(QStringLiteral("left"), QStringLiteral("charts"));
        Settle();
        m_Log.reset();
        m_Registry.reset();
    }

    void eventOrder_data();
    void eventOrder();
    void mountAnswers();
    void objectsBelowABlockAreNoBlocks();

private:
    // Lets every signal the simulator sent so far reach the registry: it
    // answers a ping only after the signals it sent before.
    void Settle()
    {
        QDBusConnection::systemBus().call(QDBusMessage::createMethodCall(
            QStringLiteral("org.freedesktop.UDisks2"), QStringLiteral("/org/freedesktop/UDisks2"),
            QStringLiteral("org.freedesktop.DBus.Peer"), QStringLiteral("Ping")));
        for (int i = 0; i < 3; ++i)
            QCoreApplication::processEvents();
    }

    bool Enumerated()
    {
        QSignalSpy finished(m_Registry.get(), &tUDisks2::EnumerationFinished);
        m_Registry->Enumerate();
        return finished.wait(5000);
    }

    std::unique_ptr<tSimulatedUnit> m_Unit;
    std::unique_ptr<tUDisks2> m_Registry;
    std::unique_ptr<tRegistryLog> m_Log;
    QStringList m_Filled;
    bool m_LeftEmptied = false;
};

void tst_UDisks2Registry::eventOrder_data()
{
    // Each action is "enumerate", "insert SLOT MEDIUM", "remove SLOT", "mount
    // NODE" (through the registry), "unmount NODE" (behind its back) or
    // "clear" (the log); the lines matching the pattern are compared.
    QTest::addColumn<QStringList>("actions");
    QTest::addColumn<QString>("pattern");
    QTest::addColumn<QStringList>("expected");
    const QString additions = QStringLiteral("^(DriveAdded|FileSystemAdded) ");
    QTest::newRow("enumeration: drives first")
        << QStringList{ "enumerate" } << additions
        << QStringList{ "DriveAdded Generic_Hub_Reader_000000224101", "DriveAdded Generic_SD_Reader_000000224001",
                        "DriveAdded Generic_Ultra_Fast_Media_000000264001", "DriveAdded SD16G_0x1a2b3c4d",
                        "FileSystemAdded mmcblk0p1" };
    QTest::newRow("card inserted") << QStringList{ "insert right photos" } << additions
                                   << QStringList{ "DriveAdded SL32G_0x5e6f7a8b", "FileSystemAdded mmcblk1p1" };
    QTest::newRow("card pulled: filesystem, block, drive")
        << QStringList{ "insert right photos", "clear", "remove right" } << "Removed "
        << QStringList{ "FileSystemRemoved mmcblk1p1", "BlockDeviceRemoved mmcblk1p1", "DriveRemoved SL32G_0x5e6f7a8b" };
    // Removed before the change is handled further; the block stays until pulled.
    QTest::newRow("unmounted behind the back, then pulled")
        << QStringList{ "enumerate", "mount mmcblk0p1", "clear", "unmount mmcblk0p1", "remove left" } << " mmcblk0p1$"
        << QStringList{ "FileSystemRemoved mmcblk0p1", "FileSystemChanged mmcblk0p1", "BlockDeviceRemoved mmcblk0p1" };
    // Removed on the size change, before the block's own change and long
    // before the partition goes; the reader stays.
    QTest::newRow("card pulled from a reader")
        << QStringList{ "enumerate", "insert rv20 photos", "mount sdc1", "clear", "remove rv20" } << " sdc1$|^DriveRemoved"
        << QStringList{ "FileSystemRemoved sdc1", "BlockDeviceChanged sdc1", "BlockDeviceRemoved sdc1" };
    QTest::newRow("rescan announces again, adds no drive")
        << QStringList{ "enumerate", "insert usb stick", "insert rv20 photos", "clear", "enumerate" } << additions
        << QStringList{ "FileSystemAdded mmcblk0p1", "FileSystemAdded sda1", "FileSystemAdded sdc1" };
}

void tst_UDisks2Registry::eventOrder()
{
    QFETCH(QStringList, actions);
    QFETCH(QString, pattern);
    QFETCH(QStringList, expected);
    for (const QString& action : actions) {
        const QStringList words = action.split(QLatin1Char(' '));
        if (words.at(0) == QLatin1String("enumerate")) {
            QVERIFY(Enumerated());
        } else if (words.at(0) == QLatin1String("insert")) {
            QVERIFY(m_Unit->Insert(words.at(1), words.at(2)));
            m_Filled << words.at(1);
        } else if (words.at(0) == QLatin1String("remove")) {
            QVERIFY(m_Unit->Remove(words.at(1)));
            m_LeftEmptied |= words.at(1) == QLatin1String("left");
        } else if (words.at(0) == QLatin1String("mount")) {
            QTRY_VERIFY(tUDisks2::Block(words.at(1)) && tUDisks2::Block(words.at(1))->FileSystem());
            QVERIFY(MountAndWait(*tUDisks2::Block(words.at(1))->FileSystem(), QString()).startsWith(QLatin1Char('/')));
        } else if (words.at(0) == QLatin1String("unmount")) {
            QVERIFY(m_Unit->Unmount(words.at(1)));
        } else {
            Settle();
            m_Log->lines.clear();
        }
        Settle();
    }

    QTRY_COMPARE(m_Log->lines.filter(QRegularExpression(pattern)), expected);
}

void tst_UDisks2Registry::mountAnswers()
{
    QVERIFY(Enumerated());
    QVERIFY(tUDisks2::Block(QStringLiteral("mmcblk0p1")));
    tUDisks2FileSystem* const card = tUDisks2::Block(QStringLiteral("mmcblk0p1"))->FileSystem();
    QVERIFY(card);
    // A rescan keeps the proxies the daemon holds.
    QVERIFY(Enumerated());
    QCOMPARE(tUDisks2::Block(QStringLiteral("mmcblk0p1"))->FileSystem(), card);

    // The card's own record: an earlier case's clean-up may be recorded meanwhile.
    const auto lastAboutCard = [this] { return m_Unit->Calls().filter(QStringLiteral(" mmcblk0p1")).last(); };
    // Another client's proxy, made while the volume is not mounted.
    tUDisks2FileSystem other(QStringLiteral("mmcblk0p1"), nullptr);
    const QString path = MountAndWait(*card, QStringLiteral("ro,uid=1000,utf8"));
    QVERIFY(QFileInfo(path).isDir());
    QCOMPARE(lastAboutCard(), QStringLiteral("Mount mmcblk0p1 %1 options=ro,uid=1000,utf8").arg(path));
    // Known at once, before the service's property change arrives.
    QCOMPARE(card->MountPoints(), QStringList{ path });
    // Mounted already: refused by the service, and taken where it is.
    QCOMPARE(MountAndWait(other, QString()), path);
    QCOMPARE(lastAboutCard(), QStringLiteral("Mount-refused mmcblk0p1"));

    // The service reports the unmount before it answers: the proxy goes with
    // the report. The other keeps the last mount point it knew, against
    // which an ejection is judged.
    card->Unmount();
    QTRY_VERIFY(!tUDisks2::Block(QStringLiteral("mmcblk0p1"))->FileSystem());
    QCOMPARE(lastAboutCard(), QStringLiteral("Unmount mmcblk0p1"));
    Settle();
    other.Update();
    QCOMPARE(other.MountPoints(), QStringList{ path });
    QVERIFY(m_Unit->FailNextMount(QStringLiteral("wrong fs type")));
    QCOMPARE(MountAndWait(other, QString()), QString());

    // A rescan the service does not answer makes nothing look gone.
    QVERIFY(m_Unit->Away());
    m_Log->lines.clear();
    QVERIFY(Enumerated());
    QVERIFY(tUDisks2::Block(QStringLiteral("mmcblk0p1")));
    QVERIFY(m_Unit->Back());
    QTRY_VERIFY(m_Log->lines.contains(QStringLiteral("FileSystemAdded mmcblk0p1")));
    QCOMPARE(m_Log->lines.filter(QRegularExpression(QStringLiteral("^(BlockDevice|Drive)Removed"))), QStringList());
}

void tst_UDisks2Registry::objectsBelowABlockAreNoBlocks()
{
    QVERIFY(Enumerated());
    m_Registry->OnInterfaceAdded(QDBusObjectPath(QStringLiteral("/org/freedesktop/UDisks2/block_devices/mmcblk0p1/below")),
                                 tUDisks2Interfaces{ { "org.freedesktop.UDisks2.Block", {} } });
    QCOMPARE(tUDisks2::BlockDevices(), QStringList({ "mmcblk0", "mmcblk0p1", "sdb", "sdc", "sdd" }));
}

QTEST_GUILESS_MAIN(tst_UDisks2Registry)
#include "tst_udisks2registry.moc"
