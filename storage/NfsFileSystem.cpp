#include "storage/NfsFileSystem.h"

#include "daemon/Logging.h"
#include "storage/NfsFileSystemInfo.h"

#include <QDir>
#include <QProcess>
#include <QTimer>

namespace
{
// SIGKILL ends a program at once unless it is stuck in the kernel.
constexpr int cKillWaitMs = 2000;
// What QProcess's own waits say when they give up.
const char* const cTimedOutText = "Process operation timed out";
} // namespace

tNfsFileSystem::tNfsFileSystem(const tNfsData& data, QObject* parent)
    : tFileSystem(parent)
    , m_Source(data.source)
    , m_Info(new tNfsFileSystemInfo(data, this))
    , m_Timeout(new QTimer(this))
{
    m_Timeout->setSingleShot(true);
    connect(m_Timeout, &QTimer::timeout, this, [this] {
        m_TimedOut = true;
        if (m_Process)
            m_Process->kill();
    });
}

tNfsFileSystem::~tNfsFileSystem()
{
    if (!m_Process)
        return;
    // Killed without its results reaching this half-destroyed object, and
    // waited for here: QProcess's destructor would warn and wait up to 30 s.
    m_Process->disconnect(this);
    m_Process->kill();
    m_Process->waitForFinished(cKillWaitMs);
}

void tNfsFileSystem::SetMountRoot(const QString& root)
{
    m_MountRoot = root;
}

void tNfsFileSystem::SetProcessTimeout(int ms)
{
    m_ProcessTimeoutMs = ms;
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

void tNfsFileSystem::Run(tStep step, const QString& program, const QStringList& arguments)
{
    m_Step = step;
    m_TimedOut = false;
    auto* process = new QProcess(this);
    m_Process = process;
    process->setProcessChannelMode(QProcess::MergedChannels);
    connect(process, &QProcess::errorOccurred, this, [this, process](QProcess::ProcessError error) {
        // The other errors end with finished().
        if (error == QProcess::FailedToStart)
            OnProcessEnded(process, tOutcome::FailedToStart);
    });
    connect(process, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), this,
            [this, process](int exitCode, QProcess::ExitStatus status) {
                if (m_TimedOut)
                    OnProcessEnded(process, tOutcome::TimedOut);
                else if (status == QProcess::NormalExit && exitCode == 0)
                    OnProcessEnded(process, tOutcome::Succeeded);
                else
                    OnProcessEnded(process, tOutcome::Failed);
            });
    m_Timeout->start(m_ProcessTimeoutMs);
    process->start(program, arguments);
}

void tNfsFileSystem::OnProcessEnded(QProcess* process, tOutcome outcome)
{
    if (process != m_Process)
        return;
    m_Timeout->stop();
    m_Process = nullptr;
    process->deleteLater();

    if (m_UnmountRequested && m_Step != tStep::Unmount) {
        // The mount was abandoned; whatever it got as far as is undone.
        m_UnmountRequested = false;
        m_Mounting = false;
        StartUmount();
        return;
    }
    switch (m_Step) {
    case tStep::Check:
        if (outcome == tOutcome::Succeeded) {
            // Mounting again anyway lets mount itself judge what is there.
            qCWarning(lcNfs, "tNfsFileSystem::Mount(): %s is already mounted", qUtf8Printable(m_MountPath));
            StartMountCommand(false);
        } else {
            StartMountCommand(true);
        }
        break;
    case tStep::Mount:
        OnMountEnded(*process, outcome);
        break;
    case tStep::Unmount:
        OnUmountEnded(*process, outcome);
        break;
    }
}

void tNfsFileSystem::Mount(const QString& options)
{
    if (m_Process) {
        qCWarning(lcNfs, "tNfsFileSystem::Mount(): still busy, not mounting");
        return;
    }
    m_Options = options;
    m_Mounting = true;
    if (m_MountPath.isEmpty()) {
        m_MountPath = MountPathFor(m_Source);
        StartMountCommand(true);
    } else {
        Run(tStep::Check, QStringLiteral("mountpoint"), {QStringLiteral("-q"), m_MountPath});
    }
}

void tNfsFileSystem::MountAfter(QObject* previous, const QString& options)
{
    m_Mounting = true;
    connect(previous, &QObject::destroyed, this, [this, options] {
        if (m_Mounting && !m_Process)
            Mount(options);
    });
}

void tNfsFileSystem::StartMountCommand(bool makeDirectory)
{
    m_MadeDirectory = makeDirectory && QDir().mkdir(m_MountPath);
    QStringList arguments{QStringLiteral("-t"), QStringLiteral("nfs"), m_Source, m_MountPath};
    if (!m_Options.isEmpty())
        arguments << QStringLiteral("-o") << m_Options;
    Run(tStep::Mount, QStringLiteral("mount"), arguments);
}

void tNfsFileSystem::OnMountEnded(QProcess& process, tOutcome outcome)
{
    m_Mounting = false;
    if (outcome == tOutcome::Succeeded) {
        Q_EMIT MountFinished(m_MountPath);
        return;
    }
    qCWarning(lcNfs, "tNfsFileSystem::Mount(): Mount command failed:\n%s", process.readAll().constData());
    // Otherwise every path a peer ever announced would leave a directory behind.
    if (m_MadeDirectory)
        QDir().rmdir(m_MountPath);
    m_MountPath.clear();
    Q_EMIT MountFinished(QString());
}

void tNfsFileSystem::Unmount()
{
    if (m_Mounting && !m_Process) {
        // Still waiting to mount: nothing to undo.
        m_Mounting = false;
        QTimer::singleShot(0, this, &tNfsFileSystem::UnmountFinished);
    } else if (!m_Process) {
        StartUmount();
    } else if (m_Step != tStep::Unmount) {
        m_UnmountRequested = true;
        m_Process->kill();
    }
}

void tNfsFileSystem::StartUmount()
{
    Run(tStep::Unmount, QStringLiteral("umount"), {QStringLiteral("-fl"), m_MountPath});
}

void tNfsFileSystem::OnUmountEnded(QProcess& process, tOutcome outcome)
{
    switch (outcome) {
    case tOutcome::FailedToStart:
        qCWarning(lcNfs, "tNfsFileSystem::Unmount(): waitForStarted() %s", qUtf8Printable(process.errorString()));
        break;
    case tOutcome::TimedOut:
        qCWarning(lcNfs, "tNfsFileSystem::Unmount(): waitForFinished() %s", cTimedOutText);
        break;
    case tOutcome::Succeeded:
    case tOutcome::Failed:
        if (outcome == tOutcome::Succeeded)
            qCInfo(lcNfs, "tNfsFileSystem::Unmount(): Successfully unmounted %s", qUtf8Printable(m_MountPath));
        else
            qCInfo(lcNfs, "tNfsFileSystem::Unmount(): Failed to unmount %s", qUtf8Printable(m_MountPath));
        // Fails harmlessly while the directory is still in use.
        QDir().rmdir(m_MountPath);
        break;
    }
    Q_EMIT UnmountFinished();
}
