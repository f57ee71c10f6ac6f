// larkd as a process on a simulated unit: cards and sticks come and go, and
// the display application, the friendly links and the NFS exports follow.
// UDisks2 is stood in for by the project's simulator, exportfs by a recording
// stand-in.

#include "DaemonProcess.h"
#include "AppConnection.h"
#include "PrivateMounts.h"
#include "storage/CidWithCrc.h"

#include <QtTest>

#include <climits>
#include <csignal>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
const QString cVfatOptions = QStringLiteral("utf8,shortname=mixed");

QJsonValue Null()
{
    return QJsonValue(QJsonValue::Null);
}

// The link's own text, unresolved.
QString LinkTarget(const QString& path)
{
    char target[PATH_MAX];
    const ssize_t size = readlink(QFile::encodeName(path).constData(), target, sizeof target);
    return size < 0 ? QString() : QFile::decodeName(QByteArray(target, int(size)));
}
} // namespace

class tLocalVolumesTest : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void cardsAndSticksAreMountedLinkedExportedAndReported();
    void removalIsReportedUnmountedAndItsLinkSwept();
    void theApplicationsConnection();
    void restartAdoptsWhatIsMountedAndReportsEachOnce();
    void serviceRestartIsFollowed();

private:
    QTemporaryDir m_Files;
    QString m_ContentIdFile;
    QString m_SerialNumberFile;
};

void tLocalVolumesTest::initTestCase()
{
    LARKD_REQUIRE_NAMESPACE();
    m_ContentIdFile = m_Files.filePath(QStringLiteral("content-id"));
    m_SerialNumberFile = m_Files.filePath(QStringLiteral("serial"));
    QFile contentId(m_ContentIdFile);
    QVERIFY(contentId.open(QIODevice::WriteOnly));
    contentId.write("CONTENT-7 trailing words\n");
    contentId.close();
    QFile serial(m_SerialNumberFile);
    QVERIFY(serial.open(QIODevice::WriteOnly));
    serial.write("  SN-0042\n");
}

void tLocalVolumesTest::cardsAndSticksAreMountedLinkedExportedAndReported()
{
    tLarkdUnit unit(E2eUnitFile(), {QStringLiteral("--vfat"), cVfatOptions, QStringLiteral("--writeable-exports"),
                                    QStringLiteral("--internal-share-path"), QStringLiteral("/srv/charts"),
                                    QStringLiteral("--content-id-file"), m_ContentIdFile,
                                    QStringLiteral("--serial-number-file"), m_SerialNumberFile});
    QString error;
    QVERIFY2(unit.Start(&error), qPrintable(error));

    // The card present at start is reported when the application connects.
    tAppConnection app;
    QVERIFY(app.Connect(unit.Port()));
    QList<QJsonObject> arrivals = app.TakeArrivals(1);
    QVERIFY2(arrivals.size() == 1, unit.Log().constData());
    const QJsonObject expectedCharts{
        {QStringLiteral("friendlyname"), QStringLiteral("Memory Card - Left")},
        {QStringLiteral("fixed"), false},
        {QStringLiteral("readonly"), false},
        {QStringLiteral("remote"), false},
        {QStringLiteral("serialnumber"), QStringLiteral("SN-0042")},
        {QStringLiteral("contentid"), QStringLiteral("CONTENT-7")},
        {QStringLiteral("key"), CidWithCrc(QStringLiteral("035344534c31364780b1d4a4c5011600"))},
        {QStringLiteral("path"), QStringLiteral("/run/media/CHARTS")},
        {QStringLiteral("type"), QStringLiteral("memorycard")}};
    QCOMPARE(arrivals.first(), expectedCharts);
    QCOMPARE(LinkTarget(unit.Inside(QStringLiteral("/run/media/Memory Card - 1"))), QStringLiteral("CHARTS"));

    // Inserted later: a card in the other slot, a read-only ext4 card in an
    // unconfigured slot, and a USB stick.
    QVERIFY(unit.Insert(QStringLiteral("right"), QStringLiteral("photos")));
    arrivals = app.TakeArrivals(1);
    QCOMPARE(arrivals.size(), 1);
    QCOMPARE(arrivals.first().value(QStringLiteral("friendlyname")), QJsonValue(QStringLiteral("Memory Card - Right")));
    QCOMPARE(arrivals.first().value(QStringLiteral("path")), QJsonValue(QStringLiteral("/run/media/PHOTOS")));
    QCOMPARE(LinkTarget(unit.Inside(QStringLiteral("/run/media/Memory Card - 2"))), QStringLiteral("PHOTOS"));

    // A new content ID is read when its file changes.
    const QDateTime before = QFileInfo(m_ContentIdFile).lastModified();
    QFile contentId(m_ContentIdFile);
    QVERIFY(contentId.open(QIODevice::WriteOnly | QIODevice::Truncate));
    contentId.write("CONTENT-8\n");
    contentId.close();
    QVERIFY(contentId.open(QIODevice::ReadWrite));
    QVERIFY(contentId.setFileTime(before.addSecs(5), QFileDevice::FileModificationTime));
    contentId.close();
    QVERIFY(unit.Insert(QStringLiteral("usb"), QStringLiteral("stick")));
    arrivals = app.TakeArrivals(1);
    QCOMPARE(arrivals.size(), 1);
    QCOMPARE(arrivals.first().value(QStringLiteral("contentid")), QJsonValue(QStringLiteral("CONTENT-8")));
    QCOMPARE(arrivals.first().value(QStringLiteral("friendlyname")), QJsonValue(QStringLiteral("USB Mass Storage")));
    QCOMPARE(arrivals.first().value(QStringLiteral("type")), QJsonValue(QStringLiteral("harddrive")));
    QCOMPARE(arrivals.first().value(QStringLiteral("key")), QJsonValue(QString()));
    QCOMPARE(LinkTarget(unit.Inside(QStringLiteral("/run/media/USB Memory Card A1"))), QStringLiteral("STICK"));

    QVERIFY(unit.Insert(QStringLiteral("extra"), QStringLiteral("maps")));
    arrivals = app.TakeArrivals(1);
    QCOMPARE(arrivals.size(), 1);
    QCOMPARE(arrivals.first().value(QStringLiteral("readonly")), QJsonValue(true));
    QCOMPARE(arrivals.first().value(QStringLiteral("friendlyname")), QJsonValue(QStringLiteral("Memory Card")));

    // vfat volumes get the configured options, others none.
    const QStringList mounts = unit.Calls().filter(QRegularExpression(QStringLiteral("^Mount ")));
    QCOMPARE(mounts.size(), 4);
    QVERIFY2(mounts.at(0).startsWith(QStringLiteral("Mount mmcblk0p1 /run/media/CHARTS ")), qPrintable(mounts.at(0)));
    for (int i : {0, 1, 2})
        QVERIFY2(mounts.at(i).contains(QStringLiteral("options=") + cVfatOptions), qPrintable(mounts.at(i)));
    QVERIFY2(!mounts.at(3).contains(QStringLiteral("options=")), qPrintable(mounts.at(3)));

    // Writable volumes are exported writable; a read-only card stays read-only.
    // A volume is reported at once, and exported once the exports before it have run.
    auto exportOf = [&unit](const QString& path) {
        const QStringList found = unit.Ran(QStringLiteral("exportfs")).filter(QStringLiteral("\t*:") + path);
        return found.isEmpty() ? QString() : found.first();
    };
    const auto exports = [&unit]() { return unit.Ran(QStringLiteral("exportfs")).join('\n'); };
    QTRY_VERIFY2(exportOf(QStringLiteral("/run/media/CHARTS")).startsWith(QStringLiteral("-o\trw")), qPrintable(exports()));
    QTRY_VERIFY2(exportOf(QStringLiteral("/run/media/PHOTOS")).startsWith(QStringLiteral("-o\trw")), qPrintable(exports()));
    QTRY_VERIFY2(exportOf(QStringLiteral("/run/media/MAPS")).startsWith(QStringLiteral("-o\tro")), qPrintable(exports()));
    QTRY_VERIFY2(exportOf(QStringLiteral("/srv/charts")).startsWith(QStringLiteral("-o\tro")), qPrintable(exports()));
}

void tLocalVolumesTest::removalIsReportedUnmountedAndItsLinkSwept()
{
    tLarkdUnit unit(E2eUnitFile(), {});
    QString error;
    QVERIFY2(unit.Start(&error), qPrintable(error));
    tAppConnection app;
    QVERIFY(app.Connect(unit.Port()));
    QCOMPARE(app.TakeArrivals(1).size(), 1);

    // A card whose link name is taken stays mounted and only warns.
    QVERIFY(unit.Insert(QStringLiteral("extra"), QStringLiteral("photos")));
    QList<QJsonObject> arrivals = app.TakeArrivals(1);
    QCOMPARE(arrivals.size(), 1);
    QCOMPARE(arrivals.first().value(QStringLiteral("path")), QJsonValue(QStringLiteral("/run/media/PHOTOS")));
    QCOMPARE(LinkTarget(unit.Inside(QStringLiteral("/run/media/Memory Card - 1"))), QStringLiteral("CHARTS"));
    QVERIFY(QFileInfo(unit.Inside(QStringLiteral("/run/media/PHOTOS"))).isDir());

    QVERIFY(unit.Remove(QStringLiteral("left")));
    arrivals = app.TakeArrivals(1);
    QCOMPARE(arrivals.size(), 1);
    const QJsonObject gone{{QStringLiteral("friendlyname"), Null()}, {QStringLiteral("fixed"), Null()},
                           {QStringLiteral("readonly"), Null()},     {QStringLiteral("remote"), Null()},
                           {QStringLiteral("serialnumber"), Null()}, {QStringLiteral("contentid"), Null()},
                           {QStringLiteral("key"), Null()},          {QStringLiteral("path"), QStringLiteral("/run/media/CHARTS")},
                           {QStringLiteral("type"), Null()}};
    QCOMPARE(arrivals.first(), gone);
    QTRY_VERIFY(unit.Ran(QStringLiteral("exportfs")).contains(QStringLiteral("-u\t*:/run/media/CHARTS")));
    // The link goes with the volume, although the service removes a pulled
    // medium's mount directory only after its objects (and nothing sweeps
    // dangling links later).
    QTRY_VERIFY(!QFileInfo(unit.Inside(QStringLiteral("/run/media/Memory Card - 1"))).isSymLink());
    QVERIFY(QFileInfo(unit.Inside(QStringLiteral("/run/media/PHOTOS"))).isDir());

    // Unmounted by someone else: reported gone, and larkd unmounts it too
    // (which the service refuses, the volume being unmounted already), once
    // its unexport has run.
    QVERIFY(unit.Unmount(QStringLiteral("mmcblk3p1")));
    arrivals = app.TakeArrivals(1);
    QCOMPARE(arrivals.size(), 1);
    QCOMPARE(arrivals.first().value(QStringLiteral("path")), QJsonValue(QStringLiteral("/run/media/PHOTOS")));
    QVERIFY(arrivals.first().value(QStringLiteral("type")).isNull());
    QTRY_VERIFY(unit.Calls().contains(QStringLiteral("Unmount-refused mmcblk3p1")));
}

// The application's connection: how documents are framed, larkd-client
// taking over, the signals; without chart sharing nothing is exported.
void tLocalVolumesTest::theApplicationsConnection()
{
    tLarkdUnit unit(E2eUnitFile(), {QStringLiteral("--disable-chart-sharing"), QStringLiteral("--internal-share-path"),
                                    QStringLiteral("/srv/charts")});
    QString error;
    QVERIFY2(unit.Start(&error), qPrintable(error));
    tAppConnection app;
    QVERIFY(app.Connect(unit.Port()));
    QCOMPARE(Reported(app.TakeArrivals(1)), QStringList{QStringLiteral("+/run/media/CHARTS")});
    const QByteArray enquiry = R"({"message":{"type":"enquerydevicelist"}})";
    const QByteArray nul(1, '\0');

    // Two documents in one segment are both answered.
    app.SendRaw(enquiry + nul + enquiry + nul);
    QCOMPARE(app.TakeArrivals(2).size(), 2);
    // A document across segments is handled once its NUL arrives, and bytes
    // after the last NUL wait for theirs.
    app.SendRaw(enquiry.left(10));
    QTest::qWait(100);
    app.SendRaw(enquiry.mid(10) + nul + enquiry.left(20));
    QCOMPARE(app.TakeArrivals(1).size(), 1);
    QTest::qWait(200);
    QCOMPARE(app.TakeArrivals(0).size(), 0);
    app.SendRaw(enquiry.mid(20) + nul);
    QCOMPARE(app.TakeArrivals(1).size(), 1);
    // A document larger than the daemon's read buffer.
    app.SendRaw(R"({"message":{"type":"enquerydevicelist","content":")" + QByteArray(5000, 'x') + R"("}})" + nul);
    QCOMPARE(app.TakeArrivals(1).size(), 1);
    // Malformed JSON, unknown types and refused requests leave the connection working.
    app.SendRaw(QByteArray("{\"message\": [unclosed") + nul);
    app.Send(AppRequest(QStringLiteral("no-such-type")));
    app.Send(AppRequest(QStringLiteral("chartsharing"), QJsonArray{QStringLiteral("eth0")}));
    app.SendRaw(enquiry + nul);
    QCOMPARE(app.TakeArrivals(1).size(), 1);

    // SIGUSR1: every volume reported again; SIGUSR2: every volume unmounted
    // and mounted again, as if re-inserted.
    SendSignal(unit.Process(), SIGUSR1);
    QCOMPARE(Reported(app.TakeArrivals(1)), QStringList{QStringLiteral("+/run/media/CHARTS")});
    SendSignal(unit.Process(), SIGUSR2);
    QCOMPARE(Reported(app.TakeArrivals(1)), QStringList{QStringLiteral("+/run/media/CHARTS")});
    const QStringList calls = unit.Calls().filter(QRegularExpression(QStringLiteral("^(Mount|Unmount) ")));
    QVERIFY2(calls.size() == 3 && calls.at(1).startsWith(QStringLiteral("Unmount mmcblk0p1"))
                 && calls.at(2).startsWith(QStringLiteral("Mount mmcblk0p1")),
             qPrintable(calls.join('\n')));

    // larkd-client takes over: `list` prints what a new connection hears, a
    // compact document a line; `follow` every message as it comes. The old
    // connection is neither answered nor told of new volumes.
    const QString client = qEnvironmentVariable("LARKD_CLIENT_BINARY");
    const QStringList port{QStringLiteral("--port"), QString::number(unit.Port())};
    const tFinishedProcess list = RunToEnd(client, port + QStringList{QStringLiteral("list"), QStringLiteral("--wait"), QStringLiteral("300")});
    QVERIFY2(list.exitCode == 0 && list.out.count('\n') == 1 && list.out.contains(R"("path":"/run/media/CHARTS")"),
             list.out.constData());
    QProcess follow;
    follow.start(client, port + QStringList{QStringLiteral("follow")});
    QByteArray out;
    QTRY_VERIFY_WITH_TIMEOUT((out += follow.readAllStandardOutput()).count('\n') == 1, 10000);
    app.SendRaw(enquiry + nul);
    QVERIFY(unit.Insert(QStringLiteral("usb"), QStringLiteral("stick")));
    QTRY_VERIFY_WITH_TIMEOUT((out += follow.readAllStandardOutput()).count('\n') == 2, 10000);
    QVERIFY2(out.split('\n').at(1).contains(R"("path":"/run/media/STICK")"), out.constData());
    QCOMPARE(app.TakeArrivals(0).size(), 0);
    StopProcess(follow);

    // Linked, but exported not even the internal store.
    QCOMPARE(LinkTarget(unit.Inside(QStringLiteral("/run/media/Memory Card - 1"))), QStringLiteral("CHARTS"));
    QCOMPARE(unit.Ran(QStringLiteral("exportfs")), QStringList());

    // SIGTERM ends with status 0 and leaves the volumes mounted: a mount
    // directory (made by the simulator's mount, removed by its unmount)
    // outlives larkd, seen through a handle on larkd's /run/media.
    const int media = open(QFile::encodeName(unit.Inside(QStringLiteral("/run/media"))).constData(),
                           O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    QVERIFY(media >= 0);
    const bool stopped = unit.Stop();
    struct stat info;
    const bool stillMounted = fstatat(media, "CHARTS", &info, 0) == 0;
    close(media);
    QVERIFY2(stopped, unit.Log().constData());
    QVERIFY(stillMounted);
}

void tLocalVolumesTest::restartAdoptsWhatIsMountedAndReportsEachOnce()
{
    qputenv("LARKD_UNIT_RESTART", "1");
    tLarkdUnit unit(E2eUnitFile(), {QStringLiteral("--vfat"), cVfatOptions});
    QString error;
    const bool started = unit.Start(&error);
    qunsetenv("LARKD_UNIT_RESTART");
    QVERIFY2(started, qPrintable(error));

    // Connected as larkd starts, before the service has said where the card
    // is mounted: told of it once, without asking.
    tAppConnection early;
    QVERIFY(early.Connect(unit.Port()));
    QCOMPARE(Reported(early.TakeArrivals(1)), QStringList{QStringLiteral("+/run/media/CHARTS")});
    QVERIFY(unit.Insert(QStringLiteral("usb"), QStringLiteral("stick")));
    QCOMPARE(Reported(early.TakeArrivals(1)), QStringList{QStringLiteral("+/run/media/STICK")});

    // larkd dies with two volumes mounted; a card goes in while it is down.
    QCOMPARE(::kill(pid_t(unit.LarkdPid()), SIGSTOP), 0);
    QVERIFY(unit.Insert(QStringLiteral("right"), QStringLiteral("photos")));
    const int simulatorCallsBefore = unit.Calls().size();
    const int exportsBefore = unit.Ran(QStringLiteral("exportfs")).size();
    QVERIFY2(unit.KillAndAwaitRestart(&error), qPrintable(error));

    // The restarted larkd adopts the two volumes, mounts the new card and
    // tells an application connected as it starts of each exactly once.
    tAppConnection app;
    QVERIFY(app.Connect(unit.Port()));
    QList<QJsonObject> arrivals = app.TakeArrivals(3);
    QTest::qWait(300);
    arrivals += app.TakeArrivals(0);
    QCOMPARE(Reported(arrivals), QStringList({QStringLiteral("+/run/media/CHARTS"), QStringLiteral("+/run/media/PHOTOS"),
                                              QStringLiteral("+/run/media/STICK")}));
    for (const QJsonObject& arrival : qAsConst(arrivals)) {
        if (arrival.value(QStringLiteral("path")) == QJsonValue(QStringLiteral("/run/media/CHARTS")))
            QCOMPARE(arrival.value(QStringLiteral("friendlyname")), QJsonValue(QStringLiteral("Memory Card - Left")));
    }
    // Only the new card is mounted; nothing is unmounted or refused.
    const QStringList simulatorCalls = unit.Calls().mid(simulatorCallsBefore);
    QCOMPARE(simulatorCalls.filter(QRegularExpression(QStringLiteral("^(Mount|Unmount)"))).size(), 1);
    QVERIFY2(simulatorCalls.filter(QRegularExpression(QStringLiteral("^Mount mmcblk1p1 /run/media/PHOTOS "))).size() == 1,
             qPrintable(simulatorCalls.join('\n')));
    const auto exports = [&]() { return unit.Ran(QStringLiteral("exportfs")).mid(exportsBefore); };
    for (const QString& path : {QStringLiteral("CHARTS"), QStringLiteral("STICK"), QStringLiteral("PHOTOS")})
        QTRY_VERIFY2(!exports().filter(QRegularExpression(QStringLiteral("^-o\t.*\t\\*:/run/media/") + path + '$')).isEmpty(),
                     qPrintable(exports().join('\n')));
    QCOMPARE(LinkTarget(unit.Inside(QStringLiteral("/run/media/Memory Card - 1"))), QStringLiteral("CHARTS"));
    QCOMPARE(LinkTarget(unit.Inside(QStringLiteral("/run/media/Memory Card - 2"))), QStringLiteral("PHOTOS"));
    QCOMPARE(LinkTarget(unit.Inside(QStringLiteral("/run/media/USB Memory Card A1"))), QStringLiteral("STICK"));

    // An adopted volume is larkd's like any other: its removal is followed through.
    QVERIFY(unit.Remove(QStringLiteral("usb")));
    QCOMPARE(Reported(app.TakeArrivals(1)), QStringList{QStringLiteral("-/run/media/STICK")});
    QTRY_VERIFY(unit.Ran(QStringLiteral("exportfs")).contains(QStringLiteral("-u\t*:/run/media/STICK")));
    QTRY_VERIFY(!QFileInfo(unit.Inside(QStringLiteral("/run/media/USB Memory Card A1"))).isSymLink());

    // Started while the service is away, larkd takes up what is mounted once it comes.
    QVERIFY2(unit.Away(&error), qPrintable(error));
    QVERIFY2(unit.KillAndAwaitRestart(&error), qPrintable(error));
    tAppConnection late;
    QVERIFY(late.Connect(unit.Port()));
    QTest::qWait(200);
    QCOMPARE(late.TakeArrivals(0).size(), 0);
    QVERIFY2(unit.Back(&error), qPrintable(error));
    arrivals = late.TakeArrivals(2);
    QTest::qWait(300);
    arrivals += late.TakeArrivals(0);
    QCOMPARE(Reported(arrivals), QStringList({QStringLiteral("+/run/media/CHARTS"), QStringLiteral("+/run/media/PHOTOS")}));
    QVERIFY2(unit.Stop(), unit.Log().constData());
}

void tLocalVolumesTest::serviceRestartIsFollowed()
{
    tLarkdUnit unit(E2eUnitFile(), {});
    QString error;
    QVERIFY2(unit.Start(&error), qPrintable(error));
    tAppConnection app;
    QVERIFY(app.Connect(unit.Port()));
    QCOMPARE(Reported(app.TakeArrivals(1)), QStringList{QStringLiteral("+/run/media/CHARTS")});
    QVERIFY(unit.Insert(QStringLiteral("right"), QStringLiteral("photos")));
    QCOMPARE(Reported(app.TakeArrivals(1)), QStringList{QStringLiteral("+/run/media/PHOTOS")});

    // While the service is away a card is pulled and a stick put in: larkd
    // hears nothing, and unmounts nothing.
    QVERIFY2(unit.Away(&error), qPrintable(error));
    QVERIFY(unit.Remove(QStringLiteral("left")));
    QVERIFY(unit.Insert(QStringLiteral("usb"), QStringLiteral("stick")));
    QTest::qWait(300);
    QCOMPARE(app.TakeArrivals(0).size(), 0);
    const int simulatorCallsBefore = unit.Calls().size();
    const int exportsBefore = unit.Ran(QStringLiteral("exportfs")).size();

    // Back: the card is reported gone and unexported, the stick mounted and
    // reported; the card that stayed is neither reported again nor remounted.
    QVERIFY2(unit.Back(&error), qPrintable(error));
    QList<QJsonObject> arrivals = app.TakeArrivals(2);
    QTest::qWait(300);
    arrivals += app.TakeArrivals(0);
    QCOMPARE(Reported(arrivals), QStringList({QStringLiteral("+/run/media/STICK"), QStringLiteral("-/run/media/CHARTS")}));
    QTRY_VERIFY(unit.Ran(QStringLiteral("exportfs")).mid(exportsBefore).contains(QStringLiteral("-u\t*:/run/media/CHARTS")));
    const QStringList exports = unit.Ran(QStringLiteral("exportfs")).mid(exportsBefore);
    QVERIFY2(exports.filter(QStringLiteral("PHOTOS")).isEmpty(), qPrintable(exports.join('\n')));
    const QStringList mounts = unit.Calls().mid(simulatorCallsBefore)
                                   .filter(QRegularExpression(QStringLiteral("^(Mount|Unmount) ")));
    QVERIFY2(mounts.size() == 1 && mounts.first().startsWith(QStringLiteral("Mount sda1 /run/media/STICK")),
             qPrintable(mounts.join('\n')));
    QTRY_VERIFY(!QFileInfo(unit.Inside(QStringLiteral("/run/media/Memory Card - 1"))).isSymLink());
    QCOMPARE(LinkTarget(unit.Inside(QStringLiteral("/run/media/USB Memory Card A1"))), QStringLiteral("STICK"));

    // The service's signals are followed again.
    QVERIFY(unit.Remove(QStringLiteral("usb")));
    QCOMPARE(Reported(app.TakeArrivals(1)), QStringList{QStringLiteral("-/run/media/STICK")});
}

LARKD_NAMESPACE_TEST_MAIN(tLocalVolumesTest)
#include "tst_localvolumes.moc"
