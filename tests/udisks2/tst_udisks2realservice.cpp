// The UDisks2 client against the machine's real udisksd (started on a private
// bus by tests/scripts/with-real-udisks.sh with a loop device carrying ext4):
// enumeration, a real Mount, an unmount behind the client's back, Unmount.

#include "udisks2/UDisks2.h"
#include "udisks2/UDisks2Block.h"
#include "udisks2/UDisks2FileSystem.h"

#include <QFile>
#include <QFileInfo>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

namespace {

// The mount options of path in this process's mount table, or a null string.
QString MountOptions(const QString& path)
{
    QFile mounts(QStringLiteral("/proc/self/mounts"));
    if (!mounts.open(QIODevice::ReadOnly))
        return QString();
    for (const QByteArray& line : mounts.readAll().split('\n')) {
        const QList<QByteArray> fields = line.split(' ');
        if (fields.size() > 3 && QString::fromUtf8(fields[1]) == path)
            return QString::fromUtf8(fields[3]);
    }
    return QString();
}

bool Enumerated(tUDisks2& registry)
{
    QSignalSpy finished(&registry, &tUDisks2::EnumerationFinished);
    registry.Enumerate();
    return finished.wait(10000);
}

// Mounts and waits for the service's answer: the path, or "no answer".
QString MountAndWait(tFileSystem& fileSystem, const QString& options)
{
    QSignalSpy finished(&fileSystem, &tFileSystem::MountFinished);
    fileSystem.Mount(options);
    return finished.wait(10000) ? finished.first().first().toString() : QStringLiteral("no answer");
}

} // namespace

class tst_UDisks2RealService : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void cleanup();
    void enumerationFindsTheLoopFilesystem();
    void mountUnmountBehindTheBackAndUnmount();
    void driveOnAnotherBusGetsNoFilesystem();

private:
    QString m_Partition;
    QString m_Node;
    QStringList m_Mounted;
    QTemporaryDir m_Scratch;
};

void tst_UDisks2RealService::initTestCase()
{
    m_Partition = qEnvironmentVariable("REAL_UDISKS_PARTITION");
    if (m_Partition.isEmpty())
        QSKIP("needs the real udisksd: run through tests/scripts/with-real-udisks.sh");
    m_Node = QFileInfo(m_Partition).fileName();
}

void tst_UDisks2RealService::cleanup()
{
    for (const QString& path : qAsConst(m_Mounted))
        if (!MountOptions(path).isNull())
            QProcess::execute(QStringLiteral("umount"), { path });
    m_Mounted.clear();
}

void tst_UDisks2RealService::enumerationFindsTheLoopFilesystem()
{
    tUDisks2 registry;
    QSignalSpy added(&registry, &tUDisks2::FileSystemAdded);
    QVERIFY(Enumerated(registry));

    QVERIFY2(tUDisks2::BlockDevices().contains(m_Node), qPrintable(tUDisks2::BlockDevices().join(' ')));
    tUDisks2Block* block = tUDisks2::Block(m_Node);
    QVERIFY(block);
    QCOMPARE(block->Device(), m_Partition);
    // udisksd counts a loop device as the system's own, and it has no drive
    // ("/"): either keeps it from ever reaching the daemon.
    QVERIFY(block->HintSystem());
    QCOMPARE(block->DriveName(), QString());
    QVERIFY(!tUDisks2::Drive(block));
    QVERIFY(!block->FileSystem());
    QVERIFY(!added.contains({ m_Node }));
}

void tst_UDisks2RealService::mountUnmountBehindTheBackAndUnmount()
{
    // The registry's block proxy with a filesystem proxy handed to it, as the
    // registry would for a volume on a drive.
    tUDisks2 registry;
    QVERIFY(Enumerated(registry));
    tUDisks2Block* block = tUDisks2::Block(m_Node);
    QVERIFY(block);
    auto* fileSystem = new tUDisks2FileSystem(m_Node, nullptr);
    block->SetFileSystem(fileSystem);
    QVERIFY(fileSystem->IsValid());
    QSignalSpy ejected(block, &tUDisks2Block::Ejected);

    const QString path = MountAndWait(*fileSystem, QStringLiteral("ro"));
    QVERIFY(!path.isEmpty());
    m_Mounted << path;
    QVERIFY(MountOptions(path).split(',').contains(QStringLiteral("ro")));
    QTRY_COMPARE_WITH_TIMEOUT(fileSystem->MountPoints(), QStringList{ path }, 10000);
    QCOMPARE(ejected.count(), 0);

    // Mounted a second time (a bind mount behind the client's back): both points.
    // (The directory outlives the test function, so cleanup() unmounts first.)
    const QString second = m_Scratch.path();
    QCOMPARE(QProcess::execute(QStringLiteral("mount"), { QStringLiteral("--bind"), path, second }), 0);
    m_Mounted << second;
    QTRY_COMPARE_WITH_TIMEOUT(fileSystem->MountPoints().size(), 2, 10000);
    QVERIFY(fileSystem->MountPoints().contains(second));
    QVERIFY(fileSystem->MountPoints().contains(path));
    QCOMPARE(QProcess::execute(QStringLiteral("umount"), { second }), 0);
    QTRY_COMPARE_WITH_TIMEOUT(fileSystem->MountPoints(), QStringList{ path }, 10000);
    QCOMPARE(ejected.count(), 0);

    QCOMPARE(QProcess::execute(QStringLiteral("umount"), { path }), 0);
    QTRY_COMPARE_WITH_TIMEOUT(ejected.count(), 1, 10000);
    QCOMPARE(ejected.first().first().toString(), m_Node);
    // The last known mount point stays: ejection is judged against it.
    QCOMPARE(fileSystem->MountPoints(), QStringList{ path });
    // udisksd removes the directory it made once it has seen the unmount;
    // mounting before that races its clean-up of the same name.
    QTRY_VERIFY_WITH_TIMEOUT(!QFileInfo::exists(path), 10000);

    const QString again = MountAndWait(*fileSystem, QString());
    QVERIFY(!again.isEmpty());
    m_Mounted << again;
    QTRY_COMPARE_WITH_TIMEOUT(fileSystem->MountPoints(), QStringList{ again }, 10000);
    QVERIFY(!MountOptions(again).isNull());
    fileSystem->Unmount();
    QTRY_COMPARE_WITH_TIMEOUT(ejected.count(), 2, 10000);
    QVERIFY(MountOptions(again).isNull());
}

void tst_UDisks2RealService::driveOnAnotherBusGetsNoFilesystem()
{
    // The loop disk has a drive, but on no bus the daemon knows (""). The
    // registry never gets that far with it (a system device), so ask its
    // block directly.
    tUDisks2 registry;
    QVERIFY(Enumerated(registry));
    const QString disk = QFileInfo(qEnvironmentVariable("REAL_UDISKS_LOOP")).fileName();
    tUDisks2Block block(disk, &registry);
    QVERIFY(tUDisks2::Drive(&block));
    QSignalSpy added(&block, &tUDisks2Block::FileSystemAdded);
    block.AddFilesystem();
    QVERIFY(!block.FileSystem());
    QCOMPARE(added.count(), 0);
}

QTEST_GUILESS_MAIN(tst_UDisks2RealService)
#include "tst_udisks2realservice.moc"
