// The publisher's exportfs commands, recorded by the stand-in exportfs first
// on PATH (the NFS server cannot run here), and the queue that runs them.
#include "DaemonProcess.h"
#include "sharing/CommandQueue.h"
#include "sharing/ServicePublisher.h"

#include <QtTest>

#include <memory>
#include <unistd.h>

namespace
{
using tOutcome = tCommandQueue::tOutcome;

QString Export(const char* options, const QString& target)
{
    return QStringLiteral("exportfs\t-o\t%1,no_root_squash,no_subtree_check\t%2").arg(QLatin1String(options), target);
}

void AddShare(tServicePublisher& publisher, const QString& path, bool readOnly)
{
    publisher.AddServiceNFS(path, 1, QString(), QString(), QString(), QString(), readOnly);
}

// Lets the commands asked for so far run; false if they do not end in 5 s.
bool Settle(tServicePublisher& publisher)
{
    QSignalSpy done(&publisher, &tServicePublisher::CommandsDone);
    return !publisher.CommandsPending() || done.wait(5000);
}

// The processes this test has started and not yet reaped.
QByteArray Children()
{
    QFile file(QStringLiteral("/proc/self/task/%1/children").arg(getpid()));
    return file.open(QIODevice::ReadOnly) ? file.readAll().trimmed() : QByteArray("unreadable");
}

// The exportfs invocations so far, flushes (which come when their timer
// says) left out unless asked for.
QStringList Calls(bool withFlushes = false)
{
    QFile file(qEnvironmentVariable("LARKD_RECORD_FILE"));
    QStringList calls = file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()).split('\n', Qt::SkipEmptyParts) : QStringList();
    if (!withFlushes)
        calls.removeAll(QStringLiteral("exportfs\t-f"));
    return calls;
}

int s_Warnings = 0;
QtMessageHandler s_PreviousHandler = nullptr;
void CountWarnings(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    s_Warnings += type == QtWarningMsg;
    s_PreviousHandler(type, context, message);
}
} // namespace

class tPublisherExportsTest : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase()
    {
        QVERIFY(m_Dir.isValid());
        UseStandins(m_Dir.filePath(QStringLiteral("exportfs.calls")));
    }

    void exportsFollowSharesAndPeer()
    {
        tServicePublisher publisher(QStringLiteral("lark"));
        publisher.Start(QStringLiteral("lo"), QHostAddress(QHostAddress::LocalHost));
        publisher.SetPeerIpAddress(QStringLiteral("not-an-ip"));
        publisher.SetPeerIpAddress(QStringLiteral("192.168.1.20"));
        publisher.SetPeerIpAddress(QStringLiteral("192.168.1.20"));

        // The peer gets a read-write entry of its own, ahead of everyone's, but
        // never for a read-only share.
        AddShare(publisher, QStringLiteral("/media/vol"), false);
        AddShare(publisher, QStringLiteral("/media/ro vol"), true);
        QVERIFY(Settle(publisher));
        QStringList expected{Export("rw", "192.168.1.20:/media/vol"), Export("rw", "*:/media/vol"), Export("ro", "*:/media/ro vol")};
        QCOMPARE(Calls(), expected);
        publisher.RemoveServiceNFS(QStringLiteral("/media/ro vol"));
        // A new peer's entry replaces the old one's.
        publisher.SetPeerIpAddress(QStringLiteral("192.168.1.21"));
        QVERIFY(Settle(publisher));
        expected << "exportfs\t-u\t*:/media/ro vol" << "exportfs\t-u\t192.168.1.20:/media/ro vol"
                 << "exportfs\t-u\t192.168.1.20:/media/vol" << Export("rw", "192.168.1.21:/media/vol");
        QCOMPARE(Calls(), expected);

        // Each change of peer flushes the server once, later, when the peer had time to mount.
        QTRY_COMPARE_WITH_TIMEOUT(Calls(true).count(QStringLiteral("exportfs\t-f")), 2, 5000);
        QTest::qWait(300);
        QCOMPARE(Calls(true).count(QStringLiteral("exportfs\t-f")), 2);
    }

    void queueRunsStepsInOrderAndKillsSlowOnes()
    {
        auto queue = std::make_unique<tCommandQueue>();
        QSignalSpy idle(queue.get(), &tCommandQueue::Idle);
        QStringList ended;
        const auto add = [&](const QString& program, const QString& script) {
            queue->AddProcess(program, {QStringLiteral("-c"), script}, [&ended, script](tOutcome outcome) {
                ended << script + (outcome == tOutcome::Finished ? QStringLiteral(": finished") : QStringLiteral(": failed"));
            });
        };
        QObject context;
        queue->AddAction(&context, [&] { ended << QStringLiteral("at once"); });
        QCOMPARE(ended, QStringList{"at once"});
        queue->SetCommandTimeout(1000);
        QElapsedTimer clock;
        clock.start();

        // A program that crashes or cannot start fails; an exit code counts for
        // nothing (exportfs reports harmless conditions so). An action runs once
        // all asked for before it has ended, and only if its context is there.
        add(QStringLiteral("sh"), QStringLiteral("kill -SEGV $$"));
        add(QStringLiteral("sh"), QStringLiteral("exit 1"));
        queue->AddAction(&context, [&] { ended << QStringLiteral("action"); });
        {
            QObject gone;
            queue->AddAction(&gone, [&] { ended << QStringLiteral("gone"); });
        }
        add(m_Dir.filePath(QStringLiteral("nothing")), QStringLiteral("missing"));
        // Killed at the time-out, a program counts as finished, as it always has.
        add(QStringLiteral("sh"), QStringLiteral("exec sleep 10"));
        add(QStringLiteral("sh"), QStringLiteral("exit 0"));
        QVERIFY2(clock.elapsed() < 200, qPrintable(QString::number(clock.elapsed())));
        QVERIFY(idle.wait(5000));
        QVERIFY2(clock.elapsed() >= 1000, qPrintable(QString::number(clock.elapsed())));
        QCOMPARE(ended, (QStringList{"at once", "kill -SEGV $$: failed", "exit 1: finished", "action", "missing: failed",
                                     "exec sleep 10: finished", "exit 0: finished"}));
        QCOMPARE(idle.count(), 1);
        QTRY_COMPARE(Children(), QByteArray());

        // One still running when the queue goes is killed and not waited for:
        // no warning from a process object destroyed while its program runs.
        queue->SetCommandTimeout(30000);
        add(QStringLiteral("sh"), QStringLiteral("exec sleep 10"));
        QTRY_VERIFY(!Children().isEmpty());
        s_Warnings = 0;
        s_PreviousHandler = qInstallMessageHandler(CountWarnings);
        queue.reset();
        qInstallMessageHandler(s_PreviousHandler);
        QCOMPARE(s_Warnings, 0);
        QTRY_COMPARE(Children(), QByteArray());
    }

    void stopMakesLaterCommandsWaitForThePeer()
    {
        const QString rmtab = m_Dir.filePath(QStringLiteral("rmtab"));
        QFile file(rmtab);
        QVERIFY(file.open(QIODevice::WriteOnly));
        tServicePublisher publisher{QString()};
        publisher.SetRmtabPath(rmtab);
        publisher.Start(QStringLiteral("lo"), QHostAddress(QHostAddress::LocalHost));
        AddShare(publisher, QStringLiteral("/a"), true);
        QVERIFY(Settle(publisher));
        const int before = Calls(true).size();

        QElapsedTimer clock;
        clock.start();
        publisher.Stop();
        QVERIFY2(clock.elapsed() < 200, qPrintable(QString::number(clock.elapsed())));
        AddShare(publisher, QStringLiteral("/b"), true);
        // The peer lets go within the first second: the wait ends two seconds
        // after that second, not after five.
        QTest::qWait(500);
        QVERIFY(file.write("client:/a\n") > 0);
        file.close();
        QTRY_VERIFY_WITH_TIMEOUT(Calls(true).size() > before, 6000);
        const qint64 waited = clock.elapsed();
        QVERIFY2(waited >= 3000 && waited < 4500, qPrintable(QString::number(waited)));
        QCOMPARE(Calls(true).mid(before), QStringList{Export("ro", "*:/b")});

        // Stopped again with nothing announced, there is nothing to wait for:
        // whether sharing is off, or on with no share to withdraw.
        QVERIFY(Settle(publisher));
        publisher.Stop();
        QVERIFY(!publisher.CommandsPending());
        tServicePublisher idle{QString()};
        idle.SetRmtabPath(rmtab);
        idle.Start(QStringLiteral("lo"), QHostAddress(QHostAddress::LocalHost));
        idle.Stop();
        QVERIFY(!idle.CommandsPending());
    }

private:
    QTemporaryDir m_Dir;
};

QTEST_GUILESS_MAIN(tPublisherExportsTest)
#include "tst_publisherexports.moc"
