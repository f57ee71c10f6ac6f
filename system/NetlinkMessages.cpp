#include "system/NetlinkMessages.h"

#include "daemon/Logging.h"

#include <linux/if_addr.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>

#include <cstring>

namespace
{
constexpr qint64 cHeaderSize = sizeof(nlmsghdr);
constexpr qint64 cIndexOffset = cHeaderSize + 4; // ifi_index and ifa_index sit here alike
constexpr qint64 cAddrHeaderSize = cHeaderSize + sizeof(ifaddrmsg);
constexpr qint64 cAttrHeaderSize = sizeof(rtattr);

template <typename T>
T Get(const char* data, qint64 offset)
{
    T value;
    std::memcpy(&value, data + offset, sizeof value);
    return value;
}

qint64 Align4(qint64 length)
{
    return (length + 3) & ~qint64(3);
}

void ProcessAddrMessage(const tNetlinkMessage& message, tNetworkInterfaceMonitor::InterfaceState* state)
{
    qint64 offset = cAddrHeaderSize;
    while (offset + cAttrHeaderSize <= message.length) {
        const auto attrLength = Get<quint16>(message.data, offset);
        const auto attrType = Get<quint16>(message.data, offset + 2);
        if (attrLength < cAttrHeaderSize || offset + attrLength > message.length)
            break;
        if (attrType == IFA_LOCAL && attrLength >= cAttrHeaderSize + 4) {
            const quint32 address = ntohl(Get<quint32>(message.data, offset + cAttrHeaderSize));
            if (message.type == RTM_NEWADDR)
                state->addresses.insert(address);
            else if (message.type == RTM_DELADDR)
                state->addresses.remove(address);
            else
                qCWarning(lcNetworkInterfaceMonitor, "tLinuxInterfaceMonitor::ProcessAddrMessage : Unexpected message type.");
        }
        offset += Align4(attrLength);
    }
}
} // namespace

void WalkNetlinkMessages(const char* data, qint64 size, const std::function<void(const tNetlinkMessage&)>& visit)
{
    qint64 offset = 0;
    while (size - offset >= cHeaderSize) {
        const auto length = Get<quint32>(data, offset);
        if (length < cHeaderSize || length > size - offset)
            break;
        tNetlinkMessage message;
        message.type = Get<quint16>(data, offset + 4);
        message.data = data + offset;
        message.length = length;
        visit(message);
        offset += Align4(length);
    }
}

bool NetlinkInterfaceIndex(const tNetlinkMessage& message, int* index)
{
    if (message.length < cIndexOffset + 4)
        return false;
    *index = Get<qint32>(message.data, cIndexOffset);
    return true;
}

void ApplyNetlinkMessage(const tNetlinkMessage& message, tNetworkInterfaceMonitor::InterfaceState* state)
{
    switch (message.type) {
    case RTM_NEWLINK:
        if (message.length >= cHeaderSize + sizeof(ifinfomsg)) {
            state->present = true;
            state->running = Get<ifinfomsg>(message.data, cHeaderSize).ifi_flags & IFF_RUNNING;
        }
        break;
    case RTM_DELLINK:
        state->present = false;
        break;
    case RTM_NEWADDR:
    case RTM_DELADDR:
        ProcessAddrMessage(message, state);
        break;
    default:
        break;
    }
}
