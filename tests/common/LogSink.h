#pragma once

#include <QByteArray>
#include <QFile>
#include <QList>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

// A Unix datagram socket standing in for the system logger.
class tLogSink
{
public:
    explicit tLogSink(const QString& path)
    {
        m_Fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        qstrncpy(address.sun_path, QFile::encodeName(path).constData(), sizeof(address.sun_path));
        m_Bound = bind(m_Fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    }
    ~tLogSink() { close(m_Fd); }
    tLogSink(const tLogSink&) = delete;
    tLogSink& operator=(const tLogSink&) = delete;

    bool IsBound() const { return m_Bound; }
    // Blocks until a datagram is there: true, or the time is up: false.
    bool Wait(int timeoutMs)
    {
        pollfd ready = {m_Fd, POLLIN, 0};
        return poll(&ready, 1, timeoutMs) == 1;
    }
    // Every datagram received since the last call.
    QList<QByteArray> Drain()
    {
        QList<QByteArray> lines;
        char buffer[8192];
        ssize_t got;
        while ((got = recv(m_Fd, buffer, sizeof(buffer), 0)) > 0)
            lines << QByteArray(buffer, int(got));
        return lines;
    }

private:
    int m_Fd = -1;
    bool m_Bound = false;
};
