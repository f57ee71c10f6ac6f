// Any bytes a network peer can send go through the announcement reader; the
// writer is fed what the reader made of them.
#include "sharing/ShareDatagram.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    tDecodedShareMessage message;
    if (DecodeShareDatagram(reinterpret_cast<const char*>(data), static_cast<qint64>(size),
                            QStringLiteral("169.254.10.1"), &message))
        EncodeShareDatagram(message.type, message.share);
    return 0;
}
