#pragma once

#include <QObject>

class QTimer;

// Tells the service manager that started larkd (a Type=notify unit) when it is
// ready, when it stops, and that its event loop still turns. Started any other
// way (no NOTIFY_SOCKET) it sends nothing.
class tServiceManagerNotifier : public QObject
{
    Q_OBJECT
public:
    // Starts the watchdog pings when the service manager asks for them; they
    // go on while the loop turns, through a stop's last commands too.
    explicit tServiceManagerNotifier(QObject* parent = nullptr);

    // READY=1: the caller has finished starting up. Said once.
    void Ready();
    // STOPPING=1: the caller has begun to stop. Said once.
    void Stopping();

private:
    void Notify(const char* state);

    QTimer* m_Watchdog = nullptr;
    bool m_FailureLogged = false;
    bool m_Ready = false;
    bool m_Stopping = false;
};
