// The display application is answered at once whatever larkd is waiting
// for: a card the service takes seconds to mount, an exportfs held up by the
// NFS server. The slow one is still reported when it comes, a medium pulled
// meanwhile leaves nothing behind. UDisks2 is the
// project's simulator (which can hold a method's answer), exportfs a
// recording stand-in that can be made to sleep.

#include "AppConnection.h"
#include "PrivateMounts.h"
#include "UnitProcesses.h"

#include <QElapsedTimer>
#include <QtTest>

#include <csignal>

namespace
{
// Milliseconds from an enquiry to the answer about count volumes; -1 without one.
qint64 AnswerTime(tAppConnection& app, int count)
{
    app.TakeDocuments();
    QElapsedTimer clock;
    clock.start();
    app.SendRaw(QByteArrayLiteral("{\"message\":{\"type\":\"enquerydevicelist\"}}") + '\0');
    return app.TakeArrivals(count, 5000).size() == count ? clock.elapsed() : -1;
}
} // namespace

class tNeverWaitsTest : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase() { LARKD_REQUIRE_NAMESPACE(); }
    void slowMountsHoldNothingUp();
    void slowExportfsHoldsNothingUp();
    void remountOutlivesQueuedCommands();
};

void tNeverWaitsTest::slowMountsHoldNothingUp()
{
    tLarkdUnit unit(E2eUnitFile(), {});
    tAppConnection app;
    QVERIFY(Boot(unit, app));
    auto called = [&unit](const QString& call) { return QTest::qWaitFor([&] { return unit.Calls().contains(call); }, 5000); };

    // A card and a stick whose mounts the service answers 4 s late.
    QVERIFY(unit.Hold(QStringLiteral("Mount"), 4000));
    QVERIFY(unit.Insert(QStringLiteral("right"), QStringLiteral("photos")));
    QVERIFY(unit.Insert(QStringLiteral("usb"), QStringLiteral("stick")));
    QVERIFY(called(QStringLiteral("Mount-held sda1")));
    const qint64 answered = AnswerTime(app, 1);
    QVERIFY2(answered >= 0 && answered < 200, qPrintable(QString::number(answered)));

    // The stick goes before its mount is answered: nothing of it may stay.
    QVERIFY(unit.Remove(QStringLiteral("usb")));
    QCOMPARE(Reported(app.TakeArrivals(1, 8000)), QStringList{"+/run/media/PHOTOS"});
    QVERIFY(called(QStringLiteral("Mount-vanished sda1")));
    QVERIFY2(Settled(app).isEmpty(), "the pulled stick was reported");
    const QString exports = unit.Ran(QStringLiteral("exportfs")).join('\n');
    QVERIFY2(!exports.contains(QStringLiteral("STICK")), qPrintable(exports));
    const QStringList links = QDir(unit.Inside(QStringLiteral("/run/media"))).entryList(QDir::System | QDir::NoDotAndDotDot);
    QVERIFY2(!links.join(' ').contains(QStringLiteral("USB")), qPrintable(links.join(' ')));
    QVERIFY(AnswerTime(app, 2) >= 0);
}

void tNeverWaitsTest::slowExportfsHoldsNothingUp()
{
    // Every exportfs takes 2 s, as when the NFS server is slow to answer.
    tLarkdUnit unit(E2eUnitFile(), {QStringLiteral("--internal-share-path"), QStringLiteral("/srv/charts")});
    unit.SetEnvironment(QStringLiteral("LARKD_STANDIN_SLEEP"), QStringLiteral("2"));
    tAppConnection app;
    QVERIFY(Boot(unit, app));
    QVERIFY(unit.Insert(QStringLiteral("right"), QStringLiteral("photos")));
    QCOMPARE(app.TakeArrivals(1, 2000).size(), 1);
    QVERIFY(unit.Remove(QStringLiteral("right")));
    QCOMPARE(app.TakeArrivals(1, 2000).size(), 1);
    // Commands are still queued behind the sleeping one.
    QVERIFY(unit.Ran(QStringLiteral("exportfs")).size() < 4);
    const qint64 answered = AnswerTime(app, 1);
    QVERIFY2(answered >= 0 && answered < 200, qPrintable(QString::number(answered)));

    // They all ran, one after another, in the order they were asked for.
    QTRY_COMPARE_WITH_TIMEOUT(unit.Ran(QStringLiteral("exportfs")).size(), 4, 15000);
    const QString options = QStringLiteral("-o\tro,no_root_squash,no_subtree_check\t*:");
    QCOMPARE(unit.Ran(QStringLiteral("exportfs")),
             QStringList({options + "/srv/charts", options + "/run/media/CHARTS", options + "/run/media/PHOTOS",
                          "-u\t*:/run/media/PHOTOS"}));
}

void tNeverWaitsTest::remountOutlivesQueuedCommands()
{
    // SIGUSR2 while the card's export is still queued: the card, mounted
    // again at once, must stay mounted once the queue has caught up.
    tLarkdUnit unit(E2eUnitFile(), {});
    unit.SetEnvironment(QStringLiteral("LARKD_STANDIN_SLEEP"), QStringLiteral("2"));
    tAppConnection app;
    QVERIFY(Boot(unit, app));
    SendSignal(unit.Process(), SIGUSR2);
    QCOMPARE(Reported(app.TakeArrivals(1)), QStringList{"+/run/media/CHARTS"});
    QTRY_COMPARE_WITH_TIMEOUT(unit.Ran(QStringLiteral("exportfs")).size(), 2, 10000);
    QVERIFY2(Settled(app).isEmpty(), "the card was reported gone");
    const QStringList calls = unit.Calls().filter(QRegularExpression(QStringLiteral("^(Mount|Unmount) ")));
    QVERIFY2(calls.last().startsWith(QStringLiteral("Mount mmcblk0p1")), qPrintable(calls.join('\n')));
}

LARKD_NAMESPACE_TEST_MAIN(tNeverWaitsTest)
#include "tst_neverwaits.moc"
