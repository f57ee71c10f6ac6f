// Loading a simulated unit's description: what the example unit yields, the
// kernel's naming and numbering of partitions, and the refusals that keep a
// mistyped file from starting a simulator that silently lacks a slot.

#include "UnitDescription.h"

#include <QtTest>

class tTestUnitDescription : public QObject
{
    Q_OBJECT
private slots:
    void exampleUnitLoads()
    {
        tUnitDescription unit;
        QString error;
        QVERIFY2(unit.Load(QFINDTESTDATA("../../tools/udisks2-sim/units/two-slots-stick-reader.json"), &error), qPrintable(error));
        QCOMPARE(unit.Slots().size(), 5);
        const tUnitSlot* reader = unit.Slot(QStringLiteral("reader"));
        QVERIFY(reader && reader->hasReader);
        QCOMPARE(reader->reader.usbId, QStringLiteral("0424:4040"));
        QVERIFY(unit.Slot(QStringLiteral("internal"))->system);
        QVERIFY(!unit.Slot(QStringLiteral("left"))->system);

        // Partitions follow each other from 1 MiB; the last one fills the medium.
        const tUnitMedium* emmc = unit.Medium(QStringLiteral("emmc"));
        QVERIFY(emmc);
        QCOMPARE(emmc->partitions.size(), 3);
        QCOMPARE(emmc->partitions.at(0).offset, 1048576ull);
        QCOMPARE(emmc->partitions.at(1).offset, 1048576ull + 67108864);
        const tUnitPartition& last = emmc->partitions.at(2);
        QCOMPARE(last.offset + last.size, emmc->size);
        const tUnitMedium* bare = unit.Medium(QStringLiteral("bare-stick"));
        QVERIFY(bare && bare->partitions.isEmpty());
        QCOMPARE(bare->filesystem.label, QStringLiteral("KINGSTON"));
        QCOMPARE(bare->filesystem.size, bare->size);
        QCOMPARE(unit.Present().size(), 1);
        QCOMPARE(unit.Present().at(0).medium, QStringLiteral("emmc"));
    }

    void partitionsAreNamedAndNumberedAsTheKernelDoes()
    {
        tUnitSlot mmc;
        mmc.device = QStringLiteral("mmcblk1");
        QCOMPARE(mmc.PartitionDevice(2), QStringLiteral("mmcblk1p2"));
        tUnitSlot scsi;
        scsi.device = QStringLiteral("sdb");
        QCOMPARE(scsi.PartitionDevice(1), QStringLiteral("sdb1"));

        // Minors beyond 255 and majors beyond 4095 use the split encoding of glibc's makedev().
        QCOMPARE(tUnitDescription::MakeDeviceNumber(8, 256), 0x100800ull);
        QCOMPARE(tUnitDescription::MakeDeviceNumber(4096, 0), 0x100000000000ull);
    }

    void faultsAreRefusedWithTheirPlace_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QString>("named");
        const QByteArray slot = R"({"name": "left", "bus": "sdio", "device": "mmcblk0", "deviceNumber": "179:0"})";
        const QByteArray medium = R"({"name": "card", "size": 1000000000, "partitions": [{"type": "vfat"}]})";
        QTest::newRow("not JSON") << QByteArray("{slots") << QString("not a JSON object");
        QTest::newRow("unknown bus") << QByteArray(R"({"slots": [{"name": "x", "bus": "pci", "device": "sda", "deviceNumber": "8:0"}]})")
                                     << QString("slot \"x\": bus");
        QTest::newRow("bad device number") << QByteArray(R"({"slots": [{"name": "x", "bus": "usb", "device": "sda", "deviceNumber": "8-0"}]})")
                                           << QString("slot \"x\": deviceNumber");
        QTest::newRow("slot twice") << "{\"slots\": [" + slot + "," + slot + "]}" << QString("slot \"left\": name or device used twice");
        QTest::newRow("reader on sdio")
            << QByteArray(R"({"slots": [{"name": "r", "bus": "sdio", "device": "mmcblk0", "deviceNumber": "179:0", "reader": {}}]})")
            << QString("slot \"r\": a card reader");
        QTest::newRow("partition too big")
            << QByteArray(R"({"media": [{"name": "m", "size": 2000000, "partitions": [{"type": "vfat", "size": 1500000}]}]})")
            << QString("medium \"m\": partition 1 does not fit");
        QTest::newRow("filesystem and partitions")
            << QByteArray(R"({"media": [{"name": "m", "size": 2000000, "filesystem": {"type": "vfat"}, "partitions": [{"type": "vfat"}]}]})")
            << QString("medium \"m\": a whole-medium filesystem");
        QTest::newRow("medium without size") << QByteArray(R"({"media": [{"name": "m"}]})") << QString("medium \"m\"");
        QTest::newRow("unknown slot present") << "{\"media\": [" + medium + "], \"present\": [{\"slot\": \"nowhere\", \"medium\": \"card\"}]}"
                                              << QString("\"nowhere\"");
        QTest::newRow("slot filled twice")
            << "{\"slots\": [" + slot + "], \"media\": [" + medium
                   + "], \"present\": [{\"slot\": \"left\", \"medium\": \"card\"}, {\"slot\": \"left\", \"medium\": \"card\"}]}"
            << QString("doubly filled slot \"left\"");
    }

    void faultsAreRefusedWithTheirPlace()
    {
        QFETCH(QByteArray, json);
        QFETCH(QString, named);
        tUnitDescription unit;
        QString error;
        QVERIFY(!unit.Parse(json, &error));
        QVERIFY2(error.contains(named), qPrintable(error));
        QVERIFY(unit.Slots().isEmpty());
    }
};

QTEST_GUILESS_MAIN(tTestUnitDescription)
#include "tst_unitdescription.moc"
