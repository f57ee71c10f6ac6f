#include "daemon/DaemonConfig.h"
#include "daemon/LarkDaemon.h"
#include "daemon/Logging.h"

#include <QCoreApplication>

int main(int argc, char* argv[])
{
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

    tLarkDaemon daemon(config);
    return QCoreApplication::exec();
}
