// Syslog output read from a real /dev/log datagram socket, bound inside a
// private mount namespace (needs root for unshare); the service manager's
// notification socket is such a datagram socket too.
#include "DaemonProcess.h"
#include "LogSink.h"
#include "daemon/Logging.h"

#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtTest>

#include <unistd.h>

#include <signal.h>

namespace
{
const char* const kEmitterVariable = "LARKD_TEST_SYSLOG_EMITTER";

QByteArray Find(const QList<QByteArray>& lines, const QByteArray& text)
{
    for (const QByteArray& line : lines)
        if (line.endsWith(": " + text))
            return line;
    return {};
}
} // namespace

class tSyslogTest : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void priorityAndBareText();
    void tellsServiceManagerAndLogs();

private:
    QTemporaryDir m_Dir;
};

void tSyslogTest::initTestCase()
{
    if (geteuid() != 0)
        QSKIP("needs root to bind /dev/log in a private mount namespace");
    QVERIFY(m_Dir.isValid());
}

void tSyslogTest::priorityAndBareText()
{
    tLogSink sink(m_Dir.filePath("log1"));
    QVERIFY(sink.IsBound());
    qputenv(kEmitterVariable, "1");
    const tFinishedProcess emitter =
        RunToEnd(TestScript("with-devlog.sh"), {m_Dir.filePath("log1"), QCoreApplication::applicationFilePath()});
    qunsetenv(kEmitterVariable);
    QCOMPARE(emitter.exitCode, 0);

    const QList<QByteArray> lines = sink.Drain();
    QVERIFY2(Find(lines, "info line").startsWith("<14>") && Find(lines, "warning line").startsWith("<12>")
                 && Find(lines, "critical line").startsWith("<10>"),
             lines.join('|').constData());
    // Only the text: no category or source location; debug is below the
    // categories' threshold.
    QVERIFY(!lines.join().contains("lk.daemon"));
    QCOMPARE(lines.size(), 3);
}

// larkd under its service manager: READY=1 once it serves, watchdog pings
// when asked for, SIGHUP ignored, STOPPING=1 on SIGTERM; its log goes to
// syslog unless --disable-syslog.
void tSyslogTest::tellsServiceManagerAndLogs()
{
    for (const bool watchdog : {false, true}) {
        const QString logPath = m_Dir.filePath(watchdog ? "log-watchdog" : "log");
        const QString notifyPath = m_Dir.filePath(watchdog ? "notify-watchdog" : "notify");
        tLogSink log(logPath);
        tLogSink manager(notifyPath);
        QVERIFY(log.IsBound() && manager.IsBound());
        QTcpServer probe;
        probe.listen(QHostAddress::LocalHost, 0);
        const quint16 port = probe.serverPort();
        probe.close();
        QProcess larkd;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("NOTIFY_SOCKET", notifyPath);
        if (watchdog)
            env.insert("WATCHDOG_USEC", "200000");
        larkd.setProcessEnvironment(env);
        // Without the watchdog, the log goes to the console.
        QStringList args{logPath, LarkdBinary(), "--disable-chart-sharing", "--port", QString::number(port)};
        if (!watchdog)
            args << "--disable-syslog";
        larkd.start(TestScript("with-devlog.sh"), args);
        QVERIFY(larkd.waitForStarted());

        // Blocking, so that whatever was sent before READY=1 is checked the
        // moment it arrives: the scan's log line, sent after the server listened.
        QList<QByteArray> got;
        while (!got.contains("READY=1"))
            QVERIFY(manager.Wait(10000) && !(got += manager.Drain()).isEmpty());
        if (watchdog)
            QVERIFY(!Find(log.Drain(), "tLarkDaemon::ManualScan()").isEmpty());
        QTcpSocket application;
        application.connectToHost(QHostAddress::LocalHost, port);
        QVERIFY(application.waitForConnected(1000));

        QTest::qWait(500); // 5 pings at 100 ms
        got += manager.Drain();
        QVERIFY2(watchdog ? got.count("WATCHDOG=1") >= 2 : !got.contains("WATCHDOG=1"), got.join('|').constData());

        SendSignal(larkd, SIGHUP);
        QVERIFY(!larkd.waitForFinished(300));
        SendSignal(larkd, SIGTERM);
        QVERIFY(larkd.waitForFinished(10000) && larkd.exitStatus() == QProcess::NormalExit && larkd.exitCode() == 0);
        if (!watchdog)
            QVERIFY(log.Drain().isEmpty() && larkd.readAllStandardError().contains("tLarkDaemon::ManualScan()"));
        // Watchdog pings may come before READY=1, which waits for the
        // service's object list while the loop turns; nothing else may.
        got += manager.Drain();
        got.removeAll("WATCHDOG=1");
        QCOMPARE(got, QList<QByteArray>({"READY=1", "STOPPING=1"}));
    }
}

int main(int argc, char* argv[])
{
    if (qEnvironmentVariableIsSet(kEmitterVariable)) {
        QCoreApplication app(argc, argv);
        qInstallMessageHandler(SyslogMessageOutput);
        qCDebug(lcDaemon, "debug line");
        qCInfo(lcDaemon, "info line");
        qCWarning(lcUDisks2, "warning line");
        qCCritical(lcNfs, "critical line");
        return 0;
    }
    QCoreApplication app(argc, argv);
    tSyslogTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_syslog.moc"
