// The registry on a system bus where UDisks2 is not running (yet): the unit
// boots before the service, or the service died: nothing to show, one
// warning, and every call answered (with failure) rather than left hanging.

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
    QSignalSpy enumerated(&registry, &tUDisks2::EnumerationFinished);
    registry.Enumerate();
    QVERIFY(enumerated.wait(5000));
    const QStringList blocks = tUDisks2::BlockDevices();
    const QStringList driveNames = tUDisks2::Drives();
    tUDisks2FileSystem ghost(QStringLiteral("sda1"), nullptr);
    QSignalSpy mountAnswered(&ghost, &tFileSystem::MountFinished);
    QSignalSpy unmountAnswered(&ghost, &tFileSystem::UnmountFinished);
    ghost.Mount(QStringLiteral("ro"));
    ghost.Unmount();
    QVERIFY(unmountAnswered.wait(5000));
    qInstallMessageHandler(previous);

    QVERIFY(blocks.isEmpty());
    QVERIFY(driveNames.isEmpty());
    QCOMPARE(added.count(), 0);
    QCOMPARE(drives.count(), 0);
    QVERIFY(!tUDisks2::Block(QStringLiteral("sda1")));
    QVERIFY(!ghost.IsValid());
    QCOMPARE(mountAnswered.count(), 1);
    QCOMPARE(mountAnswered.first().first().toString(), QString());
    QVERIFY(ghost.MountPoints().isEmpty());
    QCOMPARE(g_warnings.size(), 1);
    QVERIFY2(g_warnings.first().startsWith("tUDisks2::Enumerate(): the service does not answer: "),
             qPrintable(g_warnings.first()));
}

QTEST_GUILESS_MAIN(tst_UDisks2NoService)
#include "tst_udisks2noservice.moc"
