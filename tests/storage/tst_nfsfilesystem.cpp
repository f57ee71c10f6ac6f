// A peer's share mounted through the system's mount tools, here the
// recording stand-ins for mount, umount and mountpoint (tools/unit/standins)
// first on PATH; they only make directories, nothing is really mounted. What
// the two-unit stories do not reach: a remount's check, a refused mount next
// to a directory that was there before, and a mount past its time-out.

#include "DaemonProcess.h"
#include "sharing/NfsData.h"
#include "storage/NfsFileSystem.h"

#include <QtTest>

namespace
{
// Starts the mount and returns its result, or "timeout" if none came.
QString MountAndWait(tNfsFileSystem& fileSystem, const QString& options)
{
    QSignalSpy finished(&fileSystem, &tNfsFileSystem::MountFinished);
    fileSystem.Mount(options);
    if (!finished.wait(5000) || fileSystem.MountPending())
        return QStringLiteral("timeout");
    return finished.first().first().toString();
}
} // namespace

class tNfsFileSystemTest : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase()
    {
        UseStandins(File("calls"));
        qputenv("LARKD_MOUNT_REFUSED", File("refused").toLocal8Bit());
        qputenv("LARKD_MOUNT_HANGS", File("hangs").toLocal8Bit());
        qunsetenv("LARKD_STANDIN_TMPFS");
        m_Share.source = QStringLiteral("169.254.3.7:/run/media/CHARTS");
    }

    void mountUnmountAndMountAgain()
    {
        tNfsFileSystem fileSystem(m_Share);
        fileSystem.SetMountRoot(m_Dir.path() + QLatin1Char('/'));
        const QString path = File("169.254.3.7:-run-media-CHARTS");
        QCOMPARE(MountAndWait(fileSystem, QStringLiteral("rsize=1280,ro")), path);
        QVERIFY(QFileInfo(path).isDir());

        QSignalSpy unmounted(&fileSystem, &tNfsFileSystem::UnmountFinished);
        fileSystem.Unmount();
        QVERIFY(unmounted.wait(5000));
        QVERIFY(!QFileInfo::exists(path));
        // The path is kept for the next mount, which first asks whether it is
        // still mounted; an empty option string adds no "-o".
        QCOMPARE(fileSystem.MountPoints(), QStringList{ path });
        QCOMPARE(MountAndWait(fileSystem, QString()), path);
        QFile calls(File("calls"));
        QVERIFY(calls.open(QIODevice::ReadOnly));
        const QString mount = QStringLiteral("mount\t-t\tnfs\t169.254.3.7:/run/media/CHARTS\t") + path;
        QCOMPARE(QString::fromUtf8(calls.readAll()).split('\n', Qt::SkipEmptyParts),
                 (QStringList{ mount + QStringLiteral("\t-o\trsize=1280,ro"), QStringLiteral("umount\t-fl\t") + path,
                               QStringLiteral("mountpoint\t-q\t") + path, mount }));
    }

    void refusedOrHangingMountLeavesNoDirectoryOfItsOwn()
    {
        const QString root = File("failed");
        const QString path = root + QStringLiteral("/169.254.3.7:-run-media-CHARTS");
        QVERIFY(QDir().mkdir(root));
        QVERIFY(QFile(File("refused")).open(QIODevice::WriteOnly));
        tNfsFileSystem fileSystem(m_Share);
        fileSystem.SetMountRoot(root);
        QCOMPARE(MountAndWait(fileSystem, QStringLiteral("ro")), QString());
        QCOMPARE(fileSystem.MountPoints(), QStringList{ QString() });
        QVERIFY(!QFileInfo::exists(path));
        // A directory that was there before stays.
        QVERIFY(QDir().mkdir(path));
        QCOMPARE(MountAndWait(fileSystem, QStringLiteral("ro")), QString());
        QVERIFY(QFileInfo(path).isDir());
        QVERIFY(QDir().rmdir(path) && QFile::remove(File("refused")));

        // Past its time-out the mount is killed and fails like a refused one.
        QVERIFY(QFile(File("hangs")).open(QIODevice::WriteOnly));
        fileSystem.SetProcessTimeout(500);
        QElapsedTimer clock;
        clock.start();
        QCOMPARE(MountAndWait(fileSystem, QStringLiteral("ro")), QString());
        QVERIFY2(clock.elapsed() < 3000, qPrintable(QString::number(clock.elapsed())));
        QVERIFY(!QFileInfo::exists(path));
    }

private:
    QString File(const char* name) const { return m_Dir.filePath(QLatin1String(name)); }

    QTemporaryDir m_Dir;
    tNfsData m_Share;
};

QTEST_GUILESS_MAIN(tNfsFileSystemTest)
#include "tst_nfsfilesystem.moc"
