// The rtnetlink monitor against the real kernel, inside a private network
// namespace: this test's thread enters unit A of a veth pair, so the monitor's
// socket and the `ip` commands it starts see only that namespace.
#include "NetnsPair.h"
#include "system/LinuxInterfaceMonitor.h"

#include <QSignalSpy>
#include <QtTest>

#include <memory>

using tState = tNetworkInterfaceMonitor::InterfaceState;

class tLinuxInterfaceMonitorTest : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void cleanupTestCase();
    void addressesAndCarrierAreFollowed();
    void watchingEmitsKnownStateAtOnce();
    void overrunResynchronises();

private:
    QString LastStateText(const QSignalSpy& spy, const QString& name) const;
    std::unique_ptr<tNetnsPair> m_Pair;
};

void tLinuxInterfaceMonitorTest::initTestCase()
{
    const QString unavailable = tNetnsPair::Unavailable();
    if (!unavailable.isEmpty())
        QSKIP(qPrintable(QStringLiteral("network namespace test: ") + unavailable));
    m_Pair.reset(new tNetnsPair);
    QVERIFY2(m_Pair->Error().isEmpty(), qPrintable(m_Pair->Error()));
    QVERIFY(m_Pair->Enter(m_Pair->NamespaceA()));
}

void tLinuxInterfaceMonitorTest::cleanupTestCase()
{
    m_Pair.reset();
}

// The last state reported for `name`, as comparable text.
QString tLinuxInterfaceMonitorTest::LastStateText(const QSignalSpy& spy, const QString& name) const
{
    for (int i = spy.count() - 1; i >= 0; --i) {
        if (spy.at(i).at(0).toString() != name)
            continue;
        const tState state = spy.at(i).at(1).value<tState>();
        QList<quint32> addresses = state.addresses.values();
        std::sort(addresses.begin(), addresses.end());
        QStringList parts;
        for (quint32 address : addresses)
            parts << QHostAddress(address).toString();
        parts << (state.present ? QStringLiteral("present") : QStringLiteral("absent"));
        parts << (state.running ? QStringLiteral("running") : QStringLiteral("stopped"));
        return parts.join(QLatin1Char(' '));
    }
    return QStringLiteral("(none)");
}

void tLinuxInterfaceMonitorTest::addressesAndCarrierAreFollowed()
{
    tLinuxInterfaceMonitor monitor;
    QSignalSpy spy(&monitor, &tNetworkInterfaceMonitor::StateChanged);
    monitor.AddInterface(QStringLiteral("lk0"));
    QTRY_COMPARE_WITH_TIMEOUT(LastStateText(spy, QStringLiteral("lk0")), QStringLiteral("169.254.10.1 present running"), 5000);

    QVERIFY(m_Pair->Ip({"addr", "add", "169.254.20.1/16", "dev", "lk0"}));
    QVERIFY(m_Pair->Ip({"addr", "add", "169.254.20.2/16", "dev", "lk0"}));
    QTRY_COMPARE_WITH_TIMEOUT(LastStateText(spy, QStringLiteral("lk0")),
                              QStringLiteral("169.254.10.1 169.254.20.1 169.254.20.2 present running"), 5000);
    QVERIFY(m_Pair->Ip({"addr", "del", "169.254.20.1/16", "dev", "lk0"}));
    QTRY_COMPARE_WITH_TIMEOUT(LastStateText(spy, QStringLiteral("lk0")),
                              QStringLiteral("169.254.10.1 169.254.20.2 present running"), 5000);

    // The far end going down is a pulled cable: no carrier, addresses kept.
    QVERIFY(m_Pair->Ip({"-n", m_Pair->NamespaceB(), "link", "set", "lk1", "down"}));
    QTRY_COMPARE_WITH_TIMEOUT(LastStateText(spy, QStringLiteral("lk0")),
                              QStringLiteral("169.254.10.1 169.254.20.2 present stopped"), 5000);
    QVERIFY(m_Pair->Ip({"-n", m_Pair->NamespaceB(), "link", "set", "lk1", "up"}));
    QTRY_COMPARE_WITH_TIMEOUT(LastStateText(spy, QStringLiteral("lk0")),
                              QStringLiteral("169.254.10.1 169.254.20.2 present running"), 5000);

    // Unwatched interfaces never signal, however busy they are.
    for (const QVariantList& emission : spy)
        QCOMPARE(emission.at(0).toString(), QStringLiteral("lk0"));
}

void tLinuxInterfaceMonitorTest::watchingEmitsKnownStateAtOnce()
{
    tLinuxInterfaceMonitor monitor;
    QSignalSpy spy(&monitor, &tNetworkInterfaceMonitor::StateChanged);
    monitor.AddInterface(QStringLiteral("lo"));
    QTRY_VERIFY_WITH_TIMEOUT(LastStateText(spy, QStringLiteral("lo")).startsWith(QStringLiteral("127.0.0.1 present")), 5000);

    // lk0 was reported by the dump, so watching it answers without waiting.
    const int before = spy.count();
    monitor.AddInterface(QStringLiteral("lk0"));
    QCOMPARE(spy.count(), before + 1);
    QCOMPARE(spy.last().at(0).toString(), QStringLiteral("lk0"));
    monitor.RemoveInterface(QStringLiteral("lk0"));

    // A name the kernel has not reported stays silent until it appears...
    monitor.AddInterface(QStringLiteral("lkx0"));
    QCOMPARE(spy.count(), before + 1);
    QVERIFY(m_Pair->Ip({"link", "add", "lkx0", "type", "veth", "peer", "name", "lkx1"}));
    QTRY_COMPARE_WITH_TIMEOUT(LastStateText(spy, QStringLiteral("lkx0")), QStringLiteral("present stopped"), 5000);
    // ...and is reported absent once deleted, though the kernel can no longer name it.
    QVERIFY(m_Pair->Ip({"link", "del", "lkx0"}));
    QTRY_COMPARE_WITH_TIMEOUT(LastStateText(spy, QStringLiteral("lkx0")), QStringLiteral("absent stopped"), 5000);

    monitor.RemoveAllInterfaces();
    const int afterRemoval = spy.count();
    QVERIFY(m_Pair->Ip({"addr", "add", "169.254.30.1/16", "dev", "lk0"}));
    QVERIFY(m_Pair->Ip({"link", "set", "lo", "down"}));
    QTest::qWait(300);
    QCOMPARE(spy.count(), afterRemoval);
}

void tLinuxInterfaceMonitorTest::overrunResynchronises()
{
    tLinuxInterfaceMonitor monitor;
    QSignalSpy spy(&monitor, &tNetworkInterfaceMonitor::StateChanged);
    monitor.AddInterface(QStringLiteral("lk0"));
    const quint32 doomed = QHostAddress(QStringLiteral("192.0.2.1")).toIPv4Address();
    QVERIFY(m_Pair->Ip({"addr", "add", "192.0.2.1/32", "dev", "lk0"}));
    QTRY_VERIFY_WITH_TIMEOUT(!spy.isEmpty() && spy.last().at(1).value<tState>().addresses.contains(doomed), 5000);
    QSet<quint32> expected = spy.last().at(1).value<tState>().addresses;

    // Far more notifications than the socket buffer holds arrive while the
    // event loop is blocked, so the kernel drops some and says so.
    QTemporaryFile batch;
    QVERIFY(batch.open());
    for (quint32 i = 0; i < 1000; ++i) {
        const quint32 address = (10u << 24) | (77u << 16) | (i + 1);
        batch.write(QStringLiteral("addr add %1/32 dev lk0\n").arg(QHostAddress(address).toString()).toLatin1());
        expected.insert(address);
    }
    batch.close();
    QTest::ignoreMessage(QtWarningMsg, "tLinuxInterfaceMonitor::OnReadyRead : Overrun error - resynchronizing.");
    QVERIFY(m_Pair->Ip({"-batch", batch.fileName()}));
    QVERIFY(m_Pair->Ip({"addr", "del", "192.0.2.1/32", "dev", "lk0"}));
    expected.remove(doomed);

    // The state comes back whole through a fresh dump, the deletion included.
    QTRY_COMPARE_WITH_TIMEOUT(spy.last().at(1).value<tState>().addresses, expected, 10000);
}

QTEST_GUILESS_MAIN(tLinuxInterfaceMonitorTest)
#include "tst_linuxinterfacemonitor.moc"
