// larkd as a process on a simulated unit: cards and sticks come and go, and
// the display application, the friendly links and the NFS exports follow.
// UDisks2 is stood in for by the project's simulator, exportfs by a recording
// stand-in.

#include "AppConnection.h"
#include "DaemonProcess.h"
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

// The text of a friendly link in /run/media, unresolved.
QString Link(const tLarkdUnit& unit, const QString& name)
{
    char target[PATH_MAX];
    const ssize_t size = readlink(QFile::encodeName(unit.Inside("/run/media/" + name)).constData(), target, sizeof target);
    return size < 0 ? QString() : QFile::decodeName(QByteArray(target, int(size)));
}
} // namespace

class tLocalVolumesTest : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void cardsAndSticksComeAndGo();
    void theApplicationsConnection();
    void manyVolumesAtBootEachReportedOnce();
    void restartsOfLarkdAndOfTheServiceAreFollowed();

private:
    QTemporaryDir m_Files;
};

void tLocalVolumesTest::initTestCase()
{
    LARKD_REQUIRE_NAMESPACE();
    for (const auto& [name, text] :
         {std::pair{"content-id", "CONTENT-7 trailing words\n"}, std::pair{"serial", "  SN-0042\n"}}) {
        QFile file(m_Files.filePath(name));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(text) > 0);
    }
}

void tLocalVolumesTest::cardsAndSticksComeAndGo()
{
    const QString contentIdFile = m_Files.filePath("content-id");
    tLarkdUnit unit(E2eUnitFile(), {"--vfat", cVfatOptions, "--writeable-exports", "--internal-share-path", "/srv/charts",
                                    "--content-id-file", contentIdFile, "--serial-number-file", m_Files.filePath("serial")});
    tAppConnection app;
    QVERIFY(Boot(unit, app));

    // Inserted later: a card in the other slot, a USB stick, and a read-only
    // ext4 card in an unconfigured slot, whose link name (the first slot's)
    // is taken: it is mounted all the same.
    QVERIFY(unit.Insert("right", "photos"));
    QVERIFY(Arrived(app, {{"friendlyname", "Memory Card - Right"}, {"fixed", false}, {"readonly", false}, {"remote", false},
                          {"serialnumber", "SN-0042"}, {"contentid", "CONTENT-7"}, {"path", "/run/media/PHOTOS"},
                          {"key", CidWithCrc("02544d5341333247060e6cc1ab00d4aa")}, {"type", "memorycard"}}));

    // A new content ID is read when its file changes.
    const QDateTime before = QFileInfo(contentIdFile).lastModified();
    QFile contentId(contentIdFile);
    QVERIFY(contentId.open(QIODevice::WriteOnly | QIODevice::Truncate) && contentId.write("CONTENT-8\n") > 0
            && contentId.flush());
    QVERIFY(contentId.setFileTime(before.addSecs(5), QFileDevice::FileModificationTime));
    contentId.close();
    QVERIFY(unit.Insert("usb", "stick"));
    QVERIFY(Arrived(app, {{"contentid", "CONTENT-8"}, {"friendlyname", "USB Mass Storage"}, {"type", "harddrive"},
                          {"key", ""}}));
    QVERIFY(unit.Insert("extra", "maps"));
    QVERIFY(Arrived(app, {{"readonly", true}, {"friendlyname", "Memory Card"}}));
    for (const auto& [link, target] : {std::pair{"Memory Card - 1", "CHARTS"}, std::pair{"Memory Card - 2", "PHOTOS"},
                                       std::pair{"USB Memory Card A1", "STICK"}})
        QCOMPARE(Link(unit, link), QString(target));

    // vfat volumes get the configured options, others none.
    const QStringList mounts = unit.Calls().filter(QRegularExpression(QStringLiteral("^Mount ")));
    QVERIFY2(mounts.size() == 4 && mounts.at(0).startsWith(QStringLiteral("Mount mmcblk0p1 /run/media/CHARTS "))
                 && mounts.mid(0, 3).filter("options=" + cVfatOptions).size() == 3 && !mounts.at(3).contains("options="),
             qPrintable(mounts.join('\n')));

    // Writable volumes are exported writable; a read-only card stays read-only.
    for (const auto& [access, path] : {std::pair{"rw", "/run/media/CHARTS"}, std::pair{"rw", "/run/media/PHOTOS"},
                                       std::pair{"ro", "/run/media/MAPS"}, std::pair{"ro", "/srv/charts"}})
        QTRY_VERIFY2(unit.Ran("exportfs").contains(
                         QStringLiteral("-o\t%1,no_root_squash,no_subtree_check\t*:%2").arg(access, path)),
                     qPrintable(unit.Ran("exportfs").join('\n')));

    // Pulled: reported with nothing but its path, unexported, and its link
    // swept, although the service removes a pulled medium's mount directory
    // only after its objects (and nothing sweeps dangling links later).
    QVERIFY(unit.Remove("left"));
    QJsonObject gone{{"path", "/run/media/CHARTS"}};
    for (const char* key : {"friendlyname", "fixed", "readonly", "remote", "serialnumber", "contentid", "key", "type"})
        gone.insert(key, QJsonValue::Null);
    QCOMPARE(app.TakeArrivals(1).value(0), gone);
    QTRY_VERIFY(unit.Ran("exportfs").contains(QStringLiteral("-u\t*:/run/media/CHARTS")));
    QTRY_VERIFY(!QFileInfo(unit.Inside("/run/media/Memory Card - 1")).isSymLink());
    QVERIFY(QFileInfo(unit.Inside("/run/media/MAPS")).isDir());

    // Unmounted by someone else: reported gone, and larkd unmounts it too
    // (which the service refuses, the volume being unmounted already), once
    // its unexport has run.
    QVERIFY(unit.Unmount("mmcblk3p1"));
    QCOMPARE(Reported(app.TakeArrivals(1)), QStringList{"-/run/media/MAPS"});
    QTRY_VERIFY(unit.Calls().contains(QStringLiteral("Unmount-refused mmcblk3p1")));
}

// The application's connection: how documents are framed, larkd-client
// taking over, the signals; without chart sharing nothing is exported.
void tLocalVolumesTest::theApplicationsConnection()
{
    tLarkdUnit unit(E2eUnitFile(), {"--disable-chart-sharing", "--internal-share-path", "/srv/charts"});
    tAppConnection app;
    QVERIFY(Boot(unit, app));
    const QByteArray enquiry = R"({"message":{"type":"enquerydevicelist"}})";
    const QByteArray nul(1, '\0');

    // Two documents in one segment are both answered; a document across
    // segments is handled once its NUL arrives, and bytes after the last NUL
    // wait for theirs.
    app.SendRaw(enquiry + nul + enquiry + nul + enquiry.left(10));
    QCOMPARE(app.TakeArrivals(2).size(), 2);
    app.SendRaw(enquiry.mid(10) + nul + enquiry.left(20));
    QCOMPARE(app.TakeArrivals(1).size(), 1);
    QCOMPARE(Settled(app).size(), 0);
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
    QCOMPARE(Reported(app.TakeArrivals(1)), QStringList{"+/run/media/CHARTS"});
    SendSignal(unit.Process(), SIGUSR2);
    QCOMPARE(Reported(app.TakeArrivals(1)), QStringList{"+/run/media/CHARTS"});
    const QStringList calls = unit.Calls().filter(QRegularExpression(QStringLiteral("^(Mount|Unmount) ")));
    QVERIFY2(calls.size() == 3 && calls.at(1).startsWith(QStringLiteral("Unmount mmcblk0p1"))
                 && calls.at(2).startsWith(QStringLiteral("Mount mmcblk0p1")),
             qPrintable(calls.join('\n')));

    // larkd-client takes over: `list` prints what a new connection hears, a
    // compact document a line; `follow` every message as it comes. The old
    // connection is neither answered nor told of new volumes.
    const QString client = qEnvironmentVariable("LARKD_CLIENT_BINARY");
    const QStringList port{QStringLiteral("--port"), QString::number(unit.Port())};
    const tFinishedProcess list = RunToEnd(client, port + QStringList{"list", "--wait", "300"});
    QVERIFY2(list.exitCode == 0 && list.out.count('\n') == 1 && list.out.contains(R"("path":"/run/media/CHARTS")"),
             list.out.constData());
    QProcess follow;
    follow.start(client, port + QStringList{QStringLiteral("follow")});
    QByteArray out;
    QTRY_VERIFY_WITH_TIMEOUT((out += follow.readAllStandardOutput()).count('\n') == 1, 10000);
    app.SendRaw(enquiry + nul);
    QVERIFY(unit.Insert("usb", "stick"));
    QTRY_VERIFY_WITH_TIMEOUT((out += follow.readAllStandardOutput()).count('\n') == 2, 10000);
    QVERIFY2(out.split('\n').at(1).contains(R"("path":"/run/media/STICK")"), out.constData());
    QCOMPARE(app.TakeArrivals(0).size(), 0);
    StopProcess(follow);

    // Not even the internal store is exported.
    QCOMPARE(unit.Ran("exportfs"), QStringList());

    // SIGTERM ends with status 0 and leaves the volumes mounted: a mount
    // directory (made by the simulator's mount, removed by its unmount)
    // outlives larkd, seen through a handle on larkd's /run/media.
    const int media = open(QFile::encodeName(unit.Inside("/run/media")).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    QVERIFY(media >= 0);
    const bool stopped = unit.Stop();
    struct stat info;
    const bool stillMounted = fstatat(media, "CHARTS", &info, 0) == 0;
    close(media);
    QVERIFY2(stopped, unit.Log().constData());
    QVERIFY(stillMounted);
}

void tLocalVolumesTest::manyVolumesAtBootEachReportedOnce()
{
    // 25 sticks present at start and an application that connects the moment
    // larkd listens, before their mounts are answered: each is reported as
    // its mount comes, once. A later connection hears of all 25 at once.
    const QString unitFile = m_Files.filePath(QStringLiteral("sticks.json"));
    QFile file(unitFile);
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write(UnitWithSticks(25)) > 0);
    file.close();
    tLarkdUnit unit(unitFile, {"--disable-chart-sharing"});
    tAppConnection app;
    QString error;
    QVERIFY2(unit.Start(&error) && app.Connect(unit.Port()), qPrintable(error));
    QStringList volumes;
    for (int i = 1; i <= 25; ++i)
        volumes << QStringLiteral("+/run/media/VOL%1").arg(i, 2, 10, QLatin1Char('0'));
    QCOMPARE(Reported(Settled(app, 25)), volumes);
    tAppConnection later;
    QVERIFY(later.Connect(unit.Port()));
    QCOMPARE(Reported(Settled(later, 25)), volumes);
}

void tLocalVolumesTest::restartsOfLarkdAndOfTheServiceAreFollowed()
{
    // Connected as larkd starts, before the service has said where the card
    // is mounted: told of it once, without asking.
    tLarkdUnit unit(E2eUnitFile(), {"--vfat", cVfatOptions});
    unit.SetEnvironment("LARKD_UNIT_RESTART", "1");
    tAppConnection early;
    QVERIFY(Boot(unit, early));
    QVERIFY(unit.Insert("usb", "stick"));
    QCOMPARE(Reported(early.TakeArrivals(1)), QStringList{"+/run/media/STICK"});

    // larkd dies with two volumes mounted; a card goes in while it is down.
    QCOMPARE(::kill(pid_t(unit.LarkdPid()), SIGSTOP), 0);
    QVERIFY(unit.Insert("right", "photos"));
    int simulatorCallsBefore = unit.Calls().size();
    int exportsBefore = unit.Ran("exportfs").size();
    QString error;
    QVERIFY2(unit.KillAndAwaitRestart(&error), qPrintable(error));

    // The restarted larkd adopts the two volumes, mounts the new card and
    // tells an application connected as it starts of each exactly once.
    tAppConnection app;
    QVERIFY(app.Connect(unit.Port()));
    QList<QJsonObject> arrivals = Settled(app, 3);
    QCOMPARE(Reported(arrivals), QStringList({"+/run/media/CHARTS", "+/run/media/PHOTOS", "+/run/media/STICK"}));
    for (const QJsonObject& arrival : qAsConst(arrivals))
        QVERIFY(arrival.value("path") != "/run/media/CHARTS" || arrival.value("friendlyname") == "Memory Card - Left");
    // Only the new card is mounted; nothing is unmounted or refused.
    const QStringList simulatorCalls = unit.Calls().mid(simulatorCallsBefore);
    QVERIFY2(simulatorCalls.filter(QRegularExpression(QStringLiteral("^(Mount|Unmount)"))).size() == 1
                 && simulatorCalls.filter(QRegularExpression(QStringLiteral("^Mount mmcblk1p1 /run/media/PHOTOS "))).size() == 1,
             qPrintable(simulatorCalls.join('\n')));
    const auto exports = [&] { return unit.Ran("exportfs").mid(exportsBefore); };
    for (const QString& path : {QStringLiteral("CHARTS"), QStringLiteral("STICK"), QStringLiteral("PHOTOS")})
        QTRY_VERIFY2(!exports().filter(QRegularExpression(QStringLiteral("^-o\t.*\t\\*:/run/media/") + path + '$')).isEmpty(),
                     qPrintable(exports().join('\n')));
    for (const auto& [link, target] : {std::pair{"Memory Card - 1", "CHARTS"}, std::pair{"Memory Card - 2", "PHOTOS"},
                                       std::pair{"USB Memory Card A1", "STICK"}})
        QCOMPARE(Link(unit, link), QString(target));

    // An adopted volume is larkd's like any other: its removal is followed through.
    QVERIFY(unit.Remove("usb"));
    QCOMPARE(Reported(app.TakeArrivals(1)), QStringList{"-/run/media/STICK"});
    QTRY_VERIFY(unit.Ran("exportfs").contains(QStringLiteral("-u\t*:/run/media/STICK")));
    QTRY_VERIFY(!QFileInfo(unit.Inside("/run/media/USB Memory Card A1")).isSymLink());

    // Started while the service is away, larkd takes up what is mounted once it comes.
    QVERIFY2(unit.Away(&error) && unit.KillAndAwaitRestart(&error), qPrintable(error));
    tAppConnection late;
    QVERIFY(late.Connect(unit.Port()));
    QCOMPARE(Settled(late).size(), 0);
    QVERIFY2(unit.Back(&error), qPrintable(error));
    arrivals = Settled(late, 2);
    QCOMPARE(Reported(arrivals), QStringList({"+/run/media/CHARTS", "+/run/media/PHOTOS"}));

    // While the service is away a card is pulled and a stick put in: larkd
    // hears nothing, and unmounts nothing.
    QVERIFY2(unit.Away(&error), qPrintable(error));
    QVERIFY(unit.Remove("left"));
    QVERIFY(unit.Insert("usb", "stick"));
    QCOMPARE(Settled(late).size(), 0);
    simulatorCallsBefore = unit.Calls().size();
    exportsBefore = unit.Ran("exportfs").size();

    // Back: the card is reported gone and unexported, the stick mounted and
    // reported; the card that stayed is neither reported again nor remounted.
    QVERIFY2(unit.Back(&error), qPrintable(error));
    arrivals = Settled(late, 2);
    QCOMPARE(Reported(arrivals), QStringList({"+/run/media/STICK", "-/run/media/CHARTS"}));
    QTRY_VERIFY(exports().contains(QStringLiteral("-u\t*:/run/media/CHARTS")));
    QVERIFY2(exports().filter(QStringLiteral("PHOTOS")).isEmpty(), qPrintable(exports().join('\n')));
    const QStringList mounts =
        unit.Calls().mid(simulatorCallsBefore).filter(QRegularExpression(QStringLiteral("^(Mount|Unmount) ")));
    QVERIFY2(mounts.size() == 1 && mounts.first().startsWith(QStringLiteral("Mount sda1 /run/media/STICK")),
             qPrintable(mounts.join('\n')));
    QTRY_VERIFY(!QFileInfo(unit.Inside("/run/media/Memory Card - 1")).isSymLink());
    QCOMPARE(Link(unit, "USB Memory Card A1"), QStringLiteral("STICK"));

    // The service's signals are followed again.
    QVERIFY(unit.Remove("usb"));
    QCOMPARE(Reported(late.TakeArrivals(1)), QStringList{"-/run/media/STICK"});
    QVERIFY2(unit.Stop(), unit.Log().constData());
}

LARKD_NAMESPACE_TEST_MAIN(tLocalVolumesTest)
#include "tst_localvolumes.moc"
