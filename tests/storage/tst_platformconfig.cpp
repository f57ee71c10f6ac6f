// The platform slot file as the platform layer writes it, read from its real
// place (/run/corvex_platform/config, a tmpfs in a private mount namespace).

#include "PrivateMounts.h"
#include "storage/PlatformConfig.h"
#include "storage/SdSlots.h"

#include <QtTest>

class tst_PlatformConfig : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void missingFileIsEmpty();
    void keysAreTakenAsWritten_data();
    void keysAreTakenAsWritten();
    void repeatedKeyKeepsEveryValue();
    void lineEndsAtNul();
    void slotEntries_data();
    void slotEntries();

private:
    void WriteConfig(const QByteArray& contents);
};

void tst_PlatformConfig::WriteConfig(const QByteArray& contents)
{
    QFile file(QString::fromLatin1(PlatformConfigPath));
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    QCOMPARE(file.write(contents), qint64(contents.size()));
}

void tst_PlatformConfig::initTestCase()
{
    LARKD_REQUIRE_NAMESPACE();
    QVERIFY(MountTmpfs(QStringLiteral("/run/corvex_platform")));
}

void tst_PlatformConfig::missingFileIsEmpty()
{
    QFile::remove(QString::fromLatin1(PlatformConfigPath));
    QVERIFY(ReadPlatformConfig().isEmpty());
    QVERIFY(ParseSdSlots(ReadPlatformConfig()).isEmpty());
}

void tst_PlatformConfig::keysAreTakenAsWritten_data()
{
    QTest::addColumn<QByteArray>("contents");
    QTest::addColumn<QString>("value");
    QTest::newRow("plain") << QByteArray("sd_slots=top,/x\n") << QStringLiteral("top,/x");
    QTest::newRow("value trimmed") << QByteArray("sd_slots=  top,/x \t\r\n") << QStringLiteral("top,/x");
    QTest::newRow("key in upper case") << QByteArray("SD_SLOTS=top,/x\n") << QString();
    QTest::newRow("leading blank") << QByteArray(" sd_slots=top,/x\n") << QString();
    QTest::newRow("blank before =") << QByteArray("sd_slots = top,/x\n") << QString();
    QTest::newRow("no = on the line") << QByteArray("sd_slots\nmodel=unit\n") << QString();
    QTest::newRow("= inside the value") << QByteArray("sd_slots=top,/x=y\n") << QStringLiteral("top,/x=y");
    QTest::newRow("no line end") << QByteArray("model=unit\nsd_slots=left,/a") << QStringLiteral("left,/a");
}

void tst_PlatformConfig::keysAreTakenAsWritten()
{
    QFETCH(QByteArray, contents);
    QFETCH(QString, value);
    WriteConfig(contents);
    QCOMPARE(ConfigValue(ReadPlatformConfig(), QStringLiteral("sd_slots")), value);
}

void tst_PlatformConfig::repeatedKeyKeepsEveryValue()
{
    WriteConfig("sd_slots=top,/a\nmodel=unit\nsd_slots=bottom,/b\n");
    const PlatformConfig config = ReadPlatformConfig();
    QCOMPARE(config.value(QStringLiteral("sd_slots")), QStringList({ "top,/a", "bottom,/b" }));
    QCOMPARE(ConfigValue(config, QStringLiteral("sd_slots")), QStringLiteral("top,/a"));
    QCOMPARE(ConfigValue(config, QStringLiteral("model")), QStringLiteral("unit"));
    const QList<SlotEntry> slotEntries = ParseSdSlots(config);
    QCOMPARE(slotEntries.size(), 1);
    QCOMPARE(slotEntries[0].position, SlotPosition::Top);
}

void tst_PlatformConfig::lineEndsAtNul()
{
    WriteConfig(QByteArray("sd_slots=left,/a\0:right,/b\n", 27) + "model=unit\n");
    const PlatformConfig config = ReadPlatformConfig();
    QCOMPARE(ConfigValue(config, QStringLiteral("sd_slots")), QStringLiteral("left,/a"));
    QCOMPARE(ConfigValue(config, QStringLiteral("model")), QStringLiteral("unit"));
}

void tst_PlatformConfig::slotEntries_data()
{
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<QList<int>>("positions");
    QTest::addColumn<QStringList>("paths");
    QTest::newRow("two slots") << QByteArray("top,/dev/a:bottom,/dev/b") << QList<int>({ 2, 3 })
                               << QStringList({ "/dev/a", "/dev/b" });
    QTest::newRow("name without case") << QByteArray("TOP,/dev/a:Right,/dev/b") << QList<int>({ 2, 5 })
                                       << QStringList({ "/dev/a", "/dev/b" });
    QTest::newRow("unknown name dropped") << QByteArray("middle,/dev/a:left,/dev/b") << QList<int>({ 4 })
                                          << QStringList({ "/dev/b" });
    QTest::newRow("empty entries skipped") << QByteArray(":single,/dev/a::") << QList<int>({ 1 })
                                           << QStringList({ "/dev/a" });
    QTest::newRow("fields trimmed, last one is the path")
        << QByteArray(" left , /dev/x , /dev/a :right,/dev/b") << QList<int>({ 4, 5 })
        << QStringList({ "/dev/a", "/dev/b" });
    QTest::newRow("one field is name and path") << QByteArray("left") << QList<int>({ 4 })
                                                << QStringList({ "left" });
    QTest::newRow("empty value") << QByteArray("") << QList<int>() << QStringList();
}

void tst_PlatformConfig::slotEntries()
{
    QFETCH(QByteArray, value);
    QFETCH(QList<int>, positions);
    QFETCH(QStringList, paths);
    WriteConfig("sd_slots=" + value + "\n");
    const QList<SlotEntry> slotEntries = ParseSdSlots(ReadPlatformConfig());
    QList<int> gotPositions;
    QStringList gotPaths;
    for (const SlotEntry& entry : slotEntries) {
        gotPositions.append(static_cast<int>(entry.position));
        gotPaths.append(entry.path);
    }
    QCOMPARE(gotPositions, positions);
    QCOMPARE(gotPaths, paths);
}

LARKD_NAMESPACE_TEST_MAIN(tst_PlatformConfig)
#include "tst_platformconfig.moc"
