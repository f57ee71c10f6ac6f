#pragma once

#include "system/NetworkInterfaceMonitor.h"

#include <QtGlobal>

#include <functional>

// Socket-free reading of rtnetlink messages, so that whatever the kernel (or
// anything else) puts in the buffer is walked by this code alone.

struct tNetlinkMessage
{
    quint16 type = 0;
    const char* data = nullptr; // the netlink header
    quint32 length = 0;         // the header's length field; fits in the buffer
};

// Calls `visit` for each whole message of the buffer, in order.
void WalkNetlinkMessages(const char* data, qint64 size, const std::function<void(const tNetlinkMessage&)>& visit);

// The interface index of a link or address message; false if the message is
// too short to hold one.
bool NetlinkInterfaceIndex(const tNetlinkMessage& message, int* index);

// Applies RTM_NEWLINK, RTM_DELLINK, RTM_NEWADDR and RTM_DELADDR to the state
// of their interface; other types leave it as it is.
void ApplyNetlinkMessage(const tNetlinkMessage& message, tNetworkInterfaceMonitor::InterfaceState* state);
