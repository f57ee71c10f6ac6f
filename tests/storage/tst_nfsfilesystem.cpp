// A peer's share mounted through the system's mount tools, here the
// recording stand-ins for mount, umount and mountpoint (tests/scripts/standins)
// first on PATH; they only make directories, nothing is really mounted.

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

private:
    QStringList Calls() const;
    tNfsData Share() const;

    QTemporaryDir m_Dir;
    QString m_Record;
    QString m_Refused;
};

void tNfsFileSystemTest::initTestCase()
{
    const QString standins = qEnvironmentVariable("LARKD_TEST_SCRIPTS") + QStringLiteral("/standins");
    qputenv("PATH", (standins + QLatin1Char(':') + qEnvironmentVariable("PATH")).toLocal8Bit());
    m_Record = m_Dir.filePath(QStringLiteral("calls"));
    m_Refused = m_Dir.filePath(QStringLiteral("refused"));
    qputenv("LARKD_RECORD_FILE", m_Record.toLocal8Bit());
    qputenv("LARKD_MOUNT_REFUSED", m_Refused.toLocal8Bit());
    qunsetenv("LARKD_STANDIN_TMPFS");
}

void tNfsFileSystemTest::init()
{
    QFile::remove(m_Record);
    QFile::remove(m_Refused);
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
    QCOMPARE(fileSystem.Mount(QStringLiteral("rsize=1280,ro")), expected);
    QCOMPARE(fileSystem.MountPoints(), QStringList{expected});
    QVERIFY(QFileInfo(expected).isDir());
    QCOMPARE(Calls(), QStringList{QStringLiteral("mount\t-t\tnfs\t169.254.3.7:/run/media/CHARTS\t") + expected
                                  + QStringLiteral("\t-o\trsize=1280,ro")});

    // An empty option string adds no "-o".
    tNfsFileSystem bare(Share());
    bare.SetMountRoot(m_Dir.filePath(QStringLiteral("bare")));
    QDir().mkdir(m_Dir.filePath(QStringLiteral("bare")));
    QVERIFY(!bare.Mount(QString()).isEmpty());
    QVERIFY2(Calls().last().endsWith(QStringLiteral("bare/169.254.3.7:-run-media-CHARTS")), qPrintable(Calls().last()));
}

void tNfsFileSystemTest::remountChecksWhetherStillMounted()
{
    tNfsFileSystem fileSystem(Share());
    fileSystem.SetMountRoot(m_Dir.path());
    const QString path = fileSystem.Mount(QStringLiteral("ro"));
    fileSystem.Unmount();
    QVERIFY(!fileSystem.Mount(QStringLiteral("ro")).isEmpty());
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
    QCOMPARE(mounted.Mount(QString()), QStringLiteral("/proc"));
    QTest::ignoreMessage(QtWarningMsg, "tNfsFileSystem::Mount(): /proc is already mounted");
    QCOMPARE(mounted.Mount(QString()), QStringLiteral("/proc"));
    QCOMPARE(Calls().mid(4), (QStringList{QStringLiteral("mount\t-t\tnfs\tproc\t/proc"),
                                          QStringLiteral("mountpoint\t-q\t/proc"),
                                          QStringLiteral("mount\t-t\tnfs\tproc\t/proc")}));
}

void tNfsFileSystemTest::failedMountForgetsThePath()
{
    QFile refused(m_Refused);
    QVERIFY(refused.open(QIODevice::WriteOnly));
    refused.close();
    tNfsFileSystem fileSystem(Share());
    fileSystem.SetMountRoot(m_Dir.path());
    QTest::ignoreMessage(QtWarningMsg, "tNfsFileSystem::Mount(): Mount command failed:\nmount.nfs: Connection refused\n");
    QCOMPARE(fileSystem.Mount(QStringLiteral("ro")), QString());
    QCOMPARE(fileSystem.MountPoints(), QStringList{QString()});
}

void tNfsFileSystemTest::unmountRemovesTheDirectory()
{
    tNfsFileSystem fileSystem(Share());
    fileSystem.SetMountRoot(m_Dir.path());
    const QString path = fileSystem.Mount(QStringLiteral("ro"));
    QVERIFY(QFileInfo(path).isDir());
    fileSystem.Unmount();
    QVERIFY(!QFileInfo::exists(path));
    // The path is kept for the next mount.
    QCOMPARE(fileSystem.MountPoints(), QStringList{path});
}

QTEST_GUILESS_MAIN(tNfsFileSystemTest)
#include "tst_nfsfilesystem.moc"
