// The UDisks2 simulator as its clients see it: over a private bus, through
// plain D-Bus messages, the way a UDisks2 client talks to the real service.

#include "InterfaceXml.h"
#include "SimulatedUnit.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QDBusPendingCall>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QtTest>

namespace
{
const QString Service = QStringLiteral("org.freedesktop.UDisks2");
const QString Root = QStringLiteral("/org/freedesktop/UDisks2");
const QString Blocks = QStringLiteral("/org/freedesktop/UDisks2/block_devices/");
const QString Properties = QStringLiteral("org.freedesktop.DBus.Properties");
const QString FilesystemInterface = QStringLiteral("org.freedesktop.UDisks2.Filesystem");
const QString BlockInterface = QStringLiteral("org.freedesktop.UDisks2.Block");
const QString DriveInterface = QStringLiteral("org.freedesktop.UDisks2.Drive");

// The D-Bus signature a received value had on the wire.
QString WireSignature(const QVariant& value)
{
    if (value.userType() == qMetaTypeId<QDBusArgument>())
        return value.value<QDBusArgument>().currentSignature();
    return QString::fromLatin1(QDBusMetaType::typeToSignature(value.userType()));
}

QStringList ByteStrings(const QVariant& value)
{
    QStringList texts;
    const QDBusArgument argument = value.value<QDBusArgument>();
    argument.beginArray();
    while (!argument.atEnd()) {
        QByteArray bytes;
        argument >> bytes;
        // Each entry must carry its NUL, as the real service sends it.
        texts << (bytes.endsWith('\0') ? QString::fromUtf8(bytes.constData()) : QStringLiteral("<no NUL>"));
    }
    argument.endArray();
    return texts;
}

// Records the service's signals, one line each, in arrival order.
class tSignalLog : public QObject
{
    Q_OBJECT
public:
    explicit tSignalLog(QDBusConnection bus)
    {
        bus.connect(Service, Root, QStringLiteral("org.freedesktop.DBus.ObjectManager"), QStringLiteral("InterfacesAdded"),
                    this, SLOT(OnAdded(QDBusMessage)));
        bus.connect(Service, Root, QStringLiteral("org.freedesktop.DBus.ObjectManager"), QStringLiteral("InterfacesRemoved"),
                    this, SLOT(OnRemoved(QDBusMessage)));
        bus.connect(Service, QString(), Properties, QStringLiteral("PropertiesChanged"), this, SLOT(OnChanged(QDBusMessage)));
        bus.connect(Service, QString(), QStringLiteral("org.freedesktop.UDisks2.Job"), QStringLiteral("Completed"), this,
                    SLOT(OnCompleted(QDBusMessage)));
    }
    QStringList lines;
    QList<QDBusMessage> messages;
    // Whether this path existed as each line arrived.
    QString watched;
    QList<bool> present;

private slots:
    void OnAdded(const QDBusMessage& m)
    {
        const QVariantMap interfaces = qdbus_cast<QVariantMap>(m.arguments().at(1));
        Record(m, QStringLiteral("added %1 %2").arg(Name(m), interfaces.keys().join(QLatin1Char(','))));
    }
    void OnRemoved(const QDBusMessage& m)
    {
        Record(m, QStringLiteral("removed %1 %2").arg(Name(m), m.arguments().at(1).toStringList().join(QLatin1Char(','))));
    }
    void OnCompleted(const QDBusMessage& m)
    {
        Record(m, QStringLiteral("completed %1 %2").arg(m.path().section(QLatin1Char('/'), -1), m.arguments().value(0).toString()));
    }
    void OnChanged(const QDBusMessage& m)
    {
        const QVariantMap changed = qdbus_cast<QVariantMap>(m.arguments().at(1));
        Record(m, QStringLiteral("changed %1 %2 %3")
                      .arg(m.path().section(QLatin1Char('/'), -1), m.arguments().at(0).toString().section(QLatin1Char('.'), -1),
                           changed.keys().join(QLatin1Char(','))));
    }

private:
    static QString Name(const QDBusMessage& m)
    {
        return m.arguments().at(0).value<QDBusObjectPath>().path().section(QLatin1Char('/'), -1);
    }
    void Record(const QDBusMessage& m, QString line)
    {
        lines << line.replace(QStringLiteral("org.freedesktop.UDisks2."), QString());
        messages << m;
        present << (!watched.isEmpty() && QFileInfo::exists(watched));
    }
};
} // namespace

class tTestUDisks2Sim : public QObject
{
    Q_OBJECT
private:
    std::unique_ptr<tSimulatedUnit> m_Unit;

    QDBusConnection Bus() { return m_Unit->Bus().Connection(); }
    QDBusMessage Call(const QString& path, const QString& interface, const QString& member, const QVariantList& args = {})
    {
        QDBusMessage call = QDBusMessage::createMethodCall(Service, path, interface, member);
        call.setArguments(args);
        return Bus().call(call);
    }
    QVariant Get(const QString& path, const QString& interface, const QString& name)
    {
        const QDBusMessage reply = Call(path, Properties, QStringLiteral("Get"), {interface, name});
        return reply.arguments().value(0).value<QDBusVariant>().variant();
    }
    QDBusMessage Mount(const QString& node, const QVariantMap& options = {})
    {
        return Call(Blocks + node, FilesystemInterface, QStringLiteral("Mount"), {options});
    }
    QDBusMessage Unmount(const QString& node)
    {
        return Call(Blocks + node, FilesystemInterface, QStringLiteral("Unmount"), {QVariantMap()});
    }
    QStringList Children(const QString& path) { return Introspect(Bus(), path).children; }

private slots:
    void init()
    {
        m_Unit = std::make_unique<tSimulatedUnit>(SimUnitFile(QStringLiteral("two-slots-stick-reader.json")));
        QString error;
        QVERIFY2(m_Unit->Start(false, &error), qPrintable(error));
    }
    void cleanup() { m_Unit.reset(); }

    // Every property of every object is sent with the type its interface's
    // introspection data declares, so clients built from that data decode it.
    void propertiesCarryTheirIntrospectedTypes()
    {
        QVERIFY(m_Unit->Insert(QStringLiteral("left"), QStringLiteral("charts")));
        QVERIFY(m_Unit->Insert(QStringLiteral("usb"), QStringLiteral("stick")));
        QVERIFY(m_Unit->Insert(QStringLiteral("reader"), QStringLiteral("photos")));
        QVERIFY(Mount(QStringLiteral("sda1")).type() == QDBusMessage::ReplyMessage);

        QStringList paths{QStringLiteral("/org/freedesktop/UDisks2/Manager")};
        for (const QString& child : Children(Blocks.chopped(1)))
            paths << Blocks + child;
        for (const QString& child : Children(Root + QStringLiteral("/drives")))
            paths << Root + QStringLiteral("/drives/") + child;
        QCOMPARE(paths.size(), 1 + 10 + 4);

        int checked = 0;
        for (const QString& path : paths) {
            const tIntrospection introspected = Introspect(Bus(), path);
            QStringList declared;
            for (auto i = introspected.interfaces.cbegin(); i != introspected.interfaces.cend(); ++i)
                for (auto m = i->cbegin(); m != i->cend(); ++m) {
                    if (!m.key().startsWith(QLatin1String("property ")))
                        continue;
                    const QString name = m.key().mid(9);
                    declared << i.key() + QLatin1Char('.') + name;
                    QCOMPARE(path + QLatin1Char(' ') + name + QLatin1Char(' ') + WireSignature(Get(path, i.key(), name)),
                             path + QLatin1Char(' ') + name + QLatin1Char(' ') + m.value().section(QLatin1Char(' '), 0, 0));
                    ++checked;
                }
            // GetAll offers exactly the declared properties, no more.
            QStringList offered;
            for (const QString& i : {QStringLiteral("org.freedesktop.UDisks2.Manager"), BlockInterface,
                                     QStringLiteral("org.freedesktop.UDisks2.Partition"), QStringLiteral("org.freedesktop.UDisks2.PartitionTable"),
                                     FilesystemInterface, DriveInterface}) {
                const QDBusMessage all = Call(path, Properties, QStringLiteral("GetAll"), {i});
                if (all.type() == QDBusMessage::ReplyMessage)
                    for (const QString& key : qdbus_cast<QVariantMap>(all.arguments().at(0)).keys())
                        offered << i + QLatin1Char('.') + key;
            }
            declared.sort();
            offered.sort();
            QCOMPARE(offered, declared);
        }
        QVERIFY(checked > 300);
    }

    void objectTreeAndManagedObjectsFollowTheMedia()
    {
        QCOMPARE(Children(Root), (QStringList{QStringLiteral("Manager"), QStringLiteral("block_devices"), QStringLiteral("drives")}));
        QCOMPARE(Get(Root + QStringLiteral("/Manager"), QStringLiteral("org.freedesktop.UDisks2.Manager"), QStringLiteral("Version")).toString(),
                 QStringLiteral("2.9.4"));
        const QStringList atStart{QStringLiteral("mmcblk2"), QStringLiteral("mmcblk2p1"), QStringLiteral("mmcblk2p2"),
                                  QStringLiteral("mmcblk2p3"), QStringLiteral("sdb")};
        QCOMPARE(Children(Blocks.chopped(1)), atStart);
        QStringList withCard = QStringList(atStart) << QStringLiteral("mmcblk1") << QStringLiteral("mmcblk1p1");
        withCard.sort();

        QVERIFY(m_Unit->Insert(QStringLiteral("right"), QStringLiteral("charts")));
        QCOMPARE(Children(Blocks.chopped(1)), withCard);
        const QDBusMessage reply = Call(Root, QStringLiteral("org.freedesktop.DBus.ObjectManager"), QStringLiteral("GetManagedObjects"));
        QCOMPARE(reply.signature(), QStringLiteral("a{oa{sa{sv}}}"));
        const QDBusArgument managed = reply.arguments().at(0).value<QDBusArgument>();
        QMap<QString, QStringList> objects;
        managed.beginMap();
        while (!managed.atEnd()) {
            QDBusObjectPath path;
            QMap<QString, QVariantMap> interfaces;
            managed.beginMapEntry();
            managed >> path >> interfaces;
            managed.endMapEntry();
            objects.insert(path.path().section(QLatin1Char('/'), -1), interfaces.keys());
        }
        managed.endMap();
        QCOMPARE(objects.size(), 1 + 7 + 3);
        QCOMPARE(objects.value(QStringLiteral("mmcblk1p1")),
                 (QStringList{BlockInterface, FilesystemInterface, QStringLiteral("org.freedesktop.UDisks2.Partition")}));
        QCOMPARE(objects.value(QStringLiteral("mmcblk1")), (QStringList{BlockInterface, QStringLiteral("org.freedesktop.UDisks2.PartitionTable")}));

        // Device nodes and numbers as udev knows them: 179:9 is mmcblk1p1.
        const QString p1 = Blocks + QStringLiteral("mmcblk1p1");
        QCOMPARE(Get(p1, BlockInterface, QStringLiteral("Device")).toByteArray(), QByteArray("/dev/mmcblk1p1", 15));
        QCOMPARE(Get(p1, BlockInterface, QStringLiteral("DeviceNumber")).toULongLong(), 179ull * 256 + 9);
        QCOMPARE(Get(Blocks + QStringLiteral("sdb"), BlockInterface, QStringLiteral("DeviceNumber")).toULongLong(), 8ull * 256 + 16);
        QVERIFY(Get(Blocks + QStringLiteral("mmcblk2p2"), BlockInterface, QStringLiteral("HintSystem")).toBool());
        QVERIFY(!Get(p1, BlockInterface, QStringLiteral("HintSystem")).toBool());
        const QString drive = Get(p1, BlockInterface, QStringLiteral("Drive")).value<QDBusObjectPath>().path();
        QCOMPARE(Get(drive, DriveInterface, QStringLiteral("ConnectionBus")).toString(), QStringLiteral("sdio"));

        QVERIFY(m_Unit->Remove(QStringLiteral("right")));
        QCOMPARE(Children(Blocks.chopped(1)), atStart);
        QCOMPARE(Call(p1, Properties, QStringLiteral("GetAll"), {BlockInterface}).type(), QDBusMessage::ErrorMessage);
    }

    void builtInSlotAndStickAppearDriveFirstAndGoPartitionFirst()
    {
        tSignalLog log(Bus());
        QVERIFY(m_Unit->Insert(QStringLiteral("left"), QStringLiteral("charts")));
        QVERIFY(m_Unit->Insert(QStringLiteral("usb"), QStringLiteral("stick")));
        const QStringList inserted{
            QStringLiteral("added SD16G_0x1a2b3c4d Drive"),
            QStringLiteral("added mmcblk0 Block,PartitionTable"),
            QStringLiteral("added mmcblk0p1 Block,Filesystem,Partition"),
            QStringLiteral("added SanDisk_Cruzer_Blade_4C530001220528115343 Drive"),
            QStringLiteral("added sda Block,PartitionTable"),
            QStringLiteral("added sda1 Block,Filesystem,Partition"),
        };
        QTRY_COMPARE(log.lines, inserted);
        QCOMPARE(log.messages.at(0).signature(), QStringLiteral("oa{sa{sv}}"));
        // The signal carries the real values, not just the names.
        const QDBusArgument added = log.messages.at(2).arguments().at(1).value<QDBusArgument>();
        const QMap<QString, QVariantMap> interfaces = qdbus_cast<QMap<QString, QVariantMap>>(added);
        QCOMPARE(interfaces.value(BlockInterface).value(QStringLiteral("IdLabel")).toString(), QStringLiteral("CHARTS"));
        QCOMPARE(interfaces.value(BlockInterface).value(QStringLiteral("DeviceNumber")).toULongLong(), 179ull * 256 + 1);

        // Pulled while mounted, card and stick alike: the objects go while the
        // kernel still holds the mount, then the service's clean-up job
        // removes the mount directory (recorded on udisksd 2.9.4, see
        // tSimDevices::CleanUp). MountPoints never changes.
        QVERIFY(Mount(QStringLiteral("mmcblk0p1")).type() == QDBusMessage::ReplyMessage);
        QVERIFY(Mount(QStringLiteral("sda1")).type() == QDBusMessage::ReplyMessage);
        QTRY_COMPARE(log.lines.size(), inserted.size() + 2);
        auto pullWhileMounted = [&](const char* slot, const QString& mountPoint, const QStringList& removed) {
            QVERIFY(QFileInfo(mountPoint).isDir());
            log.lines.clear();
            log.messages.clear();
            log.present.clear();
            log.watched = mountPoint;
            QVERIFY(m_Unit->Remove(QLatin1String(slot)));
            QTRY_COMPARE(log.lines.size(), removed.size() + 3);
            QCOMPARE(log.lines.mid(0, removed.size()), removed);
            const QString jobName = log.lines.at(removed.size()).section(QLatin1Char(' '), 1, 1);
            QCOMPARE(log.lines.mid(removed.size()), (QStringList{QStringLiteral("added %1 Job").arg(jobName),
                                                                 QStringLiteral("completed %1 true").arg(jobName),
                                                                 QStringLiteral("removed %1 Job").arg(jobName)}));
            QCOMPARE(log.messages.at(0).signature(), QStringLiteral("oas"));
            QCOMPARE(log.messages.at(removed.size()).path(), Root);
            QCOMPARE(log.messages.at(removed.size() + 1).signature(), QStringLiteral("bs"));
            const QVariantMap jobProperties = qdbus_cast<QMap<QString, QVariantMap>>(
                log.messages.at(removed.size()).arguments().at(1).value<QDBusArgument>()).value(QStringLiteral("org.freedesktop.UDisks2.Job"));
            QCOMPARE(jobProperties.value(QStringLiteral("Operation")).toString(), QStringLiteral("cleanup"));
            // Every object was gone while the directory was still there.
            QVERIFY(!log.present.mid(0, removed.size()).contains(false));
            QVERIFY(!QFileInfo::exists(mountPoint));
        };
        pullWhileMounted("left", m_Unit->MountBase() + QStringLiteral("/CHARTS"),
                         {QStringLiteral("removed mmcblk0p1 Filesystem,Partition,Block"),
                          QStringLiteral("removed mmcblk0 PartitionTable,Block"), QStringLiteral("removed SD16G_0x1a2b3c4d Drive")});
        pullWhileMounted("usb", m_Unit->MountBase() + QStringLiteral("/STICK"),
                         {QStringLiteral("removed sda1 Filesystem,Partition,Block"), QStringLiteral("removed sda PartitionTable,Block"),
                          QStringLiteral("removed SanDisk_Cruzer_Blade_4C530001220528115343 Drive")});
    }

    void cardReaderShowsMediaChangesAroundThePartition()
    {
        tSignalLog log(Bus());
        const QString drive = Get(Blocks + QStringLiteral("sdb"), BlockInterface, QStringLiteral("Drive")).value<QDBusObjectPath>().path();
        QVERIFY(!Get(drive, DriveInterface, QStringLiteral("MediaAvailable")).toBool());
        QCOMPARE(Get(Blocks + QStringLiteral("sdb"), BlockInterface, QStringLiteral("Size")).toULongLong(), 0ull);

        QVERIFY(m_Unit->Insert(QStringLiteral("reader"), QStringLiteral("photos")));
        QTRY_COMPARE(log.lines, (QStringList{
                                    QStringLiteral("changed Generic_Ultra_Fast_Media_000000264001 Drive Media,MediaAvailable,Size,TimeMediaDetected"),
                                    QStringLiteral("changed sdb Block ReadOnly,Size"),
                                    QStringLiteral("added sdb PartitionTable"),
                                    QStringLiteral("added sdb1 Block,Filesystem,Partition"),
                                }));
        QCOMPARE(Get(Blocks + QStringLiteral("sdb"), BlockInterface, QStringLiteral("Size")).toULongLong(), 31914983424ull);
        QCOMPARE(Get(drive, DriveInterface, QStringLiteral("ConnectionBus")).toString(), QStringLiteral("usb"));

        QVERIFY(Mount(QStringLiteral("sdb1")).type() == QDBusMessage::ReplyMessage);
        QTRY_COMPARE(log.lines.size(), 5);
        log.lines.clear();
        log.messages.clear();
        QVERIFY(m_Unit->Remove(QStringLiteral("reader")));
        // A client sees the mounted partition shrink to nothing before it goes.
        QTRY_COMPARE(log.lines, (QStringList{
                                    QStringLiteral("changed sdb1 Block Size"),
                                    QStringLiteral("changed sdb Block Size"),
                                    QStringLiteral("changed Generic_Ultra_Fast_Media_000000264001 Drive Media,MediaAvailable,Size"),
                                    QStringLiteral("removed sdb1 Filesystem,Partition,Block"),
                                    QStringLiteral("removed sdb PartitionTable"),
                                    QStringLiteral("added 0 Job"),
                                    QStringLiteral("completed 0 true"),
                                    QStringLiteral("removed 0 Job"),
                                }));
        QCOMPARE(qdbus_cast<QVariantMap>(log.messages.at(0).arguments().at(1)).value(QStringLiteral("Size")).toULongLong(), 0ull);
        QVERIFY(QDir(m_Unit->MountBase()).entryList(QDir::NoDotAndDotDot | QDir::AllEntries).isEmpty());
        QVERIFY(Children(Blocks.chopped(1)).contains(QStringLiteral("sdb")));
    }

    // A card formatted without a partition table: the reader's own block gains
    // and loses the filesystem, as a client waiting for it must see.
    void wholeMediumFilesystemAppearsOnTheReaderBlock()
    {
        tSignalLog log(Bus());
        const QString sdb = Blocks + QStringLiteral("sdb");
        QVERIFY(m_Unit->Insert(QStringLiteral("reader"), QStringLiteral("bare-card")));
        QTRY_COMPARE(log.lines, (QStringList{
                                    QStringLiteral("changed Generic_Ultra_Fast_Media_000000264001 Drive Media,MediaAvailable,Size,TimeMediaDetected"),
                                    QStringLiteral("changed sdb Block Id,IdLabel,IdType,IdUUID,IdUsage,IdVersion,ReadOnly,Size,Symlinks"),
                                    QStringLiteral("added sdb Filesystem"),
                                }));
        QCOMPARE(Get(sdb, BlockInterface, QStringLiteral("IdLabel")).toString(), QStringLiteral("MAPS"));
        QCOMPARE(Mount(QStringLiteral("sdb")).arguments().value(0).toString(), m_Unit->MountBase() + QStringLiteral("/MAPS"));
        QTRY_COMPARE(log.lines.size(), 4);
        log.lines.clear();
        QVERIFY(m_Unit->Remove(QStringLiteral("reader")));
        QTRY_COMPARE(log.lines, (QStringList{
                                    QStringLiteral("changed sdb Block Size"),
                                    QStringLiteral("changed Generic_Ultra_Fast_Media_000000264001 Drive Media,MediaAvailable,Size"),
                                    QStringLiteral("removed sdb Filesystem"),
                                    QStringLiteral("changed sdb Block Id,IdLabel,IdType,IdUUID,IdUsage,IdVersion,Symlinks"),
                                    QStringLiteral("added 0 Job"),
                                    QStringLiteral("completed 0 true"),
                                    QStringLiteral("removed 0 Job"),
                                }));
        QCOMPARE(Get(sdb, BlockInterface, QStringLiteral("IdUsage")).toString(), QString());
        QVERIFY(!QFileInfo::exists(m_Unit->MountBase() + QStringLiteral("/MAPS")));

        // The same on a stick: its disk block carries the filesystem from the start.
        QVERIFY(m_Unit->Insert(QStringLiteral("usb"), QStringLiteral("bare-stick")));
        QCOMPARE(Children(Blocks.chopped(1)).filter(QStringLiteral("sda")), QStringList{QStringLiteral("sda")});
        QCOMPARE(Mount(QStringLiteral("sda")).arguments().value(0).toString(), m_Unit->MountBase() + QStringLiteral("/KINGSTON"));
    }

    void mountAndUnmountBehaveAsTheService()
    {
        QVERIFY(m_Unit->Insert(QStringLiteral("left"), QStringLiteral("charts")));
        QVERIFY(m_Unit->Insert(QStringLiteral("right"), QStringLiteral("unlabelled")));
        tSignalLog log(Bus());
        const QString p1 = Blocks + QStringLiteral("mmcblk0p1");

        const QDBusMessage mounted = Mount(QStringLiteral("mmcblk0p1"), {{QStringLiteral("options"), QStringLiteral("ro,flush")}});
        QCOMPARE(mounted.signature(), QStringLiteral("s"));
        const QString path = mounted.arguments().at(0).toString();
        QCOMPARE(path, m_Unit->MountBase() + QStringLiteral("/CHARTS"));
        QVERIFY(QFileInfo(path).isDir());
        QCOMPARE(ByteStrings(Get(p1, FilesystemInterface, QStringLiteral("MountPoints"))), QStringList{path});
        QTRY_COMPARE(log.lines, QStringList{QStringLiteral("changed mmcblk0p1 Filesystem MountPoints")});
        QCOMPARE(log.messages.at(0).signature(), QStringLiteral("sa{sv}as"));
        QCOMPARE(ByteStrings(qdbus_cast<QVariantMap>(log.messages.at(0).arguments().at(1)).value(QStringLiteral("MountPoints"))),
                 QStringList{path});

        const QDBusMessage again = Mount(QStringLiteral("mmcblk0p1"));
        QCOMPARE(again.errorName(), QStringLiteral("org.freedesktop.UDisks2.Error.AlreadyMounted"));

        // Without a label the directory is named after the UUID.
        QCOMPARE(Mount(QStringLiteral("mmcblk1p1")).arguments().value(0).toString(), m_Unit->MountBase() + QStringLiteral("/4A21-0001"));

        QCOMPARE(Unmount(QStringLiteral("mmcblk0p1")).type(), QDBusMessage::ReplyMessage);
        QVERIFY(!QFileInfo::exists(path));
        QCOMPARE(ByteStrings(Get(p1, FilesystemInterface, QStringLiteral("MountPoints"))), QStringList());
        QTRY_COMPARE(log.lines.size(), 3);
        QCOMPARE(Unmount(QStringLiteral("mmcblk0p1")).errorName(), QStringLiteral("org.freedesktop.UDisks2.Error.NotMounted"));

        // A name already in use gets a number.
        QVERIFY(QDir().mkdir(m_Unit->MountBase() + QStringLiteral("/CHARTS")));
        QCOMPARE(Mount(QStringLiteral("mmcblk0p1")).arguments().value(0).toString(), m_Unit->MountBase() + QStringLiteral("/CHARTS1"));

        // Neither a whole disk nor a system-less method name mounts anything.
        QCOMPARE(Mount(QStringLiteral("mmcblk0")).errorName(), QStringLiteral("org.freedesktop.DBus.Error.UnknownMethod"));
        QCOMPARE(Call(p1, FilesystemInterface, QStringLiteral("Mount"), {QStringLiteral("ro")}).errorName(),
                 QStringLiteral("org.freedesktop.DBus.Error.InvalidArgs"));

        const QStringList calls = m_Unit->Calls();
        QVERIFY2(calls.contains(QStringLiteral("Mount mmcblk0p1 %1 options=ro,flush").arg(path)), qPrintable(calls.join('\n')));
        QVERIFY(calls.contains(QStringLiteral("Mount-refused mmcblk0p1")));
        QVERIFY(calls.contains(QStringLiteral("Unmount mmcblk0p1")));
    }

    void controlInjectsFaultsAndRefusesNonsense()
    {
        QVERIFY(m_Unit->Insert(QStringLiteral("left"), QStringLiteral("charts")));
        QVERIFY(m_Unit->FailNextMount(QStringLiteral("Error mounting /dev/mmcblk0p1: wrong fs type")));
        const QDBusMessage failed = Mount(QStringLiteral("mmcblk0p1"));
        QCOMPARE(failed.errorName(), QStringLiteral("org.freedesktop.UDisks2.Error.Failed"));
        QCOMPARE(failed.errorMessage(), QStringLiteral("Error mounting /dev/mmcblk0p1: wrong fs type"));
        QCOMPARE(ByteStrings(Get(Blocks + QStringLiteral("mmcblk0p1"), FilesystemInterface, QStringLiteral("MountPoints"))), QStringList());
        // Only the next one fails.
        QCOMPARE(Mount(QStringLiteral("mmcblk0p1")).type(), QDBusMessage::ReplyMessage);

        tSignalLog log(Bus());
        QVERIFY(m_Unit->Unmount(QStringLiteral("mmcblk0p1")));
        QTRY_COMPARE(log.lines, QStringList{QStringLiteral("changed mmcblk0p1 Filesystem MountPoints")});
        QVERIFY(!QFileInfo::exists(m_Unit->MountBase() + QStringLiteral("/CHARTS")));

        QString error;
        QVERIFY(!m_Unit->Unmount(QStringLiteral("mmcblk0p1"), &error));
        QVERIFY(!m_Unit->Insert(QStringLiteral("left"), QStringLiteral("photos"), &error));
        QVERIFY2(error.contains(QStringLiteral("already holds")), qPrintable(error));
        QVERIFY(!m_Unit->Insert(QStringLiteral("right"), QStringLiteral("no-such-medium"), &error));
        QVERIFY(!m_Unit->Insert(QStringLiteral("right"), QStringLiteral("charts"), &error));
        QVERIFY2(error.contains(QStringLiteral("is in slot \"left\"")), qPrintable(error));
        QVERIFY(!m_Unit->Remove(QStringLiteral("reader"), &error));
        QVERIFY(!m_Unit->Remove(QStringLiteral("no-such-slot"), &error));
        QCOMPARE(log.lines.size(), 1);
    }

    // A slow card: the held Mount is seen to arrive at once, but answered,
    // with its directory and signal, only after the delay; pulled meanwhile,
    // it fails the way the service fails and leaves no directory behind.
    void heldMountIsAnsweredLateOrFailsWhenPulled()
    {
        QVERIFY(m_Unit->Insert(QStringLiteral("left"), QStringLiteral("charts")));
        QVERIFY(m_Unit->Insert(QStringLiteral("usb"), QStringLiteral("stick")));
        QString error;
        QVERIFY(!m_Unit->Hold(QStringLiteral("Eject"), 100, &error));
        QVERIFY(m_Unit->Hold(QStringLiteral("Mount"), 1000));
        tSignalLog log(Bus());
        const QString charts = m_Unit->MountBase() + QStringLiteral("/CHARTS");
        auto mountLater = [this](const char* node) {
            QDBusMessage call = QDBusMessage::createMethodCall(Service, Blocks + QLatin1String(node), FilesystemInterface,
                                                               QStringLiteral("Mount"));
            call << QVariantMap();
            return Bus().asyncCall(call);
        };

        QElapsedTimer clock;
        clock.start();
        QDBusPendingCall held = mountLater("mmcblk0p1");
        QTRY_VERIFY(m_Unit->Calls().contains(QStringLiteral("Mount-held mmcblk0p1")));
        QTest::qWait(200);
        QVERIFY(!held.isFinished());
        QVERIFY(!QFileInfo::exists(charts));
        QVERIFY(log.lines.isEmpty());
        held.waitForFinished();
        QVERIFY2(clock.elapsed() >= 1000, qPrintable(QString::number(clock.elapsed())));
        QCOMPARE(held.reply().arguments().value(0).toString(), charts);
        QVERIFY(QFileInfo(charts).isDir());
        QTRY_COMPARE(log.lines, QStringList{QStringLiteral("changed mmcblk0p1 Filesystem MountPoints")});
        // The timeline puts the answer a second after the arrival.
        const QStringList timeline = m_Unit->Timeline().filter(QStringLiteral(" mmcblk0p1"));
        QCOMPARE(timeline.size(), 2);
        const double arrived = timeline.at(0).section(QLatin1Char(' '), 0, 0).toDouble();
        const double answered = timeline.at(1).section(QLatin1Char(' '), 0, 0).toDouble();
        QCOMPARE(timeline.at(1).section(QLatin1Char(' '), 1), QStringLiteral("Mount mmcblk0p1 ") + charts);
        QVERIFY2(answered - arrived >= 1000 && answered - arrived < 1500, qPrintable(timeline.join('\n')));

        QDBusPendingCall pulled = mountLater("sda1");
        QTRY_VERIFY(m_Unit->Calls().contains(QStringLiteral("Mount-held sda1")));
        QVERIFY(m_Unit->Remove(QStringLiteral("usb")));
        pulled.waitForFinished();
        QCOMPARE(pulled.error().name(), QStringLiteral("org.freedesktop.UDisks2.Error.Failed"));
        QVERIFY2(pulled.error().message().startsWith(QStringLiteral("Error mounting /dev/sda1 at ")), qPrintable(pulled.error().message()));
        QVERIFY(!QFileInfo::exists(m_Unit->MountBase() + QStringLiteral("/STICK")));
        QCOMPARE(m_Unit->Calls().constLast(), QStringLiteral("Mount-vanished sda1"));

        // Put back in time, it is another object: the old call still fails.
        QVERIFY(m_Unit->Insert(QStringLiteral("usb"), QStringLiteral("stick")));
        QDBusPendingCall returned = mountLater("sda1");
        QTRY_VERIFY(m_Unit->Calls().constLast() == QStringLiteral("Mount-held sda1"));
        QVERIFY(m_Unit->Remove(QStringLiteral("usb")));
        QVERIFY(m_Unit->Insert(QStringLiteral("usb"), QStringLiteral("stick")));
        returned.waitForFinished();
        QCOMPARE(returned.error().name(), QStringLiteral("org.freedesktop.UDisks2.Error.Failed"));

        QVERIFY(m_Unit->Hold(QStringLiteral("Mount"), 0));
        clock.restart();
        QCOMPARE(Mount(QStringLiteral("sda1")).type(), QDBusMessage::ReplyMessage);
        QVERIFY(clock.elapsed() < 500);
    }
};

QTEST_GUILESS_MAIN(tTestUDisks2Sim)
#include "tst_udisks2sim.moc"
