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
    void everyDeliveryArrivesAndInterruptsBlockingCalls()
    {
        tUnixSignalNotifier notifier;
        QVERIFY(notifier.RegisterSignal(SIGUSR1));
        QVERIFY(notifier.RegisterSignal(SIGUSR2));
        QVERIFY(!notifier.RegisterSignal(SIGUSR1));
        QSignalSpy spy(&notifier, &tUnixSignalNotifier::SignalReceived);
        // All raised before the event loop runs: each is still its own record.
        for (int sig : {SIGUSR1, SIGUSR2, SIGUSR1, SIGUSR1})
            raise(sig);
        QTRY_COMPARE(spy.count(), 4);
        QList<int> received;
        for (const QList<QVariant>& arguments : spy)
            received << arguments.at(0).toInt();
        std::sort(received.begin(), received.end());
        QCOMPARE(received, (QList<int>{SIGUSR1, SIGUSR1, SIGUSR1, SIGUSR2}));

        // A blocking call it interrupts fails instead of resuming.
        int fds[2];
        QCOMPARE(pipe(fds), 0);
        std::thread sender([thread = pthread_self()] {
            usleep(100 * 1000);
            pthread_kill(thread, SIGUSR2);
        });
        char byte = 0;
        const bool interrupted = read(fds[0], &byte, 1) == -1 && errno == EINTR; // nothing is ever written
        sender.join();
        close(fds[0]);
        close(fds[1]);
        QVERIFY(interrupted);
        QTRY_COMPARE(spy.count(), 5);
        QCOMPARE(spy.last().at(0).toInt(), SIGUSR2);
    }
};

QTEST_GUILESS_MAIN(tUnixSignalNotifierTest)
#include "tst_unixsignalnotifier.moc"
