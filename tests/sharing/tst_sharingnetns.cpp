// Two units joined by a veth pair, each in its own network namespace. Unit A's
// publisher runs in a helper process there; this test's thread enters unit B,
// where it runs listeners and a plain UDP socket that captures the wire bytes.
// exportfs is the recording stand-in (the NFS server cannot run here).
#include "ExportfsRecord.h"
#include "NetnsPair.h"
#include "sharing/ServiceListener.h"
#include "sharing/ServicePublisher.h"
#include "sharing/ShareDatagram.h"

#include <QNetworkDatagram>
#include <QNetworkInterface>
#include <QSignalSpy>
#include <QUdpSocket>
#include <QtTest>

#include <memory>

namespace
{
constexpr int cExpiryMs = 3000;
const QString cRw = QStringLiteral("rw,no_root_squash,no_subtree_check");
const QByteArray cJsonEmpty = "{\n    \"ContentID\": \"\",\n    \"SerialNumber\": \"\"\n}\n";

// Unit A's publisher, one command at a time.
class tShareUnit
{
public:
    tShareUnit(const tNetnsPair& pair, const QString& codeName, const QString& rmtab)
    {
        m_Process.start(QStringLiteral("ip"), {QStringLiteral("netns"), QStringLiteral("exec"), pair.NamespaceA(),
                                               qEnvironmentVariable("LARKD_SHARE_UNIT"), codeName, rmtab});
        m_Started = m_Process.waitForStarted() && ReadLine(10000) == "ready";
    }
    ~tShareUnit() { Kill(); }

    bool Started() const { return m_Started; }

    bool Command(const QStringList& fields, int timeoutMs = 15000)
    {
        m_Process.write(fields.join(QLatin1Char('\t')).toUtf8() + '\n');
        return ReadLine(timeoutMs) == "ok " + fields.first().toUtf8();
    }

    void Kill()
    {
        if (m_Process.state() != QProcess::NotRunning) {
            m_Process.kill();
            m_Process.waitForFinished();
        }
    }

private:
    QByteArray ReadLine(int timeoutMs)
    {
        QDeadlineTimer deadline(timeoutMs);
        while (!m_Process.canReadLine() && !deadline.hasExpired())
            m_Process.waitForReadyRead(50);
        return m_Process.readLine().trimmed();
    }

    QProcess m_Process;
    bool m_Started = false;
};

// Everything that reaches port 10000 in unit B, group and unicast alike.
class tCapture
{
public:
    explicit tCapture(const QString& interfaceName)
    {
        m_Socket.bind(QHostAddress::AnyIPv4, ShareDatagram::cPort, QUdpSocket::ShareAddress);
        m_Joined = m_Socket.joinMulticastGroup(QHostAddress(QLatin1String(ShareDatagram::GroupAddress())),
                                               QNetworkInterface::interfaceFromName(interfaceName));
        QObject::connect(&m_Socket, &QUdpSocket::readyRead, [this]() {
            while (m_Socket.hasPendingDatagrams())
                m_Datagrams << m_Socket.receiveDatagram();
        });
    }
    bool Joined() const { return m_Joined; }
    QList<QNetworkDatagram> Take()
    {
        QList<QNetworkDatagram> taken;
        taken.swap(m_Datagrams);
        return taken;
    }
    int Count() const { return m_Datagrams.size(); }

private:
    QUdpSocket m_Socket;
    bool m_Joined = false;
    QList<QNetworkDatagram> m_Datagrams;
};

// A header whose three strings are each `stringLength` bytes with their NUL.
QByteArray Header(quint16 type, char stringLength = 1)
{
    QByteArray header = QByteArray::fromHex("78563412" "0100" "0000" "e803" "0000" "0000" "0000" "0000" "0000");
    header[6] = static_cast<char>(type);
    header[14] = header[16] = header[18] = stringLength;
    return header;
}

// A share as the listener reports it (fields in tNfsData's order).
tNfsData Share(const QString& source, int shareType, const QString& name, const QString& detail, bool readOnly,
               bool fromPeer, const QString& contentId, const QString& serial, const QString& codeName)
{
    return tNfsData{source, shareType, name, detail, QString(), readOnly, 0, fromPeer, contentId, serial, codeName};
}

tNfsData At(const QSignalSpy& spy, int index)
{
    return spy.at(index).at(0).value<tNfsData>();
}

// When, since it was made, each warning beginning with a text was written.
class tWarningTimes
{
public:
    explicit tWarningTimes(const char* prefix)
    {
        s_Prefix = prefix;
        s_Times.clear();
        s_Clock.start();
        s_Previous = qInstallMessageHandler(Handler);
    }
    ~tWarningTimes() { qInstallMessageHandler(s_Previous); }
    QList<qint64> Times() const { return s_Times; }

private:
    static void Handler(QtMsgType type, const QMessageLogContext& context, const QString& message)
    {
        if (type == QtWarningMsg && message.startsWith(QLatin1String(s_Prefix)))
            s_Times << s_Clock.elapsed();
        s_Previous(type, context, message);
    }

    static inline const char* s_Prefix = nullptr;
    static inline QList<qint64> s_Times;
    static inline QElapsedTimer s_Clock;
    static inline QtMessageHandler s_Previous = nullptr;
};
} // namespace

char* toString(const tNfsData& share)
{
    return QTest::toString(QStringLiteral("{%1 type %2 name %3 detail %4 ro %5 peer %6 cid %7 sn %8 code %9}")
                               .arg(share.source).arg(share.shareType).arg(share.name, share.detail)
                               .arg(share.readOnly).arg(share.fromPeer)
                               .arg(share.contentId, share.serialNumber, share.codeName));
}

class tSharingNetnsTest : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void cleanupTestCase();
    void init();
    void sharesArriveFromThePeerAndExpire();
    void withdrawalRemovesAtOnceAndAgainOnExpiry();
    void wireBytesAndKeepAlive();
    void ownDatagramsNeverSignal();
    void slowExportfsHoldsUpNoAnnouncement();
    void oddDatagramsFromThePeer();
    void unresolvableSenderIsNotThePeer();

private:
    std::unique_ptr<tNetnsPair> m_Pair;
    QTemporaryDir m_Dir;
    std::unique_ptr<tExportfsRecord> m_Record;
};

void tSharingNetnsTest::initTestCase()
{
    const QString unavailable = tNetnsPair::Unavailable();
    if (!unavailable.isEmpty())
        QSKIP(qPrintable(QStringLiteral("network namespace test: ") + unavailable));
    QVERIFY(m_Dir.isValid());
    m_Record.reset(new tExportfsRecord(m_Dir, qEnvironmentVariable("LARKD_UNIT_TOOLS") + QStringLiteral("/standins")));
    m_Pair.reset(new tNetnsPair);
    QVERIFY2(m_Pair->Error().isEmpty(), qPrintable(m_Pair->Error()));
    QVERIFY(m_Pair->Enter(m_Pair->NamespaceB()));
}

void tSharingNetnsTest::cleanupTestCase()
{
    m_Pair.reset();
}

void tSharingNetnsTest::init()
{
    m_Record->Take();
}

void tSharingNetnsTest::sharesArriveFromThePeerAndExpire()
{
    tServiceListener matching(tNetnsPair::MacA(), cExpiryMs);
    tServiceListener otherMac(QStringLiteral("02:4c:4b:00:0a:99"), cExpiryMs);
    tServiceListener noMac(QString(), cExpiryMs);
    QList<std::shared_ptr<QSignalSpy>> added, removed, discovered;
    for (tServiceListener* listener : {&matching, &otherMac, &noMac}) {
        listener->Start(tNetnsPair::InterfaceB(), nullptr);
        added << std::make_shared<QSignalSpy>(listener, &tServiceListener::ServiceAdded);
        removed << std::make_shared<QSignalSpy>(listener, &tServiceListener::ServiceRemoved);
        discovered << std::make_shared<QSignalSpy>(listener, &tServiceListener::PeerDiscovered);
    }

    tShareUnit unit(*m_Pair, QStringLiteral("lark"), m_Dir.filePath(QStringLiteral("rmtab")));
    QVERIFY(unit.Started());
    QVERIFY(unit.Command({"start", "lk0"}));
    QVERIFY(unit.Command({"add", "/charts/a", "1", "Chart A", "C1", "S1", "Left", "0"}));
    QCOMPARE(m_Record->Take(), QStringList{tExportfsRecord::Call({"-o", cRw, "*:/charts/a"})});

    for (int i = 0; i < 3; ++i)
        QTRY_COMPARE_WITH_TIMEOUT(added[i]->count(), 1, 5000);
    const tNfsData expected =
        Share("169.254.10.1:/charts/a", 1, "Chart A", "Left", false, true, "C1", "S1", "lark");
    QCOMPARE(At(*added[0], 0), expected);
    tNfsData notFromPeer = expected;
    notFromPeer.fromPeer = false;
    QCOMPARE(At(*added[1], 0), notFromPeer);
    QCOMPARE(At(*added[2], 0), notFromPeer);
    QVERIFY(!discovered[0]->isEmpty());
    QCOMPARE(discovered[0]->first().at(0).toString(), QStringLiteral("169.254.10.1"));
    QVERIFY(discovered[1]->isEmpty());
    QVERIFY(discovered[2]->isEmpty());

    // The peer, once known, is granted its own entry; a change moves it.
    QVERIFY(unit.Command({"peer", "169.254.10.2"}));
    QVERIFY(unit.Command({"peer", "169.254.10.3"}));
    QCOMPARE(m_Record->Take(), (QStringList{
        tExportfsRecord::Call({"-o", cRw, "169.254.10.2:/charts/a"}),
        tExportfsRecord::Call({"-u", "169.254.10.2:/charts/a"}),
        tExportfsRecord::Call({"-o", cRw, "169.254.10.3:/charts/a"}),
    }));

    // Announcements keep refreshing the one entry past an expiry period.
    QTest::qWait(cExpiryMs + 500);
    QCOMPARE(added[0]->count(), 1);
    QCOMPARE(removed[0]->count(), 0);
    // Each peer change flushed the server once, after a delay (none came above).
    QCOMPARE(m_Record->Calls(), (QStringList{tExportfsRecord::Call({"-f"}), tExportfsRecord::Call({"-f"})}));

    // Silence: one removal per listener, one period later, with the stored record.
    unit.Kill();
    for (int i = 0; i < 3; ++i)
        QTRY_COMPARE_WITH_TIMEOUT(removed[i]->count(), 1, cExpiryMs + 3000);
    QCOMPARE(At(*removed[0], 0), expected);
    QTest::qWait(1500);
    QCOMPARE(removed[0]->count(), 1);
    QCOMPARE(added[0]->count(), 1);
}

void tSharingNetnsTest::withdrawalRemovesAtOnceAndAgainOnExpiry()
{
    tServiceListener listener(tNetnsPair::MacA(), cExpiryMs);
    listener.Start(tNetnsPair::InterfaceB(), nullptr);
    QSignalSpy added(&listener, &tServiceListener::ServiceAdded);
    QSignalSpy removed(&listener, &tServiceListener::ServiceRemoved);

    tShareUnit unit(*m_Pair, QString(), m_Dir.filePath(QStringLiteral("rmtab")));
    QVERIFY(unit.Started());
    QVERIFY(unit.Command({"start", "lk0"}));
    QVERIFY(unit.Command({"add", "/charts/b", "0", "B", "C2", "S2", "Int", "1"}));
    QTRY_COMPARE_WITH_TIMEOUT(added.count(), 1, 5000);

    QVERIFY(unit.Command({"remove", "/charts/b"}));
    QTRY_COMPARE_WITH_TIMEOUT(removed.count(), 1, 2000);
    QCOMPARE(At(removed, 0), Share("169.254.10.1:/charts/b", 0, "B", "Int", true, true, "C2", "S2", QString()));
    QVERIFY(m_Record->Take().contains(tExportfsRecord::Call({"-u", "*:/charts/b"})));

    // The share's timer still runs and reports it once more, empty.
    QTRY_COMPARE_WITH_TIMEOUT(removed.count(), 2, cExpiryMs + 3000);
    QCOMPARE(At(removed, 1), tNfsData());
    QCOMPARE(added.count(), 1);

    // Announced again after the withdrawal, it is new.
    QVERIFY(unit.Command({"add", "/charts/b", "0", "B", "C2", "S2", "Int", "1"}));
    QTRY_COMPARE_WITH_TIMEOUT(added.count(), 2, 5000);
}

void tSharingNetnsTest::wireBytesAndKeepAlive()
{
    tCapture capture(tNetnsPair::InterfaceB());
    QVERIFY(capture.Joined());
    tShareUnit unit(*m_Pair, QString(), m_Dir.filePath(QStringLiteral("rmtab")));
    QVERIFY(unit.Started());
    QVERIFY(unit.Command({"start", "lk0"}));

    // An empty share, and one too large to send at all.
    const QString oversize = QStringLiteral("/") + QString(1479, QLatin1Char('a'));
    QVERIFY(unit.Command({"add", "", "0", "", "", "", "", "0"}));
    QVERIFY(unit.Command({"add", oversize, "0", "", "", "", "", "0"}));
    QTRY_VERIFY_WITH_TIMEOUT(capture.Count() >= 3, 5000);
    const QByteArray present = Header(1) + QByteArray(3, '\0') + cJsonEmpty;
    for (const QNetworkDatagram& datagram : capture.Take()) {
        QCOMPARE(datagram.senderAddress().toString(), QStringLiteral("169.254.10.1"));
        QCOMPARE(datagram.destinationAddress().toString(), QStringLiteral("224.1.1.1"));
        QCOMPARE(datagram.data(), present);
    }

    // With nothing left to announce, only the keep-alive byte goes, to the peer alone.
    QVERIFY(unit.Command({"peer", "169.254.10.2"}));
    QVERIFY(unit.Command({"remove", oversize}));
    QVERIFY(unit.Command({"remove", ""}));
    QTRY_VERIFY_WITH_TIMEOUT(capture.Count() >= 3, 5000);
    QList<QNetworkDatagram> after = capture.Take();
    // Datagrams sent before the removals may still be in flight.
    while (!after.isEmpty() && after.first().data() == present)
        after.removeFirst();
    QVERIFY(after.size() >= 2);
    QCOMPARE(after.first().data(), Header(2) + QByteArray(3, '\0') + cJsonEmpty);
    for (int i = 1; i < after.size(); ++i) {
        QCOMPARE(after.at(i).data(), QByteArray(1, '\0'));
        QCOMPARE(after.at(i).destinationAddress().toString(), QStringLiteral("169.254.10.2"));
    }

    // With nothing announced, the peer holds nothing to let go of: no wait.
    QElapsedTimer clock;
    clock.start();
    QVERIFY(unit.Command({"stop"}));
    QVERIFY2(clock.elapsed() < 500, qPrintable(QString::number(clock.elapsed())));
    QVERIFY(unit.Command({"start", "lk0"}));

    // Stopping withdraws every share once and then waits for the peer to let go.
    QVERIFY(unit.Command({"add", "/x", "1", "", "", "", "", "0"}));
    QVERIFY(unit.Command({"add", "/y", "1", "", "", "", "", "0"}));
    capture.Take();
    clock.start();
    QVERIFY(unit.Command({"stop"}, 20000));
    QVERIFY2(clock.elapsed() >= 1000, qPrintable(QString::number(clock.elapsed())));
    QTest::qWait(200);
    int withdrawals = 0;
    for (const QNetworkDatagram& datagram : capture.Take())
        withdrawals += datagram.data().mid(6, 2) == QByteArray::fromHex("0200");
    QCOMPARE(withdrawals, 2);
}

void tSharingNetnsTest::ownDatagramsNeverSignal()
{
    tCapture capture(tNetnsPair::InterfaceB());
    // Even with this unit's own MAC configured as the peer's.
    tServiceListener listener(tNetnsPair::MacB(), cExpiryMs);
    listener.Start(tNetnsPair::InterfaceB(), nullptr);
    QSignalSpy added(&listener, &tServiceListener::ServiceAdded);
    QSignalSpy removed(&listener, &tServiceListener::ServiceRemoved);
    QSignalSpy discovered(&listener, &tServiceListener::PeerDiscovered);

    tServicePublisher publisher(QStringLiteral("lark"));
    publisher.Start(tNetnsPair::InterfaceB(), QHostAddress());
    publisher.StartAnnouncing();
    publisher.AddServiceNFS(QStringLiteral("/own"), 1, QString(), QString(), QString(), QString(), false);
    QTRY_VERIFY_WITH_TIMEOUT(capture.Count() >= 2, 5000);
    publisher.WithdrawAll();
    QTRY_VERIFY_WITH_TIMEOUT(capture.Count() >= 3, 5000);
    for (const QNetworkDatagram& datagram : capture.Take())
        QCOMPARE(datagram.senderAddress().toString(), QStringLiteral("169.254.10.2"));
    QCOMPARE(added.count(), 0);
    QCOMPARE(removed.count(), 0);
    QCOMPARE(discovered.count(), 0);
}

void tSharingNetnsTest::slowExportfsHoldsUpNoAnnouncement()
{
    tCapture capture(tNetnsPair::InterfaceB());
    QVERIFY(capture.Joined());
    tServicePublisher publisher(QStringLiteral("lark"));
    publisher.Start(tNetnsPair::InterfaceB(), QHostAddress());
    publisher.StartAnnouncing();
    publisher.SetPeerIpAddress(tNetnsPair::AddressA());

    // The first export takes three seconds; the share is announced at once
    // and again a period later meanwhile.
    qputenv("LARKD_STANDIN_SLEEP", "3");
    QElapsedTimer clock;
    clock.start();
    publisher.AddServiceNFS(QStringLiteral("/slow"), 1, QString(), QString(), QString(), QString(), false);
    qunsetenv("LARKD_STANDIN_SLEEP");
    QVERIFY2(clock.elapsed() < 200, qPrintable(QString::number(clock.elapsed())));
    QTRY_VERIFY_WITH_TIMEOUT(capture.Count() >= 2, 2800);
    QCOMPARE(m_Record->Calls().size(), 1);

    // Then everything runs in the order it would have run waiting: the
    // peer's entry, everyone's, and the flush that followed the peer.
    const QString peer = tNetnsPair::AddressA() + QStringLiteral(":/slow");
    QTRY_COMPARE_WITH_TIMEOUT(m_Record->Calls(), (QStringList{tExportfsRecord::Call({"-o", cRw, peer}),
                                                              tExportfsRecord::Call({"-o", cRw, "*:/slow"}),
                                                              tExportfsRecord::Call({"-f"})}), 6000);
}

void tSharingNetnsTest::oddDatagramsFromThePeer()
{
    tServiceListener listener(tNetnsPair::MacA(), cExpiryMs);
    listener.Start(tNetnsPair::InterfaceB(), nullptr);
    QSignalSpy added(&listener, &tServiceListener::ServiceAdded);
    QSignalSpy removed(&listener, &tServiceListener::ServiceRemoved);
    QSignalSpy discovered(&listener, &tServiceListener::PeerDiscovered);

    // A socket opened in unit A stays there after the thread returns to B.
    QVERIFY(m_Pair->Enter(m_Pair->NamespaceA()));
    QUdpSocket sender;
    const bool bound = sender.bind(QHostAddress(tNetnsPair::AddressA()), 0);
    sender.setMulticastInterface(QNetworkInterface::interfaceFromName(tNetnsPair::InterfaceA()));
    QVERIFY(m_Pair->Enter(m_Pair->NamespaceB()));
    QVERIFY(bound);
    const auto send = [&](const QByteArray& datagram) {
        sender.writeDatagram(datagram, QHostAddress(QLatin1String(ShareDatagram::GroupAddress())), ShareDatagram::cPort);
    };

    // Not share messages, but each still tells who the peer is; so does the
    // keep-alive byte sent to this unit alone.
    QByteArray swapped = Header(1) + QByteArray(3, '\0') + cJsonEmpty;
    swapped.replace(0, 4, QByteArray::fromHex("12345678"));
    send(swapped);
    send(QByteArray(1, '\0'));
    send(Header(1).left(12));
    sender.writeDatagram(QByteArray(1, '\0'), QHostAddress(tNetnsPair::AddressB()), ShareDatagram::cPort);
    QTRY_COMPARE_WITH_TIMEOUT(discovered.count(), 4, 5000);
    QCOMPARE(discovered.first().at(0).toString(), QStringLiteral("169.254.10.1"));

    QTest::ignoreMessage(QtWarningMsg, "tServiceListener::OnReadyRead(): Received unknown message type 3");
    send(Header(3) + QByteArray(3, '\0') + cJsonEmpty);
    QTRY_COMPARE_WITH_TIMEOUT(discovered.count(), 5, 5000);

    // Broken JSON costs the JSON fields only.
    QTest::ignoreMessage(QtWarningMsg, "tServiceListener::OnReadyRead(): Failed to decode JSON data");
    send(Header(1, 2) + QByteArray("p\0q\0r\0", 6) + "{\"ContentID\": \"C\n");
    QTRY_COMPARE_WITH_TIMEOUT(added.count(), 1, 5000);
    QCOMPARE(At(added, 0), Share("169.254.10.1:p", 0, "q", "r", false, true, QString(), QString(), QString()));

    // At most 64 shares, this one among them: further ones are ignored, with
    // one warning, until some have expired.
    const tWarningTimes full("tServiceListener::OnReadyRead(): 64 shares known");
    QTest::ignoreMessage(QtWarningMsg, "tServiceListener::OnReadyRead(): 64 shares known, ignoring new ones");
    const auto sendShare = [&](int number) {
        const QByteArray text = QByteArray::number(number).append('\0');
        send(Header(1, char(text.size())) + text + text + text + cJsonEmpty);
    };
    for (int i = 100; i < 170; ++i)
        sendShare(i);
    QTRY_COMPARE_WITH_TIMEOUT(added.count(), 64, 5000);
    QTRY_COMPARE(discovered.count(), 5 + 1 + 70);
    QCOMPARE(added.count(), 64);
    QCOMPARE(At(added, 63).source, QStringLiteral("169.254.10.1:162"));
    QCOMPARE(full.Times().size(), 1);
    QTRY_COMPARE_WITH_TIMEOUT(removed.count(), 64, cExpiryMs + 3000);
    sendShare(170);
    QTRY_COMPARE_WITH_TIMEOUT(added.count(), 65, 5000);
}

void tSharingNetnsTest::unresolvableSenderIsNotThePeer()
{
    // Unit A stops answering ARP and B forgets it, so its MAC cannot be learnt.
    QVERIFY(m_Pair->Ip({"-n", m_Pair->NamespaceA(), "link", "set", "lk0", "arp", "off"}));
    QVERIFY(m_Pair->Ip({"-n", m_Pair->NamespaceB(), "neigh", "flush", "dev", "lk1"}));
    tServiceListener listener(tNetnsPair::MacA(), cExpiryMs);
    listener.Start(tNetnsPair::InterfaceB(), nullptr);
    QSignalSpy added(&listener, &tServiceListener::ServiceAdded);
    QSignalSpy discovered(&listener, &tServiceListener::PeerDiscovered);

    tShareUnit unit(*m_Pair, QString(), m_Dir.filePath(QStringLiteral("rmtab")));
    QVERIFY(unit.Started());
    QVERIFY(unit.Command({"start", "lk0"}));
    const char* const failed =
        "tServiceListener::IsPacketFromPeer(): attempt 4 to obtain MAC for 169.254.10.1 failed with error 6";
    QTest::ignoreMessage(QtWarningMsg, failed);
    QTest::ignoreMessage(QtWarningMsg, failed);
    const tWarningTimes checks("tServiceListener::IsPacketFromPeer()");
    QVERIFY(unit.Command({"add", "/charts/c", "1", "", "", "", "", "0"}));
    QTRY_COMPARE_WITH_TIMEOUT(added.count(), 1, 5000);
    // Each failed check stalls for a second; one per expiry period is made,
    // though the unit announces every second.
    QTRY_COMPARE_WITH_TIMEOUT(checks.Times().size(), 2, cExpiryMs + 4000);
    const qint64 between = checks.Times().at(1) - checks.Times().at(0);
    QVERIFY2(between >= cExpiryMs, qPrintable(QString::number(between)));
    unit.Kill();
    QVERIFY(m_Pair->Ip({"-n", m_Pair->NamespaceA(), "link", "set", "lk0", "arp", "on"}));
    QVERIFY(!At(added, 0).fromPeer);
    QCOMPARE(discovered.count(), 0);
}

QTEST_GUILESS_MAIN(tSharingNetnsTest)
#include "tst_sharingnetns.moc"
