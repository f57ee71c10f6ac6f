// The "dataarrival" document the display application receives, and the
// CRC7 that completes a card's identity in it.

#include "storage/CidWithCrc.h"
#include "storage/VolumeDescription.h"

#include <QtTest>

namespace {

// The fixed envelope around one "dataarrival" record, given its nine lines.
QByteArray Document(const QByteArray& record)
{
    return "{\n    \"message\": {\n        \"content\": {\n            \"dataarrival\": {\n" + record
        + "            }\n        },\n        \"type\": \"datasource\",\n        \"version\": 1\n    }\n}\n";
}

} // namespace

class tst_VolumeDescription : public QObject
{
    Q_OBJECT
private slots:
    void cidGetsCorrectCrc();
    void dataArrivalDocument();
};

void tst_VolumeDescription::cidGetsCorrectCrc()
{
    // The last byte becomes CRC7 (x^7 + x^3 + 1) of the first 15, shifted, with
    // the end bit set. Anchored on the SD commands whose CRC everyone knows,
    // padded with zero bytes in front (which leave a CRC unchanged): CMD0 ends
    // in 95, CMD8 with argument 1AA in 87. Then card identities as the kernel
    // shows them, last byte deliberately wrong; digits keep their case.
    const QStringList cids{ "00000000000000000000400000000000", "0000000000000000000048000001aa00",
                            "035344534c31364780b1d4a4c5011600", "1B534D3030303030103C0E12A300C8FF",
                            "0353445343313647801234564300e1ff" };
    const QStringList keys{ "00000000000000000000400000000095", "0000000000000000000048000001aa87",
                            "035344534c31364780b1d4a4c501163b", "1B534D3030303030103C0E12A300C897",
                            "0353445343313647801234564300e105" };
    for (int i = 0; i < cids.size(); ++i) {
        QCOMPARE(CidWithCrc(cids[i]), keys[i]);
        QCOMPARE(CidWithCrc(keys[i]), keys[i]);
    }
    // Anything but a 32-digit CID passes through untouched.
    for (const QString& other : { QString(), QStringLiteral("0353445343313647801234562400e1"),
                                  QStringLiteral("0353445343313647801234564300e1ff00") })
        QCOMPARE(CidWithCrc(other), other);
}

void tst_VolumeDescription::dataArrivalDocument()
{
    // Byte for byte: the application's parser relies on the key order and indentation.
    const tVolumeDescription card(true, true, false, false, false, QStringLiteral("/run/media/mmcblk0p1"),
                                  QStringLiteral("Memory Card - Left"),
                                  QStringLiteral("0353445343313647801234564300e1ff"), QStringLiteral(""),
                                  QString());
    QCOMPARE(BuildDataArrivalMessage(card),
             Document("                \"contentid\": \"\",\n"
                      "                \"fixed\": false,\n"
                      "                \"friendlyname\": \"Memory Card - Left\",\n"
                      "                \"key\": \"0353445343313647801234564300e105\",\n"
                      "                \"path\": \"/run/media/mmcblk0p1\",\n"
                      "                \"readonly\": false,\n"
                      "                \"remote\": false,\n"
                      "                \"serialnumber\": \"\",\n"
                      "                \"type\": \"memorycard\"\n"));

    // A removal: every field but the path is null.
    const tVolumeDescription removal(QVariant(), QVariant(), QVariant(), QVariant(), QVariant(),
                                     QStringLiteral("/run/media/sdb1"), QVariant(), QVariant(), QVariant(),
                                     QVariant());
    QCOMPARE(BuildDataArrivalMessage(removal),
             Document("                \"contentid\": null,\n"
                      "                \"fixed\": null,\n"
                      "                \"friendlyname\": null,\n"
                      "                \"key\": null,\n"
                      "                \"path\": \"/run/media/sdb1\",\n"
                      "                \"readonly\": null,\n"
                      "                \"remote\": null,\n"
                      "                \"serialnumber\": null,\n"
                      "                \"type\": null\n"));
}

QTEST_GUILESS_MAIN(tst_VolumeDescription)
#include "tst_volumedescription.moc"
