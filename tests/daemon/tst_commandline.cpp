// Command-line errors: which value is reported, in what words, and how larkd
// exits. (That the options reach the daemon the end-to-end stories show.)
#include "DaemonProcess.h"
#include "daemon/DaemonConfig.h"

#include <QtTest>

class tCommandLineTest : public QObject
{
    Q_OBJECT
private slots:
    void values_data();
    void values();
    void badValueExits22OnTheConsole();
};

void tCommandLineTest::values_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<QString>("error"); // empty: accepted
    QTest::addColumn<int>("port");
    QTest::newRow("default port") << QStringList() << QString() << 15003;
    QTest::newRow("port wraps to 16 bits") << QStringList{"--port", "70000"} << QString() << 4464;
    QTest::newRow("65536 wraps to 0") << QStringList{"--port", "65536"} << QString() << 0;
    QTest::newRow("port text") << QStringList{"--port", "abc"} << "Bad value specified '-p,--port': abc" << 0;
    QTest::newRow("port negative") << QStringList{"-p", "-1"} << "Bad value specified '-p,--port': -1" << 0;
    QTest::newRow("port hex") << QStringList{"--port", "0x3a9b"} << "Bad value specified '-p,--port': 0x3a9b" << 0;
    QTest::newRow("single-name option")
        << QStringList{"--unmount-timeout-period", "x"}
        << "Bad value specified '-unmount-timeout-period,--unmount-timeout-period': x" << 0;
    QTest::newRow("debuglevel") << QStringList{"--debuglevel", "1.5"} << "Bad value specified '-l,--debuglevel': 1.5" << 0;
}

void tCommandLineTest::values()
{
    QFETCH(QStringList, args);
    QFETCH(QString, error);
    QFETCH(int, port);
    tDaemonConfig config;
    QString message;
    QCOMPARE(ParseArguments(QStringList{QStringLiteral("larkd")} + args, config, message), error.isEmpty());
    QCOMPARE(message, error);
    if (error.isEmpty())
        QCOMPARE(int(config.port), port);
}

void tCommandLineTest::badValueExits22OnTheConsole()
{
    // Even without --disable-syslog: syslog is installed only after a good
    // parse. Reading order, not command-line order, decides which failure is
    // reported.
    const tFinishedProcess run = RunToEnd(LarkdBinary(), {"--file-timeout", "abc", "--port", "xyz"});
    QCOMPARE(run.exitStatus, QProcess::NormalExit);
    QCOMPARE(run.exitCode, 22);
    QCOMPARE(run.err, QByteArray("Bad value specified '-f,--file-timeout': abc\n"));
    QCOMPARE(RunToEnd(LarkdBinary(), {"--no-such-option"}).exitCode, 1);
}

QTEST_GUILESS_MAIN(tCommandLineTest)
#include "tst_commandline.moc"
