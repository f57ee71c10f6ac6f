// The vendor command to the card-reader chip and the card key read from its
// reply. No reader is attached here; a node that refuses the ioctl is
// exercised through tst_localvolumeinfo.

#include "storage/CidWithCrc.h"
#include "storage/SmscScsiCommand.h"

#include <QtTest>

class tst_SmscScsiCommand : public QObject
{
    Q_OBJECT
private slots:
    void commandAndKeyFromTheReply();
};

void tst_SmscScsiCommand::commandAndKeyFromTheReply()
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
    const QString reply = DecodeSmscReply(request, 0);
    QCOMPARE(reply, QStringLiteral("035344534c31364780b1d4a4c5011600"));
    QCOMPARE(CidWithCrc(reply), QStringLiteral("035344534c31364780b1d4a4c501163b"));

    // A driver failure gives no key at all.
    request.header.driver_status = 0x08;
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("driver status = 8")));
    QVERIFY(DecodeSmscReply(request, 0).isEmpty());
}

QTEST_GUILESS_MAIN(tst_SmscScsiCommand)
#include "tst_smscscsicommand.moc"
