#pragma once

#include <QByteArray>

#include <functional>

// Splits the display application's byte stream into messages, each ended by
// one NUL byte. A message may grow to cMaxMessageBytes; a longer one is
// discarded whole, and the stream picks up again after its NUL, so a local
// program cannot make the daemon hold unbounded input.
class tMessageFramer
{
public:
    static constexpr int cMaxMessageBytes = 1024 * 1024;

    using MessageHandler = std::function<void(const QByteArray& message)>;
    using OversizeHandler = std::function<void()>;

    // Calls onMessage for every message completed by these bytes, in order,
    // and onOversize once for every message that outgrew the limit.
    void Feed(const char* data, qint64 size, const MessageHandler& onMessage, const OversizeHandler& onOversize);
    // Forgets a partial message: a new connection starts with none.
    void Reset();

private:
    QByteArray m_Pending;
    bool m_Discarding = false;
};
