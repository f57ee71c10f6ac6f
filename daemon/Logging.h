#pragma once

#include <QLoggingCategory>
#include <QString>
#include <QtGlobal>

Q_DECLARE_LOGGING_CATEGORY(lcDaemon)
Q_DECLARE_LOGGING_CATEGORY(lcNfs)
Q_DECLARE_LOGGING_CATEGORY(lcServiceListener)
Q_DECLARE_LOGGING_CATEGORY(lcServicePublisher)
Q_DECLARE_LOGGING_CATEGORY(lcUDisks2)
Q_DECLARE_LOGGING_CATEGORY(lcNetworkInterfaceMonitor)

// syslog(3) priority (LOG_USER facility) for a Qt message type.
int SyslogPriority(QtMsgType type);

// Message handler that sends the bare text to syslog; the text is syslog's
// format string, so a '%' in a message is expanded by syslog itself.
void SyslogMessageOutput(QtMsgType type, const QMessageLogContext& context, const QString& message);
