// The command line as a user meets it: parsed in-process for the values it
// yields, and through the real binary for what it prints and its exit status.
#include "DaemonProcess.h"
#include "daemon/DaemonConfig.h"

#include <QtTest>

#include <signal.h>

class tCommandLineTest : public QObject
{
    Q_OBJECT
private slots:
    void defaults();
    void valuesReachTheirFields();
    void portKeepsLow16Bits_data();
    void portKeepsLow16Bits();
    void malformedNumbers_data();
    void malformedNumbers();
    void helpListsOptionsInTableOrder();
    void versionText();
    void badValueExits22WithExactText();
    void logOptionWarnsAndContinues();
};

namespace
{
bool Parse(const QStringList& args, tDaemonConfig& config, QString& error)
{
    return ParseArguments(QStringList{QStringLiteral("larkd")} + args, config, error);
}
} // namespace

void tCommandLineTest::defaults()
{
    tDaemonConfig config;
    QString error;
    QVERIFY(Parse({}, config, error));
    QCOMPARE(config.port, quint16(15003));
    QCOMPARE(config.unmountTimeoutPeriod, 3000);
    QVERIFY(!config.disableChartSharing);
    QVERIFY(!config.disableSyslog);
    QVERIFY(config.vfatMountOpts.isEmpty() && config.peerMac.isEmpty() && config.nfsRoot.isEmpty());
}

void tCommandLineTest::valuesReachTheirFields()
{
    tDaemonConfig config;
    QString error;
    QVERIFY(Parse({"-c", "/cid", "-d", "-f", "5", "-i", "/int", "-l", "9", "-m", "00:11:22:33:44:55", "-n", "/sn",
                   "-r", "/nfs", "-s", "--vfat", "utf8,umask=0", "--writeable-exports", "--disable-syslog",
                   "--two-way-connection", "--unmount-timeout-period", "-7", "--code-name", "alpha",
                   "--treat-remote-as-local", "beta"},
                  config, error));
    QCOMPARE(config.contentIdFile, QStringLiteral("/cid"));
    QVERIFY(config.daemonMode);
    QCOMPARE(config.waitFileTimeout, 5);
    QCOMPARE(config.internalSharePath, QStringLiteral("/int"));
    QCOMPARE(config.debugLevel, 9);
    QCOMPARE(config.peerMac, QStringLiteral("00:11:22:33:44:55"));
    QCOMPARE(config.serialNumberFile, QStringLiteral("/sn"));
    QCOMPARE(config.nfsRoot, QStringLiteral("/nfs"));
    QVERIFY(config.disableChartSharing && config.writeableExports && config.disableSyslog && config.twoWayConnection);
    QCOMPARE(config.vfatMountOpts, QStringLiteral("utf8,umask=0"));
    QCOMPARE(config.unmountTimeoutPeriod, -7); // negative values are accepted
    QCOMPARE(config.codeName, QStringLiteral("alpha"));
    QCOMPARE(config.treatRemoteAsLocal, QStringLiteral("beta"));

    tDaemonConfig longName;
    QVERIFY(Parse({"--vfat-mount-opts", "shortname=mixed"}, longName, error));
    QCOMPARE(longName.vfatMountOpts, QStringLiteral("shortname=mixed"));
}

void tCommandLineTest::portKeepsLow16Bits_data()
{
    QTest::addColumn<QString>("value");
    QTest::addColumn<int>("port");
    QTest::newRow("plain") << "8080" << 8080;
    QTest::newRow("70000 wraps") << "70000" << 4464;
    QTest::newRow("65536 wraps to 0") << "65536" << 0;
    QTest::newRow("65535") << "65535" << 65535;
}

void tCommandLineTest::portKeepsLow16Bits()
{
    QFETCH(QString, value);
    QFETCH(int, port);
    tDaemonConfig config;
    QString error;
    QVERIFY(Parse({"--port", value}, config, error));
    QCOMPARE(int(config.port), port);
}

void tCommandLineTest::malformedNumbers_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<QString>("error");
    QTest::newRow("port text") << QStringList{"--port", "abc"} << "Bad value specified '-p,--port': abc";
    QTest::newRow("port negative") << QStringList{"-p", "-1"} << "Bad value specified '-p,--port': -1";
    QTest::newRow("port hex") << QStringList{"--port", "0x3a9b"} << "Bad value specified '-p,--port': 0x3a9b";
    QTest::newRow("single-name option")
        << QStringList{"--unmount-timeout-period", "x"}
        << "Bad value specified '-unmount-timeout-period,--unmount-timeout-period': x";
    QTest::newRow("debuglevel") << QStringList{"--debuglevel", "1.5"} << "Bad value specified '-l,--debuglevel': 1.5";
    // Reading order, not command-line order, decides which failure is reported.
    QTest::newRow("first failure wins")
        << QStringList{"--port", "xyz", "--file-timeout", "abc"} << "Bad value specified '-f,--file-timeout': abc";
}

void tCommandLineTest::malformedNumbers()
{
    QFETCH(QStringList, args);
    QFETCH(QString, error);
    tDaemonConfig config;
    QString message;
    QVERIFY(!Parse(args, config, message));
    QCOMPARE(message, error);
}

void tCommandLineTest::helpListsOptionsInTableOrder()
{
    const tFinishedProcess run = RunToEnd(LarkdBinary(), {"--help"});
    QCOMPARE(run.exitCode, 0);
    const QString help = QString::fromUtf8(run.out);
    QVERIFY2(help.contains("Media mount manager and service announcer"), qPrintable(help));
    // Help wraps long lines; compare with whitespace collapsed. All rows in one
    // run proves their order and that no description gained a full stop.
    const QString rows = QStringList{
        "-c, --content-id-file <contentIdFile> Path to the content ID file.",
        "-d, --daemon Daemon mode.",
        "-f, --file-timeout <waitFileTimeout> Time to wait for the required files to be created.",
        "-i, --internal-share-path <internalSharePath> Path to the internal storage for chart sharing.",
        "-l, --debuglevel <debugLevel> Debug level.",
        "-m, --peer-mac <peerMac> MAC address of the peer CPU.",
        "-n, --serial-number-file <serialNumberFile> Path to the serial number file.",
        "-o, --log <logDestination> Stub option.",
        "-p, --port <port> The port TAL listens on.",
        "-r, --nfs-root <nfsRoot> Path to the root of nfs shares",
        "-s, --disable-chart-sharing Chart availability will not be announced and shared.",
        "--vfat, --vfat-mount-opts <vfatMountOpts> Mount options for vfat in comma separated format.",
        "--writeable-exports Export share as writeable (default is read-only).",
        "--disable-syslog Output to console.",
        "--two-way-connection Application specifies the network interface",
        "--unmount-timeout-period <unmountTimeoutPeriod> Period after which a device is considered disconnected",
        "--code-name <codeName> Code name of this class of device. Advertised on the network.",
        "--treat-remote-as-local <treatRemoteAsLocal> Treat the exports of this type of device as local storage",
    }.join(' ');
    const QString collapsed = help.simplified();
    QVERIFY2(collapsed.contains("-v, --version Displays version information. " + rows), qPrintable(collapsed));
    QVERIFY(collapsed.endsWith(rows));
}

void tCommandLineTest::versionText()
{
    const tFinishedProcess run = RunToEnd(LarkdBinary(), {"--version"});
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.out, QByteArray("larkd 2.0\n"));
}

void tCommandLineTest::badValueExits22WithExactText()
{
    // Even without --disable-syslog the error reaches the console: syslog is
    // installed only after a good parse.
    const tFinishedProcess run = RunToEnd(LarkdBinary(), {"--file-timeout", "abc", "--port", "xyz"});
    QCOMPARE(run.exitStatus, QProcess::NormalExit);
    QCOMPARE(run.exitCode, 22);
    QCOMPARE(run.err, QByteArray("Bad value specified '-f,--file-timeout': abc\n"));

    const tFinishedProcess unknown = RunToEnd(LarkdBinary(), {"--no-such-option"});
    QCOMPARE(unknown.exitCode, 1);
}

void tCommandLineTest::logOptionWarnsAndContinues()
{
    QProcess larkd;
    larkd.start(LarkdBinary(), {"-o", "x", "--port", "70000"});
    QVERIFY(larkd.waitForStarted());
    QByteArray err;
    QTRY_VERIFY_WITH_TIMEOUT((err += larkd.readAllStandardError()).contains("Ignoring unused option -o,--log\n")
                                 || larkd.state() != QProcess::Running,
                             10000);
    QCOMPARE(larkd.state(), QProcess::Running);
    QTRY_VERIFY_WITH_TIMEOUT(CatchesSignal(larkd, SIGTERM), 10000);
    SendSignal(larkd, SIGTERM);
    QVERIFY(larkd.waitForFinished(10000));
    QCOMPARE(larkd.exitStatus(), QProcess::NormalExit);
    QCOMPARE(larkd.exitCode(), 0);
}

QTEST_GUILESS_MAIN(tCommandLineTest)
#include "tst_commandline.moc"
