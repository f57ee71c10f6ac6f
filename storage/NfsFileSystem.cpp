#include "storage/NfsFileSystem.h"

#include "daemon/Logging.h"
#include "storage/NfsFileSystemInfo.h"

#include <QDir>
#include <QProcess>

namespace
{
constexpr int cProcessWaitMs = 30000;

// A program that could not start or did not finish also ends with code 0.
bool Succeeded(const QProcess& process)
{
    return process.error() == QProcess::UnknownError && process.state() == QProcess::NotRunning
           && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}
} // namespace

tNfsFileSystem::tNfsFileSystem(const tNfsData& data, QObject* parent)
    : tFileSystem(parent)
    , m_Source(data.source)
    , m_Info(new tNfsFileSystemInfo(data, this))
{
}

void tNfsFileSystem::SetMountRoot(const QString& root)
{
    m_MountRoot = root;
}

tFileSystemInfo* tNfsFileSystem::Info() const
{
    return m_Info;
}

bool tNfsFileSystem::IsValid() const
{
    return !m_Source.isEmpty();
}

QStringList tNfsFileSystem::MountPoints() const
{
    return QStringList{m_MountPath};
}

QString tNfsFileSystem::MountPathFor(const QString& source)
{
    if (!m_MountRoot.isEmpty() && !m_MountRoot.endsWith(QLatin1Char('/')))
        m_MountRoot.append(QLatin1Char('/'));
    return m_MountRoot + QString(source).replace(QLatin1Char('/'), QLatin1Char('-'));
}

QString tNfsFileSystem::Mount(const QString& options)
{
    bool makeDirectory = true;
    if (m_MountPath.isEmpty()) {
        m_MountPath = MountPathFor(m_Source);
    } else {
        QProcess check;
        check.start(QStringLiteral("mountpoint"), {QStringLiteral("-q"), m_MountPath});
        check.waitForFinished(cProcessWaitMs);
        if (Succeeded(check)) {
            // Mounting again anyway lets mount itself judge what is there.
            qCWarning(lcNfs, "tNfsFileSystem::Mount(): %s is already mounted", qUtf8Printable(m_MountPath));
            makeDirectory = false;
        }
    }
    if (makeDirectory)
        QDir().mkdir(m_MountPath);

    QProcess process;
    QStringList arguments{QStringLiteral("-t"), QStringLiteral("nfs"), m_Source, m_MountPath};
    if (!options.isEmpty())
        arguments << QStringLiteral("-o") << options;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QStringLiteral("mount"), arguments);
    process.waitForFinished(cProcessWaitMs);
    if (Succeeded(process))
        return m_MountPath;

    m_MountPath.clear();
    qCWarning(lcNfs, "tNfsFileSystem::Mount(): Mount command failed:\n%s", process.readAll().constData());
    if (process.state() != QProcess::NotRunning) {
        process.kill();
        process.waitForFinished();
    }
    return QString();
}

void tNfsFileSystem::Unmount()
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QStringLiteral("umount"), {QStringLiteral("-fl"), m_MountPath});
    if (!process.waitForStarted(cProcessWaitMs)) {
        qCWarning(lcNfs, "tNfsFileSystem::Unmount(): waitForStarted() %s", qUtf8Printable(process.errorString()));
        return;
    }
    if (!process.waitForFinished(cProcessWaitMs)) {
        qCWarning(lcNfs, "tNfsFileSystem::Unmount(): waitForFinished() %s", qUtf8Printable(process.errorString()));
        process.kill();
        process.waitForFinished();
        return;
    }
    if (process.state() != QProcess::NotRunning) {
        qCWarning(lcNfs, "tNfsFileSystem::Unmount(): waitForFinished() returned but process is still running: %s",
                  qUtf8Printable(process.errorString()));
        return;
    }
    if (Succeeded(process))
        qCInfo(lcNfs, "tNfsFileSystem::Unmount(): Successfully unmounted %s", qUtf8Printable(m_MountPath));
    else
        qCInfo(lcNfs, "tNfsFileSystem::Unmount(): Failed to unmount %s", qUtf8Printable(m_MountPath));
    // Fails harmlessly while the directory is still in use.
    QDir().rmdir(m_MountPath);
}
