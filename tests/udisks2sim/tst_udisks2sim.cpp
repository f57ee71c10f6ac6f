// The UDisks2 simulator as its clients see it: over a private bus, through
// plain D-Bus messages, the way a UDisks2 client talks to the real service.
// The sequences are those recorded on udisksd 2.9.4 (see tSimDevices::CleanUp).

#include "SimulatedUnit.h"

#include <QDBusArgument>
#include <QDBusPendingCall>
#include <QtTest>

namespace
{
const QString Service = QStringLiteral("org.freedesktop.UDisks2");
const QString Blocks = QStringLiteral("/org/freedesktop/UDisks2/block_devices/");
const QString Properties = QStringLiteral("org.freedesktop.DBus.Properties");

QString Name(const QString& path)
{
    return path.section(QLatin1Char('/'), -1);
}

// The service's signals, one line each in arrival order, with whether a
// mount directory existed as each arrived.
class tSignalLog : public QObject
{
    Q_OBJECT
public:
    tSignalLog(QDBusConnection bus, const QString& mountBase)
        : m_MountBase(mountBase)
    {
        for (const char* member : { "InterfacesAdded", "InterfacesRemoved" })
            bus.connect(Service, QString(), QStringLiteral("org.freedesktop.DBus.ObjectManager"), QLatin1String(member), this,
                        SLOT(OnSignal(QDBusMessage)));
        bus.connect(Service, QString(), Properties, QStringLiteral("PropertiesChanged"), this, SLOT(OnSignal(QDBusMessage)));
        bus.connect(Service, QString(), QStringLiteral("org.freedesktop.UDisks2.Job"), QStringLiteral("Completed"), this,
                    SLOT(OnSignal(QDBusMessage)));
    }
    QStringList lines;
    QList<bool> directoryThere;

private slots:
    // "added OBJECT INTERFACES", "removed OBJECT INTERFACES", "changed OBJECT INTERFACE PROPERTIES", "completed JOB SUCCESS"
    void OnSignal(const QDBusMessage& m)
    {
        const QVariantList args = m.arguments();
        QString line;
        if (m.member() == QLatin1String("PropertiesChanged"))
            line = QStringLiteral("changed %1 %2 %3").arg(Name(m.path()), args.at(0).toString().section(QLatin1Char('.'), -1),
                                                          qdbus_cast<QVariantMap>(args.at(1)).keys().join(QLatin1Char(',')));
        else if (m.member() == QLatin1String("Completed"))
            line = QStringLiteral("completed %1 %2").arg(Name(m.path()), args.at(0).toString());
        else
            line = QStringLiteral("%1 %2 %3").arg(m.member() == QLatin1String("InterfacesAdded") ? "added" : "removed",
                                                  Name(args.at(0).value<QDBusObjectPath>().path()),
                                                  m.member() == QLatin1String("InterfacesAdded")
                                                      ? qdbus_cast<QVariantMap>(args.at(1)).keys().join(QLatin1Char(','))
                                                      : args.at(1).toStringList().join(QLatin1Char(',')));
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

    QDBusConnection Bus() { return m_Unit->Bus().Connection(); }
    QDBusPendingCall Mount(const QString& node, const QString& options = QString())
    {
        QDBusMessage call = QDBusMessage::createMethodCall(Service, Blocks + node, QStringLiteral("org.freedesktop.UDisks2.Filesystem"),
                                                           QStringLiteral("Mount"));
        call << (options.isNull() ? QVariantMap() : QVariantMap{ { QStringLiteral("options"), options } });
        return Bus().asyncCall(call);
    }
    // The mount path, or the error's name.
    QString MountPath(const QString& node, const QString& options = QString())
    {
        QDBusPendingCall mounted = Mount(node, options);
        mounted.waitForFinished();
        return mounted.isError() ? mounted.error().name() : mounted.reply().arguments().value(0).toString();
    }
    // "insert SLOT MEDIUM", "remove SLOT", "mount NODE" or "unmount NODE" (behind the client's back).
    bool Do(const QString& action)
    {
        const QStringList words = action.split(QLatin1Char(' '));
        if (words.at(0) == QLatin1String("insert"))
            return m_Unit->Insert(words.at(1), words.at(2));
        if (words.at(0) == QLatin1String("remove"))
            return m_Unit->Remove(words.at(1));
        if (words.at(0) == QLatin1String("unmount"))
            return m_Unit->Unmount(words.at(1));
        return MountPath(words.at(1)).startsWith(m_Unit->MountBase());
    }

private slots:
    void init()
    {
        m_Unit = std::make_unique<tSimulatedUnit>(SimUnitFile(QStringLiteral("two-slots-stick-reader.json")));
        QString error;
        QVERIFY2(m_Unit->Start(false, &error), qPrintable(error));
    }
    void cleanup() { m_Unit.reset(); }

    void mediaComeAndGoAsOnTheService_data()
    {
        QTest::addColumn<QStringList>("actions");
        QTest::addColumn<QStringList>("signalLines");
        // Pulled while mounted: the objects go while the kernel still holds
        // the mount, then a clean-up job removes the mount directory.
        const QStringList cleanUp{ "added 0 Job", "completed 0 true", "removed 0 Job" };
        QTest::newRow("built-in slot")
            << QStringList{ "insert left charts", "mount mmcblk0p1", "remove left" }
            << QStringList{ "added SD16G_0x1a2b3c4d Drive", "added mmcblk0 Block,PartitionTable",
                            "added mmcblk0p1 Block,Filesystem,Partition", "changed mmcblk0p1 Filesystem MountPoints",
                            "removed mmcblk0p1 Filesystem,Partition,Block", "removed mmcblk0 PartitionTable,Block",
                            "removed SD16G_0x1a2b3c4d Drive" } + cleanUp;
        QTest::newRow("unmounted behind the back")
            << QStringList{ "insert usb stick", "mount sda1", "unmount sda1" }
            << QStringList{ "added SanDisk_Cruzer_Blade_4C530001220528115343 Drive", "added sda Block,PartitionTable",
                            "added sda1 Block,Filesystem,Partition", "changed sda1 Filesystem MountPoints",
                            "changed sda1 Filesystem MountPoints" };
        // A reader stays; its medium comes and goes around the partition, and
        // a client sees the mounted partition shrink to nothing before it goes.
        QTest::newRow("reader")
            << QStringList{ "insert reader photos", "mount sdb1", "remove reader" }
            << QStringList{ "changed Generic_Ultra_Fast_Media_000000264001 Drive Media,MediaAvailable,Size,TimeMediaDetected",
                            "changed sdb Block ReadOnly,Size", "added sdb PartitionTable",
                            "added sdb1 Block,Filesystem,Partition", "changed sdb1 Filesystem MountPoints",
                            "changed sdb1 Block Size", "changed sdb Block Size",
                            "changed Generic_Ultra_Fast_Media_000000264001 Drive Media,MediaAvailable,Size",
                            "removed sdb1 Filesystem,Partition,Block", "removed sdb PartitionTable" } + cleanUp;
        // Formatted without a partition table: the reader's own block gains
        // and loses the filesystem.
        QTest::newRow("reader, whole-medium filesystem")
            << QStringList{ "insert reader bare-card", "mount sdb", "remove reader" }
            << QStringList{ "changed Generic_Ultra_Fast_Media_000000264001 Drive Media,MediaAvailable,Size,TimeMediaDetected",
                            "changed sdb Block Id,IdLabel,IdType,IdUUID,IdUsage,IdVersion,ReadOnly,Size,Symlinks",
                            "added sdb Filesystem", "changed sdb Filesystem MountPoints", "changed sdb Block Size",
                            "changed Generic_Ultra_Fast_Media_000000264001 Drive Media,MediaAvailable,Size",
                            "removed sdb Filesystem",
                            "changed sdb Block Id,IdLabel,IdType,IdUUID,IdUsage,IdVersion,Symlinks" } + cleanUp;
    }

    void mediaComeAndGoAsOnTheService()
    {
        QFETCH(QStringList, actions);
        QFETCH(QStringList, signalLines);
        tSignalLog log(Bus(), m_Unit->MountBase());
        for (const QString& action : actions)
            QVERIFY2(Do(action), qPrintable(action));
        QTRY_COMPARE(log.lines, signalLines);
        // From the mount until the job the mount directory was there; then it is gone.
        const int job = signalLines.indexOf(QStringLiteral("added 0 Job"));
        if (job > 0) {
            const int mounted = signalLines.indexOf(QRegularExpression(QStringLiteral(" MountPoints$")));
            QVERIFY(!log.directoryThere.mid(mounted, job - mounted).contains(false));
            QVERIFY(QDir(m_Unit->MountBase()).isEmpty());
        }
    }

    // A failure made to order fails one Mount; a slow card's Mount is recorded
    // at once but answered, with its directory, only after the delay; pulled
    // meanwhile, it fails as on the service and leaves no directory behind.
    void failedAndHeldMounts()
    {
        QVERIFY(m_Unit->Insert(QStringLiteral("left"), QStringLiteral("charts")));
        QVERIFY(m_Unit->Insert(QStringLiteral("usb"), QStringLiteral("stick")));
        const QString charts = m_Unit->MountBase() + QStringLiteral("/CHARTS");
        QVERIFY(m_Unit->FailNextMount(QStringLiteral("Error mounting /dev/mmcblk0p1: wrong fs type")));
        QCOMPARE(MountPath(QStringLiteral("mmcblk0p1")), QStringLiteral("org.freedesktop.UDisks2.Error.Failed"));
        QCOMPARE(MountPath(QStringLiteral("mmcblk0p1"), QStringLiteral("ro,flush")), charts);
        QCOMPARE(m_Unit->Calls().constLast(), QStringLiteral("Mount mmcblk0p1 %1 options=ro,flush").arg(charts));
        // A name in use gets a number.
        QVERIFY(m_Unit->Unmount(QStringLiteral("mmcblk0p1")));
        QVERIFY(QDir().mkdir(charts));
        QCOMPARE(MountPath(QStringLiteral("mmcblk0p1")), charts + QLatin1Char('1'));

        QVERIFY(m_Unit->Hold(QStringLiteral("Mount"), 500));
        QElapsedTimer clock;
        clock.start();
        QDBusPendingCall held = Mount(QStringLiteral("sda1"));
        QTRY_VERIFY(m_Unit->Calls().contains(QStringLiteral("Mount-held sda1")));
        QVERIFY(!QFileInfo::exists(m_Unit->MountBase() + QStringLiteral("/STICK")));
        held.waitForFinished();
        QVERIFY2(clock.elapsed() >= 500, qPrintable(QString::number(clock.elapsed())));
        QCOMPARE(held.reply().arguments().value(0).toString(), m_Unit->MountBase() + QStringLiteral("/STICK"));

        QVERIFY(m_Unit->Unmount(QStringLiteral("sda1")));
        QDBusPendingCall pulled = Mount(QStringLiteral("sda1"));
        QTRY_VERIFY(m_Unit->Calls().constLast() == QStringLiteral("Mount-held sda1"));
        QVERIFY(m_Unit->Remove(QStringLiteral("usb")));
        pulled.waitForFinished();
        QCOMPARE(pulled.error().name(), QStringLiteral("org.freedesktop.UDisks2.Error.Failed"));
        QVERIFY(!QFileInfo::exists(m_Unit->MountBase() + QStringLiteral("/STICK")));
    }
};

QTEST_GUILESS_MAIN(tTestUDisks2Sim)
#include "tst_udisks2sim.moc"
