// The rtnetlink monitor against the real kernel, inside a private network
// namespace: this test's thread enters unit A of a veth pair, so the monitor's
// socket and the `ip` commands it starts see only that namespace.
#include "NetnsPair.h"
#include "system/LinuxInterfaceMonitor.h"

#include <QSignalSpy>
#include <QtTest>

using tState = tNetworkInterfaceMonitor::InterfaceState;

namespace
{
tState Last(const QSignalSpy& spy)
{
    return spy.isEmpty() ? tState() : spy.last().at(1).value<tState>();
}
} // namespace

class tLinuxInterfaceMonitorTest : public QObject
{
    Q_OBJECT
private slots:
    void followsWatchedInterfacesAndResynchronises()
    {
        LARKD_REQUIRE_NETNS();
        tNetnsPair pair;
        QVERIFY2(pair.Error().isEmpty(), qPrintable(pair.Error()));
        QVERIFY(pair.Enter(pair.NamespaceA()));

        tLinuxInterfaceMonitor monitor;
        QSignalSpy spy(&monitor, &tNetworkInterfaceMonitor::StateChanged);
        // A name the kernel has not reported is silent until it appears, and is
        // reported absent once deleted, though the kernel can no longer name it.
        monitor.AddInterface(QStringLiteral("lkx0"));
        QCOMPARE(spy.count(), 0);
        QVERIFY(pair.Ip({"link", "add", "lkx0", "type", "veth", "peer", "name", "lkx1"}));
        QTRY_VERIFY_WITH_TIMEOUT(Last(spy).present, 5000);
        QVERIFY(!Last(spy).running); // down, as created
        QVERIFY(pair.Ip({"link", "del", "lkx0"}));
        QTRY_VERIFY_WITH_TIMEOUT(!Last(spy).present, 5000);

        // Once it is no longer watched it is not heard of, while lk0 is.
        monitor.RemoveAllInterfaces();
        const int unwatched = spy.count();
        QVERIFY(pair.Ip({"link", "add", "lkx0", "type", "veth", "peer", "name", "lkx1"}));
        monitor.AddInterface(QStringLiteral("lk0"));
        const quint32 doomed = QHostAddress(QStringLiteral("192.0.2.1")).toIPv4Address();
        QVERIFY(pair.Ip({"addr", "add", "192.0.2.1/32", "dev", "lk0"}));
        QTRY_VERIFY_WITH_TIMEOUT(Last(spy).addresses.contains(doomed), 5000);
        for (int i = 0; i < spy.count(); ++i)
            QCOMPARE(spy.at(i).at(0).toString(), QLatin1String(i < unwatched ? "lkx0" : "lk0"));

        // Far more notifications than the socket buffer holds arrive while the
        // event loop is blocked, so the kernel drops some and says so.
        QSet<quint32> expected = Last(spy).addresses;
        QTemporaryFile batch;
        QVERIFY(batch.open());
        for (quint32 i = 0; i < 1000; ++i) {
            const quint32 address = (10u << 24) | (77u << 16) | (i + 1);
            batch.write(QStringLiteral("addr add %1/32 dev lk0\n").arg(QHostAddress(address).toString()).toLatin1());
            expected.insert(address);
        }
        batch.close();
        QTest::ignoreMessage(QtWarningMsg, "tLinuxInterfaceMonitor::OnReadyRead : Overrun error - resynchronizing.");
        QVERIFY(pair.Ip({"-batch", batch.fileName()}));
        QVERIFY(pair.Ip({"addr", "del", "192.0.2.1/32", "dev", "lk0"}));
        expected.remove(doomed);

        // The state comes back whole through a fresh dump, the deletion included.
        QTRY_COMPARE_WITH_TIMEOUT(Last(spy).addresses, expected, 10000);
    }
};

QTEST_GUILESS_MAIN(tLinuxInterfaceMonitorTest)
#include "tst_linuxinterfacemonitor.moc"
