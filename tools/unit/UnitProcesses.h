#pragma once

#include <QByteArray>
#include <QProcess>
#include <QString>
#include <QStringList>

// Runs a program to completion with a time limit and keeps its output apart.
struct tFinishedProcess
{
    int exitCode = -1;
    QProcess::ExitStatus exitStatus = QProcess::CrashExit;
    QByteArray out;
    QByteArray err;
};
tFinishedProcess RunToEnd(const QString& program, const QStringList& arguments, int timeoutMs = 20000);

// Asks a helper process to end, kills it if it will not, and waits.
void StopProcess(QProcess& process);

// Sends a Unix signal to a running process; to nothing once it has ended.
void SendSignal(const QProcess& process, int sig);
