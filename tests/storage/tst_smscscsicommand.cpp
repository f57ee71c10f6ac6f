// The vendor command to the card-reader chip: its command block, the SG_IO
// request and the decoding of the reply. No reader is attached here, so the
// ioctl itself is only exercised on nodes that refuse it.

#include "storage/SmscScsiCommand.h"
#include "storage/UdevHandle.h"

#include <QtTest>

#include <fcntl.h>
#include <unistd.h>

class tst_SmscScsiCommand : public QObject
{
    Q_OBJECT
private slots:
    void requestHeader();
    void replyLength_data();
    void replyLength();
    void driverFailureGivesNothing();
    void nodeThatRefusesTheIoctl();
    void emptyUdevFactoryIsAProgrammingError();
};

void tst_SmscScsiCommand::requestHeader()
{
    tSmscRequest request;
    request.data.fill(0xAA);
    request.sense.fill(0xAA);
    PrepareSmscRequest(request, 0x18);

    const std::array<unsigned char, 6> expectedBlock = { 0xCF, 0x18, 0x00, 0x00, 0x20, 0x00 };
    QVERIFY(request.commandBlock == expectedBlock);
    const sg_io_hdr_t& header = request.header;
    QCOMPARE(header.interface_id, int('S'));
    QCOMPARE(header.dxfer_direction, -3);
    QCOMPARE(int(header.cmd_len), 6);
    QCOMPARE(static_cast<void*>(header.cmdp), static_cast<void*>(request.commandBlock.data()));
    QCOMPARE(int(header.mx_sb_len), 32);
    QCOMPARE(static_cast<void*>(header.sbp), static_cast<void*>(request.sense.data()));
    QCOMPARE(header.dxfer_len, 512u);
    QCOMPARE(header.dxferp, static_cast<void*>(request.data.data()));
    QCOMPARE(header.timeout, 2000u);
    QCOMPARE(header.flags, 2u);
    QCOMPARE(header.iovec_count, static_cast<unsigned short>(0));
    QCOMPARE(header.driver_status, static_cast<unsigned short>(0));
    // Stale bytes from an earlier use must not look like a reply.
    QVERIFY(std::all_of(request.data.begin(), request.data.end(), [](unsigned char c) { return c == 0; }));
    QVERIFY(std::all_of(request.sense.begin(), request.sense.end(), [](unsigned char c) { return c == 0; }));
}

void tst_SmscScsiCommand::replyLength_data()
{
    QTest::addColumn<int>("replyLength");
    QTest::addColumn<int>("digits");
    QTest::newRow("zero means a CID") << 0 << 32;
    QTest::newRow("negative means a CID") << -4 << 32;
    QTest::newRow("three bytes") << 3 << 6;
    QTest::newRow("capped at the buffer") << 600 << 1024;
}

void tst_SmscScsiCommand::replyLength()
{
    QFETCH(int, replyLength);
    QFETCH(int, digits);
    tSmscRequest request;
    PrepareSmscRequest(request, 0x18);
    for (size_t i = 0; i < request.data.size(); ++i)
        request.data[i] = static_cast<unsigned char>(i * 7);

    const QString reply = DecodeSmscReply(request, replyLength);
    QCOMPARE(reply.size(), digits);
    // Lowercase, two digits a byte, a leading zero below 0x10.
    QCOMPARE(reply.left(6), QStringLiteral("00070e"));
    if (digits > 32)
        QCOMPARE(reply.mid(2 * 37, 2), QStringLiteral("03")); // 37 * 7 = 259
    QCOMPARE(reply, reply.toLower());
}

void tst_SmscScsiCommand::driverFailureGivesNothing()
{
    tSmscRequest request;
    PrepareSmscRequest(request, 0x18);
    request.data.fill(0x11);
    request.header.driver_status = 0x08;
    QTest::ignoreMessage(QtWarningMsg, "SendSmscScsiCommand(): ioctl driver status = 8\n");
    QVERIFY(DecodeSmscReply(request, 16).isEmpty());

    // The SCSI and host status are not the daemon's concern.
    request.header.driver_status = 0;
    request.header.status = 0x02;
    request.header.host_status = 0x07;
    QCOMPARE(DecodeSmscReply(request, 2), QStringLiteral("1111"));
}

void tst_SmscScsiCommand::nodeThatRefusesTheIoctl()
{
    const int fd = ::open("/dev/null", O_RDONLY);
    QVERIFY(fd >= 0);
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("^SendSmscScsiCommand\\(\\): ioctl\\(\\): .+")));
    const QString reply = SendSmscScsiCommand(fd, 0x18, 0);
    ::close(fd);
    QVERIFY(reply.isEmpty());
}

void tst_SmscScsiCommand::emptyUdevFactoryIsAProgrammingError()
{
    int released = 0;
    {
        int value = 5;
        UdevHandle<int> handle([&value] { return &value; }, [&released](int*) { ++released; });
        QCOMPARE(*handle.Get(), 5);
    }
    QCOMPARE(released, 1);
    {
        UdevHandle<int> none([] { return static_cast<int*>(nullptr); }, [&released](int*) { ++released; });
        QVERIFY(!none);
    }
    QCOMPARE(released, 1);
    QVERIFY_EXCEPTION_THROWN(UdevHandle<int>(UdevHandle<int>::Factory(), [](int*) {}), std::bad_function_call);
}

QTEST_GUILESS_MAIN(tst_SmscScsiCommand)
#include "tst_smscscsicommand.moc"
