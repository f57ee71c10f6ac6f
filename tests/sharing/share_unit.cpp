// A unit's publisher in its own network namespace, driven by the netns tests:
// one tab-separated command a line on stdin, answered with "ok" on stdout
// once the exportfs commands and waits it asked for have ended.
//   start IFACE | add PATH TYPE NAME CONTENTID SERIAL DETAIL READONLY
//   remove PATH | peer IP | withdraw | stop
// Usage: larkd_share_unit CODENAME RMTAB
#include "sharing/ServicePublisher.h"

#include <QCoreApplication>
#include <QHostAddress>
#include <QSocketNotifier>
#include <QStringList>

#include <cstdio>
#include <unistd.h>

namespace
{
void Run(tServicePublisher& publisher, const QStringList& f)
{
    const QString& command = f.value(0);
    if (command == QLatin1String("start")) {
        publisher.Start(f.value(1), QHostAddress());
        publisher.StartAnnouncing();
    } else if (command == QLatin1String("add")) {
        publisher.AddServiceNFS(f.value(1), f.value(2).toInt(), f.value(3), f.value(4), f.value(5), f.value(6),
                                f.value(7) == QLatin1String("1"));
    } else if (command == QLatin1String("remove")) {
        publisher.RemoveServiceNFS(f.value(1));
    } else if (command == QLatin1String("peer")) {
        publisher.SetPeerIpAddress(f.value(1));
    } else if (command == QLatin1String("withdraw")) {
        publisher.WithdrawAll();
    } else if (command == QLatin1String("stop")) {
        publisher.Stop();
    } else {
        std::printf("unknown %s\n", qPrintable(command));
    }
    publisher.AfterCommands(&publisher, [command]() {
        std::printf("ok %s\n", qPrintable(command));
        std::fflush(stdout);
    });
}
} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    const QStringList arguments = app.arguments();
    tServicePublisher publisher(arguments.value(1));
    publisher.SetRmtabPath(arguments.value(2));

    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QByteArray pending;
    QObject::connect(&input, &QSocketNotifier::activated, [&]() {
        char chunk[4096];
        const ssize_t got = read(STDIN_FILENO, chunk, sizeof chunk);
        if (got <= 0) {
            app.quit();
            return;
        }
        pending.append(chunk, static_cast<int>(got));
        int end;
        while ((end = pending.indexOf('\n')) >= 0) {
            const QString line = QString::fromUtf8(pending.left(end));
            pending.remove(0, end + 1);
            Run(publisher, line.split(QLatin1Char('\t')));
        }
    });
    std::printf("ready\n");
    std::fflush(stdout);
    return app.exec();
}
