#include "UnitProcesses.h"

#include <signal.h>

tFinishedProcess RunToEnd(const QString& program, const QStringList& arguments, int timeoutMs)
{
    QProcess process;
    process.start(program, arguments);
    tFinishedProcess result;
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished();
        return result;
    }
    result.exitCode = process.exitCode();
    result.exitStatus = process.exitStatus();
    result.out = process.readAllStandardOutput();
    result.err = process.readAllStandardError();
    return result;
}

void StopProcess(QProcess& process)
{
    if (process.state() == QProcess::NotRunning)
        return;
    process.terminate();
    if (!process.waitForFinished(5000)) {
        process.kill();
        process.waitForFinished();
    }
}

void SendSignal(const QProcess& process, int sig)
{
    // A process that has ended (or never started) has id 0, and kill() with
    // 0 or -1 would signal the test's whole process group or every process.
    const pid_t pid = static_cast<pid_t>(process.processId());
    if (pid > 0)
        ::kill(pid, sig);
}
