#include "daemon/Logging.h"

#include <syslog.h>

// Debug lines are off unless QT_LOGGING_RULES turns them on.
Q_LOGGING_CATEGORY(lcDaemon, "lk.daemon", QtInfoMsg)
Q_LOGGING_CATEGORY(lcNfs, "lk.nfs", QtInfoMsg)
Q_LOGGING_CATEGORY(lcServiceListener, "lk.servicelistener", QtInfoMsg)
Q_LOGGING_CATEGORY(lcServicePublisher, "lk.servicepublisher", QtInfoMsg)
Q_LOGGING_CATEGORY(lcUDisks2, "lk.udisks2", QtInfoMsg)
Q_LOGGING_CATEGORY(lcNetworkInterfaceMonitor, "lk.networkinterfacemonitor", QtInfoMsg)

int SyslogPriority(QtMsgType type)
{
    switch (static_cast<int>(type)) {
    case QtDebugMsg:
        return LOG_USER | LOG_DEBUG;
    case QtWarningMsg:
        return LOG_USER | LOG_WARNING;
    case QtCriticalMsg:
        return LOG_USER | LOG_CRIT;
    case QtFatalMsg:
        return LOG_USER | LOG_ALERT;
    case QtInfoMsg:
        return LOG_USER | LOG_INFO;
    default:
        return LOG_USER | LOG_EMERG;
    }
}

void SyslogMessageOutput(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    Q_UNUSED(context)
    // Labels, paths and datagram strings reach log lines: the text is data,
    // never a format.
    syslog(SyslogPriority(type), "%s", message.toUtf8().constData());
}
