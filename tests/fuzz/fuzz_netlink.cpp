// Any bytes on the rtnetlink socket go through the message walk and the state
// update, as the interface monitor runs them.
#include "system/NetlinkMessages.h"

#include <QMap>

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    QMap<int, tNetworkInterfaceMonitor::InterfaceState> states;
    WalkNetlinkMessages(reinterpret_cast<const char*>(data), static_cast<qint64>(size),
                        [&](const tNetlinkMessage& message) {
                            int index = 0;
                            if (NetlinkInterfaceIndex(message, &index))
                                ApplyNetlinkMessage(message, &states[index]);
                        });
    return 0;
}
