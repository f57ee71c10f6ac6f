#include "system/LinuxInterfaceMonitor.h"

#include "daemon/Logging.h"
#include "system/NetlinkMessages.h"

#include <QTcpSocket>

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

tLinuxInterfaceMonitor::tLinuxInterfaceMonitor(QObject* parent)
    : tNetworkInterfaceMonitor(parent)
{
    Open();
}

tLinuxInterfaceMonitor::~tLinuxInterfaceMonitor()
{
    CloseUnadopted();
}

// Closes the descriptor unless the socket object adopted it (it then closes it itself).
void tLinuxInterfaceMonitor::CloseUnadopted()
{
    if (m_NetlinkFd >= 0 && (!m_Socket || m_Socket->socketDescriptor() != m_NetlinkFd))
        close(m_NetlinkFd);
    m_NetlinkFd = -1;
}

void tLinuxInterfaceMonitor::Open()
{
    m_NetlinkFd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (m_NetlinkFd < 0) {
        qCWarning(lcNetworkInterfaceMonitor, "tLinuxInterfaceMonitor::tLinuxInterfaceMonitor : Failed to open NETLINK_ROUTE socket.");
        return;
    }
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    local.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR;
    if (bind(m_NetlinkFd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0)
        qCWarning(lcNetworkInterfaceMonitor, "tLinuxInterfaceMonitor::tLinuxInterfaceMonitor : Failed to bind.");

    // The socket object only provides event-loop notification and buffering.
    m_Socket = new QTcpSocket(this);
    if (!m_Socket->setSocketDescriptor(m_NetlinkFd, QAbstractSocket::ConnectedState, QIODevice::ReadOnly)) {
        qCWarning(lcNetworkInterfaceMonitor, "tLinuxInterfaceMonitor::tLinuxInterfaceMonitor : Failed to set socket fd.");
        return;
    }
    connect(m_Socket, &QTcpSocket::readyRead, this, &tLinuxInterfaceMonitor::OnReadyRead);
    // When notifications overflow the socket buffer, the kernel fails the next
    // read with ENOBUFS and the socket object gives up on the descriptor.
    connect(m_Socket, &QAbstractSocket::errorOccurred, this, &tLinuxInterfaceMonitor::OnSocketError);
    Resynchronise();
}

void tLinuxInterfaceMonitor::OnSocketError()
{
    qCWarning(lcNetworkInterfaceMonitor, "tLinuxInterfaceMonitor::OnReadyRead : Overrun error - resynchronizing.");
    QTcpSocket* lost = m_Socket;
    lost->disconnect(this);
    lost->deleteLater();
    m_Socket = nullptr;
    m_NetlinkFd = -1;
    Open();
}

void tLinuxInterfaceMonitor::AddInterface(const QString& name)
{
    m_Watched.insert(name);
    const auto it = m_States.constFind(name);
    if (it != m_States.cend())
        Q_EMIT StateChanged(name, it.value());
}

void tLinuxInterfaceMonitor::RemoveAllInterfaces()
{
    m_Watched.clear();
}

void tLinuxInterfaceMonitor::RemoveInterface(const QString& name)
{
    m_Watched.erase(name);
}

void tLinuxInterfaceMonitor::Resynchronise()
{
    m_SyncPhase = cDumpingLinks;
    m_DumpedAddresses.clear();
    SendMessageToKernel(RTM_GETLINK);
}

void tLinuxInterfaceMonitor::SendMessageToKernel(quint16 type)
{
    struct
    {
        nlmsghdr header;
        rtgenmsg body;
        char padding[3];
    } request{};
    static_assert(sizeof request == 20, "a dump request is 20 bytes");
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = type;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.header.nlmsg_seq = m_SequenceNumber;
    request.body.rtgen_family = AF_INET;
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    if (sendto(m_NetlinkFd, &request, sizeof request, 0, reinterpret_cast<sockaddr*>(&kernel), sizeof kernel) < 0)
        qCWarning(lcNetworkInterfaceMonitor, "tLinuxInterfaceMonitor::SendMessageToKernel : Failed to send message to netlink socket.");
}

void tLinuxInterfaceMonitor::OnReadyRead()
{
    std::set<QString> touched;
    while (m_Socket->bytesAvailable() > 0) {
        const QByteArray buffer = m_Socket->readAll();
        WalkNetlinkMessages(buffer.constData(), buffer.size(),
                            [&](const tNetlinkMessage& message) { ProcessMessage(message, &touched); });
    }
    for (const QString& name : touched) {
        if (m_Watched.count(name))
            Q_EMIT StateChanged(name, m_States.value(name));
    }
}

void tLinuxInterfaceMonitor::ProcessMessage(const tNetlinkMessage& message, std::set<QString>* touched)
{
    switch (message.type) {
    case NLMSG_NOOP:
        return;
    case NLMSG_ERROR:
    case NLMSG_OVERRUN:
        qCWarning(lcNetworkInterfaceMonitor, "tLinuxInterfaceMonitor::OnReadyRead : Overrun error - resynchronizing.");
        Resynchronise();
        return;
    case NLMSG_DONE:
        if (m_SyncPhase == cDumpingLinks) {
            qCDebug(lcNetworkInterfaceMonitor, "tLinuxInterfaceMonitor::OnReadyRead : Retrieved link state, requesting address state.");
            m_SyncPhase = cDumpingAddresses;
            SendMessageToKernel(RTM_GETADDR);
        } else if (m_SyncPhase == cDumpingAddresses) {
            qCInfo(lcNetworkInterfaceMonitor, "tLinuxInterfaceMonitor::OnReadyRead : Retrieved address state, waiting for changes.");
            m_SyncPhase = cFollowingChanges;
            ReplaceAddressesWithDump(touched);
        } else {
            qCWarning(lcNetworkInterfaceMonitor, "tLinuxInterfaceMonitor::OnReadyRead : Unexpected NLMSG_DONE message.");
        }
        return;
    default:
        break;
    }

    int index = 0;
    if (!NetlinkInterfaceIndex(message, &index))
        return;
    const QString name = InterfaceName(index);
    if (name.isEmpty())
        return;
    InterfaceState state = m_States.value(name);
    ApplyNetlinkMessage(message, &state);
    m_States.insert(name, state);
    touched->insert(name);
    if (m_SyncPhase == cDumpingAddresses) {
        InterfaceState dumped;
        dumped.addresses = m_DumpedAddresses.value(name);
        ApplyNetlinkMessage(message, &dumped);
        m_DumpedAddresses.insert(name, dumped.addresses);
    }
}

// Addresses removed while notifications were lost are absent from the dump:
// after a dump, an interface has exactly the addresses it reported.
void tLinuxInterfaceMonitor::ReplaceAddressesWithDump(std::set<QString>* touched)
{
    for (auto it = m_States.begin(); it != m_States.end(); ++it) {
        const QSet<quint32> dumped = m_DumpedAddresses.value(it.key());
        if (it.value().addresses != dumped) {
            it.value().addresses = dumped;
            touched->insert(it.key());
        }
    }
    m_DumpedAddresses.clear();
}

QString tLinuxInterfaceMonitor::InterfaceName(int index)
{
    char name[IF_NAMESIZE] = {};
    if (if_indextoname(static_cast<unsigned>(index), name)) {
        m_Names.insert(index, QString::fromLocal8Bit(name));
        return m_Names.value(index);
    }
    return m_Names.value(index);
}
