// What the daemon says about a card or a stick where the end-to-end unit
// cannot reach: slot table entries that point nowhere or at a node, card
// readers told apart by their USB IDs, a reader wired to a slot, a slot
// table rewritten while a volume is there.
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

const QString PhotosCid = QStringLiteral("02544d5341333247060e6cc1ab00d4aa");

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
    void initTestCase()
    {
        LARKD_REQUIRE_NAMESPACE();
        QVERIFY(MountTmpfs(QStringLiteral("/sys")));
        QVERIFY(MountTmpfs(QStringLiteral("/run/corvex_platform")));
        QVERIFY(ReplaceDevWithTmpfs());

        const QString unitFile = QDir(qEnvironmentVariable("LARKD_STORAGE_UNITS")).filePath(QStringLiteral("storage-unit.json"));
        m_Sysfs.reset(new tUnitSysfs);
        QString error;
        QVERIFY2(m_Sysfs->Load(unitFile, &error), qPrintable(error));
        QVERIFY(m_Sysfs->WriteSlot(QStringLiteral("left"), QStringLiteral("charts")));

        // Whole-disk nodes the slot file points at, through by-path links.
        QVERIFY(QDir().mkpath(QStringLiteral("/dev/disk/by-path")));
        for (const auto& [link, disk] : { std::pair{ "slot0", "mmcblk0" }, { "slot1", "mmcblk1" }, { "usb-reader", "sdb" } }) {
            QVERIFY(WriteFile(QStringLiteral("/dev/") + QLatin1String(disk)));
            QVERIFY(QFile::link(QStringLiteral("../../") + disk, QStringLiteral("/dev/disk/by-path/") + link));
        }

        m_Unit.reset(new tSimulatedUnit(unitFile));
        QVERIFY2(m_Unit->Start(true, &error), qPrintable(error));
    }

    void init()
    {
        QFile::remove(QString::fromLatin1(PlatformConfigPath));
        m_Registry.reset(new tUDisks2);
    }

    void cleanup()
    {
        for (const QString& slot : qAsConst(m_Filled))
            m_Unit->Remove(slot);
        m_Filled.clear();
        m_Registry.reset();
    }

    void namesAndIdentities_data()
    {
        // Friendly name, link name and card identity, as the card reports it
        // (the daemon fixes the CRC only when it sends it).
        QTest::addColumn<QByteArray>("slotFile");
        QTest::addColumn<QString>("slot");
        QTest::addColumn<QString>("node");
        QTest::addColumn<QStringList>("names");

        // A slot whose path is missing still counts in the numbering.
        QTest::newRow("card, a slot path missing")
            << QByteArray("sd_slots=top,/dev/disk/by-path/gone:right,/dev/disk/by-path/slot1\n") << "right" << "mmcblk1p1"
            << QStringList{ "Memory Card - Right", "Memory Card - 2", PhotosCid };
        QTest::newRow("card, slot given as its node") << QByteArray("sd_slots=Left,/dev/mmcblk1\n") << "right" << "mmcblk1p1"
                                                      << QStringList{ "Memory Card - Left", "Memory Card - 1", PhotosCid };
        // Device nodes are plain files here, which refuse the reader's ioctls: no
        // card key, and an empty one, not the null that tells the application a
        // volume is gone.
        QTest::newRow("0424:2241 is no reader") << QByteArray() << "lookalike" << "sdd1"
                                                << QStringList{ "USB Mass Storage", "USB Memory Card D1", "" };
        QTest::newRow("0424:2240 reader") << QByteArray() << "ksx" << "sdb1"
                                          << QStringList{ "KSX SD Card Reader", "USB Memory Card B1", "" };
        QTest::newRow("0424:4040 reader") << QByteArray() << "rv20" << "sdc1" << QStringList{ "RV20", "USB Memory Card C1", "" };
        QTest::newRow("reader wired to a slot")
            << QByteArray("sd_slots=top,/dev/disk/by-path/slot0:left,/dev/disk/by-path/usb-reader\n") << "ksx" << "sdb1"
            << QStringList{ "Memory Card - Left", "Memory Card - 2", "" };
    }

    void namesAndIdentities()
    {
        QFETCH(QByteArray, slotFile);
        QFETCH(QString, slot);
        QFETCH(QString, node);
        QFETCH(QStringList, names);
        QVERIFY(slotFile.isEmpty() || WriteFile(QString::fromLatin1(PlatformConfigPath), slotFile));
        QVERIFY(WriteFile(QStringLiteral("/dev/") + node));
        tFileSystemInfo* info = Insert(slot, QStringLiteral("photos"), node);
        QVERIFY(info && !info->Cid().isNull());
        QCOMPARE(QStringList({ info->FriendlyName(), info->SymlinkName(), info->Cid() }), names);
    }

    void slotFileIsReadOncePerVolume()
    {
        QVERIFY(WriteFile(QString::fromLatin1(PlatformConfigPath),
                          "sd_slots=top,/dev/disk/by-path/slot0:bottom,/dev/disk/by-path/slot1\n"));
        tFileSystemInfo* info = Insert(QStringLiteral("right"), QStringLiteral("photos"), QStringLiteral("mmcblk1p1"));
        QVERIFY(info && info->FriendlyName() == QStringLiteral("Memory Card - Bottom"));

        // The platform layer rewrites the file: this volume keeps what it read,
        // a volume first asked afterwards gets the new names.
        QVERIFY(WriteFile(QString::fromLatin1(PlatformConfigPath), "sd_slots=right,/dev/disk/by-path/slot1\n"));
        QCOMPARE(info->FriendlyName(), QStringLiteral("Memory Card - Bottom"));
        QCOMPARE(info->SymlinkName(), QStringLiteral("Memory Card - 2"));
        tFileSystemInfo* later = Insert(QStringLiteral("left"), QStringLiteral("charts"), QStringLiteral("mmcblk0p1"));
        QVERIFY(later && later->FriendlyName() == QStringLiteral("Memory Card"));
    }

private:
    tFileSystemInfo* Insert(const QString& slot, const QString& medium, const QString& node)
    {
        if (!m_Sysfs->WriteSlot(slot, medium))
            return nullptr;
        // The left slot's card is there from the start.
        if (slot != QLatin1String("left")) {
            if (!m_Unit->Insert(slot, medium))
                return nullptr;
            m_Filled << slot;
        }
        m_Registry->Enumerate();
        const auto fileSystem = [&node] { return tUDisks2::Block(node) ? tUDisks2::Block(node)->FileSystem() : nullptr; };
        return QTest::qWaitFor([&] { return fileSystem(); }, 5000) ? fileSystem()->Info() : nullptr;
    }

    std::unique_ptr<tSimulatedUnit> m_Unit;
    std::unique_ptr<tUnitSysfs> m_Sysfs;
    std::unique_ptr<tUDisks2> m_Registry;
    QStringList m_Filled;
};

LARKD_NAMESPACE_TEST_MAIN(tst_LocalVolumeInfo)
#include "tst_localvolumeinfo.moc"
