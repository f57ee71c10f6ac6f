#include "daemon/DaemonConfig.h"
#include "daemon/LarkDaemon.h"
#include "daemon/Logging.h"
#include "daemon/ServiceManagerNotifier.h"

#include <QCoreApplication>

#include <malloc.h>

int main(int argc, char* argv[])
{
    // A fixed threshold: large buffers (a message near its 1 MiB limit) are
    // mapped and given back when freed, instead of raising the threshold and
    // staying resident in the heap for the daemon's lifetime.
    mallopt(M_MMAP_THRESHOLD, 128 * 1024);
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("larkd"));
    QCoreApplication::setApplicationVersion(QStringLiteral("2.0"));

    tDaemonConfig config;
    QString errorMessage;
    if (!ParseCommandLine(app, config, errorMessage)) {
        // Still the console handler: syslog is installed only after a good parse.
        qCritical("%s", qUtf8Printable(errorMessage));
        return 22;
    }
    if (!config.disableSyslog)
        qInstallMessageHandler(SyslogMessageOutput);

    tServiceManagerNotifier serviceManager;
    tLarkDaemon daemon(config);
    // Ready once the daemon listens for the application (it does once
    // constructed) and the start-up scan has found what is present.
    QObject::connect(&daemon, &tLarkDaemon::ScanFinished, &serviceManager, &tServiceManagerNotifier::Ready);
    QObject::connect(&daemon, &tLarkDaemon::Stopping, &serviceManager, &tServiceManagerNotifier::Stopping);
    return QCoreApplication::exec();
}
