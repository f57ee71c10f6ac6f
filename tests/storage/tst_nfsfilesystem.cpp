// A peer's share mounted through the system's mount tools, here the
// recording stand-ins for mount, umount and mountpoint (tools/unit/standins)
// first on PATH; they only make directories, nothing is really mounted. The
// tools run while the caller's event loop goes on: results come as signals.

#include "sharing/NfsData.h"
#include "storage/NfsFileSystem.h"

#include <QtTest>

class tNfsFileSystemTest : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void init();
    void mountPathFollowsRootAndSource();
    void mountRunsMountAndKeepsThePath();
    void remountChecksWhetherStillMounted();
    void failedMountForgetsThePath();
    void unmountRemovesTheDirectory();
    void hangingMountIsKilledOrAbandoned();

private:
    QStringList Calls() const;
    tNfsData Share() const;

    QTemporaryDir m_Dir;
    QString m_Record;
    QString m_Refused;
    QString m_Hangs;
};

namespace
{
// Starts the mount and returns its result, or "timeout" if none came.
QString MountAndWait(tNfsFileSystem& fileSystem, const QString& options)
{
    QSignalSpy finished(&fileSystem, &tNfsFileSystem::MountFinished);
    fileSystem.Mount(options);
    if (!fileSystem.MountPending())
        return QStringLiteral("not started");
    if (!finished.wait(5000) || fileSystem.MountPending())
        return QStringLiteral("timeout");
    return finished.first().first().toString();
}

bool UnmountAndWait(tNfsFileSystem& fileSystem)
{
    QSignalSpy finished(&fileSystem, &tNfsFileSystem::UnmountFinished);
    fileSystem.Unmount();
    return finished.wait(5000) && !fileSystem.Busy();
}
} // namespace

void tNfsFileSystemTest::initTestCase()
{
    const QString standins = qEnvironmentVariable("LARKD_UNIT_TOOLS") + QStringLiteral("/standins");
    qputenv("PATH", (standins + QLatin1Char(':') + qEnvironmentVariable("PATH")).toLocal8Bit());
    m_Record = m_Dir.filePath(QStringLiteral("calls"));
    m_Refused = m_Dir.filePath(QStringLiteral("refused"));
    m_Hangs = m_Dir.filePath(QStringLiteral("hangs"));
    qputenv("LARKD_RECORD_FILE", m_Record.toLocal8Bit());
    qputenv("LARKD_MOUNT_REFUSED", m_Refused.toLocal8Bit());
    qputenv("LARKD_MOUNT_HANGS", m_Hangs.toLocal8Bit());
    qunsetenv("LARKD_STANDIN_TMPFS");
}

void tNfsFileSystemTest::init()
{
    QFile::remove(m_Record);
    QFile::remove(m_Refused);
    QFile::remove(m_Hangs);
}

QStringList tNfsFileSystemTest::Calls() const
{
    QFile file(m_Record);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

tNfsData tNfsFileSystemTest::Share() const
{
    tNfsData share;
    share.source = QStringLiteral("169.254.3.7:/run/media/CHARTS");
    share.detail = QStringLiteral("Memory Card - Left");
    return share;
}

void tNfsFileSystemTest::mountPathFollowsRootAndSource()
{
    tNfsFileSystem fileSystem(Share());
    QCOMPARE(fileSystem.MountPathFor(QStringLiteral("10.0.0.2:/media/chart")), QStringLiteral("10.0.0.2:-media-chart"));
    fileSystem.SetMountRoot(QStringLiteral("/a/b"));
    QCOMPARE(fileSystem.MountPathFor(QStringLiteral("10.0.0.2:/media/chart")), QStringLiteral("/a/b/10.0.0.2:-media-chart"));
    fileSystem.SetMountRoot(QStringLiteral("/a/b/"));
    QCOMPARE(fileSystem.MountPathFor(QStringLiteral("x:/y")), QStringLiteral("/a/b/x:-y"));
}

void tNfsFileSystemTest::mountRunsMountAndKeepsThePath()
{
    tNfsFileSystem fileSystem(Share());
    // Never mounted: one empty mount point.
    QCOMPARE(fileSystem.MountPoints(), QStringList{QString()});
    fileSystem.SetMountRoot(m_Dir.path());
    const QString expected = m_Dir.filePath(QStringLiteral("169.254.3.7:-run-media-CHARTS"));
    QCOMPARE(MountAndWait(fileSystem, QStringLiteral("rsize=1280,ro")), expected);
    QCOMPARE(fileSystem.MountPoints(), QStringList{expected});
    QVERIFY(QFileInfo(expected).isDir());
    QCOMPARE(Calls(), QStringList{QStringLiteral("mount\t-t\tnfs\t169.254.3.7:/run/media/CHARTS\t") + expected
                                  + QStringLiteral("\t-o\trsize=1280,ro")});

    // An empty option string adds no "-o".
    tNfsFileSystem bare(Share());
    bare.SetMountRoot(m_Dir.filePath(QStringLiteral("bare")));
    QDir().mkdir(m_Dir.filePath(QStringLiteral("bare")));
    QVERIFY(MountAndWait(bare, QString()).endsWith(QStringLiteral("CHARTS")));
    QVERIFY2(Calls().last().endsWith(QStringLiteral("bare/169.254.3.7:-run-media-CHARTS")), qPrintable(Calls().last()));
}

void tNfsFileSystemTest::remountChecksWhetherStillMounted()
{
    tNfsFileSystem fileSystem(Share());
    fileSystem.SetMountRoot(m_Dir.path());
    const QString path = MountAndWait(fileSystem, QStringLiteral("ro"));
    QVERIFY(UnmountAndWait(fileSystem));
    QCOMPARE(MountAndWait(fileSystem, QStringLiteral("ro")), path);
    const QStringList calls = Calls();
    QCOMPARE(calls.size(), 4);
    QCOMPARE(calls.at(1), QStringLiteral("umount\t-fl\t") + path);
    // The stand-in made no real mount, so mountpoint says no and mount runs again.
    QCOMPARE(calls.at(2), QStringLiteral("mountpoint\t-q\t") + path);
    QVERIFY(calls.at(3).startsWith(QStringLiteral("mount\t")));

    // Where something is mounted, it warns and still lets mount decide.
    tNfsData proc;
    proc.source = QStringLiteral("proc");
    tNfsFileSystem mounted(proc);
    mounted.SetMountRoot(QStringLiteral("/"));
    QCOMPARE(MountAndWait(mounted, QString()), QStringLiteral("/proc"));
    QTest::ignoreMessage(QtWarningMsg, "tNfsFileSystem::Mount(): /proc is already mounted");
    QCOMPARE(MountAndWait(mounted, QString()), QStringLiteral("/proc"));
    QCOMPARE(Calls().mid(4), (QStringList{QStringLiteral("mount\t-t\tnfs\tproc\t/proc"),
                                          QStringLiteral("mountpoint\t-q\t/proc"),
                                          QStringLiteral("mount\t-t\tnfs\tproc\t/proc")}));
}

void tNfsFileSystemTest::failedMountForgetsThePath()
{
    QFile refused(m_Refused);
    QVERIFY(refused.open(QIODevice::WriteOnly));
    refused.close();
    const QString root = m_Dir.filePath(QStringLiteral("failed"));
    const QString path = root + QStringLiteral("/169.254.3.7:-run-media-CHARTS");
    QVERIFY(QDir().mkdir(root));
    tNfsFileSystem fileSystem(Share());
    fileSystem.SetMountRoot(root);
    const char* const failure = "tNfsFileSystem::Mount(): Mount command failed:\nmount.nfs: Connection refused\n";
    QTest::ignoreMessage(QtWarningMsg, failure);
    QCOMPARE(MountAndWait(fileSystem, QStringLiteral("ro")), QString());
    QCOMPARE(fileSystem.MountPoints(), QStringList{QString()});
    // The directory it made goes too, but not one that was there before.
    QVERIFY(!QFileInfo::exists(path));
    QVERIFY(QDir().mkdir(path));
    QTest::ignoreMessage(QtWarningMsg, failure);
    QCOMPARE(MountAndWait(fileSystem, QStringLiteral("ro")), QString());
    QVERIFY(QFileInfo(path).isDir());
}

void tNfsFileSystemTest::unmountRemovesTheDirectory()
{
    tNfsFileSystem fileSystem(Share());
    fileSystem.SetMountRoot(m_Dir.path());
    const QString path = MountAndWait(fileSystem, QStringLiteral("ro"));
    QVERIFY(QFileInfo(path).isDir());
    const QString unmounted = QStringLiteral("tNfsFileSystem::Unmount(): Successfully unmounted ") + path;
    QTest::ignoreMessage(QtInfoMsg, qPrintable(unmounted));
    QVERIFY(UnmountAndWait(fileSystem));
    QVERIFY(!QFileInfo::exists(path));
    // The path is kept for the next mount.
    QCOMPARE(fileSystem.MountPoints(), QStringList{path});
}

void tNfsFileSystemTest::hangingMountIsKilledOrAbandoned()
{
    QFile hangs(m_Hangs);
    QVERIFY(hangs.open(QIODevice::WriteOnly));
    hangs.close();
    const QString path = m_Dir.filePath(QStringLiteral("169.254.3.7:-run-media-CHARTS"));
    QElapsedTimer clock;

    // Past its time-out the mount is killed and fails; its directory goes.
    tNfsFileSystem timedOut(Share());
    timedOut.SetMountRoot(m_Dir.path());
    timedOut.SetProcessTimeout(500);
    clock.start();
    QTest::ignoreMessage(QtWarningMsg, "tNfsFileSystem::Mount(): Mount command failed:\n");
    QCOMPARE(MountAndWait(timedOut, QStringLiteral("ro")), QString());
    QVERIFY2(clock.elapsed() < 3000, qPrintable(QString::number(clock.elapsed())));
    QVERIFY(!QFileInfo::exists(path));

    // Unmounted while mounting: the mount is killed, never reported, and
    // the path unmounted all the same.
    tNfsFileSystem withdrawn(Share());
    withdrawn.SetMountRoot(m_Dir.path());
    QSignalSpy mounted(&withdrawn, &tNfsFileSystem::MountFinished);
    withdrawn.Mount(QStringLiteral("ro"));
    QTRY_COMPARE(Calls().size(), 2);
    QVERIFY(QFileInfo(path).isDir());
    clock.start();
    QVERIFY(UnmountAndWait(withdrawn));
    QVERIFY2(clock.elapsed() < 3000, qPrintable(QString::number(clock.elapsed())));
    QCOMPARE(Calls().last(), QStringLiteral("umount\t-fl\t") + path);
    QVERIFY(!QFileInfo::exists(path));
    QTest::qWait(100);
    QCOMPARE(mounted.count(), 0);
    QVERIFY(!withdrawn.MountPending());

    // Going away, it kills the mount without waiting for it.
    auto* dropped = new tNfsFileSystem(Share());
    dropped->Mount(QString());
    QTRY_COMPARE(Calls().size(), 3);
    clock.start();
    delete dropped;
    QVERIFY2(clock.elapsed() < 1000, qPrintable(QString::number(clock.elapsed())));
}

QTEST_GUILESS_MAIN(tNfsFileSystemTest)
#include "tst_nfsfilesystem.moc"
