// The registry on a system bus where UDisks2 is not running (yet): the unit
// boots before the service, or the service died: nothing to show and
// nothing to complain about.

#include "PrivateBus.h"
#include "udisks2/UDisks2.h"
#include "udisks2/UDisks2FileSystem.h"

#include <QSignalSpy>
#include <QtTest>

namespace {
QStringList g_warnings;
void RecordWarnings(QtMsgType type, const QMessageLogContext&, const QString& message)
{
    if (type == QtWarningMsg || type == QtCriticalMsg)
        g_warnings << message;
}
} // namespace

class tst_UDisks2NoService : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void enumerationIsEmptyAndQuiet();

private:
    tPrivateBus m_Bus;
};

void tst_UDisks2NoService::initTestCase()
{
    QString error;
    QVERIFY2(m_Bus.Start(true, &error), qPrintable(error));
}

void tst_UDisks2NoService::enumerationIsEmptyAndQuiet()
{
    tUDisks2 registry;
    QSignalSpy added(&registry, &tUDisks2::FileSystemAdded);
    QSignalSpy drives(&registry, &tUDisks2::DriveAdded);

    const QtMessageHandler previous = qInstallMessageHandler(RecordWarnings);
    registry.Enumerate();
    const QStringList blocks = tUDisks2::BlockDevices();
    const QStringList driveNames = tUDisks2::Drives();
    tUDisks2FileSystem ghost(QStringLiteral("sda1"), nullptr);
    const QString mounted = ghost.Mount(QStringLiteral("ro"));
    ghost.Unmount();
    qInstallMessageHandler(previous);

    QVERIFY(blocks.isEmpty());
    QVERIFY(driveNames.isEmpty());
    QCOMPARE(added.count(), 0);
    QCOMPARE(drives.count(), 0);
    QVERIFY(!tUDisks2::Block(QStringLiteral("sda1")));
    QVERIFY(!ghost.IsValid());
    QVERIFY(mounted.isEmpty());
    QVERIFY(ghost.MountPoints().isEmpty());
    QCOMPARE(g_warnings, QStringList());
}

QTEST_GUILESS_MAIN(tst_UDisks2NoService)
#include "tst_udisks2noservice.moc"
