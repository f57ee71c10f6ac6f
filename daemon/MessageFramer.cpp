#include "daemon/MessageFramer.h"

#include <cstring>

void tMessageFramer::Feed(const char* data, qint64 size, const MessageHandler& onMessage,
                          const OversizeHandler& onOversize)
{
    const char* const end = data + size;
    while (data < end) {
        const char* nul = static_cast<const char*>(std::memchr(data, '\0', size_t(end - data)));
        const char* stop = nul ? nul : end;
        if (!m_Discarding) {
            if (m_Pending.size() + (stop - data) > cMaxMessageBytes) {
                m_Pending.clear();
                m_Pending.squeeze();
                m_Discarding = true;
                onOversize();
            } else {
                m_Pending.append(data, int(stop - data));
            }
        }
        if (!nul)
            return;
        data = nul + 1;
        if (m_Discarding) {
            m_Discarding = false;
            continue;
        }
        const QByteArray message = m_Pending;
        m_Pending.clear();
        onMessage(message);
    }
}

void tMessageFramer::Reset()
{
    m_Pending.clear();
    m_Discarding = false;
}
