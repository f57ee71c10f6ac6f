// The listener against a real kernel: two units joined by a veth pair, each in
// its own network namespace. Unit A announces; this test's thread runs unit
// B's listeners, which tell the peer by its MAC address in B's ARP table (the
// configured peer is recognised in tst_twounits; here, the others are not).
#include "DaemonProcess.h"
#include "NetnsPair.h"
#include "sharing/ServiceListener.h"
#include "sharing/ServicePublisher.h"
#include "sharing/ShareDatagram.h"

#include <QNetworkInterface>
#include <QSignalSpy>
#include <QUdpSocket>
#include <QtTest>

#include <memory>

namespace
{
constexpr int cExpiryMs = 2000;

// When each failed peer check was logged, since the recording began.
QList<qint64> s_FailedChecks;
QElapsedTimer s_Clock;
QtMessageHandler s_PreviousHandler = nullptr;
void RecordFailedChecks(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    if (type == QtWarningMsg && message.contains(QLatin1String("to obtain MAC for")))
        s_FailedChecks << s_Clock.elapsed();
    s_PreviousHandler(type, context, message);
}

void AddShare(tServicePublisher& publisher, const char* path, bool readOnly)
{
    publisher.AddServiceNFS(QLatin1String(path), 1, QString(), QString(), QString(), QString(), readOnly);
}
} // namespace

class tSharingNetnsTest : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase()
    {
        LARKD_REQUIRE_NETNS();
        // The exportfs stand-in (the NFS server cannot run here).
        UseStandins(QString());
        m_Pair.reset(new tNetnsPair);
        QVERIFY2(m_Pair->Error().isEmpty(), qPrintable(m_Pair->Error()));
        QVERIFY(m_Pair->Enter(m_Pair->NamespaceB()));
    }

    void anotherUnitIsNoPeerAndItsWithdrawalsActAtOnce()
    {
        // Long enough that nothing expires here.
        tServiceListener other(QStringLiteral("02:4c:4b:00:0a:99"), 5000);
        other.Start(tNetnsPair::InterfaceB(), nullptr);
        QSignalSpy added(&other, &tServiceListener::ServiceAdded);
        QSignalSpy removed(&other, &tServiceListener::ServiceRemoved);
        QSignalSpy discovered(&other, &tServiceListener::PeerDiscovered);

        tServicePublisher publisher{QString()};
        QVERIFY(AnnounceFromUnitA(publisher));
        AddShare(publisher, "/charts/a", false);
        AddShare(publisher, "/charts/b", true);
        QTRY_COMPARE_WITH_TIMEOUT(added.count(), 2, 5000);
        QVERIFY(!added.first().at(0).value<tNfsData>().fromPeer);
        QCOMPARE(discovered.count(), 0);

        // Withdrawn shares go at once, one by one or all on stopping.
        publisher.RemoveServiceNFS(QStringLiteral("/charts/a"));
        QTRY_COMPARE_WITH_TIMEOUT(removed.count(), 1, 800);
        publisher.Stop();
        QTRY_COMPARE_WITH_TIMEOUT(removed.count(), 2, 800);
    }

    void atMost64SharesUntilSomeExpire()
    {
        tServiceListener listener(tNetnsPair::MacA(), cExpiryMs);
        listener.Start(tNetnsPair::InterfaceB(), nullptr);
        QSignalSpy added(&listener, &tServiceListener::ServiceAdded);
        QSignalSpy removed(&listener, &tServiceListener::ServiceRemoved);
        QSignalSpy discovered(&listener, &tServiceListener::PeerDiscovered);

        QUdpSocket sender;
        bool bound = false;
        QVERIFY(InUnitA([&] {
            bound = sender.bind(QHostAddress(tNetnsPair::AddressA()), 0);
            sender.setMulticastInterface(QNetworkInterface::interfaceFromName(tNetnsPair::InterfaceA()));
        }));
        QVERIFY(bound);
        const auto announce = [&](int number) {
            tNfsData share;
            share.source = QString::number(number);
            sender.writeDatagram(EncodeShareDatagram(ShareDatagram::cSharePresent, share).datagram,
                                 QHostAddress(QLatin1String(ShareDatagram::GroupAddress())), ShareDatagram::cPort);
        };

        // Spoofed announcements must not make the unit mount without end.
        for (int i = 0; i < 70; ++i)
            announce(i);
        QTRY_COMPARE_WITH_TIMEOUT(discovered.count(), 70, 5000);
        QCOMPARE(added.count(), 64);
        QTRY_COMPARE_WITH_TIMEOUT(removed.count(), 64, cExpiryMs + 3000);
        announce(70);
        QTRY_COMPARE_WITH_TIMEOUT(added.count(), 65, 5000);
    }

    void anUnresolvableSenderIsCheckedOncePerPeriod()
    {
        // Unit A stops answering ARP and B forgets it, so its MAC cannot be learnt.
        QVERIFY(m_Pair->Ip({"-n", m_Pair->NamespaceA(), "link", "set", "lk0", "arp", "off"}));
        QVERIFY(m_Pair->Ip({"-n", m_Pair->NamespaceB(), "neigh", "flush", "dev", "lk1"}));
        tServiceListener listener(tNetnsPair::MacA(), cExpiryMs);
        listener.Start(tNetnsPair::InterfaceB(), nullptr);
        QSignalSpy added(&listener, &tServiceListener::ServiceAdded);
        QSignalSpy discovered(&listener, &tServiceListener::PeerDiscovered);

        s_FailedChecks.clear();
        s_Clock.start();
        s_PreviousHandler = qInstallMessageHandler(RecordFailedChecks);
        tServicePublisher publisher{QString()};
        QVERIFY(AnnounceFromUnitA(publisher));
        AddShare(publisher, "/charts/c", false);
        // A failed check stalls the listener for a second; though the unit
        // announces every second, one check is made per expiry period.
        QTRY_COMPARE_WITH_TIMEOUT(s_FailedChecks.size(), 2, 2 * cExpiryMs + 3000);
        qInstallMessageHandler(s_PreviousHandler);
        const qint64 between = s_FailedChecks.at(1) - s_FailedChecks.at(0);
        QVERIFY2(between >= cExpiryMs, qPrintable(QString::number(between)));
        QCOMPARE(added.count(), 1);
        QVERIFY(!added.first().at(0).value<tNfsData>().fromPeer);
        QCOMPARE(discovered.count(), 0);
    }

private:
    bool AnnounceFromUnitA(tServicePublisher& publisher)
    {
        return InUnitA([&] {
            publisher.Start(tNetnsPair::InterfaceA(), QHostAddress());
            publisher.StartAnnouncing();
        });
    }
    // Starts `start` in unit A: sockets it opens stay there.
    bool InUnitA(const std::function<void()>& start)
    {
        if (!m_Pair->Enter(m_Pair->NamespaceA()))
            return false;
        start();
        return m_Pair->Enter(m_Pair->NamespaceB());
    }

    std::unique_ptr<tNetnsPair> m_Pair;
};

QTEST_GUILESS_MAIN(tSharingNetnsTest)
#include "tst_sharingnetns.moc"
