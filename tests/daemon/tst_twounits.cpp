// Two units side by side, each in a network namespace of its own joined by a
// veth pair: a card in one unit appears as a remote volume on the other and
// goes when it is pulled, when its unit falls silent, or when the display
// application lets it go. Each unit is larkd with the UDisks2 simulator and
// stand-ins for exportfs, mount, umount and mountpoint (NFS is stood in for
// by tmpfs mounts named after the share, and a peer that never answers by a
// mount stand-in that hangs).

#include "DaemonProcess.h"
#include "AppConnection.h"
#include "NetnsPair.h"
#include "PrivateMounts.h"

#include <QtTest>

#include <csignal>
#include <memory>

namespace
{
const QString cNfsRoot = QStringLiteral("/var/lib/nfs/remote");
const QString cExpiryMs = QStringLiteral("1500");
const QString cChartsDir = QStringLiteral("169.254.10.1:-run-media-CHARTS");
// The port the display application connects to; each unit has a network
// namespace of its own, so that larkd listens on the one it knows.
const quint16 cApplicationPort = 15003;
const QString cMapsDir = QStringLiteral("169.254.10.1:-run-media-MAPS");

QString AppPath(const QString& directory)
{
    return QStringLiteral("/mnt/") + directory;
}

QString MountCall(const QString& exportPath, const QString& directory, const QString& access)
{
    return QStringList{QStringLiteral("-t"), QStringLiteral("nfs"), QStringLiteral("169.254.10.1:") + exportPath,
                       cNfsRoot + QLatin1Char('/') + directory, QStringLiteral("-o"),
                       QStringLiteral("rsize=1280,soft,udp,noatime,nodiratime,") + access}
        .join(QLatin1Char('\t'));
}

QJsonObject Unmount(const QString& path, bool keep)
{
    return AppRequest(QStringLiteral("datasource"),
                      QJsonObject{{QStringLiteral("dataunmount"),
                                   QJsonObject{{QStringLiteral("path"), path}, {QStringLiteral("keepunmounted"), keep}}}});
}

bool Touch(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly);
}

// The end-to-end unit with nothing in its slots but the internal store.
QString UnitWithoutMedia(const QTemporaryDir& dir)
{
    QFile in(E2eUnitFile());
    if (!in.open(QIODevice::ReadOnly))
        return QString();
    QJsonObject unit = QJsonDocument::fromJson(in.readAll()).object();
    QJsonArray present;
    for (const QJsonValue& entry : unit.value(QStringLiteral("present")).toArray()) {
        if (entry.toObject().value(QStringLiteral("slot")).toString() == QLatin1String("internal"))
            present << entry;
    }
    unit.insert(QStringLiteral("present"), present);
    QFile out(dir.filePath(QStringLiteral("no-media.json")));
    if (!out.open(QIODevice::WriteOnly) || out.write(QJsonDocument(unit).toJson()) <= 0)
        return QString();
    return out.fileName();
}

// UDP sockets of a process's network namespace bound to the sharing port:
// the publisher's, and the listener's while sharing runs.
int SharePortSockets(qint64 pid)
{
    QFile table(QStringLiteral("/proc/%1/net/udp").arg(pid));
    if (!table.open(QIODevice::ReadOnly))
        return -1;
    int sockets = 0;
    for (const QByteArray& line : table.readAll().split('\n'))
        sockets += line.simplified().split(' ').value(1).endsWith(":2710");
    return sockets;
}
} // namespace

class tTwoUnitsTest : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void init();
    void cleanup();
    void peerCardBecomesARemoteVolume();
    void applicationLetsARemoteVolumeGo();
    void sigusr2MountsPeerSharesAgain();
    void eth0SharesWhileUpWithALinkLocalAddress();
    void peerThatNeverAnswersHoldsNothingUp();

private:
    // A exports writable to its peer; B, without media, mounts below its NFS
    // root. Both share on their ends of the veth pair as their applications
    // ask, unless B is to watch "eth0" by itself.
    bool StartUnits(bool unitBWatchesEth0 = false);
    // Starts a unit inside its namespace with the application connected there;
    // with an interface, the application asks to share on it.
    bool StartUnit(std::unique_ptr<tLarkdUnit>& unit, std::unique_ptr<tAppConnection>& app, const QString& netns,
                   const QString& interface, const QStringList& options, const QString& unitFile = E2eUnitFile());

    std::unique_ptr<tNetnsPair> m_Pair;
    std::unique_ptr<tLarkdUnit> m_UnitA;
    std::unique_ptr<tLarkdUnit> m_UnitB;
    std::unique_ptr<tAppConnection> m_AppA;
    std::unique_ptr<tAppConnection> m_AppB;
    QTemporaryDir m_Dir;
    QString m_Hangs;
    QString m_Refused;
};

void tTwoUnitsTest::initTestCase()
{
    LARKD_REQUIRE_NAMESPACE();
    const QString unavailable = tNetnsPair::Unavailable();
    if (!unavailable.isEmpty())
        QSKIP(qPrintable(QStringLiteral("network namespace test: ") + unavailable));
    // The units' mount stand-ins hang or refuse while these files exist.
    m_Hangs = m_Dir.filePath(QStringLiteral("hangs"));
    m_Refused = m_Dir.filePath(QStringLiteral("refused"));
    qputenv("LARKD_MOUNT_HANGS", m_Hangs.toLocal8Bit());
    qputenv("LARKD_MOUNT_REFUSED", m_Refused.toLocal8Bit());
}

void tTwoUnitsTest::init()
{
    m_Pair.reset(new tNetnsPair);
    QVERIFY2(m_Pair->Error().isEmpty(), qPrintable(m_Pair->Error()));
}

bool tTwoUnitsTest::StartUnits(bool unitBWatchesEth0)
{
    const QStringList twoWay{QStringLiteral("--two-way-connection")};
    if (!StartUnit(m_UnitA, m_AppA, m_Pair->NamespaceA(), tNetnsPair::InterfaceA(),
                   twoWay + QStringList{QStringLiteral("--peer-mac"), tNetnsPair::MacB(), QStringLiteral("--writeable-exports"),
                                        QStringLiteral("--code-name"), QStringLiteral("alpha")}))
        return false;
    const QString noMedia = UnitWithoutMedia(m_Dir);
    if (noMedia.isEmpty())
        return false;
    const QStringList optionsB{QStringLiteral("--nfs-root"), cNfsRoot};
    // Watching eth0, B does not know A by its MAC address but treats units
    // of A's class as local storage.
    const bool started = unitBWatchesEth0
        ? StartUnit(m_UnitB, m_AppB, m_Pair->NamespaceB(), QString(),
                    optionsB + QStringList{QStringLiteral("--treat-remote-as-local"), QStringLiteral("alpha")}, noMedia)
        : StartUnit(m_UnitB, m_AppB, m_Pair->NamespaceB(), tNetnsPair::InterfaceB(),
                    twoWay + optionsB + QStringList{QStringLiteral("--peer-mac"), tNetnsPair::MacA()}, noMedia);
    return started;
}

void tTwoUnitsTest::cleanup()
{
    m_AppA.reset();
    m_AppB.reset();
    m_UnitA.reset();
    m_UnitB.reset();
    m_Pair.reset();
    QFile::remove(m_Hangs);
    QFile::remove(m_Refused);
}

bool tTwoUnitsTest::StartUnit(std::unique_ptr<tLarkdUnit>& unit, std::unique_ptr<tAppConnection>& app,
                              const QString& netns, const QString& interface, const QStringList& options,
                              const QString& unitFile)
{
    unit.reset(new tLarkdUnit(unitFile, options + QStringList{QStringLiteral("--unmount-timeout-period"), cExpiryMs},
                              cApplicationPort));
    app.reset(new tAppConnection);
    // The unit's processes and the application's socket live in the namespace.
    if (!m_Pair->Enter(netns))
        return false;
    QString error;
    const bool started = unit->Start(&error) && app->Connect(unit->Port());
    m_Pair->Leave();
    if (!started) {
        qWarning("%s", qPrintable(error));
        return false;
    }
    if (!interface.isEmpty())
        app->Send(AppRequest(QStringLiteral("chartsharing"), QJsonArray{interface}));
    return true;
}

void tTwoUnitsTest::peerCardBecomesARemoteVolume()
{
    QVERIFY(StartUnits());
    // A's card, writable and exported writable to the peer, is mounted "rw".
    const QList<QJsonObject> arrivals = m_AppB->TakeArrivals(1, 15000);
    QVERIFY2(arrivals.size() == 1, (m_UnitA->Log() + "\n=====B\n" + m_UnitB->Log()).constData());
    const QJsonObject charts = arrivals.first();
    QCOMPARE(charts.value(QStringLiteral("path")).toString(), AppPath(cChartsDir));
    QCOMPARE(charts.value(QStringLiteral("friendlyname")).toString(), QStringLiteral("Memory Card - Left"));
    QCOMPARE(charts.value(QStringLiteral("type")).toString(), QStringLiteral("memorycard"));
    QCOMPARE(charts.value(QStringLiteral("remote")), QJsonValue(false)); // from the configured peer
    QCOMPARE(charts.value(QStringLiteral("readonly")), QJsonValue(false));
    QCOMPARE(m_UnitB->Ran(QStringLiteral("mount")),
             QStringList{MountCall(QStringLiteral("/run/media/CHARTS"), cChartsDir, QStringLiteral("rw"))});
    QVERIFY(m_UnitB->MountTable().contains("169.254.10.1:/run/media/CHARTS " + (cNfsRoot + QLatin1Char('/') + cChartsDir).toUtf8()));
    // A grants the peer its own writable export once it hears from it, though
    // B announces nothing: B's keep-alive, sent to A alone, is enough.
    QTRY_VERIFY_WITH_TIMEOUT(
        m_UnitA->Ran(QStringLiteral("exportfs")).contains(QStringLiteral("-o\trw,no_root_squash,no_subtree_check\t169.254.10.2:/run/media/CHARTS")),
        10000);
    QVERIFY(m_UnitB->Insert(QStringLiteral("right"), QStringLiteral("photos")));
    QCOMPARE(m_AppB->TakeArrivals(1).value(0).value(QStringLiteral("path")).toString(), QStringLiteral("/run/media/PHOTOS"));

    // A read-only card is mounted "ro".
    QVERIFY(m_UnitA->Insert(QStringLiteral("extra"), QStringLiteral("maps")));
    const QJsonObject maps = m_AppB->TakeArrivals(1, 10000).value(0);
    QCOMPARE(maps.value(QStringLiteral("path")).toString(), AppPath(cMapsDir));
    QCOMPARE(maps.value(QStringLiteral("readonly")), QJsonValue(true));
    QCOMPARE(m_UnitB->Ran(QStringLiteral("mount")).value(1),
             MountCall(QStringLiteral("/run/media/MAPS"), cMapsDir, QStringLiteral("ro")));

    // A stick whose label is a string of printf directives: its share's path
    // reaches B's log as text, through mount and unmount.
    const QString directives = QStringLiteral("169.254.10.1:-run-media-X%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%n");
    QVERIFY(m_UnitA->Insert(QStringLiteral("usb"), QStringLiteral("directives")));
    QCOMPARE(Reported(m_AppB->TakeArrivals(1, 10000)), QStringList{QLatin1Char('+') + AppPath(directives)});
    QVERIFY(m_UnitA->Remove(QStringLiteral("usb")));
    QCOMPARE(Reported(m_AppB->TakeArrivals(1, 10000)), QStringList{QLatin1Char('-') + AppPath(directives)});
    QTRY_VERIFY(m_UnitB->Log().contains("unmounted " + (cNfsRoot + QLatin1Char('/') + directives).toUtf8()));

    // Pulled on A: withdrawn at once, unmounted on B.
    QVERIFY(m_UnitA->Remove(QStringLiteral("left")));
    QCOMPARE(Reported(m_AppB->TakeArrivals(1, 10000)), QStringList{QLatin1Char('-') + AppPath(cChartsDir)});
    // The application is told at once, while umount may still run.
    QTRY_COMPARE(m_UnitB->Ran(QStringLiteral("umount")).value(1), QStringLiteral("-fl\t") + cNfsRoot + QLatin1Char('/') + cChartsDir);

    // A falls silent: its last share expires on B.
    QVERIFY(m_UnitA->Stop());
    QElapsedTimer silence;
    silence.start();
    QCOMPARE(Reported(m_AppB->TakeArrivals(1, 10000)), QStringList{QLatin1Char('-') + AppPath(cMapsDir)});
    QVERIFY2(silence.elapsed() >= cExpiryMs.toInt() - 1000, qPrintable(QString::number(silence.elapsed())));
    QTRY_COMPARE(m_UnitB->Ran(QStringLiteral("umount")).size(), 3);
}

void tTwoUnitsTest::applicationLetsARemoteVolumeGo()
{
    QVERIFY(StartUnits());
    QCOMPARE(m_AppB->TakeArrivals(1, 15000).size(), 1);

    // A's application names the interface already shared, again and again:
    // A neither stops sharing (which would withdraw its card from B) nor
    // stalls, and answers its enquiries at once.
    QCOMPARE(Reported(m_AppA->TakeArrivals(1)), QStringList{QStringLiteral("+/run/media/CHARTS")});
    QElapsedTimer clock;
    for (int i = 0; i < 10; ++i) {
        clock.start();
        m_AppA->Send(AppRequest(QStringLiteral("chartsharing"), QJsonArray{tNetnsPair::InterfaceA()}));
        m_AppA->Send(AppRequest(QStringLiteral("enquerydevicelist")));
        QCOMPARE(Reported(m_AppA->TakeArrivals(1, 200)), QStringList{QStringLiteral("+/run/media/CHARTS")});
        QTest::qWait(int(qMax<qint64>(0, 100 - clock.elapsed())));
    }
    QCOMPARE(m_AppB->TakeArrivals(0).size(), 0);

    // Without "keepunmounted" the next announcement brings it back.
    m_AppB->Send(Unmount(AppPath(cChartsDir), false));
    QCOMPARE(Reported(m_AppB->TakeArrivals(2, 10000)), QStringList({QLatin1Char('+') + AppPath(cChartsDir), QLatin1Char('-') + AppPath(cChartsDir)}));
    QCOMPARE(m_UnitB->Ran(QStringLiteral("mount")).size(), 2);

    // With it, the share stays away while A keeps announcing it...
    m_AppB->Send(Unmount(AppPath(cChartsDir), true));
    QCOMPARE(Reported(m_AppB->TakeArrivals(1, 10000)), QStringList{QLatin1Char('-') + AppPath(cChartsDir)});
    QTest::qWait(2 * cExpiryMs.toInt());
    QCOMPARE(m_AppB->TakeArrivals(0).size(), 0);
    QCOMPARE(m_UnitB->Ran(QStringLiteral("mount")).size(), 2);

    // ...and comes back once A stopped announcing it for a while.
    QVERIFY(m_UnitA->Remove(QStringLiteral("left")));
    QTest::qWait(cExpiryMs.toInt() + 1000);
    QVERIFY(m_UnitA->Insert(QStringLiteral("left"), QStringLiteral("charts")));
    QCOMPARE(Reported(m_AppB->TakeArrivals(1, 10000)), QStringList{QLatin1Char('+') + AppPath(cChartsDir)});
    QCOMPARE(m_UnitB->Ran(QStringLiteral("mount")).size(), 3);
}

void tTwoUnitsTest::sigusr2MountsPeerSharesAgain()
{
    QVERIFY(StartUnits());
    QCOMPARE(Reported(m_AppB->TakeArrivals(1, 15000)), QStringList{QLatin1Char('+') + AppPath(cChartsDir)});
    const QString chartsMount = cNfsRoot + QLatin1Char('/') + cChartsDir;
    const QString unmount = QStringLiteral("-fl\t") + chartsMount;

    // Still announced: unmounted with the rest, mounted again and reported.
    SendSignal(m_UnitB->Process(), SIGUSR2);
    QList<QJsonObject> arrivals = m_AppB->TakeArrivals(1, 10000);
    QCOMPARE(Reported(arrivals), QStringList{QLatin1Char('+') + AppPath(cChartsDir)});
    QCOMPARE(arrivals.first().value(QStringLiteral("type")).toString(), QStringLiteral("memorycard"));
    QCOMPARE(m_UnitB->Ran(QStringLiteral("umount")), QStringList{unmount});
    QCOMPARE(m_UnitB->Ran(QStringLiteral("mount")).size(), 2);
    QVERIFY(m_UnitB->MountTable().contains(chartsMount.toUtf8()));

    // Withdrawn while being mounted again: the application, which still
    // knows it, hears it is gone; the mount is abandoned and its path freed.
    QVERIFY(Touch(m_Hangs));
    SendSignal(m_UnitB->Process(), SIGUSR2);
    QTRY_COMPARE_WITH_TIMEOUT(m_UnitB->Ran(QStringLiteral("mount")).size(), 3, 10000);
    QVERIFY(m_UnitA->Remove(QStringLiteral("left")));
    QCOMPARE(Reported(m_AppB->TakeArrivals(1, 10000)), QStringList{QLatin1Char('-') + AppPath(cChartsDir)});
    QTRY_COMPARE_WITH_TIMEOUT(m_UnitB->Ran(QStringLiteral("umount")), (QStringList{unmount, unmount, unmount}), 5000);
    QTRY_VERIFY(!QFileInfo::exists(m_UnitB->Inside(chartsMount)));
    QVERIFY(!m_UnitB->MountTable().contains(chartsMount.toUtf8()));

    // Mounted again after SIGUSR2, then withdrawn: found and freed. The card
    // comes back once the service has cleaned up its old mount directory
    // (sooner, it would be given another name).
    QFile::remove(m_Hangs);
    QTRY_VERIFY(!QFileInfo::exists(m_UnitA->Inside(QStringLiteral("/run/media/CHARTS"))));
    QVERIFY(m_UnitA->Insert(QStringLiteral("left"), QStringLiteral("charts")));
    QCOMPARE(Reported(m_AppB->TakeArrivals(1, 10000)), QStringList{QLatin1Char('+') + AppPath(cChartsDir)});
    SendSignal(m_UnitB->Process(), SIGUSR2);
    QCOMPARE(Reported(m_AppB->TakeArrivals(1, 10000)), QStringList{QLatin1Char('+') + AppPath(cChartsDir)});
    QVERIFY(m_UnitA->Remove(QStringLiteral("left")));
    QCOMPARE(Reported(m_AppB->TakeArrivals(1, 10000)), QStringList{QLatin1Char('-') + AppPath(cChartsDir)});
    QTRY_COMPARE_WITH_TIMEOUT(m_UnitB->Ran(QStringLiteral("umount")).size(), 5, 5000);
    QTRY_VERIFY(!QFileInfo::exists(m_UnitB->Inside(chartsMount)));
    m_AppB->Send(AppRequest(QStringLiteral("enquerydevicelist")));
    QTest::qWait(200);
    QCOMPARE(m_AppB->TakeArrivals(0).size(), 0);
}

void tTwoUnitsTest::eth0SharesWhileUpWithALinkLocalAddress()
{
    // Unit B's end of the cable becomes its "eth0", with a routable address only.
    const QStringList b{QStringLiteral("-n"), m_Pair->NamespaceB()};
    QVERIFY(m_Pair->Ip(b + QStringList{"link", "set", tNetnsPair::InterfaceB(), "down"}));
    QVERIFY(m_Pair->Ip(b + QStringList{"link", "set", tNetnsPair::InterfaceB(), "name", "eth0"}));
    QVERIFY(m_Pair->Ip(b + QStringList{"addr", "flush", "dev", "eth0"}));
    QVERIFY(m_Pair->Ip(b + QStringList{"addr", "add", "10.0.0.2/24", "dev", "eth0"}));
    QVERIFY(m_Pair->Ip(b + QStringList{"link", "set", "eth0", "up"}));
    QVERIFY(StartUnits(true));

    QTest::qWait(2 * cExpiryMs.toInt());
    QCOMPARE(m_AppB->TakeArrivals(0).size(), 0);
    QCOMPARE(m_UnitB->Ran(QStringLiteral("mount")), QStringList());

    // The direct cable's link-local address starts sharing. A's writable
    // card is mounted "rw" and reported as local storage.
    QVERIFY(m_Pair->Ip(b + QStringList{"addr", "add", "169.254.10.2/16", "dev", "eth0"}));
    const QJsonObject charts = m_AppB->TakeArrivals(1, 15000).value(0);
    QCOMPARE(charts.value(QStringLiteral("path")).toString(), AppPath(cChartsDir));
    QCOMPARE(charts.value(QStringLiteral("remote")), QJsonValue(false));
    QCOMPARE(charts.value(QStringLiteral("readonly")), QJsonValue(false));
    QCOMPARE(m_UnitB->Ran(QStringLiteral("mount")),
             QStringList{MountCall(QStringLiteral("/run/media/CHARTS"), cChartsDir, QStringLiteral("rw"))});

    // Link down: sharing stops, so the peer's share expires; up: it starts again.
    QVERIFY(m_Pair->Ip(b + QStringList{"link", "set", "eth0", "down"}));
    QCOMPARE(Reported(m_AppB->TakeArrivals(1, 15000)), QStringList{QLatin1Char('-') + AppPath(cChartsDir)});
    QVERIFY(m_Pair->Ip(b + QStringList{"link", "set", "eth0", "up"}));
    QCOMPARE(Reported(m_AppB->TakeArrivals(1, 20000)), QStringList{QLatin1Char('+') + AppPath(cChartsDir)});

    // The carrier goes (A's end of the cable is down): sharing stops whether
    // the link-local address stays or went before it.
    const qint64 larkdB = m_UnitB->Process().processId();
    const QStringList a{QStringLiteral("-n"), m_Pair->NamespaceA()};
    QCOMPARE(SharePortSockets(larkdB), 2);
    QVERIFY(m_Pair->Ip(a + QStringList{"link", "set", tNetnsPair::InterfaceA(), "down"}));
    QTRY_COMPARE(SharePortSockets(larkdB), 1);
    QVERIFY(m_Pair->Ip(a + QStringList{"link", "set", tNetnsPair::InterfaceA(), "up"}));
    QTRY_COMPARE(SharePortSockets(larkdB), 2);
    QVERIFY(m_Pair->Ip(b + QStringList{"addr", "del", "169.254.10.2/16", "dev", "eth0"}));
    QTest::qWait(200);
    QCOMPARE(SharePortSockets(larkdB), 2);
    QVERIFY(m_Pair->Ip(a + QStringList{"link", "set", tNetnsPair::InterfaceA(), "down"}));
    QTRY_COMPARE(SharePortSockets(larkdB), 1);
}

void tTwoUnitsTest::peerThatNeverAnswersHoldsNothingUp()
{
    QVERIFY(Touch(m_Hangs));
    QVERIFY(StartUnits());
    const QString chartsMount = cNfsRoot + QLatin1Char('/') + cChartsDir;
    QTRY_VERIFY2_WITH_TIMEOUT(m_UnitB->Ran(QStringLiteral("mount")).size() == 1,
                              (m_UnitA->Log() + "\n=====B\n" + m_UnitB->Log()).constData(), 15000);
    QVERIFY(QFileInfo(m_UnitB->Inside(chartsMount)).isDir());

    // While B's mount of A's card hangs, B's own card is reported at once
    // and announced to A, whose mount of it hangs in turn.
    QVERIFY(m_UnitB->Insert(QStringLiteral("right"), QStringLiteral("photos")));
    QCOMPARE(Reported(m_AppB->TakeArrivals(1, 2000)), QStringList{QStringLiteral("+/run/media/PHOTOS")});
    QTRY_VERIFY_WITH_TIMEOUT(
        m_UnitA->Ran(QStringLiteral("mount")).join(QLatin1Char('\n')).contains(QStringLiteral("PHOTOS")), 10000);

    // For two expiry periods B answers its application in time, without the
    // share whose mount has not answered, and both units keep announcing:
    // neither lets the other's share expire (which would unmount it).
    QElapsedTimer clock;
    clock.start();
    while (!clock.hasExpired(2 * cExpiryMs.toInt())) {
        m_AppB->Send(AppRequest(QStringLiteral("enquerydevicelist")));
        const QStringList listed = Reported(m_AppB->TakeArrivals(1, 200));
        QVERIFY2(listed.contains(QStringLiteral("+/run/media/PHOTOS")), qPrintable(listed.join(QLatin1Char(' '))));
        QVERIFY(!listed.contains(QLatin1Char('+') + AppPath(cChartsDir)));
        QTest::qWait(250);
    }
    QCOMPARE(m_UnitA->Ran(QStringLiteral("umount")), QStringList());
    QCOMPARE(m_UnitB->Ran(QStringLiteral("umount")), QStringList());

    // Withdrawn while mounting: the mount is killed and its path unmounted,
    // and the application hears nothing of it.
    QVERIFY(m_UnitA->Remove(QStringLiteral("left")));
    const QStringList unmounted{QStringLiteral("-fl\t") + chartsMount};
    QTRY_COMPARE_WITH_TIMEOUT(m_UnitB->Ran(QStringLiteral("umount")), unmounted, 5000);
    QTRY_VERIFY(!QFileInfo::exists(m_UnitB->Inside(chartsMount)));
    QTest::qWait(200);
    QCOMPARE(m_AppB->TakeArrivals(0).size(), 0);

    // A refused mount is reported without a path and leaves no directory.
    QFile::remove(m_Hangs);
    QVERIFY(Touch(m_Refused));
    QVERIFY(m_UnitA->Insert(QStringLiteral("left"), QStringLiteral("charts")));
    const QList<QJsonObject> arrivals = m_AppB->TakeArrivals(1, 10000);
    QCOMPARE(Reported(arrivals), QStringList{QStringLiteral("+")});
    QCOMPARE(arrivals.first().value(QStringLiteral("friendlyname")).toString(), QStringLiteral("Memory Card - Left"));
    QCOMPARE(m_UnitB->Ran(QStringLiteral("mount")).size(), 2);
    QVERIFY(!QFileInfo::exists(m_UnitB->Inside(chartsMount)));

    // SIGTERM does not wait for a hanging mount.
    QFile::remove(m_Refused);
    QVERIFY(Touch(m_Hangs));
    QVERIFY(m_UnitA->Insert(QStringLiteral("extra"), QStringLiteral("maps")));
    QTRY_COMPARE_WITH_TIMEOUT(m_UnitB->Ran(QStringLiteral("mount")).size(), 3, 10000);
    clock.start();
    QVERIFY(m_UnitB->Stop());
    QVERIFY2(clock.elapsed() < 2000, qPrintable(QString::number(clock.elapsed())));
}

LARKD_NAMESPACE_TEST_MAIN(tTwoUnitsTest)
#include "tst_twounits.moc"
