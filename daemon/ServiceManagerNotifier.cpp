#include "daemon/ServiceManagerNotifier.h"

#include "daemon/Logging.h"

#include <QTimer>

#include <systemd/sd-daemon.h>

#include <algorithm>
#include <cstdint>

tServiceManagerNotifier::tServiceManagerNotifier(QObject* parent)
    : QObject(parent)
{
    // Only the loop's own timer pings: a loop stuck in a handler misses its
    // pings and the service manager restarts the daemon.
    uint64_t intervalUs = 0;
    if (sd_watchdog_enabled(0, &intervalUs) > 0 && intervalUs > 0) {
        // Half the interval, so that one late ping is not yet fatal.
        const auto periodMs = int(std::clamp<uint64_t>(intervalUs / 2000, 1, INT32_MAX));
        m_Watchdog = new QTimer(this);
        m_Watchdog->setInterval(periodMs);
        connect(m_Watchdog, &QTimer::timeout, this, [this] { Notify("WATCHDOG=1"); });
        m_Watchdog->start();
        qCInfo(lcDaemon, "tServiceManagerNotifier: watchdog ping every %d ms", periodMs);
    }
}

void tServiceManagerNotifier::Ready()
{
    if (m_Ready)
        return;
    m_Ready = true;
    Notify("READY=1");
}

void tServiceManagerNotifier::Stopping()
{
    if (m_Stopping)
        return;
    m_Stopping = true;
    Notify("STOPPING=1");
}

void tServiceManagerNotifier::Notify(const char* state)
{
    // The environment is kept: the watchdog needs NOTIFY_SOCKET for the whole run.
    const int result = sd_notify(0, state);
    // Once: a broken socket would otherwise warn at every watchdog ping.
    if (result < 0 && !m_FailureLogged) {
        m_FailureLogged = true;
        qCWarning(lcDaemon, "tServiceManagerNotifier: %s not sent: error %d", state, -result);
    }
}
