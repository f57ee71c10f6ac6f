// The simulator against the real thing: the machine's udisksd, started by tests/scripts/with-real-udisks.sh on the bus
// in DBUS_SYSTEM_BUS_ADDRESS with a loop-device disk (REAL_UDISKS_LOOP) and
// its ext4 partition (REAL_UDISKS_PARTITION), and the simulator on a private
// bus of its own with a USB stick inserted. Whatever the simulator declares
// must be what udisksd declares (udisksd may have more), and the same calls
// get the same answers. The daemon's client is proved against the simulator
// by tst_udisks2registry.

#include "SimulatedUnit.h"

#include <QDBusArgument>
#include <QDBusMetaType>
#include <QDBusVariant>
#include <QXmlStreamReader>
#include <QtTest>

#include <functional>

namespace
{
const QString Service = QStringLiteral("org.freedesktop.UDisks2");
const QString Root = QStringLiteral("/org/freedesktop/UDisks2");
const QString Blocks = QStringLiteral("/org/freedesktop/UDisks2/block_devices/");
const QString FilesystemInterface = QStringLiteral("org.freedesktop.UDisks2.Filesystem");

// An object's introspection data as comparable text.
struct tIntrospection
{
    // interface -> member ("property Size", "method Mount") -> its types
    QMap<QString, QMap<QString, QString>> interfaces;
    QStringList children;
};

tIntrospection Introspect(QDBusConnection bus, const QString& path)
{
    const QDBusMessage reply = bus.call(QDBusMessage::createMethodCall(Service, path, QStringLiteral("org.freedesktop.DBus.Introspectable"),
                                                                       QStringLiteral("Introspect")));
    tIntrospection result;
    QXmlStreamReader xml(reply.arguments().value(0).toString());
    QString interface, member;
    for (int depth = 0; !xml.atEnd();) {
        const QXmlStreamReader::TokenType token = xml.readNext();
        depth += token == QXmlStreamReader::StartElement ? 1 : token == QXmlStreamReader::EndElement ? -1 : 0;
        if (token != QXmlStreamReader::StartElement)
            continue;
        const QString kind = xml.name().toString();
        auto attribute = [&xml](const char* name) { return xml.attributes().value(QLatin1String(name)).toString(); };
        QMap<QString, QString>& members = result.interfaces[interface];
        if (kind == QLatin1String("node") && depth == 2)
            result.children << attribute("name");
        else if (kind == QLatin1String("interface"))
            result.interfaces[interface = attribute("name")];
        else if (kind == QLatin1String("property"))
            members[QStringLiteral("property ") + attribute("name")] = attribute("type") + QLatin1Char(' ') + attribute("access");
        else if (kind == QLatin1String("method") || kind == QLatin1String("signal"))
            members[member = kind + QLatin1Char(' ') + attribute("name")];
        else if (kind == QLatin1String("arg"))
            members[member] += QStringLiteral("%1:%2:%3 ").arg(attribute("direction"), attribute("type"), attribute("name"));
    }
    return result;
}

// Mount twice asking for "ro", read MountPoints, unmount twice: the answers,
// with the device and mount path written as DEVICE and MOUNTPATH, and the
// first option the mount was made with, as mountedWith(MOUNTPATH) tells.
QStringList MountStory(QDBusConnection bus, const QString& path, const QString& device,
                       const std::function<QString(const QString&)>& mountedWith)
{
    auto call = [&](const QString& member, const QVariantMap& options = QVariantMap()) {
        QDBusMessage message = QDBusMessage::createMethodCall(Service, path, FilesystemInterface, member);
        return bus.call(message << options);
    };
    const QVariantMap readOnly{ { QStringLiteral("options"), QStringLiteral("ro") } };
    const QDBusMessage mounted = call(QStringLiteral("Mount"), readOnly);
    const QString mountPath = mounted.arguments().value(0).toString();
    auto normalise = [&](const QDBusMessage& m) {
        QString answer = m.type() == QDBusMessage::ErrorMessage ? m.errorName() + QLatin1Char(' ') + m.errorMessage() : m.signature();
        return answer.replace(mountPath, QStringLiteral("MOUNTPATH")).replace(device, QStringLiteral("DEVICE"));
    };
    QStringList answers{ QString::number(mounted.type()), mounted.signature(), mountedWith(mountPath),
                         normalise(call(QStringLiteral("Mount"), readOnly)) };
    QDBusMessage get = QDBusMessage::createMethodCall(Service, path, QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
    const QDBusArgument value =
        bus.call(get << FilesystemInterface << QStringLiteral("MountPoints")).arguments().value(0).value<QDBusVariant>().variant().value<QDBusArgument>();
    answers << value.currentSignature()
            << QString::fromLatin1(qdbus_cast<QByteArrayList>(value).value(0).toPercentEncoding("/")).replace(mountPath, QStringLiteral("MOUNTPATH"));
    answers << normalise(call(QStringLiteral("Unmount"))) << normalise(call(QStringLiteral("Unmount")));
    return answers;
}
} // namespace

class tTestUDisks2SimFidelity : public QObject
{
    Q_OBJECT
private:
    std::unique_ptr<tSimulatedUnit> m_Unit;
    QDBusConnection m_Real = QDBusConnection::systemBus();
    QDBusConnection Sim() { return m_Unit->Bus().Connection(); }
    QString m_RealDevice, m_RealNode;

private slots:
    void initTestCase()
    {
        if (qEnvironmentVariableIsEmpty("REAL_UDISKS_PARTITION"))
            QSKIP("no real udisksd: run this through tests/scripts/with-real-udisks.sh (CTest does)");
        m_RealDevice = qEnvironmentVariable("REAL_UDISKS_PARTITION");
        m_RealNode = QFileInfo(m_RealDevice).fileName();
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
        const QString drives = Root + QStringLiteral("/drives/");
        const QString realDisk = Blocks + QFileInfo(qEnvironmentVariable("REAL_UDISKS_LOOP")).fileName();
        const QString realPartition = Blocks + QFileInfo(qEnvironmentVariable("REAL_UDISKS_PARTITION")).fileName();
        auto row = [](const char* name, const QString& realPath, const QString& simPath) {
            QTest::newRow(name) << QString::fromLatin1(name) << realPath << simPath;
        };
        row("org.freedesktop.DBus.ObjectManager", Root, Root);
        row("org.freedesktop.UDisks2.Manager", Root + "/Manager", Root + "/Manager");
        for (const char* name : { "org.freedesktop.UDisks2.Block", "org.freedesktop.UDisks2.Partition", "org.freedesktop.UDisks2.Filesystem" })
            row(name, realPartition, Blocks + "sda1");
        row("org.freedesktop.UDisks2.PartitionTable", realDisk, Blocks + "sda");
        row("org.freedesktop.UDisks2.Drive", drives + Introspect(m_Real, drives.chopped(1)).children.value(0),
            drives + "SanDisk_Cruzer_Blade_4C530001220528115343");
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
        const QMap<QString, QString> simMembers = sim.interfaces.value(interface);
        QVERIFY2(!simMembers.isEmpty(), qPrintable(simPath));
        QStringList simLines, realLines, declared;
        for (auto it = simMembers.constBegin(); it != simMembers.constEnd(); ++it) {
            simLines << it.key() + QStringLiteral(": ") + it.value();
            realLines << it.key() + QStringLiteral(": ") + real.interfaces[interface].value(it.key(), QStringLiteral("missing"));
            if (it.key().startsWith(QLatin1String("property ")))
                declared << it.key() + QStringLiteral(": ") + it.value().section(QLatin1Char(' '), 0, 0);
        }
        QCOMPARE(simLines, realLines);
        // Each property is sent with the type declared for it.
        QDBusMessage getAll = QDBusMessage::createMethodCall(Service, simPath, QStringLiteral("org.freedesktop.DBus.Properties"),
                                                             QStringLiteral("GetAll"));
        const QVariantMap values = qdbus_cast<QVariantMap>(Sim().call(getAll << interface).arguments().value(0));
        QStringList sent;
        for (auto v = values.cbegin(); v != values.cend(); ++v)
            sent << QStringLiteral("property %1: %2").arg(v.key(), v.value().userType() == qMetaTypeId<QDBusArgument>()
                                                                      ? v.value().value<QDBusArgument>().currentSignature()
                                                                      : QDBusMetaType::typeToSignature(v.value().userType()));
        QCOMPARE(sent, declared);
        // The standard interfaces come along with every object.
        for (const char* standard : { "org.freedesktop.DBus.Properties", "org.freedesktop.DBus.Introspectable", "org.freedesktop.DBus.Peer" })
            QCOMPARE(sim.interfaces.value(QLatin1String(standard)), real.interfaces.value(QLatin1String(standard)));
    }

    // The same calls get the same answers and errors from both, and the
    // options asked for are taken from the same key.
    void mountAndUnmountAnswerAlike()
    {
        const QStringList real = MountStory(m_Real, Blocks + m_RealNode, m_RealDevice, [](const QString& mountPath) {
            QFile mounts(QStringLiteral("/proc/self/mounts"));
            const QByteArrayList lines = mounts.open(QIODevice::ReadOnly) ? mounts.readAll().split('\n') : QByteArrayList();
            for (const QByteArray& line : lines)
                if (line.split(' ').value(1) == mountPath.toUtf8())
                    return QString::fromUtf8(line.split(' ').value(3).split(',').value(0));
            return QStringLiteral("not mounted");
        });
        QCOMPARE(MountStory(Sim(), Blocks + QStringLiteral("sda1"), QStringLiteral("/dev/sda1"),
                            [this](const QString& mountPath) {
                                const QString record = m_Unit->Calls().constLast();
                                return record.startsWith(QStringLiteral("Mount sda1 ") + mountPath)
                                    ? record.section(QStringLiteral("options="), 1).section(QLatin1Char(','), 0, 0)
                                    : record;
                            }),
                 real);
        QCOMPARE(real.value(2), QStringLiteral("ro"));
        QCOMPARE(real.value(3).section(QLatin1Char(' '), 0, 0), QStringLiteral("org.freedesktop.UDisks2.Error.AlreadyMounted"));
        QCOMPARE(real.value(5), QStringLiteral("MOUNTPATH%00"));
    }
};

QTEST_GUILESS_MAIN(tTestUDisks2SimFidelity)
#include "tst_udisks2sim_fidelity.moc"
