#include "system/UnixSignalNotifier.h"

#include "daemon/Logging.h"

#include <QSocketNotifier>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

QMap<int, tUnixSignalNotifier::tSocketTuple> tUnixSignalNotifier::m_SocketTuples;

tUnixSignalNotifier::tUnixSignalNotifier(QObject* parent)
    : QObject(parent)
{
    std::memset(&m_Action, 0, sizeof(m_Action));
    m_Action.sa_sigaction = &tUnixSignalNotifier::SignalHandler;
    sigemptyset(&m_Action.sa_mask);
    // No SA_RESTART: a blocking call interrupted by one of our signals fails
    // with EINTR instead of silently resuming.
    m_Action.sa_flags = SA_SIGINFO;
}

tUnixSignalNotifier::~tUnixSignalNotifier()
{
    // The map entries stay (closed) until exit; the notifiers die as children.
    const QList<int> registered = m_SocketTuples.keys();
    for (int sig : registered) {
        const tSocketTuple& tuple = m_SocketTuples[sig];
        ::signal(sig, SIG_DFL);
        ::close(tuple.sockets[0]);
        ::close(tuple.sockets[1]);
    }
}

bool tUnixSignalNotifier::RegisterSignal(int sig)
{
    if (m_SocketTuples.contains(sig)) {
        qCWarning(lcDaemon, "tUnixSignalNotifier::RegisterSignal(): signal %d has already been registered", sig);
        return false;
    }
    // The entry and its sockets exist before the handler can ever run for sig.
    tSocketTuple& tuple = m_SocketTuples[sig];
    tuple = tSocketTuple{{0, 0}, nullptr};
    ::socketpair(AF_UNIX, SOCK_STREAM, 0, tuple.sockets);
    // A flood of signals must never block the handler on a full socket buffer.
    ::fcntl(tuple.sockets[0], F_SETFL, ::fcntl(tuple.sockets[0], F_GETFL) | O_NONBLOCK);
    tuple.notifier = new QSocketNotifier(tuple.sockets[1], QSocketNotifier::Read, this);
    connect(tuple.notifier, SIGNAL(activated(int)), this, SLOT(OnSocketActivated(int)));
    return ::sigaction(sig, &m_Action, nullptr) == 0;
}

void tUnixSignalNotifier::UnregisterSignal(int sig)
{
    const auto it = m_SocketTuples.find(sig);
    if (it == m_SocketTuples.end())
        return;
    ::signal(sig, SIG_DFL);
    ::close(it->sockets[0]);
    ::close(it->sockets[1]);
    delete it->notifier;
    m_SocketTuples.erase(it);
}

void tUnixSignalNotifier::SignalHandler(int sig, siginfo_t* info, void* context)
{
    Q_UNUSED(info)
    Q_UNUSED(context)
    // Signal context: a lookup and one write(), nothing else.
    const auto it = m_SocketTuples.constFind(sig);
    if (it == m_SocketTuples.constEnd())
        return;
    const int savedErrno = errno;
    const ssize_t written = ::write(it->sockets[0], &sig, sizeof(sig));
    Q_UNUSED(written)
    errno = savedErrno;
}

void tUnixSignalNotifier::OnSocketActivated(int socketFd)
{
    int sig = 0;
    const ssize_t got = ::read(socketFd, &sig, sizeof(sig));
    Q_UNUSED(got)
    emit SignalReceived(sig);
}
