// The card key: the vendor command to the card-reader chip, the CID read from
// its reply, and the CRC7 that completes it. No reader is attached here; a
// node that refuses the ioctl is exercised through tst_localvolumeinfo.

#include "storage/CidWithCrc.h"
#include "storage/SmscScsiCommand.h"

#include <QtTest>

class tst_SmscScsiCommand : public QObject
{
    Q_OBJECT
private slots:
    void commandAndKeyFromTheReply()
    {
        tSmscRequest request;
        PrepareSmscRequest(request, 0x18);
        const std::array<unsigned char, 6> expectedBlock = { 0xCF, 0x18, 0x00, 0x00, 0x20, 0x00 };
        QVERIFY(request.commandBlock == expectedBlock);
        QCOMPARE(request.header.dxfer_direction, SG_DXFER_FROM_DEV);
        QCOMPARE(static_cast<void*>(request.header.cmdp), static_cast<void*>(request.commandBlock.data()));
        QCOMPARE(request.header.dxferp, static_cast<void*>(request.data.data()));

        // The reader answers with the card's CID in its first 16 bytes.
        const QByteArray cid = QByteArray::fromHex("035344534C31364780B1D4A4C5011600");
        std::copy(cid.cbegin(), cid.cend(), request.data.begin());
        QCOMPARE(DecodeSmscReply(request, 0), QStringLiteral("035344534c31364780b1d4a4c5011600"));

        // A driver failure gives no key at all.
        request.header.driver_status = 0x08;
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("driver status = 8")));
        QVERIFY(DecodeSmscReply(request, 0).isEmpty());
    }

    void cidGetsCorrectCrc()
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
};

QTEST_GUILESS_MAIN(tst_SmscScsiCommand)
#include "tst_smscscsicommand.moc"
