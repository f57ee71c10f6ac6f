// The publisher's exportfs invocations, recorded by the stand-in exportfs
// first on PATH (the NFS server cannot run here). Announcing is off in these
// cases but one, which announces on the loopback interface only.
#include "ExportfsRecord.h"
#include "sharing/ServicePublisher.h"

#include <QtTest>

#include <memory>
#include <unistd.h>

namespace
{
const QString cRw = QStringLiteral("rw,no_root_squash,no_subtree_check");
const QString cRo = QStringLiteral("ro,no_root_squash,no_subtree_check");

void AddShare(tServicePublisher& publisher, const QString& path, bool readOnly)
{
    publisher.AddServiceNFS(path, 1, QString(), QString(), QString(), QString(), readOnly);
}

QString ExportCall(const QString& options, const QString& target)
{
    return tExportfsRecord::Call({QStringLiteral("-o"), options, target});
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

// The warnings written while it exists.
class tWarnings
{
public:
    tWarnings()
    {
        s_Texts.clear();
        s_Previous = qInstallMessageHandler(Handler);
    }
    ~tWarnings() { qInstallMessageHandler(s_Previous); }
    QStringList Texts() const { return s_Texts; }

private:
    static void Handler(QtMsgType type, const QMessageLogContext& context, const QString& message)
    {
        if (type == QtWarningMsg)
            s_Texts << message;
        s_Previous(type, context, message);
    }

    static inline QStringList s_Texts;
    static inline QtMessageHandler s_Previous = nullptr;
};
} // namespace

class tPublisherExportsTest : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void init();
    void exportsFollowSharesAndPeer();
    void peerChangesAreValidatedAndFlushed();
    void failureIsJudgedByHowTheCommandEnded();
    void slowCommandsHoldUpNothingAndAreKilled();
    void afterCommandsFollowsWhatWasAskedBefore();
    void stopReturnsAtOnceAndLaterCommandsWaitForThePeer();

private:
    QTemporaryDir m_Dir;
    std::unique_ptr<tExportfsRecord> m_Record;
};

void tPublisherExportsTest::initTestCase()
{
    QVERIFY(m_Dir.isValid());
    m_Record.reset(new tExportfsRecord(m_Dir, qEnvironmentVariable("LARKD_UNIT_TOOLS") + QStringLiteral("/standins")));
}

void tPublisherExportsTest::init()
{
    for (const char* name : {"LARKD_STANDIN_CRASH", "LARKD_STANDIN_SLEEP", "LARKD_STANDIN_STATUS"})
        qunsetenv(name);
    m_Record->Take();
}

void tPublisherExportsTest::exportsFollowSharesAndPeer()
{
    tServicePublisher publisher(QStringLiteral("lark"));
    QTest::ignoreMessage(QtInfoMsg, QRegularExpression(QStringLiteral("^Export: exporting 'exportfs -o .* PASS$")));
    publisher.AddServiceNFS(QStringLiteral("/media/ro vol"), 1, QStringLiteral("N"), QStringLiteral("C"),
                            QStringLiteral("S"), QStringLiteral("D"), true);
    QVERIFY(Settle(publisher));
    QCOMPARE(m_Record->Take(), QStringList{ExportCall(cRo, QStringLiteral("*:/media/ro vol"))});

    publisher.SetPeerIpAddress(QStringLiteral("192.168.1.20"));
    // While not announcing, a new peer gets no entries for existing shares.
    QVERIFY(!publisher.CommandsPending());
    QCOMPARE(m_Record->Take(), QStringList());

    // The documented example: read-write with a known peer, peer first.
    QTest::ignoreMessage(QtInfoMsg, "Export: exporting 'exportfs -o rw,no_root_squash,no_subtree_check 192.168.1.20:/media/vol' PASS");
    QTest::ignoreMessage(QtInfoMsg, "Export: exporting 'exportfs -o rw,no_root_squash,no_subtree_check *:/media/vol' PASS");
    AddShare(publisher, QStringLiteral("/media/vol"), false);
    QVERIFY(Settle(publisher));
    QCOMPARE(m_Record->Take(), (QStringList{
        ExportCall(cRw, QStringLiteral("192.168.1.20:/media/vol")),
        ExportCall(cRw, QStringLiteral("*:/media/vol")),
    }));

    // Read-only shares are never granted to the peer read-write.
    QTest::ignoreMessage(QtInfoMsg, QRegularExpression(QStringLiteral("PASS$")));
    AddShare(publisher, QStringLiteral("/media/ro vol"), true);
    QVERIFY(Settle(publisher));
    QCOMPARE(m_Record->Take(), QStringList{ExportCall(cRo, QStringLiteral("*:/media/ro vol"))});

    publisher.RemoveServiceNFS(QStringLiteral("/media/vol"));
    QVERIFY(Settle(publisher));
    QCOMPARE(m_Record->Take(), (QStringList{
        tExportfsRecord::Call({QStringLiteral("-u"), QStringLiteral("*:/media/vol")}),
        tExportfsRecord::Call({QStringLiteral("-u"), QStringLiteral("192.168.1.20:/media/vol")}),
    }));
    publisher.RemoveServiceNFS(QStringLiteral("/media/vol"));
    QVERIFY(!publisher.CommandsPending());
}

void tPublisherExportsTest::peerChangesAreValidatedAndFlushed()
{
    tServicePublisher publisher{QString()};
    QTest::ignoreMessage(QtWarningMsg, "Invalid ip address: not-an-ip");
    publisher.SetPeerIpAddress(QStringLiteral("not-an-ip"));

    QTest::ignoreMessage(QtInfoMsg, "tServicePublisher::SetPeerIpAddress(): Discovered peer IP address: 10.1.2.3");
    QTest::ignoreMessage(QtInfoMsg, "ExportFlush: 'exportfs -f' PASS");
    publisher.SetPeerIpAddress(QStringLiteral("10.1.2.3"));
    // The same address again changes nothing: no second flush.
    publisher.SetPeerIpAddress(QStringLiteral("10.1.2.3"));
    QCOMPARE(m_Record->Take(), QStringList());
    QTRY_COMPARE_WITH_TIMEOUT(m_Record->Calls(), QStringList{tExportfsRecord::Call({QStringLiteral("-f")})}, 5000);
    m_Record->Take();
    QTest::qWait(2500);
    QCOMPARE(m_Record->Take(), QStringList());
}

void tPublisherExportsTest::failureIsJudgedByHowTheCommandEnded()
{
    tServicePublisher publisher{QString()};
    qputenv("LARKD_STANDIN_CRASH", "1");
    QTest::ignoreMessage(QtWarningMsg, "Export: error exporting exportfs -o ro,no_root_squash,no_subtree_check *:/x");
    AddShare(publisher, QStringLiteral("/x"), true);
    QTest::ignoreMessage(QtWarningMsg, "tServicePublisher::RestartNfsServer(): error clearing exports");
    QTest::ignoreMessage(QtInfoMsg, "tServicePublisher: Restarting nfsd done");
    publisher.RestartNfsServer();
    QVERIFY(Settle(publisher));
    QCOMPARE(m_Record->Take().size(), 2);
    qunsetenv("LARKD_STANDIN_CRASH");

    // A non-zero exit code alone is no failure.
    qputenv("LARKD_STANDIN_STATUS", "1");
    QTest::ignoreMessage(QtInfoMsg, "Export: exporting 'exportfs -o ro,no_root_squash,no_subtree_check *:/x' PASS");
    AddShare(publisher, QStringLiteral("/x"), true);
    QVERIFY(Settle(publisher));
    qunsetenv("LARKD_STANDIN_STATUS");

    // A program that cannot be started fails, and the next command still runs.
    const QByteArray path = qgetenv("PATH");
    qputenv("PATH", m_Dir.filePath(QStringLiteral("nothing")).toLocal8Bit());
    QTest::ignoreMessage(QtWarningMsg, "Export: error exporting exportfs -o ro,no_root_squash,no_subtree_check *:/y");
    AddShare(publisher, QStringLiteral("/y"), true);
    qputenv("PATH", path);
    QTest::ignoreMessage(QtInfoMsg, "Export: exporting 'exportfs -o ro,no_root_squash,no_subtree_check *:/z' PASS");
    AddShare(publisher, QStringLiteral("/z"), true);
    QVERIFY(Settle(publisher));
    QCOMPARE(m_Record->Take(), (QStringList{ExportCall(cRo, QStringLiteral("*:/x")), ExportCall(cRo, QStringLiteral("*:/z"))}));
}

void tPublisherExportsTest::slowCommandsHoldUpNothingAndAreKilled()
{
    auto publisher = std::make_unique<tServicePublisher>(QString());
    publisher->SetCommandTimeout(300);
    QElapsedTimer clock;
    clock.start();
    qputenv("LARKD_STANDIN_SLEEP", "10");
    // Killed at the time-out, it counts as finished, as a time-out always did.
    QTest::ignoreMessage(QtInfoMsg, "Export: exporting 'exportfs -o rw,no_root_squash,no_subtree_check *:/slow' PASS");
    AddShare(*publisher, QStringLiteral("/slow"), false);
    qunsetenv("LARKD_STANDIN_SLEEP");
    QTest::ignoreMessage(QtInfoMsg, "Export: exporting 'exportfs -o rw,no_root_squash,no_subtree_check *:/next' PASS");
    AddShare(*publisher, QStringLiteral("/next"), false);
    QVERIFY2(clock.elapsed() < 200, qPrintable(QString::number(clock.elapsed())));
    QVERIFY(publisher->CommandsPending());
    QVERIFY(Settle(*publisher));
    QVERIFY2(clock.elapsed() >= 300, qPrintable(QString::number(clock.elapsed())));
    QCOMPARE(m_Record->Take(), (QStringList{ExportCall(cRw, QStringLiteral("*:/slow")), ExportCall(cRw, QStringLiteral("*:/next"))}));
    QTRY_COMPARE(Children(), QByteArray());

    // One still running when the publisher goes is killed, and not waited for.
    publisher->SetCommandTimeout(30000);
    qputenv("LARKD_STANDIN_SLEEP", "10");
    AddShare(*publisher, QStringLiteral("/held"), true);
    QTRY_COMPARE(m_Record->Calls().size(), 1);
    QVERIFY(!Children().isEmpty());
    const tWarnings warnings;
    clock.start();
    publisher.reset();
    QVERIFY2(clock.elapsed() < 200, qPrintable(QString::number(clock.elapsed())));
    QCOMPARE(warnings.Texts(), QStringList());
    QTRY_COMPARE(Children(), QByteArray());
}

void tPublisherExportsTest::afterCommandsFollowsWhatWasAskedBefore()
{
    tServicePublisher publisher{QString()};
    QObject context;
    bool ran = false;
    publisher.AfterCommands(&context, [&] { ran = true; });
    QVERIFY(ran); // nothing pending: at once

    QTest::ignoreMessage(QtInfoMsg, QRegularExpression(QStringLiteral("PASS$")));
    AddShare(publisher, QStringLiteral("/vol"), false);
    QVERIFY(Settle(publisher));
    m_Record->Take();

    QSignalSpy done(&publisher, &tServicePublisher::CommandsDone);
    publisher.RemoveServiceNFS(QStringLiteral("/vol"));
    std::unique_ptr<QStringList> seen;
    publisher.AfterCommands(&context, [&] { seen.reset(new QStringList(m_Record->Calls())); });
    {
        QObject gone;
        publisher.AfterCommands(&gone, [&] { ran = false; });
    }
    QTest::ignoreMessage(QtInfoMsg, QRegularExpression(QStringLiteral("PASS$")));
    AddShare(publisher, QStringLiteral("/later"), true);
    QVERIFY(!seen);
    QVERIFY(Settle(publisher));
    // After the unexport asked for before it, and before the export asked for after.
    QVERIFY(seen);
    QCOMPARE(*seen, QStringList{tExportfsRecord::Call({QStringLiteral("-u"), QStringLiteral("*:/vol")})});
    QVERIFY(ran);
    QCOMPARE(done.count(), 1);
}

void tPublisherExportsTest::stopReturnsAtOnceAndLaterCommandsWaitForThePeer()
{
    const QString rmtab = m_Dir.filePath(QStringLiteral("rmtab"));
    QFile file(rmtab);
    QVERIFY(file.open(QIODevice::WriteOnly));
    tServicePublisher publisher{QString()};
    publisher.SetRmtabPath(rmtab);
    publisher.Start(QStringLiteral("lo"), QHostAddress(QHostAddress::LocalHost));
    QTest::ignoreMessage(QtInfoMsg, QRegularExpression(QStringLiteral("PASS$")));
    AddShare(publisher, QStringLiteral("/a"), true);
    QVERIFY(Settle(publisher));
    m_Record->Take();

    QElapsedTimer clock;
    clock.start();
    publisher.Stop();
    QVERIFY2(clock.elapsed() < 200, qPrintable(QString::number(clock.elapsed())));
    QVERIFY(publisher.CommandsPending());
    QTest::ignoreMessage(QtInfoMsg, QRegularExpression(QStringLiteral("PASS$")));
    AddShare(publisher, QStringLiteral("/b"), true);

    // The peer lets go within the first second: the wait ends two seconds
    // after that second, not after five.
    QTest::qWait(500);
    QVERIFY(file.write("client:/a\n") > 0);
    file.close();
    QTRY_VERIFY_WITH_TIMEOUT(!m_Record->Calls().isEmpty(), 6000);
    const qint64 waited = clock.elapsed();
    QVERIFY2(waited >= 3000 && waited < 4500, qPrintable(QString::number(waited)));
    QCOMPARE(m_Record->Take(), QStringList{ExportCall(cRo, QStringLiteral("*:/b"))});

    // With nothing announced (no longer active) there is nothing to wait for.
    QVERIFY(Settle(publisher));
    publisher.Stop();
    QVERIFY(!publisher.CommandsPending());
}

QTEST_GUILESS_MAIN(tPublisherExportsTest)
#include "tst_publisherexports.moc"
