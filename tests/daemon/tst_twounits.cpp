// Two units side by side, each in a network namespace of its own joined by a
// veth pair: a card in one unit appears as a remote volume on the other and
// goes when it is pulled, when its unit falls silent, or when the display
// application lets it go. Each unit is larkd with the UDisks2 simulator and
// stand-ins for exportfs, mount, umount and mountpoint (NFS is stood in for
// by tmpfs mounts named after the share, and a peer that never answers by a
// mount stand-in that hangs).

#include "DaemonProcess.h"
#include "AppConnection.h"
#include "LogSink.h"
#include "NetnsPair.h"
#include "PrivateMounts.h"

#include <QtTest>

#include <csignal>
#include <memory>

namespace
{
const QString cNfsRoot = QStringLiteral("/var/lib/nfs/remote");
const int cExpiryMs = 1500;
// The port the display application connects to; each unit has a network
// namespace of its own, so that larkd listens on the one it knows.
const quint16 cApplicationPort = 15003;
const QString cChartsDir = QStringLiteral("169.254.10.1:-run-media-CHARTS");
const QString cMapsDir = QStringLiteral("169.254.10.1:-run-media-MAPS");
const QString cChartsMount = cNfsRoot + '/' + cChartsDir;
// B's application is told of A's shares below /mnt, not below the NFS root.
const QString cCharts = "/mnt/" + cChartsDir;

QString MountCall(const QString& label, const QString& directory, const QString& access)
{
    return QStringList{"-t", "nfs", "169.254.10.1:/run/media/" + label, cNfsRoot + '/' + directory, "-o",
                       "rsize=1280,soft,udp,noatime,nodiratime," + access}
        .join('\t');
}

QStringList Came(const QString& path) { return {'+' + path}; }
QStringList Went(const QString& path) { return {'-' + path}; }

QJsonObject Unmount(const QString& path, bool keep)
{
    return AppRequest("datasource", QJsonObject{{"dataunmount", QJsonObject{{"path", path}, {"keepunmounted", keep}}}});
}

// UDP sockets of a process's network namespace bound to the sharing port
// (0x2710): the publisher's, and the listener's while sharing runs.
int SharePortSockets(qint64 pid)
{
    QFile table(QStringLiteral("/proc/%1/net/udp").arg(pid));
    const QRegularExpression bound(QStringLiteral("^ *\\d+: [0-9A-F]+:2710 "), QRegularExpression::MultilineOption);
    return table.open(QIODevice::ReadOnly) ? QString::fromLatin1(table.readAll()).count(bound) : -1;
}
} // namespace

class tTwoUnitsTest : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void init();
    void cleanup();
    void peerCardsComeAndGo();
    void sigusr2MountsPeerSharesAgain();
    void eth0SharesWhileUpWithALinkLocalAddress();
    void peerThatNeverAnswersHoldsNothingUp();

private:
    // A exports writable to its peer; B, without media, mounts below its NFS
    // root. Both share on their ends of the veth pair as their applications
    // ask, unless B is to watch "eth0" by itself.
    bool StartUnits(bool unitBWatchesEth0 = false);
    // What B's application is told, as Reported() gives it.
    QStringList HeardB(int count = 1, int timeoutMs = 10000) { return Reported(m_AppB->TakeArrivals(count, timeoutMs)); }
    QByteArray Logs() { return m_UnitA->Log() + "\n=====B\n" + m_SyslogB->Drain().join('\n'); }

    std::unique_ptr<tNetnsPair> m_Pair;
    std::unique_ptr<tLarkdUnit> m_UnitA;
    std::unique_ptr<tLarkdUnit> m_UnitB;
    // B logs as on a unit, to syslog: peer share paths reach it as text.
    std::unique_ptr<tLogSink> m_SyslogB;
    std::unique_ptr<tAppConnection> m_AppA;
    std::unique_ptr<tAppConnection> m_AppB;
    QTemporaryDir m_Dir;
    QString m_Hangs;
    QString m_Refused;
};

void tTwoUnitsTest::initTestCase()
{
    LARKD_REQUIRE_NAMESPACE();
    LARKD_REQUIRE_NETNS();
    // The units' mount stand-ins hang or refuse while these files exist.
    m_Hangs = m_Dir.filePath(QStringLiteral("hangs"));
    m_Refused = m_Dir.filePath(QStringLiteral("refused"));
    qputenv("LARKD_MOUNT_HANGS", m_Hangs.toLocal8Bit());
    qputenv("LARKD_MOUNT_REFUSED", m_Refused.toLocal8Bit());
    // B's slots are empty but for the internal store.
    QFile in(E2eUnitFile()), out(m_Dir.filePath("no-media.json"));
    QVERIFY(in.open(QIODevice::ReadOnly) && out.open(QIODevice::WriteOnly));
    QJsonObject unit = QJsonDocument::fromJson(in.readAll()).object();
    unit.insert("present", QJsonArray{QJsonObject{{"slot", "internal"}, {"medium", "emmc"}}});
    QVERIFY(out.write(QJsonDocument(unit).toJson()) > 0);
}

void tTwoUnitsTest::init()
{
    m_Pair.reset(new tNetnsPair);
    QVERIFY2(m_Pair->Error().isEmpty(), qPrintable(m_Pair->Error()));
}

void tTwoUnitsTest::cleanup()
{
    m_AppA.reset();
    m_AppB.reset();
    m_UnitA.reset();
    m_UnitB.reset();
    m_SyslogB.reset();
    m_Pair.reset();
    QFile::remove(m_Hangs);
    QFile::remove(m_Refused);
}

bool tTwoUnitsTest::StartUnits(bool unitBWatchesEth0)
{
    const QStringList expiry{"--unmount-timeout-period", QString::number(cExpiryMs)};
    const QStringList optionsA{"--two-way-connection", "--peer-mac",  tNetnsPair::MacB(),
                               "--writeable-exports",  "--code-name", "alpha"};
    // Watching eth0, B does not know A by its MAC address but treats units
    // of A's class as local storage.
    const QStringList optionsB = unitBWatchesEth0 ? QStringList{"--treat-remote-as-local", "alpha"}
                                                  : QStringList{"--two-way-connection", "--peer-mac", tNetnsPair::MacA()};
    m_UnitA.reset(new tLarkdUnit(E2eUnitFile(), expiry + optionsA, cApplicationPort));
    m_UnitB.reset(new tLarkdUnit(m_Dir.filePath("no-media.json"), expiry + optionsB + QStringList{"--nfs-root", cNfsRoot},
                                 cApplicationPort));
    const QString syslog = m_Dir.filePath(QStringLiteral("syslog-b"));
    QFile::remove(syslog);
    m_SyslogB.reset(new tLogSink(syslog));
    m_SyslogB->ReadInBackground();
    m_UnitB->SetEnvironment(QStringLiteral("LARKD_UNIT_SYSLOG"), syslog);
    m_AppA.reset(new tAppConnection);
    m_AppB.reset(new tAppConnection);
    // The units' processes and the applications' sockets live in their namespaces.
    QString error;
    const bool started = m_Pair->Enter(m_Pair->NamespaceA()) && m_UnitA->Start(&error) && m_AppA->Connect(cApplicationPort)
                         && m_Pair->Enter(m_Pair->NamespaceB()) && m_UnitB->Start(&error) && m_AppB->Connect(cApplicationPort);
    m_Pair->Leave();
    if (!started)
        qWarning("%s", qPrintable(error));
    m_AppA->Send(AppRequest("chartsharing", QJsonArray{tNetnsPair::InterfaceA()}));
    if (!unitBWatchesEth0)
        m_AppB->Send(AppRequest("chartsharing", QJsonArray{tNetnsPair::InterfaceB()}));
    return started;
}

void tTwoUnitsTest::peerCardsComeAndGo()
{
    QVERIFY(StartUnits());
    // A's card, writable and exported writable to the peer, is mounted "rw".
    // It is not "remote", coming from the configured peer.
    QVERIFY2(Arrived(*m_AppB, {{"path", cCharts}, {"friendlyname", "Memory Card - Left"}, {"type", "memorycard"},
                               {"remote", false}, {"readonly", false}}, 15000),
             Logs().constData());
    QCOMPARE(m_UnitB->Ran("mount"), QStringList{MountCall("CHARTS", cChartsDir, "rw")});
    // A grants the peer its own writable export once it hears from it, though
    // B announces nothing: B's keep-alive, sent to A alone, is enough.
    QTRY_VERIFY_WITH_TIMEOUT(m_UnitA->Ran("exportfs").contains(
                                 QStringLiteral("-o\trw,no_root_squash,no_subtree_check\t169.254.10.2:/run/media/CHARTS")),
                             10000);

    // A's application names the interface already shared, again and again:
    // A neither stops sharing (which would withdraw its card from B) nor
    // stalls, and answers its enquiries at once.
    QCOMPARE(Reported(m_AppA->TakeArrivals(1)), QStringList{"+/run/media/CHARTS"});
    QElapsedTimer clock;
    for (int i = 0; i < 10; ++i) {
        clock.start();
        m_AppA->Send(AppRequest("chartsharing", QJsonArray{tNetnsPair::InterfaceA()}));
        m_AppA->Send(AppRequest("enquerydevicelist"));
        QCOMPARE(Reported(m_AppA->TakeArrivals(1, 200)), QStringList{"+/run/media/CHARTS"});
        QTest::qWait(int(qMax<qint64>(0, 100 - clock.elapsed())));
    }
    QCOMPARE(HeardB(0), QStringList());

    // Without "keepunmounted" the next announcement brings it back.
    m_AppB->Send(Unmount(cCharts, false));
    QCOMPARE(HeardB(2), Came(cCharts) + Went(cCharts));
    QCOMPARE(m_UnitB->Ran("mount").size(), 2);

    // With it, the share stays away while A keeps announcing it...
    m_AppB->Send(Unmount(cCharts, true));
    QCOMPARE(HeardB(), Went(cCharts));
    QTest::qWait(2 * cExpiryMs);
    QCOMPARE(HeardB(0), QStringList());
    QCOMPARE(m_UnitB->Ran("mount").size(), 2);

    // ...and comes back once A stopped announcing it for a while.
    QVERIFY(m_UnitA->Remove("left"));
    QTest::qWait(cExpiryMs + 1000);
    QVERIFY(m_UnitA->Insert("left", "charts"));
    QCOMPARE(HeardB(), Came(cCharts));
    QCOMPARE(m_UnitB->Ran("mount").size(), 3);

    // A read-only card is mounted "ro".
    QVERIFY(m_UnitA->Insert("extra", "maps"));
    QVERIFY(Arrived(*m_AppB, {{"readonly", true}}));
    QCOMPARE(m_UnitB->Ran("mount").value(3), MountCall("MAPS", cMapsDir, "ro"));

    // A stick whose label is a string of printf directives: its share's path
    // reaches B's syslog as text, through mount and unmount.
    const QString directives = QStringLiteral("169.254.10.1:-run-media-X%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%n");
    QVERIFY(m_UnitA->Insert("usb", "directives"));
    QCOMPARE(HeardB(), Came("/mnt/" + directives));
    QVERIFY(m_UnitA->Remove("usb"));
    QCOMPARE(HeardB(), Went("/mnt/" + directives));
    const QByteArray unmounted = "unmounted " + (cNfsRoot + '/' + directives).toUtf8();
    QByteArray logB;
    QTRY_VERIFY((logB += m_SyslogB->Drain().join('\n'), logB.contains(unmounted)));

    // Pulled on A: the application is told at once, while umount may still run.
    QVERIFY(m_UnitA->Remove("left"));
    QCOMPARE(HeardB(), Went(cCharts));
    QTRY_VERIFY(m_UnitB->Ran("umount").endsWith("-fl\t" + cChartsMount));

    // A falls silent: its last share expires on B.
    QVERIFY(m_UnitA->Stop());
    QElapsedTimer silence;
    silence.start();
    QCOMPARE(HeardB(), Went("/mnt/" + cMapsDir));
    QVERIFY2(silence.elapsed() >= cExpiryMs - 1000, qPrintable(QString::number(silence.elapsed())));
    QTRY_VERIFY(m_UnitB->Ran("umount").endsWith("-fl\t" + cNfsRoot + '/' + cMapsDir));
}

void tTwoUnitsTest::sigusr2MountsPeerSharesAgain()
{
    QVERIFY(StartUnits());
    QCOMPARE(HeardB(1, 15000), Came(cCharts));
    const QString unmount = "-fl\t" + cChartsMount;

    // Still announced: unmounted with the rest, mounted again and reported;
    // withdrawn later, that mount is found and freed.
    SendSignal(m_UnitB->Process(), SIGUSR2);
    QCOMPARE(HeardB(), Came(cCharts));
    QCOMPARE(m_UnitB->Ran("umount"), QStringList{unmount});
    QCOMPARE(m_UnitB->Ran("mount").size(), 2);
    QVERIFY(m_UnitB->MountTable().contains(cChartsMount.toUtf8()));
    QVERIFY(m_UnitA->Remove("left"));
    QCOMPARE(HeardB(), Went(cCharts));
    QTRY_COMPARE_WITH_TIMEOUT(m_UnitB->Ran("umount"), (QStringList{unmount, unmount}), 5000);
    QTRY_VERIFY(!QFileInfo::exists(m_UnitB->Inside(cChartsMount)));

    // Withdrawn while being mounted again: the application, which still
    // knows it, hears it is gone; the mount is abandoned and its path freed.
    // The card comes back once the service has cleaned up its old mount
    // directory (sooner, it would be given another name).
    QTRY_VERIFY(!QFileInfo::exists(m_UnitA->Inside("/run/media/CHARTS")));
    QVERIFY(m_UnitA->Insert("left", "charts"));
    QCOMPARE(HeardB(), Came(cCharts));
    QVERIFY(QFile(m_Hangs).open(QIODevice::WriteOnly));
    SendSignal(m_UnitB->Process(), SIGUSR2);
    QTRY_COMPARE_WITH_TIMEOUT(m_UnitB->Ran("mount").size(), 4, 10000);
    QVERIFY(m_UnitA->Remove("left"));
    QCOMPARE(HeardB(), Went(cCharts));
    QTRY_COMPARE_WITH_TIMEOUT(m_UnitB->Ran("umount"), (QStringList{unmount, unmount, unmount, unmount}), 5000);
    QTRY_VERIFY(!QFileInfo::exists(m_UnitB->Inside(cChartsMount)));
    QVERIFY(!m_UnitB->MountTable().contains(cChartsMount.toUtf8()));
    m_AppB->Send(AppRequest("enquerydevicelist"));
    QCOMPARE(Settled(*m_AppB).size(), 0);
}

void tTwoUnitsTest::eth0SharesWhileUpWithALinkLocalAddress()
{
    auto ip = [this](const QString& netns, const QString& command) {
        return m_Pair->Ip(QStringList{"-n", netns} + command.split(' '));
    };
    // Unit B's end of the cable becomes its "eth0", with a routable address only.
    const QString a = m_Pair->NamespaceA(), b = m_Pair->NamespaceB();
    for (const QString& command : QStringList{"link set " + tNetnsPair::InterfaceB() + " down",
                                              "link set " + tNetnsPair::InterfaceB() + " name eth0", "addr flush dev eth0",
                                              "addr add 10.0.0.2/24 dev eth0", "link set eth0 up"})
        QVERIFY2(ip(b, command), qPrintable(m_Pair->Error()));
    QVERIFY(StartUnits(true));

    QTest::qWait(2 * cExpiryMs);
    QCOMPARE(HeardB(0), QStringList());

    // The direct cable's link-local address starts sharing. A's card is
    // reported as local storage.
    QVERIFY(ip(b, "addr add 169.254.10.2/16 dev eth0"));
    QVERIFY(Arrived(*m_AppB, {{"path", cCharts}, {"remote", false}}, 15000));

    // Link down: sharing stops, so the peer's share expires; up: it starts again.
    QVERIFY(ip(b, "link set eth0 down"));
    QCOMPARE(HeardB(1, 15000), Went(cCharts));
    QVERIFY(ip(b, "link set eth0 up"));
    QCOMPARE(HeardB(1, 20000), Came(cCharts));

    // The carrier goes (A's end of the cable is down): sharing stops whether
    // the link-local address stays or went before it.
    const qint64 larkdB = m_UnitB->Process().processId();
    QCOMPARE(SharePortSockets(larkdB), 2);
    QVERIFY(ip(a, "link set " + tNetnsPair::InterfaceA() + " down"));
    QTRY_COMPARE(SharePortSockets(larkdB), 1);
    QVERIFY(ip(a, "link set " + tNetnsPair::InterfaceA() + " up"));
    QTRY_COMPARE(SharePortSockets(larkdB), 2);
    QVERIFY(ip(b, "addr del 169.254.10.2/16 dev eth0"));
    QTest::qWait(200);
    QCOMPARE(SharePortSockets(larkdB), 2);
    QVERIFY(ip(a, "link set " + tNetnsPair::InterfaceA() + " down"));
    QTRY_COMPARE(SharePortSockets(larkdB), 1);
}

void tTwoUnitsTest::peerThatNeverAnswersHoldsNothingUp()
{
    QVERIFY(QFile(m_Hangs).open(QIODevice::WriteOnly));
    QVERIFY(StartUnits());
    QTRY_VERIFY2_WITH_TIMEOUT(m_UnitB->Ran("mount").size() == 1, Logs().constData(), 15000);
    QVERIFY(QFileInfo(m_UnitB->Inside(cChartsMount)).isDir());

    // While B's mount of A's card hangs, B's own card is reported at once
    // and announced to A, whose mount of it hangs in turn.
    QVERIFY(m_UnitB->Insert("right", "photos"));
    QCOMPARE(HeardB(1, 2000), QStringList{"+/run/media/PHOTOS"});
    QTRY_VERIFY_WITH_TIMEOUT(m_UnitA->Ran("mount").join('\n').contains("PHOTOS"), 10000);

    // For two expiry periods B answers its application in time, without the
    // share whose mount has not answered, and both units keep announcing:
    // neither lets the other's share expire (which would unmount it).
    QElapsedTimer clock;
    clock.start();
    while (!clock.hasExpired(2 * cExpiryMs)) {
        m_AppB->Send(AppRequest("enquerydevicelist"));
        const QStringList listed = HeardB(1, 200);
        QVERIFY2(listed == QStringList{"+/run/media/PHOTOS"}, qPrintable(listed.join(' ')));
        QTest::qWait(250);
    }
    QCOMPARE(m_UnitA->Ran("umount") + m_UnitB->Ran("umount"), QStringList());

    // Withdrawn while mounting: the mount is killed and its path unmounted,
    // and the application hears nothing of it.
    QVERIFY(m_UnitA->Remove("left"));
    QTRY_COMPARE_WITH_TIMEOUT(m_UnitB->Ran("umount"), QStringList{"-fl\t" + cChartsMount}, 5000);
    QTRY_VERIFY(!QFileInfo::exists(m_UnitB->Inside(cChartsMount)));
    QCOMPARE(Settled(*m_AppB).size(), 0);

    // A refused mount is reported without a path and leaves no directory.
    QFile::remove(m_Hangs);
    QVERIFY(QFile(m_Refused).open(QIODevice::WriteOnly));
    QVERIFY(m_UnitA->Insert("left", "charts"));
    QVERIFY(Arrived(*m_AppB, {{"path", ""}, {"friendlyname", "Memory Card - Left"}, {"type", "memorycard"}}));
    QCOMPARE(m_UnitB->Ran("mount").size(), 2);
    QVERIFY(!QFileInfo::exists(m_UnitB->Inside(cChartsMount)));

    // SIGTERM does not wait for a hanging mount.
    QFile::remove(m_Refused);
    QVERIFY(QFile(m_Hangs).open(QIODevice::WriteOnly));
    QVERIFY(m_UnitA->Insert("extra", "maps"));
    QTRY_COMPARE_WITH_TIMEOUT(m_UnitB->Ran("mount").size(), 3, 10000);
    clock.start();
    QVERIFY(m_UnitB->Stop());
    QVERIFY2(clock.elapsed() < 2000, qPrintable(QString::number(clock.elapsed())));
}

LARKD_NAMESPACE_TEST_MAIN(tTwoUnitsTest)
#include "tst_twounits.moc"
