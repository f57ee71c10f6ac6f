// The "dataarrival" document the display application receives, and the
// CRC7 that completes a card's identity in it.

#include "storage/CidWithCrc.h"
#include "storage/VolumeDescription.h"

#include <QtTest>

namespace {

// CRC7 by polynomial long division (x^7 + x^3 + 1) of the first 15 bytes
// followed by seven zero bits; written independently of the code under test.
int ReferenceCrc7(const QByteArray& bytes)
{
    QVector<int> bits;
    for (int i = 0; i < 15; ++i)
        for (int b = 7; b >= 0; --b)
            bits.append((static_cast<unsigned char>(bytes[i]) >> b) & 1);
    bits.append(QVector<int>(7, 0));
    const int poly[8] = { 1, 0, 0, 0, 1, 0, 0, 1 };
    for (int i = 0; i + 7 < bits.size(); ++i) {
        if (bits[i])
            for (int j = 0; j < 8; ++j)
                bits[i + j] ^= poly[j];
    }
    int remainder = 0;
    for (int i = bits.size() - 7; i < bits.size(); ++i)
        remainder = (remainder << 1) | bits[i];
    return remainder;
}

QString ExpectedKey(const QString& cid)
{
    const int last = (ReferenceCrc7(QByteArray::fromHex(cid.toLatin1())) << 1) | 1;
    return cid.left(30) + QString::asprintf("%02x", last);
}

} // namespace

class tst_VolumeDescription : public QObject
{
    Q_OBJECT
private slots:
    void referenceCrcMatchesKnownCommand();
    void cidGetsCorrectCrc_data();
    void cidGetsCorrectCrc();
    void cidOfOtherLengthPassesThrough();
    void dataArrivalDocument_data();
    void dataArrivalDocument();
};

void tst_VolumeDescription::referenceCrcMatchesKnownCommand()
{
    // The reference itself: GO_IDLE_STATE (40 00 00 00 00) carries CRC 0x95.
    // Leading zero bytes do not change a CRC, so the command is padded in front.
    const QByteArray padded = QByteArray(10, '\0') + QByteArray::fromHex("4000000000");
    QCOMPARE((ReferenceCrc7(padded) << 1) | 1, 0x95);
}

void tst_VolumeDescription::cidGetsCorrectCrc_data()
{
    QTest::addColumn<QString>("cid");
    // Card identities as the kernel shows them, last byte deliberately wrong.
    QTest::newRow("sd 16G, byte zeroed") << QStringLiteral("035344534c31364780b1d4a4c5011600");
    QTest::newRow("sd 8G, upper case") << QStringLiteral("1B534D3030303030103C0E12A300C8FF");
    QTest::newRow("microsd 32G") << QStringLiteral("02544d5341333247060e6cc1ab00d4aa");
    QTest::newRow("crc below 0x10") << QStringLiteral("0353445343313647801234564300e1ff");
}

void tst_VolumeDescription::cidGetsCorrectCrc()
{
    QFETCH(QString, cid);
    const QString key = CidWithCrc(cid);
    QCOMPARE(key, ExpectedKey(cid));
    QVERIFY(key.right(2) == key.right(2).toLower());
    if (QTest::currentDataTag() == QLatin1String("crc below 0x10"))
        QCOMPARE(key.right(2), QStringLiteral("05"));
    // A key that is already right stays as it is.
    QCOMPARE(CidWithCrc(key), key);
}

void tst_VolumeDescription::cidOfOtherLengthPassesThrough()
{
    for (const QString& cid : { QString(), QStringLiteral(""), QStringLiteral("0353445343313647801234562400e1"),
                                QStringLiteral("0353445343313647801234564300e1ff00") })
        QCOMPARE(CidWithCrc(cid), cid);
}

void tst_VolumeDescription::dataArrivalDocument_data()
{
    QTest::addColumn<QByteArray>("document");
    QTest::addColumn<QByteArray>("expected");

    const tVolumeDescription card(true, true, false, false, false, QStringLiteral("/run/media/mmcblk0p1"),
                                  QStringLiteral("Memory Card - Left"),
                                  QStringLiteral("0353445343313647801234564300e1ff"), QStringLiteral(""),
                                  QString());
    QTest::newRow("card") << BuildDataArrivalMessage(card)
                          << QByteArray("{\n"
                                        "    \"message\": {\n"
                                        "        \"content\": {\n"
                                        "            \"dataarrival\": {\n"
                                        "                \"contentid\": \"\",\n"
                                        "                \"fixed\": false,\n"
                                        "                \"friendlyname\": \"Memory Card - Left\",\n"
                                        "                \"key\": \"0353445343313647801234564300e105\",\n"
                                        "                \"path\": \"/run/media/mmcblk0p1\",\n"
                                        "                \"readonly\": false,\n"
                                        "                \"remote\": false,\n"
                                        "                \"serialnumber\": \"\",\n"
                                        "                \"type\": \"memorycard\"\n"
                                        "            }\n"
                                        "        },\n"
                                        "        \"type\": \"datasource\",\n"
                                        "        \"version\": 1\n"
                                        "    }\n"
                                        "}\n");

    const tVolumeDescription stick(true, false, false, false, true, QStringLiteral("/run/media/sdb1"),
                                   QStringLiteral("USB Mass Storage"), QStringLiteral(""),
                                   QStringLiteral("CID-7"), QStringLiteral("SN 42"));
    QTest::newRow("stick") << BuildDataArrivalMessage(stick)
                           << QByteArray("{\n"
                                         "    \"message\": {\n"
                                         "        \"content\": {\n"
                                         "            \"dataarrival\": {\n"
                                         "                \"contentid\": \"CID-7\",\n"
                                         "                \"fixed\": false,\n"
                                         "                \"friendlyname\": \"USB Mass Storage\",\n"
                                         "                \"key\": \"\",\n"
                                         "                \"path\": \"/run/media/sdb1\",\n"
                                         "                \"readonly\": true,\n"
                                         "                \"remote\": false,\n"
                                         "                \"serialnumber\": \"SN 42\",\n"
                                         "                \"type\": \"harddrive\"\n"
                                         "            }\n"
                                         "        },\n"
                                         "        \"type\": \"datasource\",\n"
                                         "        \"version\": 1\n"
                                         "    }\n"
                                         "}\n");

    const tVolumeDescription removal(QVariant(), QVariant(), QVariant(), QVariant(), QVariant(),
                                     QStringLiteral("/run/media/sdb1"), QVariant(), QVariant(), QVariant(),
                                     QVariant());
    QTest::newRow("removal") << BuildDataArrivalMessage(removal)
                             << QByteArray("{\n"
                                           "    \"message\": {\n"
                                           "        \"content\": {\n"
                                           "            \"dataarrival\": {\n"
                                           "                \"contentid\": null,\n"
                                           "                \"fixed\": null,\n"
                                           "                \"friendlyname\": null,\n"
                                           "                \"key\": null,\n"
                                           "                \"path\": \"/run/media/sdb1\",\n"
                                           "                \"readonly\": null,\n"
                                           "                \"remote\": null,\n"
                                           "                \"serialnumber\": null,\n"
                                           "                \"type\": null\n"
                                           "            }\n"
                                           "        },\n"
                                           "        \"type\": \"datasource\",\n"
                                           "        \"version\": 1\n"
                                           "    }\n"
                                           "}\n");
}

void tst_VolumeDescription::dataArrivalDocument()
{
    QFETCH(QByteArray, document);
    QFETCH(QByteArray, expected);
    QCOMPARE(document, expected);
}

QTEST_GUILESS_MAIN(tst_VolumeDescription)
#include "tst_volumedescription.moc"
