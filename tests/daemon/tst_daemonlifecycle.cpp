// The daemon process and its Unix signals, as an operator meets them.
#include "DaemonProcess.h"

#include <QtTest>

#include <signal.h>

class tDaemonLifecycleTest : public QObject
{
    Q_OBJECT
private slots:
    void hupIsIgnoredAndTermEndsWithZero();
};

void tDaemonLifecycleTest::hupIsIgnoredAndTermEndsWithZero()
{
    QProcess larkd;
    larkd.setProcessChannelMode(QProcess::SeparateChannels);
    // No sharing and no fixed port: this larkd runs on the machine's own network.
    larkd.start(LarkdBinary(), {"--disable-syslog", "--disable-chart-sharing", "--port", "0"});
    QVERIFY(larkd.waitForStarted());
    // Before its handlers are installed a SIGHUP would still be fatal.
    QTRY_VERIFY_WITH_TIMEOUT(CatchesSignal(larkd, SIGHUP) && CatchesSignal(larkd, SIGTERM), 10000);
    QByteArray err;
    SendSignal(larkd, SIGHUP);
    QTRY_VERIFY_WITH_TIMEOUT((err += larkd.readAllStandardError()).contains(
                                 "tLarkDaemon::SignalHandler(): Ignoring SIGHUP"),
                             10000);
    SendSignal(larkd, SIGHUP);
    QVERIFY(!larkd.waitForFinished(300));
    QCOMPARE(err.count("Ignoring SIGHUP") + larkd.readAllStandardError().count("Ignoring SIGHUP"), 2);

    SendSignal(larkd, SIGTERM);
    QVERIFY(larkd.waitForFinished(10000));
    err += larkd.readAllStandardError();
    QCOMPARE(larkd.exitStatus(), QProcess::NormalExit);
    QCOMPARE(larkd.exitCode(), 0);
    QVERIFY2(err.contains("tLarkDaemon::SignalHandler(): Handling SIGTERM"), err.constData());
}

QTEST_GUILESS_MAIN(tDaemonLifecycleTest)
#include "tst_daemonlifecycle.moc"
