#include "daemon/LarkDaemon.h"

#include "daemon/Logging.h"
#include "system/UnixSignalNotifier.h"

#include <QCoreApplication>

#include <csignal>

tLarkDaemon::tLarkDaemon(const tDaemonConfig& config, QObject* parent)
    : QObject(parent)
{
    Q_UNUSED(config)
    m_SignalNotifier = new tUnixSignalNotifier(this);
    connect(m_SignalNotifier, &tUnixSignalNotifier::SignalReceived, this, &tLarkDaemon::SignalHandler);
    for (int sig : {SIGHUP, SIGTERM, SIGUSR1, SIGUSR2})
        m_SignalNotifier->RegisterSignal(sig);
}

tLarkDaemon::~tLarkDaemon() = default;

void tLarkDaemon::SignalHandler(int sigNum)
{
    switch (sigNum) {
    case SIGHUP:
        qCInfo(lcDaemon, "tLarkDaemon::SignalHandler(): Ignoring SIGHUP");
        break;
    case SIGTERM:
        qCInfo(lcDaemon, "tLarkDaemon::SignalHandler(): Handling SIGTERM");
        QCoreApplication::quit();
        break;
    default:
        break;
    }
}
