#pragma once

#include <QByteArray>
#include <QFile>
#include <QList>
#include <QMutex>

#include <atomic>
#include <thread>

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
    ~tLogSink()
    {
        m_Stop = true;
        if (m_Reader.joinable())
            m_Reader.join();
        close(m_Fd);
    }
    tLogSink(const tLogSink&) = delete;
    tLogSink& operator=(const tLogSink&) = delete;

    bool IsBound() const { return m_Bound; }
    // Blocks until a datagram is there: true, or the time is up: false.
    bool Wait(int timeoutMs)
    {
        pollfd ready = {m_Fd, POLLIN, 0};
        return poll(&ready, 1, timeoutMs) == 1;
    }
    // Reads datagrams as they come, on a thread of its own: a logger that
    // lags lets the daemon's syslog() block once the socket's queue (ten
    // datagrams) is full, whatever the test is waiting for meanwhile.
    void ReadInBackground()
    {
        m_Reader = std::thread([this] {
            while (!m_Stop) {
                pollfd ready = {m_Fd, POLLIN, 0};
                if (poll(&ready, 1, 50) == 1)
                    Read();
            }
        });
    }
    // Every datagram received since the last call.
    QList<QByteArray> Drain()
    {
        Read();
        QMutexLocker lock(&m_Lock);
        QList<QByteArray> lines;
        lines.swap(m_Received);
        return lines;
    }

private:
    void Read()
    {
        char buffer[8192];
        ssize_t got;
        while ((got = recv(m_Fd, buffer, sizeof(buffer), 0)) > 0) {
            QMutexLocker lock(&m_Lock);
            m_Received << QByteArray(buffer, int(got));
        }
    }

    std::thread m_Reader;
    std::atomic<bool> m_Stop{false};
    QMutex m_Lock;
    QList<QByteArray> m_Received;
    int m_Fd = -1;
    bool m_Bound = false;
};
