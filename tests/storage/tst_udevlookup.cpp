// Device-number lookups through the real libudev, reading a generated sysfs
// tree mounted over /sys in a private mount namespace.

#include "PrivateMounts.h"
#include "SysfsTree.h"
#include "storage/UdevLookup.h"

#include <QtTest>

#include <sys/sysmacros.h>

namespace {
const QByteArray CardCid = "035344534c31364780b1d4a4c5011600";
}

class tst_UdevLookup : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void cidComesFromTheCardAbovePartitionAndDisk();
    void usbIdComesFromTheUsbDevice_data();
    void usbIdComesFromTheUsbDevice();
    void unknownDevicesGiveNothing();
};

void tst_UdevLookup::initTestCase()
{
    LARKD_REQUIRE_NAMESPACE();
    QVERIFY(MountTmpfs(QStringLiteral("/sys")));
    tSysfsTree sysfs;
    const QString card = sysfs.AddMmcCard(0, CardCid);
    const QString disk = sysfs.AddBlock(card, QStringLiteral("mmcblk0"), 179, 0, QStringLiteral("disk"));
    QVERIFY(!sysfs.AddBlock(disk, QStringLiteral("mmcblk0p1"), 179, 1, QStringLiteral("partition")).isEmpty());

    const struct
    {
        const char* port;
        const char* vendor;
        const char* product;
        const char* disk;
        unsigned minor;
    } sticks[] = {
        { "1-1", "0424", "2240", "sdb", 16 },
        { "1-2", "0424", "4040", "sdc", 32 },
        { "1-3", "0424", "2241", "sdd", 48 },
        { "1-4", "0781", "5567", "sde", 64 },
    };
    for (const auto& stick : sticks) {
        const QString scsi = sysfs.AddUsbStorage(QLatin1String(stick.port), stick.vendor, stick.product);
        const QString diskPath = sysfs.AddBlock(scsi, QLatin1String(stick.disk), 8, stick.minor, QStringLiteral("disk"));
        QVERIFY(!sysfs.AddBlock(diskPath, QLatin1String(stick.disk) + QLatin1Char('1'), 8, stick.minor + 1,
                                QStringLiteral("partition"))
                     .isEmpty());
    }
}

void tst_UdevLookup::cidComesFromTheCardAbovePartitionAndDisk()
{
    QCOMPARE(NearestSysAttribute(makedev(179, 1), "cid"), CardCid);
    QCOMPARE(NearestSysAttribute(makedev(179, 0), "cid"), CardCid);
    // A USB stick has no card register anywhere up its chain.
    QVERIFY(NearestSysAttribute(makedev(8, 17), "cid").isNull());
}

void tst_UdevLookup::usbIdComesFromTheUsbDevice_data()
{
    QTest::addColumn<unsigned>("minor");
    QTest::addColumn<QByteArray>("vendor");
    QTest::addColumn<QByteArray>("product");
    QTest::newRow("reader 2240, partition") << 17u << QByteArray("0424") << QByteArray("2240");
    QTest::newRow("reader 2240, disk") << 16u << QByteArray("0424") << QByteArray("2240");
    QTest::newRow("reader 4040") << 33u << QByteArray("0424") << QByteArray("4040");
    QTest::newRow("same vendor, other product") << 49u << QByteArray("0424") << QByteArray("2241");
    QTest::newRow("stick") << 65u << QByteArray("0781") << QByteArray("5567");
}

void tst_UdevLookup::usbIdComesFromTheUsbDevice()
{
    QFETCH(unsigned, minor);
    QFETCH(QByteArray, vendor);
    QFETCH(QByteArray, product);
    const tUsbId id = UsbIdOf(makedev(8, minor));
    QCOMPARE(id.vendor, vendor);
    QCOMPARE(id.product, product);
}

void tst_UdevLookup::unknownDevicesGiveNothing()
{
    // Not on USB at all.
    QVERIFY(UsbIdOf(makedev(179, 1)).vendor.isNull());
    // No such device number in the tree.
    QVERIFY(UsbIdOf(makedev(8, 200)).product.isNull());
    QVERIFY(NearestSysAttribute(makedev(179, 9), "cid").isNull());
    QVERIFY(NearestSysAttribute(0, "cid").isNull());
}

LARKD_NAMESPACE_TEST_MAIN(tst_UdevLookup)
#include "tst_udevlookup.moc"
