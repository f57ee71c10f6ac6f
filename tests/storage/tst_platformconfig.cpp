// The slot table as the platform layer writes it, read from its real place
// (/run/corvex_platform/config, a tmpfs in a private mount namespace).

#include "PrivateMounts.h"
#include "storage/PlatformConfig.h"
#include "storage/SdSlots.h"

#include <QtTest>

class tst_PlatformConfig : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase()
    {
        LARKD_REQUIRE_NAMESPACE();
        QVERIFY(MountTmpfs(QStringLiteral("/run/corvex_platform")));
    }

    void slotTable_data()
    {
        // The slots found, "position path" each (Single 1, Top 2, Bottom 3, Left 4, Right 5).
        QTest::addColumn<QByteArray>("file");
        QTest::addColumn<QStringList>("slotEntries");
        QTest::newRow("no file") << QByteArray() << QStringList();
        QTest::newRow("two slots") << QByteArray("model=unit\nsd_slots=top,/dev/a:bottom,/dev/b\n")
                                   << QStringList{ "2 /dev/a", "3 /dev/b" };
        QTest::newRow("value trimmed, no line end") << QByteArray("sd_slots=  top,/x \t\r") << QStringList{ "2 /x" };
        // The key is taken as written: upper case, a leading blank, a blank before
        // "=" or no "=" at all make no slot table.
        QTest::newRow("key not as written")
            << QByteArray("SD_SLOTS=top,/a\n sd_slots=top,/b\nsd_slots = top,/c\nsd_slots\nmodel=unit\n") << QStringList();
        // NUL padding ends a line; a repeated key keeps its first value.
        QTest::newRow("NUL and repeated key") << QByteArray("sd_slots=top,/a\0:right,/b\nsd_slots=bottom,/b\n", 45)
                                              << QStringList{ "2 /a" };
        // Names without case, unknown names and empty entries dropped.
        QTest::newRow("names") << QByteArray("sd_slots=:TOP,/dev/a:middle,/dev/m::Right,/dev/b:single,/dev/c:")
                               << QStringList{ "2 /dev/a", "5 /dev/b", "1 /dev/c" };
        // Fields are trimmed and the last one is the path; a single field is
        // both name and path; "=" may be part of a path.
        QTest::newRow("fields") << QByteArray("sd_slots= left , /dev/x , /dev/a :right:top,/x=y")
                                << QStringList{ "4 /dev/a", "5 right", "2 /x=y" };
    }

    void slotTable()
    {
        QFETCH(QByteArray, file);
        QFETCH(QStringList, slotEntries);
        QFile::remove(QString::fromLatin1(PlatformConfigPath));
        if (!file.isEmpty()) {
            QFile config(QString::fromLatin1(PlatformConfigPath));
            QVERIFY(config.open(QIODevice::WriteOnly) && config.write(file) == file.size());
        }
        QStringList found;
        for (const SlotEntry& entry : ParseSdSlots(ReadPlatformConfig()))
            found << QString::number(static_cast<int>(entry.position)) + QLatin1Char(' ') + entry.path;
        QCOMPARE(found, slotEntries);
    }
};

LARKD_NAMESPACE_TEST_MAIN(tst_PlatformConfig)
#include "tst_platformconfig.moc"
