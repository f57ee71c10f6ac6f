// What a stick, or a local program on the application port, can throw at
// larkd: it must neither crash nor grow without bound, and must go on
// serving. larkd runs as a process on a simulated unit (UDisks2 stood in for
// by the project's simulator); the sanitizer build runs the same stories, so
// a use after free fails there even where it would not crash here.

#include "AppConnection.h"
#include "DaemonProcess.h"
#include "LogSink.h"
#include "PrivateMounts.h"

#include <QDir>
#include <QtTest>

#include <csignal>

namespace
{
const QByteArray cEnquiry = QByteArrayLiteral("{\"message\":{\"type\":\"enquerydevicelist\"}}") + '\0';

// Resident memory from /proc/PID/status, in kB.
qint64 ResidentKb(const QProcess& process)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(process.processId()));
    const QByteArray text = status.open(QIODevice::ReadOnly) ? status.readAll() : QByteArray();
    const int at = text.indexOf("\nVmRSS:");
    return at < 0 ? -1 : text.mid(at + 7, text.indexOf('\n', at + 1) - at - 7).trimmed().split(' ').first().toLongLong();
}

int OpenDescriptors(const QProcess& process)
{
    return QDir(QStringLiteral("/proc/%1/fd").arg(process.processId())).entryList(QDir::Files | QDir::System).size();
}
} // namespace

class tHostileInputTest : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase() { LARKD_REQUIRE_NAMESPACE(); }
    void directivesInALabelThenRescanAndPullEverything();
    void applicationPortStaysBounded();
};

// A stick whose label is a string of printf directives, logged to syslog as
// on the device; then a rescan, which meets the whole disks too (their
// filesystem objects are not valid), and every medium pulled.
void tHostileInputTest::directivesInALabelThenRescanAndPullEverything()
{
    QTemporaryDir dir;
    tLogSink sink(dir.filePath(QStringLiteral("log")));
    QVERIFY(sink.IsBound());
    sink.ReadInBackground();
    tLarkdUnit unit(E2eUnitFile(), {});
    unit.SetEnvironment(QStringLiteral("LARKD_UNIT_SYSLOG"), dir.filePath(QStringLiteral("log")));
    tAppConnection app;
    QVERIFY(Boot(unit, app));

    const QByteArray path = "/run/media/X%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%n";
    QVERIFY(unit.Insert(QStringLiteral("usb"), QStringLiteral("directives")));
    QCOMPARE(Reported(app.TakeArrivals(1)), QStringList{'+' + QString::fromUtf8(path)});
    QList<QByteArray> lines;
    QTRY_VERIFY_WITH_TIMEOUT((lines += sink.Drain(), lines.join('\n').contains(path)), 20000);

    SendSignal(unit.Process(), SIGUSR2);
    QCOMPARE(app.TakeArrivals(2).size(), 2);
    QVERIFY(unit.Remove(QStringLiteral("left")) && unit.Remove(QStringLiteral("usb")));
    QCOMPARE(Reported(app.TakeArrivals(2)), QStringList({"-/run/media/CHARTS", '-' + QString::fromUtf8(path)}));
    app.SendRaw(cEnquiry);
    QCOMPARE(Settled(app).size(), 0);
    QVERIFY2(unit.Stop(), unit.Log().constData());
}

void tHostileInputTest::applicationPortStaysBounded()
{
    // Under AddressSanitizer freed memory waits in a quarantine that would
    // count as growth: measure without it.
    tLarkdUnit unit(E2eUnitFile(), {QStringLiteral("--disable-chart-sharing")});
    const QString sanitizer = qEnvironmentVariable("ASAN_OPTIONS");
    if (!sanitizer.isEmpty())
        unit.SetEnvironment(QStringLiteral("ASAN_OPTIONS"), sanitizer + ":quarantine_size_mb=0:thread_local_quarantine_size_kb=0");
    auto flood = std::make_unique<tAppConnection>();
    QVERIFY(Boot(unit, *flood));
    const QProcess& larkd = unit.Process();
    const qint64 before = ResidentKb(larkd);
    auto send = [&flood](const QByteArray& bytes, int times) {
        for (int i = 0; i < times; ++i) {
            flood->SendRaw(bytes);
            if (!flood->Socket().waitForBytesWritten(10000) && flood->Socket().bytesToWrite() > 0)
                return false;
        }
        return true;
    };
    auto grewLittle = [&](const char* after) {
        const qint64 growth = ResidentKb(larkd) - before;
        qInfo("resident memory grew by %lld kB after %s", growth, after);
        return growth < 4096;
    };

    // 64 MiB without a NUL: dropped as it comes, one warning, and the next
    // document after a NUL is answered.
    QVERIFY(send(QByteArray(1024 * 1024, 'x'), 64));
    flood->SendRaw('\0' + cEnquiry);
    QCOMPARE(flood->TakeArrivals(1).size(), 1);
    QVERIFY(grewLittle("64 MiB without a NUL"));
    QCOMPARE(unit.Log().count("without a NUL, discarded"), 1);

    // Repeated keys, which Qt's parser would leak on, cost nothing either.
    QByteArray repeated = "{";
    while (repeated.size() < 1000 * 1000)
        repeated += R"("content":["x"],)";
    QVERIFY(send(repeated + R"("content":["x"]})" + '\0', 16));
    flood->SendRaw(cEnquiry);
    QCOMPARE(flood->TakeArrivals(1).size(), 1);
    QVERIFY(grewLittle("16 MiB of repeated keys"));
    QCOMPARE(unit.Log().count("Failed to decode JSON data: \"duplicate key\""), 16);

    // Half a document left by one client is not glued to the next client's
    // first request.
    flood->SendRaw(cEnquiry.left(15));
    QTest::qWait(100);
    flood.reset();
    tAppConnection app;
    QVERIFY(app.Connect(unit.Port()));
    QCOMPARE(app.TakeArrivals(1).size(), 1);
    app.SendRaw(cEnquiry);
    QCOMPARE(app.TakeArrivals(1).size(), 1);

    // Reconnecting for months costs no descriptors; clients that linger are
    // closed beyond the newest few.
    const int descriptors = OpenDescriptors(larkd);
    for (int i = 0; i < 1000; ++i) {
        QTcpSocket socket;
        socket.connectToHost(QHostAddress::LocalHost, unit.Port());
        QVERIFY(socket.waitForConnected(5000));
        socket.disconnectFromHost();
    }
    QList<QTcpSocket*> lingering;
    for (int i = 0; i < 20; ++i) {
        lingering << new QTcpSocket(this);
        lingering.last()->connectToHost(QHostAddress::LocalHost, unit.Port());
        QVERIFY(lingering.last()->waitForConnected(5000));
    }
    // The current one plus eight earlier ones stay open. Each connection is
    // told of every volume first, which takes larkd over 10 s for the lot
    // under AddressSanitizer on a busy machine.
    QTRY_VERIFY_WITH_TIMEOUT(OpenDescriptors(larkd) <= descriptors + 9, 30000);
    QTRY_COMPARE_WITH_TIMEOUT(std::count_if(lingering.begin(), lingering.end(), [](QTcpSocket* socket) {
                                  return socket->state() == QAbstractSocket::ConnectedState;
                              }), std::ptrdiff_t(9), 10000);
    qDeleteAll(lingering);
    QTRY_VERIFY_WITH_TIMEOUT(OpenDescriptors(larkd) <= descriptors, 10000);
    QVERIFY2(unit.Stop(), unit.Log().constData());
}

LARKD_NAMESPACE_TEST_MAIN(tHostileInputTest)
#include "tst_hostileinput.moc"
