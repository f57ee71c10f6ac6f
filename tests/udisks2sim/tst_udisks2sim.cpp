// The UDisks2 simulator as its clients see it, where nothing else looks: the
// signals of media pulled while mounted (as recorded on udisksd 2.9.4, see
// tSimDevices::CleanUp), and the mounts a slow or busy service answers. Its
// interfaces and mount answers are held against the real service by
// tst_udisks2sim_fidelity.

#include "SimulatedUnit.h"

#include <QDBusArgument>
#include <QDBusPendingCall>
#include <QtTest>

namespace
{
const QString Service = QStringLiteral("org.freedesktop.UDisks2");

// The service's signals, one line each in arrival order, with whether a
// mount directory existed as each arrived: "added OBJECT INTERFACES",
// "removed OBJECT INTERFACES", "changed OBJECT INTERFACE PROPERTIES",
// "completed JOB SUCCESS".
class tSignalLog : public QObject
{
    Q_OBJECT
public:
    tSignalLog(QDBusConnection bus, const QString& mountBase)
        : m_MountBase(mountBase)
    {
        for (const char* member : { "InterfacesAdded", "InterfacesRemoved", "PropertiesChanged", "Completed" })
            bus.connect(Service, QString(), QString(), QLatin1String(member), this, SLOT(OnSignal(QDBusMessage)));
    }
    QStringList lines;
    QList<bool> directoryThere;

private slots:
    void OnSignal(const QDBusMessage& m)
    {
        const QVariantList args = m.arguments();
        const QString member = m.member();
        QString line;
        if (member == QLatin1String("PropertiesChanged"))
            line = QStringLiteral("changed %1 %2 %3").arg(m.path().section('/', -1), args.at(0).toString().section('.', -1),
                                                          qdbus_cast<QVariantMap>(args.at(1)).keys().join(','));
        else if (member == QLatin1String("Completed"))
            line = QStringLiteral("completed %1 %2").arg(m.path().section('/', -1), args.at(0).toString());
        else
            line = QStringLiteral("%1 %2 %3").arg(member == QLatin1String("InterfacesAdded") ? "added" : "removed",
                                                  args.at(0).value<QDBusObjectPath>().path().section('/', -1),
                                                  member == QLatin1String("InterfacesAdded")
                                                      ? qdbus_cast<QVariantMap>(args.at(1)).keys().join(',')
                                                      : args.at(1).toStringList().join(','));
        lines << line.replace(QStringLiteral("org.freedesktop.UDisks2."), QString());
        directoryThere << !QDir(m_MountBase).isEmpty();
    }

private:
    QString m_MountBase;
};
} // namespace

class tTestUDisks2Sim : public QObject
{
    Q_OBJECT
private:
    std::unique_ptr<tSimulatedUnit> m_Unit;

    QDBusPendingCall Mount(const QString& node)
    {
        QDBusMessage call = QDBusMessage::createMethodCall(Service, QStringLiteral("/org/freedesktop/UDisks2/block_devices/") + node,
                                                           QStringLiteral("org.freedesktop.UDisks2.Filesystem"), QStringLiteral("Mount"));
        return m_Unit->Bus().Connection().asyncCall(call << QVariantMap());
    }
    // The mount path, or the error's name.
    QString MountPath(const QString& node)
    {
        QDBusPendingCall mounted = Mount(node);
        mounted.waitForFinished();
        return mounted.isError() ? mounted.error().name() : mounted.reply().arguments().value(0).toString();
    }

private slots:
    void init()
    {
        m_Unit = std::make_unique<tSimulatedUnit>(SimUnitFile(QStringLiteral("two-slots-stick-reader.json")));
        QString error;
        QVERIFY2(m_Unit->Start(false, &error), qPrintable(error));
    }
    void cleanup() { m_Unit.reset(); }

    // Pulled while mounted: the objects go while the kernel still holds the
    // mount, then a clean-up job removes the mount directory. The card in an
    // SD slot and the stick are the sequences recorded on the real service;
    // a bare card's reader keeps its block, which loses the filesystem.
    void pulledWhileMounted_data()
    {
        QTest::addColumn<QString>("slot");
        QTest::addColumn<QString>("medium");
        QTest::addColumn<QString>("node");
        QTest::addColumn<QStringList>("heard");
        const QStringList job{"added 0 Job", "completed 0 true", "removed 0 Job"};
        // A medium with a partition table: drive, disk and partition come,
        // and go the other way round with nothing changed on the way.
        const auto partitioned = [&job](const QString& drive, const QString& disk, const QString& partition) {
            return QStringList{"added " + drive + " Drive", "added " + disk + " Block,PartitionTable",
                               "added " + partition + " Block,Filesystem,Partition",
                               "changed " + partition + " Filesystem MountPoints",
                               "removed " + partition + " Filesystem,Partition,Block",
                               "removed " + disk + " PartitionTable,Block", "removed " + drive + " Drive"} + job;
        };
        QTest::newRow("card in a slot") << "left" << "charts" << "mmcblk0p1"
                                        << partitioned("SD16G_0x1a2b3c4d", "mmcblk0", "mmcblk0p1");
        QTest::newRow("stick") << "usb" << "stick" << "sda1"
                               << partitioned("SanDisk_Cruzer_Blade_4C530001220528115343", "sda", "sda1");
        const QString reader = QStringLiteral("changed Generic_Ultra_Fast_Media_000000264001 Drive ");
        QTest::newRow("bare card in a reader") << "reader" << "bare-card" << "sdb"
            << QStringList{reader + "Media,MediaAvailable,Size,TimeMediaDetected",
                           "changed sdb Block Id,IdLabel,IdType,IdUUID,IdUsage,IdVersion,ReadOnly,Size,Symlinks",
                           "added sdb Filesystem", "changed sdb Filesystem MountPoints", "changed sdb Block Size",
                           reader + "Media,MediaAvailable,Size", "removed sdb Filesystem",
                           "changed sdb Block Id,IdLabel,IdType,IdUUID,IdUsage,IdVersion,Symlinks"} + job;
    }
    void pulledWhileMounted()
    {
        QFETCH(QString, slot);
        QFETCH(QString, medium);
        QFETCH(QString, node);
        QFETCH(QStringList, heard);
        tSignalLog log(m_Unit->Bus().Connection(), m_Unit->MountBase());
        QVERIFY(m_Unit->Insert(slot, medium));
        QVERIFY(MountPath(node).startsWith(m_Unit->MountBase()));
        QVERIFY(m_Unit->Remove(slot));
        QTRY_COMPARE(log.lines, heard);
        // From the mount until the job the mount directory was there; then it is gone.
        const int mounted = heard.indexOf(QStringLiteral("changed %1 Filesystem MountPoints").arg(node));
        QVERIFY(!log.directoryThere.mid(mounted, heard.size() - 3 - mounted).contains(false));
        QVERIFY(QDir(m_Unit->MountBase()).isEmpty());
    }

    // A name in use gets a number. A slow card's Mount is recorded at once but
    // answered, with its directory, only after the delay (a stick pulled
    // meanwhile is tst_neverwaits' story).
    void busyNamesAndHeldMounts()
    {
        QVERIFY(m_Unit->Insert(QStringLiteral("usb"), QStringLiteral("stick")));
        const QString stick = m_Unit->MountBase() + QStringLiteral("/STICK");
        QVERIFY(QDir().mkdir(stick));
        QCOMPARE(MountPath(QStringLiteral("sda1")), stick + QLatin1Char('1'));
        QVERIFY(m_Unit->Unmount(QStringLiteral("sda1")));
        QVERIFY(QDir().rmdir(stick));

        QVERIFY(m_Unit->Hold(QStringLiteral("Mount"), 500));
        QElapsedTimer clock;
        clock.start();
        QDBusPendingCall held = Mount(QStringLiteral("sda1"));
        QTRY_VERIFY(m_Unit->Calls().contains(QStringLiteral("Mount-held sda1")));
        QVERIFY(!QFileInfo::exists(stick));
        held.waitForFinished();
        QVERIFY2(clock.elapsed() >= 500, qPrintable(QString::number(clock.elapsed())));
        QCOMPARE(held.reply().arguments().value(0).toString(), stick);
    }
};

QTEST_GUILESS_MAIN(tTestUDisks2Sim)
#include "tst_udisks2sim.moc"
