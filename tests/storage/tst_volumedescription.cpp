// The CRC7 that completes a card's identity in the "dataarrival" document
// (the document itself is checked byte for byte by tst_protocoldoc).

#include "storage/CidWithCrc.h"

#include <QtTest>

class tst_VolumeDescription : public QObject
{
    Q_OBJECT
private slots:
    void cidGetsCorrectCrc();
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

QTEST_GUILESS_MAIN(tst_VolumeDescription)
#include "tst_volumedescription.moc"
