// What the daemon says about a card or a stick: names from the platform slot
// file, card identities and reader models through the real libudev.
//
// Runs in a private mount namespace: the unit's sysfs tree (generated from
// the same unit description the simulator serves) over /sys, the slot file at
// /run/corvex_platform/config, and a /dev of plain files standing in for the
// device nodes. UDisks2 is stood in for by the project's simulator.

#include "PrivateMounts.h"
#include "SimulatedUnit.h"
#include "UnitSysfs.h"
#include "storage/FileSystemInfo.h"
#include "storage/PlatformConfig.h"
#include "udisks2/UDisks2.h"
#include "udisks2/UDisks2Block.h"
#include "udisks2/UDisks2FileSystem.h"

#include <QtTest>

#include <memory>

namespace {

QString StorageUnit()
{
    return QDir(qEnvironmentVariable("LARKD_STORAGE_UNITS")).filePath(QStringLiteral("storage-unit.json"));
}

const QByteArray ChartsCid = "035344534c31364780b1d4a4c5011600";
const QByteArray PhotosCid = "02544d5341333247060e6cc1ab00d4aa";

QStringList g_warnings;
void RecordWarnings(QtMsgType type, const QMessageLogContext&, const QString& message)
{
    if (type == QtWarningMsg)
        g_warnings << message;
}

bool WriteFile(const QString& path, const QByteArray& contents = QByteArray())
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(contents) == contents.size();
}

} // namespace

class tst_LocalVolumeInfo : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void init();
    void cleanup();

    void cardNamesAndIdentities_data();
    void cardNamesAndIdentities();
    void usbNamesAndIdentities_data();
    void usbNamesAndIdentities();
    void slotFileIsReadOncePerVolume();

private:
    tFileSystemInfo* Insert(const QString& slot, const QString& medium, const QString& node);
    void WriteSlotFile(const QByteArray& contents);

    std::unique_ptr<tSimulatedUnit> m_Unit;
    std::unique_ptr<tUnitSysfs> m_Sysfs;
    std::unique_ptr<tUDisks2> m_Registry;
    QStringList m_Filled;
};

void tst_LocalVolumeInfo::initTestCase()
{
    LARKD_REQUIRE_NAMESPACE();
    QVERIFY(MountTmpfs(QStringLiteral("/sys")));
    QVERIFY(MountTmpfs(QStringLiteral("/run/corvex_platform")));
    QVERIFY(ReplaceDevWithTmpfs());

    m_Sysfs.reset(new tUnitSysfs);
    QString error;
    QVERIFY2(m_Sysfs->Load(StorageUnit(), &error), qPrintable(error));
    QVERIFY(m_Sysfs->WriteSlot(QStringLiteral("left"), QStringLiteral("charts")));

    // Whole-disk nodes the slot file points at, through by-path links.
    QVERIFY(QDir().mkpath(QStringLiteral("/dev/disk/by-path")));
    for (const char* disk : { "mmcblk0", "mmcblk1", "sdb" })
        QVERIFY(WriteFile(QStringLiteral("/dev/") + QLatin1String(disk)));
    QVERIFY(QFile::link(QStringLiteral("../../mmcblk0"), QStringLiteral("/dev/disk/by-path/slot0")));
    QVERIFY(QFile::link(QStringLiteral("../../mmcblk1"), QStringLiteral("/dev/disk/by-path/slot1")));
    QVERIFY(QFile::link(QStringLiteral("../../sdb"), QStringLiteral("/dev/disk/by-path/usb-reader")));

    m_Unit.reset(new tSimulatedUnit(StorageUnit()));
    QVERIFY2(m_Unit->Start(true, &error), qPrintable(error));
}

void tst_LocalVolumeInfo::init()
{
    QFile::remove(QString::fromLatin1(PlatformConfigPath));
    m_Registry.reset(new tUDisks2);
}

void tst_LocalVolumeInfo::cleanup()
{
    for (const QString& slot : qAsConst(m_Filled))
        m_Unit->Remove(slot);
    m_Filled.clear();
    m_Registry.reset();
    for (const char* node : { "sda1", "sdb1", "sdc1", "sdd1" })
        QFile::remove(QStringLiteral("/dev/") + QLatin1String(node));
}

void tst_LocalVolumeInfo::WriteSlotFile(const QByteArray& contents)
{
    QVERIFY(WriteFile(QString::fromLatin1(PlatformConfigPath), contents));
}

tFileSystemInfo* tst_LocalVolumeInfo::Insert(const QString& slot, const QString& medium, const QString& node)
{
    if (!m_Sysfs->WriteSlot(slot, medium))
        return nullptr;
    if (slot != QLatin1String("left")) {
        if (!m_Unit->Insert(slot, medium))
            return nullptr;
        m_Filled << slot;
    }
    m_Registry->Enumerate();
    const bool added = QTest::qWaitFor(
        [&] { return tUDisks2::Block(node) && tUDisks2::Block(node)->FileSystem(); }, 5000);
    return added ? tUDisks2::Block(node)->FileSystem()->Info() : nullptr;
}

void tst_LocalVolumeInfo::cardNamesAndIdentities_data()
{
    QTest::addColumn<QByteArray>("slotFile");
    QTest::addColumn<QString>("slot");
    QTest::addColumn<QString>("friendlyName");
    QTest::addColumn<QString>("symlinkName");

    const QByteArray twoSlots = "sd_slots=top,/dev/disk/by-path/slot0:bottom,/dev/disk/by-path/slot1\n";
    QTest::newRow("no slot file") << QByteArray() << "right" << "Memory Card" << "Memory Card - 1";
    QTest::newRow("two slots, bottom") << twoSlots << "right" << "Memory Card - Bottom" << "Memory Card - 2";
    QTest::newRow("two slots, top") << twoSlots << "left" << "Memory Card - Top" << "Memory Card - 1";
    QTest::newRow("single slot") << QByteArray("sd_slots=single,/dev/disk/by-path/slot1\n") << "right"
                                 << "Memory Card" << "Memory Card - 1";
    QTest::newRow("unknown name not counted")
        << QByteArray("sd_slots=middle,/dev/disk/by-path/slot0:left,/dev/disk/by-path/slot1\n") << "right"
        << "Memory Card - Left" << "Memory Card - 1";
    QTest::newRow("missing slot path passed over")
        << QByteArray("sd_slots=top,/dev/disk/by-path/gone:right,/dev/disk/by-path/slot1\n") << "right"
        << "Memory Card - Right" << "Memory Card - 2";
    QTest::newRow("device node itself") << QByteArray("sd_slots=Left,/dev/mmcblk1\n") << "right"
                                        << "Memory Card - Left" << "Memory Card - 1";
    QTest::newRow("card in no listed slot") << QByteArray("sd_slots=top,/dev/disk/by-path/slot0\n") << "right"
                                            << "Memory Card" << "Memory Card - 1";
    QTest::newRow("not an MMC node") << twoSlots << "odd-sdio" << "Memory Card" << "UNEXPECTED";
}

void tst_LocalVolumeInfo::cardNamesAndIdentities()
{
    LARKD_REQUIRE_NAMESPACE();
    QFETCH(QByteArray, slotFile);
    QFETCH(QString, slot);
    QFETCH(QString, friendlyName);
    QFETCH(QString, symlinkName);
    if (!slotFile.isEmpty())
        WriteSlotFile(slotFile);

    const QMap<QString, QString> nodes = { { "left", "mmcblk0p1" }, { "right", "mmcblk1p1" }, { "odd-sdio", "sde1" } };
    tFileSystemInfo* info = Insert(slot, slot == QLatin1String("left") ? QStringLiteral("charts") : QStringLiteral("photos"),
                                   nodes.value(slot));
    QVERIFY(info);
    QCOMPARE(info->FriendlyName(), friendlyName);
    QCOMPARE(info->SymlinkName(), symlinkName);
    QCOMPARE(info->IdType(), QStringLiteral("vfat"));
    QCOMPARE(info->ReadOnly(), false);
    QCOMPARE(info->FromPeer(), false);
    QVERIFY(!info->ContentId().isNull() && info->ContentId().isEmpty());
    QVERIFY(info->CodeName().isNull());
    // As the card reports it; the daemon fixes the CRC only when it sends it.
    if (slot != QLatin1String("odd-sdio"))
        QCOMPARE(info->Cid(), QString::fromLatin1(slot == QLatin1String("left") ? ChartsCid : PhotosCid));
}

void tst_LocalVolumeInfo::usbNamesAndIdentities_data()
{
    QTest::addColumn<QByteArray>("slotFile");
    QTest::addColumn<QString>("slot");
    QTest::addColumn<QString>("medium");
    QTest::addColumn<QString>("node");
    QTest::addColumn<bool>("nodeExists");
    QTest::addColumn<QString>("friendlyName");
    QTest::addColumn<QString>("symlinkName");
    QTest::addColumn<QStringList>("warnings");

    // A stick's node is missing: opening it would show as a warning.
    QTest::newRow("stick") << QByteArray() << "usb" << "stick" << "sda1" << false << "USB Mass Storage"
                           << "USB Memory Card A1" << QStringList();
    // Same vendor, other product: with a node present, a vendor command would fail loudly.
    QTest::newRow("0424:2241 is no reader") << QByteArray() << "lookalike" << "photos" << "sdd1" << true
                                            << "USB Mass Storage" << "USB Memory Card D1" << QStringList();
    QTest::newRow("2240 reader, node missing")
        << QByteArray() << "ksx" << "photos" << "sdb1" << false << "KSX SD Card Reader" << "USB Memory Card B1"
        << QStringList{ "tUsbFileSystemInfo::FriendlyName(): Failed to open /dev/sdb1" };
    QTest::newRow("4040 reader, node missing")
        << QByteArray() << "rv20" << "photos" << "sdc1" << false << "RV20" << "USB Memory Card C1"
        << QStringList{ "tUsbFileSystemInfo::FriendlyName(): Failed to open /dev/sdc1",
                        "tUsbFileSystemInfo::FriendlyName(): Failed to open /dev/sdc1" };
    QTest::newRow("4040 reader, node not SCSI")
        << QByteArray() << "rv20" << "photos" << "sdc1" << true << "RV20" << "USB Memory Card C1"
        << QStringList{ "tUsbFileSystemInfo::FriendlyName(): ioctl(): Inappropriate ioctl for device",
                        "SendSmscScsiCommand(): ioctl(): Inappropriate ioctl for device" };
    QTest::newRow("reader wired to a slot")
        << QByteArray("sd_slots=top,/dev/disk/by-path/slot0:left,/dev/disk/by-path/usb-reader\n") << "ksx"
        << "photos" << "sdb1" << true << "Memory Card - Left" << "Memory Card - 2"
        << QStringList{ "SendSmscScsiCommand(): ioctl(): Inappropriate ioctl for device" };
    QTest::newRow("not a SCSI disk node") << QByteArray() << "odd-usb" << "stick" << "mmcblk5p1" << false
                                          << "USB Mass Storage" << "UNEXPECTED" << QStringList();
}

void tst_LocalVolumeInfo::usbNamesAndIdentities()
{
    LARKD_REQUIRE_NAMESPACE();
    QFETCH(QByteArray, slotFile);
    QFETCH(QString, slot);
    QFETCH(QString, medium);
    QFETCH(QString, node);
    QFETCH(bool, nodeExists);
    QFETCH(QString, friendlyName);
    QFETCH(QString, symlinkName);
    QFETCH(QStringList, warnings);
    if (!slotFile.isEmpty())
        WriteSlotFile(slotFile);
    if (nodeExists)
        QVERIFY(WriteFile(QStringLiteral("/dev/") + node));

    tFileSystemInfo* info = Insert(slot, medium, node);
    QVERIFY(info);
    g_warnings.clear();
    const QtMessageHandler previous = qInstallMessageHandler(RecordWarnings);
    const QString friendly = info->FriendlyName();
    const QString symlink = info->SymlinkName();
    const QString cid = info->Cid();
    qInstallMessageHandler(previous);
    QCOMPARE(friendly, friendlyName);
    QCOMPARE(symlink, symlinkName);
    // No reader here answers the vendor command, so no identity either way;
    // empty but not null, for a null key would tell the application "gone".
    QVERIFY(cid.isEmpty());
    QVERIFY(!cid.isNull());
    QCOMPARE(g_warnings, warnings);
}

void tst_LocalVolumeInfo::slotFileIsReadOncePerVolume()
{
    LARKD_REQUIRE_NAMESPACE();
    WriteSlotFile("sd_slots=top,/dev/disk/by-path/slot0:bottom,/dev/disk/by-path/slot1\n");
    tFileSystemInfo* info = Insert(QStringLiteral("right"), QStringLiteral("photos"), QStringLiteral("mmcblk1p1"));
    QVERIFY(info);
    QCOMPARE(info->FriendlyName(), QStringLiteral("Memory Card - Bottom"));

    // The platform layer rewrites the file: this volume keeps what it read,
    // a volume first asked afterwards gets the new names.
    WriteSlotFile("sd_slots=right,/dev/disk/by-path/slot1\n");
    QCOMPARE(info->FriendlyName(), QStringLiteral("Memory Card - Bottom"));
    QCOMPARE(info->SymlinkName(), QStringLiteral("Memory Card - 2"));
    tFileSystemInfo* later = Insert(QStringLiteral("left"), QStringLiteral("charts"), QStringLiteral("mmcblk0p1"));
    QVERIFY(later);
    QCOMPARE(later->FriendlyName(), QStringLiteral("Memory Card"));
}

LARKD_NAMESPACE_TEST_MAIN(tst_LocalVolumeInfo)
#include "tst_localvolumeinfo.moc"
