#pragma once

#include <QMap>
#include <QObject>

#include <signal.h>

class QSocketNotifier;

// Delivers Unix signals as Qt signals on the event-loop thread. The kernel-level
// handler only writes the signal number into a socket pair (one per signal);
// a QSocketNotifier on the other end turns it into SignalReceived().
class tUnixSignalNotifier : public QObject
{
    Q_OBJECT
public:
    struct tSocketTuple
    {
        int sockets[2]; // [0] written by the handler, [1] watched by the notifier
        QSocketNotifier* notifier;
    };

    explicit tUnixSignalNotifier(QObject* parent = nullptr);
    ~tUnixSignalNotifier() override;

    bool RegisterSignal(int sig);
    void UnregisterSignal(int sig);

    static void SignalHandler(int sig, siginfo_t* info, void* context);

signals:
    void SignalReceived(int signNum);

private slots:
    void OnSocketActivated(int socketFd);

private:
    // Static because the kernel-level handler has no object to reach.
    static QMap<int, tSocketTuple> m_SocketTuples;
    struct sigaction m_Action;
};
