// The simulator against the real thing: the machine's udisksd, started by
// tests/scripts/with-real-udisks.sh on the bus in DBUS_SYSTEM_BUS_ADDRESS with
// a loop-device disk (REAL_UDISKS_LOOP) and its ext4 partition
// (REAL_UDISKS_PARTITION), and the simulator on a private bus of its own with
// a USB stick inserted. Whatever the simulator declares must be what udisksd
// declares; what udisksd has beyond that is listed, not failed.

#include "InterfaceXml.h"
#include "SimulatedUnit.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMetaType>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QtTest>

namespace
{
const QString Service = QStringLiteral("org.freedesktop.UDisks2");
const QString Root = QStringLiteral("/org/freedesktop/UDisks2");
const QString Blocks = QStringLiteral("/org/freedesktop/UDisks2/block_devices");
const QString Drives = QStringLiteral("/org/freedesktop/UDisks2/drives");
const QString FilesystemInterface = QStringLiteral("org.freedesktop.UDisks2.Filesystem");

QString Node(const QString& device)
{
    return device.section(QLatin1Char('/'), -1);
}

// Counts PropertiesChanged signals carrying MountPoints.
class tMountPointSignals : public QObject
{
    Q_OBJECT
public:
    tMountPointSignals(QDBusConnection bus, const QString& path)
    {
        bus.connect(Service, path, QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("PropertiesChanged"), this,
                    SLOT(OnChanged(QDBusMessage)));
    }
    int count = 0;
    QString signature;
private slots:
    void OnChanged(const QDBusMessage& m)
    {
        if (m.arguments().value(0).toString() != FilesystemInterface)
            return;
        ++count;
        signature = m.signature();
    }
};
} // namespace

class tTestUDisks2SimFidelity : public QObject
{
    Q_OBJECT
private:
    std::unique_ptr<tSimulatedUnit> m_Unit;
    QDBusConnection m_Real = QDBusConnection::systemBus();
    QDBusConnection Sim() { return m_Unit->Bus().Connection(); }
    QString m_RealPartition, m_RealDisk;

    QDBusMessage CallFilesystem(QDBusConnection bus, const QString& path, const QString& member)
    {
        QDBusMessage call = QDBusMessage::createMethodCall(Service, path, FilesystemInterface, member);
        call << QVariantMap();
        return bus.call(call);
    }

private slots:
    void initTestCase()
    {
        if (qEnvironmentVariableIsEmpty("REAL_UDISKS_PARTITION"))
            QSKIP("no real udisksd: run this through tests/scripts/with-real-udisks.sh (CTest does)");
        m_RealDisk = Blocks + QLatin1Char('/') + Node(qEnvironmentVariable("REAL_UDISKS_LOOP"));
        m_RealPartition = Blocks + QLatin1Char('/') + Node(qEnvironmentVariable("REAL_UDISKS_PARTITION"));
        m_Unit = std::make_unique<tSimulatedUnit>(SimUnitFile(QStringLiteral("two-slots-stick-reader.json")));
        QString error;
        QVERIFY2(m_Unit->Start(false, &error), qPrintable(error));
        QVERIFY(m_Unit->Insert(QStringLiteral("usb"), QStringLiteral("stick")));
    }
    void cleanupTestCase() { m_Unit.reset(); }

    void interfaceAgreesWithTheRealOne_data()
    {
        QTest::addColumn<QString>("interface");
        QTest::addColumn<QString>("realPath");
        QTest::addColumn<QString>("simPath");
        const QString stick = Blocks + QStringLiteral("/sda");
        const QStringList realDrives = Introspect(m_Real, Drives).children;
        auto row = [](const char* name, const QString& realPath, const QString& simPath) {
            QTest::newRow(name) << QStringLiteral("org.freedesktop.UDisks2.") + QLatin1String(name) << realPath << simPath;
        };
        row("Manager", Root + "/Manager", Root + "/Manager");
        row("Block", m_RealPartition, stick + "1");
        row("Partition", m_RealPartition, stick + "1");
        row("Filesystem", m_RealPartition, stick + "1");
        row("PartitionTable", m_RealDisk, stick);
        row("Drive", Drives + "/" + realDrives.value(0), Drives + "/SanDisk_Cruzer_Blade_4C530001220528115343");
    }

    // Property by property and type by type, method by method and argument by argument.
    void interfaceAgreesWithTheRealOne()
    {
        QFETCH(QString, interface);
        QFETCH(QString, realPath);
        QFETCH(QString, simPath);
        const tIntrospection real = Introspect(m_Real, realPath);
        const tIntrospection sim = Introspect(Sim(), simPath);
        QVERIFY2(real.interfaces.contains(interface), qPrintable(QStringLiteral("udisksd shows no %1 at %2").arg(interface, realPath)));
        QVERIFY2(sim.interfaces.contains(interface), qPrintable(simPath));
        const QMap<QString, QString> realMembers = real.interfaces.value(interface);
        const QMap<QString, QString> simMembers = sim.interfaces.value(interface);
        QVERIFY(simMembers.size() > 0);
        for (auto it = simMembers.constBegin(); it != simMembers.constEnd(); ++it) {
            QVERIFY2(realMembers.contains(it.key()), qPrintable(QStringLiteral("udisksd has no %1").arg(it.key())));
            QCOMPARE(it.key() + QStringLiteral(": ") + it.value(), it.key() + QStringLiteral(": ") + realMembers.value(it.key()));
        }
        QStringList beyond;
        for (const QString& member : realMembers.keys())
            if (!simMembers.contains(member))
                beyond << member;
        if (!beyond.isEmpty())
            qInfo("%s: not simulated: %s", qPrintable(interface), qPrintable(beyond.join(QStringLiteral(", "))));
        // The standard interfaces come along with every object.
        for (const char* standard : {"org.freedesktop.DBus.Properties", "org.freedesktop.DBus.Introspectable", "org.freedesktop.DBus.Peer"})
            QCOMPARE(sim.interfaces.value(QLatin1String(standard)), real.interfaces.value(QLatin1String(standard)));
    }

    void parentsLookAlike()
    {
        const tIntrospection realRoot = Introspect(m_Real, Root);
        const tIntrospection simRoot = Introspect(Sim(), Root);
        QCOMPARE(simRoot.interfaces.keys(), realRoot.interfaces.keys());
        QCOMPARE(simRoot.interfaces.value(QStringLiteral("org.freedesktop.DBus.ObjectManager")),
                 realRoot.interfaces.value(QStringLiteral("org.freedesktop.DBus.ObjectManager")));
        for (const char* child : {"Manager", "block_devices", "drives"}) {
            QVERIFY(realRoot.children.contains(QLatin1String(child)));
            QVERIFY(simRoot.children.contains(QLatin1String(child)));
        }
        // block_devices is a bare node listing its children, in both.
        const tIntrospection realBlocks = Introspect(m_Real, Blocks);
        const tIntrospection simBlocks = Introspect(Sim(), Blocks);
        QCOMPARE(simBlocks.interfaces.keys(), realBlocks.interfaces.keys());
        QVERIFY(realBlocks.children.contains(Node(m_RealPartition)));
        QVERIFY(simBlocks.children.contains(QStringLiteral("sda1")));
    }

    // The same calls get the same answers, errors and signals from both.
    void mountAndUnmountAnswerAlike()
    {
        const QString simPath = Blocks + QStringLiteral("/sda1");
        tMountPointSignals realSignals(m_Real, m_RealPartition);
        tMountPointSignals simSignals(Sim(), simPath);
        const QStringList real = MountStory(m_Real, m_RealPartition, qEnvironmentVariable("REAL_UDISKS_PARTITION"));
        const QStringList sim = MountStory(Sim(), simPath, QStringLiteral("/dev/sda1"));
        QCOMPARE(sim, real);
        QCOMPARE(real.value(0), QString::number(QDBusMessage::ReplyMessage));
        QCOMPARE(real.value(2).section(QLatin1Char(' '), 0, 0), QStringLiteral("org.freedesktop.UDisks2.Error.AlreadyMounted"));
        QCOMPARE(real.value(4), QStringLiteral("MOUNTPATH%00"));
        // Mount and Unmount each changed MountPoints, on both.
        QTRY_COMPARE(realSignals.count, 2);
        QTRY_COMPARE(simSignals.count, 2);
        QCOMPARE(simSignals.signature, realSignals.signature);
    }

private:
    // Mount twice, read MountPoints, unmount twice: the answers with the
    // device and mount path written as DEVICE and MOUNTPATH.
    QStringList MountStory(QDBusConnection bus, const QString& path, const QString& device)
    {
        const QDBusMessage mounted = CallFilesystem(bus, path, QStringLiteral("Mount"));
        const QString mountPath = mounted.arguments().value(0).toString();
        auto normalise = [&](const QDBusMessage& m) {
            QString answer = m.type() == QDBusMessage::ErrorMessage ? m.errorName() + QLatin1Char(' ') + m.errorMessage() : m.signature();
            return answer.replace(mountPath, QStringLiteral("MOUNTPATH")).replace(device, QStringLiteral("DEVICE"));
        };
        QStringList answers{QString::number(mounted.type()), mounted.signature()};
        answers << normalise(CallFilesystem(bus, path, QStringLiteral("Mount")));
        const QDBusMessage points = bus.call(
            QDBusMessage::createMethodCall(Service, path, QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"))
            << FilesystemInterface << QStringLiteral("MountPoints"));
        const QDBusArgument value = points.arguments().value(0).value<QDBusVariant>().variant().value<QDBusArgument>();
        answers << value.currentSignature()
                << QString::fromLatin1(qdbus_cast<QByteArrayList>(value).value(0).toPercentEncoding("/")).replace(mountPath, QStringLiteral("MOUNTPATH"));
        answers << normalise(CallFilesystem(bus, path, QStringLiteral("Unmount"))) << normalise(CallFilesystem(bus, path, QStringLiteral("Unmount")));
        return answers;
    }
};

QTEST_GUILESS_MAIN(tTestUDisks2SimFidelity)
#include "tst_udisks2sim_fidelity.moc"
