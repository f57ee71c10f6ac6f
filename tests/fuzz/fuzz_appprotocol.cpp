// Whatever a local program writes to the application port: the byte stream
// is split into messages across several reads, each message is decoded.
#include "daemon/AppRequest.h"
#include "daemon/MessageFramer.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

// The JSON parser sets up some state of its own once, on first use, which the
// leak check would otherwise charge to whichever input came first.
extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    for (const char* message : {"{", "{\"message\":{`", "{\"message\":[1,", "\"\\u12", "x", "{\"message\":{}}"})
        ParseAppRequest(QByteArray(message));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    // The first byte chooses the read size, so messages straddle reads.
    const size_t chunk = size_t(data[0]) % 64 + 1;
    const char* bytes = reinterpret_cast<const char*>(data + 1);
    size_t left = size - 1;
    tMessageFramer framer;
    while (left > 0) {
        const size_t now = left < chunk ? left : chunk;
        framer.Feed(
            bytes, qint64(now),
            [](const QByteArray& message) {
                if (message.size() > tMessageFramer::cMaxMessageBytes || message.contains('\0'))
                    std::abort();
                ParseAppRequest(message);
            },
            [] {});
        bytes += now;
        left -= now;
    }
    return 0;
}
