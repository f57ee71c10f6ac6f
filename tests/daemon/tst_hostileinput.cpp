// What a stick, or a local program on the application port, can throw at
// larkd: it must neither crash nor grow without bound, and must go on
// serving. larkd runs as a process on a simulated unit (UDisks2 stood in for
// by the project's simulator); the sanitizer build runs the same stories, so
// a use after free fails there even where it would not crash here.

#include "DaemonProcess.h"
#include "AppConnection.h"
#include "LogSink.h"
#include "PrivateMounts.h"

#include <QDir>
#include <QtTest>

#include <csignal>

namespace
{
const QByteArray cEnquiry = R"({"message":{"type":"enquerydevicelist"}})";
const QByteArray cNul(1, '\0');

// A value from /proc/PID/status, in kB.
qint64 StatusKb(const QProcess& process, const QByteArray& field)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(process.processId()));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith(field + ':'))
            return line.mid(field.size() + 1).trimmed().split(' ').first().toLongLong();
    }
    return -1;
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
    void initTestCase();
    void directivesInALabelThenRescanAndPullEverything();
    void applicationPortStaysBounded();
};

void tHostileInputTest::initTestCase()
{
    LARKD_REQUIRE_NAMESPACE();
}

// A stick whose label is a string of printf directives, logged to syslog as
// on the device; then a rescan, which meets the whole disks too (their
// filesystem objects are not valid), and every medium pulled.
void tHostileInputTest::directivesInALabelThenRescanAndPullEverything()
{
    QTemporaryDir dir;
    tLogSink sink(dir.filePath(QStringLiteral("log")));
    QVERIFY(sink.IsBound());
    sink.ReadInBackground();
    qputenv("LARKD_UNIT_SYSLOG", QFile::encodeName(dir.filePath(QStringLiteral("log"))));
    tLarkdUnit unit(E2eUnitFile(), {});
    QString error;
    const bool started = unit.Start(&error);
    qunsetenv("LARKD_UNIT_SYSLOG");
    QVERIFY2(started, qPrintable(error));
    tAppConnection app;
    QVERIFY(app.Connect(unit.Port()));
    QCOMPARE(app.TakeArrivals(1).size(), 1);

    const QByteArray label = "X%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%n";
    QVERIFY(unit.Insert(QStringLiteral("usb"), QStringLiteral("directives")));
    QCOMPARE(app.TakeArrivals(1).value(0).value(QStringLiteral("path")).toString(), QString::fromUtf8("/run/media/" + label));
    QList<QByteArray> lines;
    QTRY_VERIFY_WITH_TIMEOUT((lines += sink.Drain(), lines.join('\n').contains("/run/media/" + label)), 20000);

    SendSignal(unit.Process(), SIGUSR2);
    QCOMPARE(app.TakeArrivals(2).size(), 2);
    QVERIFY(unit.Remove(QStringLiteral("left")));
    QVERIFY(unit.Remove(QStringLiteral("usb")));
    const QList<QJsonObject> gone = app.TakeArrivals(2);
    QCOMPARE(gone.size(), 2);
    for (const QJsonObject& arrival : gone)
        QVERIFY(arrival.value(QStringLiteral("type")).isNull());
    app.SendRaw(cEnquiry + cNul);
    QTest::qWait(300);
    QCOMPARE(app.TakeArrivals(0).size(), 0);
    QVERIFY2(unit.Stop(), unit.Log().constData());
}

void tHostileInputTest::applicationPortStaysBounded()
{
    // Under AddressSanitizer freed memory waits in a quarantine that would
    // count as growth: measure without it.
    const QByteArray sanitizer = qgetenv("ASAN_OPTIONS");
    if (!sanitizer.isEmpty())
        qputenv("ASAN_OPTIONS", sanitizer + ":quarantine_size_mb=0:thread_local_quarantine_size_kb=0");
    tLarkdUnit unit(E2eUnitFile(), {QStringLiteral("--disable-chart-sharing")});
    if (!sanitizer.isEmpty())
        qputenv("ASAN_OPTIONS", sanitizer);
    QString error;
    QVERIFY2(unit.Start(&error), qPrintable(error));
    const QProcess& larkd = unit.Process();

    // 64 MiB without a NUL: dropped as it comes, one warning, and the next
    // document after a NUL is answered.
    {
        tAppConnection flood;
        QVERIFY(flood.Connect(unit.Port()));
        QCOMPARE(flood.TakeArrivals(1).size(), 1);
        const qint64 before = StatusKb(larkd, "VmRSS");
        const QByteArray block(1024 * 1024, 'x');
        for (int i = 0; i < 64; ++i) {
            flood.SendRaw(block);
            QVERIFY(flood.Socket().waitForBytesWritten(10000) || flood.Socket().bytesToWrite() == 0);
        }
        flood.SendRaw(cNul + cEnquiry + cNul);
        QCOMPARE(flood.TakeArrivals(1).size(), 1);
        const qint64 growth = StatusKb(larkd, "VmRSS") - before;
        qInfo("resident memory grew by %lld kB over 64 MiB without a NUL", growth);
        QVERIFY2(growth < 4096, qPrintable(QString::number(growth)));
        QCOMPARE(unit.Log().count("without a NUL, discarded"), 1);

        // Repeated keys, which Qt's parser would leak on, cost nothing either.
        QByteArray repeated = "{";
        while (repeated.size() < 1000 * 1000)
            repeated += R"("content":["x"],)";
        repeated += R"("content":["x"]})";
        for (int i = 0; i < 16; ++i) {
            flood.SendRaw(repeated + cNul);
            QVERIFY(flood.Socket().waitForBytesWritten(10000) || flood.Socket().bytesToWrite() == 0);
        }
        flood.SendRaw(cEnquiry + cNul);
        QCOMPARE(flood.TakeArrivals(1).size(), 1);
        const qint64 afterRepeats = StatusKb(larkd, "VmRSS") - before;
        qInfo("resident memory grew by %lld kB after 16 MiB of repeated keys", afterRepeats);
        QVERIFY2(afterRepeats < 4096, qPrintable(QString::number(afterRepeats)));
        QCOMPARE(unit.Log().count("Failed to decode JSON data: \"duplicate key\""), 16);
    }

    // Half a document left by one client is not glued to the next client's
    // first request.
    {
        tAppConnection quitter;
        QVERIFY(quitter.Connect(unit.Port()));
        QCOMPARE(quitter.TakeArrivals(1).size(), 1);
        quitter.SendRaw(cEnquiry.left(15));
        QTest::qWait(100);
    }
    tAppConnection app;
    QVERIFY(app.Connect(unit.Port()));
    QCOMPARE(app.TakeArrivals(1).size(), 1);
    app.SendRaw(cEnquiry + cNul);
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
    // The current one plus eight earlier ones stay open.
    QTRY_VERIFY_WITH_TIMEOUT(OpenDescriptors(larkd) <= descriptors + 9, 10000);
    QTRY_COMPARE_WITH_TIMEOUT(std::count_if(lingering.begin(), lingering.end(), [](QTcpSocket* socket) {
                                  return socket->state() == QAbstractSocket::ConnectedState;
                              }), std::ptrdiff_t(9), 10000);
    qDeleteAll(lingering);
    QTRY_VERIFY_WITH_TIMEOUT(OpenDescriptors(larkd) <= descriptors, 10000);
    QVERIFY2(unit.Stop(), unit.Log().constData());
}

LARKD_NAMESPACE_TEST_MAIN(tHostileInputTest)
#include "tst_hostileinput.moc"
