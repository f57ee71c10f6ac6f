// Unix signals delivered into the event loop through real socket pairs.
#include "system/UnixSignalNotifier.h"

#include <QSignalSpy>
#include <QtTest>

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

class tUnixSignalNotifierTest : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void duplicateRegistrationIsRefused();
    void everyDeliveryArrivesInOrder();
    void blockingCallFailsWithEintr();
    void unregisterAndDestructionRestoreDefaults();

private:
    tUnixSignalNotifier* m_Notifier = nullptr;
};

namespace
{
bool HasDefaultDisposition(int sig)
{
    struct sigaction current = {};
    sigaction(sig, nullptr, &current);
    return !(current.sa_flags & SA_SIGINFO) && current.sa_handler == SIG_DFL;
}
} // namespace

void tUnixSignalNotifierTest::initTestCase()
{
    m_Notifier = new tUnixSignalNotifier(this);
    QVERIFY(m_Notifier->RegisterSignal(SIGUSR1));
    QVERIFY(m_Notifier->RegisterSignal(SIGUSR2));
}

void tUnixSignalNotifierTest::duplicateRegistrationIsRefused()
{
    QTest::ignoreMessage(QtWarningMsg, "tUnixSignalNotifier::RegisterSignal(): signal 10 has already been registered");
    QVERIFY(!m_Notifier->RegisterSignal(SIGUSR1));

    // The first registration still works.
    QSignalSpy spy(m_Notifier, &tUnixSignalNotifier::SignalReceived);
    raise(SIGUSR1);
    QTRY_COMPARE(spy.count(), 1);
    QCOMPARE(spy.at(0).at(0).toInt(), SIGUSR1);
}

void tUnixSignalNotifierTest::everyDeliveryArrivesInOrder()
{
    QSignalSpy spy(m_Notifier, &tUnixSignalNotifier::SignalReceived);
    // All raised before the event loop runs: each must still be its own record.
    raise(SIGUSR1);
    raise(SIGUSR1);
    raise(SIGUSR1);
    raise(SIGUSR2);
    QTRY_COMPARE(spy.count(), 4);
    QList<int> received;
    for (const QList<QVariant>& args : spy)
        received << args.at(0).toInt();
    // Each signal keeps its own order; the two pairs may be drained in either order.
    QCOMPARE(received.count(SIGUSR1), 3);
    QCOMPARE(received.count(SIGUSR2), 1);
    received.removeAll(SIGUSR2);
    QCOMPARE(received, (QList<int>{SIGUSR1, SIGUSR1, SIGUSR1}));
}

void tUnixSignalNotifierTest::blockingCallFailsWithEintr()
{
    int fds[2];
    QCOMPARE(pipe(fds), 0);
    const pthread_t mainThread = pthread_self();
    std::thread sender([mainThread] {
        usleep(100 * 1000);
        pthread_kill(mainThread, SIGUSR2);
    });
    char byte = 0;
    const ssize_t got = read(fds[0], &byte, 1); // nothing will ever be written
    const int error = errno;
    sender.join();
    close(fds[0]);
    close(fds[1]);
    QCOMPARE(got, ssize_t(-1));
    QCOMPARE(error, EINTR);

    QSignalSpy spy(m_Notifier, &tUnixSignalNotifier::SignalReceived);
    QTRY_COMPARE(spy.count(), 1);
    QCOMPARE(spy.at(0).at(0).toInt(), SIGUSR2);
}

void tUnixSignalNotifierTest::unregisterAndDestructionRestoreDefaults()
{
    auto* notifier = new tUnixSignalNotifier;
    QVERIFY(notifier->RegisterSignal(SIGWINCH));
    QVERIFY(notifier->RegisterSignal(SIGALRM));
    QVERIFY(!HasDefaultDisposition(SIGWINCH));

    notifier->UnregisterSignal(SIGALRM);
    QVERIFY(HasDefaultDisposition(SIGALRM));
    QVERIFY(notifier->RegisterSignal(SIGALRM)); // unregistering forgets it

    delete notifier;
    QVERIFY(HasDefaultDisposition(SIGWINCH));
    QVERIFY(HasDefaultDisposition(SIGALRM));
}

QTEST_GUILESS_MAIN(tUnixSignalNotifierTest)
#include "tst_unixsignalnotifier.moc"
