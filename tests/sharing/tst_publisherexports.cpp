// The publisher's exportfs invocations, recorded by the stand-in exportfs
// first on PATH (the NFS server cannot run here). Announcing is off in these
// cases, so nothing goes on the network.
#include "ExportfsRecord.h"
#include "sharing/ServicePublisher.h"

#include <QtTest>

#include <memory>

namespace
{
const QString cRw = QStringLiteral("rw,no_root_squash,no_subtree_check");
const QString cRo = QStringLiteral("ro,no_root_squash,no_subtree_check");
} // namespace

class tPublisherExportsTest : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void init();
    void exportsFollowSharesAndPeer();
    void peerChangesAreValidatedAndFlushed();
    void crashedExportfsIsReported();

private:
    QTemporaryDir m_Dir;
    std::unique_ptr<tExportfsRecord> m_Record;
};

void tPublisherExportsTest::initTestCase()
{
    QVERIFY(m_Dir.isValid());
    m_Record.reset(new tExportfsRecord(m_Dir, qEnvironmentVariable("LARKD_TEST_SCRIPTS") + QStringLiteral("/standins")));
}

void tPublisherExportsTest::init()
{
    qunsetenv("LARKD_STANDIN_CRASH");
    m_Record->Take();
}

void tPublisherExportsTest::exportsFollowSharesAndPeer()
{
    tServicePublisher publisher(QStringLiteral("lark"));
    QTest::ignoreMessage(QtInfoMsg, QRegularExpression(QStringLiteral("^Export: exporting 'exportfs -o .* PASS$")));
    publisher.AddServiceNFS(QStringLiteral("/media/ro vol"), 1, QStringLiteral("N"), QStringLiteral("C"),
                            QStringLiteral("S"), QStringLiteral("D"), true);
    QCOMPARE(m_Record->Take(), QStringList{tExportfsRecord::Call({QStringLiteral("-o"), cRo, QStringLiteral("*:/media/ro vol")})});

    publisher.SetPeerIpAddress(QStringLiteral("192.168.1.20"));
    // While not announcing, a new peer gets no entries for existing shares.
    QCOMPARE(m_Record->Take(), QStringList());

    // The documented example: read-write with a known peer, peer first.
    QTest::ignoreMessage(QtInfoMsg, "Export: exporting 'exportfs -o rw,no_root_squash,no_subtree_check 192.168.1.20:/media/vol' PASS");
    QTest::ignoreMessage(QtInfoMsg, "Export: exporting 'exportfs -o rw,no_root_squash,no_subtree_check *:/media/vol' PASS");
    publisher.AddServiceNFS(QStringLiteral("/media/vol"), 1, QString(), QString(), QString(), QString(), false);
    QCOMPARE(m_Record->Take(), (QStringList{
        tExportfsRecord::Call({QStringLiteral("-o"), cRw, QStringLiteral("192.168.1.20:/media/vol")}),
        tExportfsRecord::Call({QStringLiteral("-o"), cRw, QStringLiteral("*:/media/vol")}),
    }));

    // Read-only shares are never granted to the peer read-write.
    QTest::ignoreMessage(QtInfoMsg, QRegularExpression(QStringLiteral("PASS$")));
    publisher.AddServiceNFS(QStringLiteral("/media/ro vol"), 1, QString(), QString(), QString(), QString(), true);
    QCOMPARE(m_Record->Take(), QStringList{tExportfsRecord::Call({QStringLiteral("-o"), cRo, QStringLiteral("*:/media/ro vol")})});

    publisher.RemoveServiceNFS(QStringLiteral("/media/vol"));
    QCOMPARE(m_Record->Take(), (QStringList{
        tExportfsRecord::Call({QStringLiteral("-u"), QStringLiteral("*:/media/vol")}),
        tExportfsRecord::Call({QStringLiteral("-u"), QStringLiteral("192.168.1.20:/media/vol")}),
    }));
    publisher.RemoveServiceNFS(QStringLiteral("/media/vol"));
    QCOMPARE(m_Record->Take(), QStringList());
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

void tPublisherExportsTest::crashedExportfsIsReported()
{
    qputenv("LARKD_STANDIN_CRASH", "1");
    tServicePublisher publisher{QString()};
    // A crash is a failure; a non-zero exit code alone would not be.
    QTest::ignoreMessage(QtWarningMsg, "Export: error exporting exportfs -o ro,no_root_squash,no_subtree_check *:/x");
    publisher.AddServiceNFS(QStringLiteral("/x"), 0, QString(), QString(), QString(), QString(), true);
    QTest::ignoreMessage(QtWarningMsg, "tServicePublisher::RestartNfsServer(): error clearing exports");
    QTest::ignoreMessage(QtInfoMsg, "tServicePublisher: Restarting nfsd done");
    publisher.RestartNfsServer();
    QCOMPARE(m_Record->Take().size(), 2);
}

QTEST_GUILESS_MAIN(tPublisherExportsTest)
#include "tst_publisherexports.moc"
