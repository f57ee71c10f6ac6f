#include "sharing/ServiceListener.h"

#include "daemon/Logging.h"
#include "sharing/ShareDatagram.h"

#include <QHostAddress>
#include <QNetworkDatagram>
#include <QNetworkInterface>
#include <QThread>
#include <QTimer>
#include <QUdpSocket>

#include <arpa/inet.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/ether.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace
{
constexpr unsigned cArpAttempts = 4;
constexpr unsigned long cArpRetryMs = 250;
// The discard port: the datagram only has to make the kernel resolve the neighbour.
constexpr quint16 cNudgePort = 9;
// Far more than a peer shares; spoofed announcements could otherwise make
// the daemon mount without end.
constexpr int cMaxShares = 64;
// Senders remembered by the peer check; expired entries go first when full.
constexpr int cMaxPeerChecks = 256;

QHostAddress GroupAddress()
{
    return QHostAddress(QLatin1String(ShareDatagram::GroupAddress()));
}
} // namespace

tServiceListener::tServiceListener(const QString& peerMac, int expiryMs, QObject* parent)
    : QObject(parent)
    , m_ExpiryMs(expiryMs)
{
    RegisterNfsDataMetaType();
    if (peerMac.isEmpty())
        return;
    const QByteArray text = peerMac.toLatin1();
    if (const ether_addr* mac = ether_aton(text.constData())) {
        std::memcpy(m_PeerMac.data(), mac->ether_addr_octet, m_PeerMac.size());
        m_PeerCheckEnabled = true;
    } else {
        qCWarning(lcServiceListener, "Invalid peer MAC address: %s", qUtf8Printable(peerMac));
    }
}

void tServiceListener::Start(const QString& interfaceName, const QHostAddress* bindAddress)
{
    m_InterfaceName = interfaceName;
    delete m_Socket;
    m_Socket = new QUdpSocket(this);
    connect(m_Socket, &QUdpSocket::readyRead, this, &tServiceListener::OnReadyRead);
    // The peer's keep-alive comes by unicast, so the group address alone is
    // not enough. Bound to the interface, this socket outranks the
    // publisher's on the same port and is the one given unicast datagrams.
    m_Socket->bind(bindAddress ? *bindAddress : QHostAddress(QHostAddress::AnyIPv4), ShareDatagram::cPort,
                   QUdpSocket::ShareAddress);
    if (!bindAddress)
        ListenOnInterfaceOnly(interfaceName);
    const QNetworkInterface interface = QNetworkInterface::interfaceFromName(interfaceName);
    m_Socket->setMulticastInterface(interface);
    if (m_Socket->joinMulticastGroup(GroupAddress(), interface))
        qCInfo(lcServiceListener, "tServiceListener::Start - Joined mcast group OK");
    else
        qCInfo(lcServiceListener, "tServiceListener::Start - Failed to join mcast group");
}

void tServiceListener::Stop()
{
    if (!m_Socket)
        return;
    m_Socket->leaveMulticastGroup(GroupAddress());
    m_Socket->close();
}

void tServiceListener::DropService(const QString& source, bool keepUnmounted)
{
    if (!m_Services.contains(source))
        return;
    const tNfsData share = m_Services.take(source);
    if (keepUnmounted) {
        // Its timer goes on measuring how long the peer keeps announcing it.
        m_Ignored.insert(source);
    } else {
        // The next announcement brings the share back with a timer of its own.
        delete m_Timers.take(source);
        m_FullWarned = false;
    }
    Q_EMIT ServiceRemoved(share);
}

void tServiceListener::OnReadyRead()
{
    while (m_Socket->hasPendingDatagrams()) {
        QByteArray datagram(static_cast<int>(qMax<qint64>(m_Socket->pendingDatagramSize(), 0)), '\0');
        QHostAddress sender;
        const qint64 size = m_Socket->readDatagram(datagram.data(), datagram.size(), &sender);
        if (size < 0)
            continue;
        datagram.truncate(static_cast<int>(size));
        m_PeerCheckWaited = false;
        if (!ProcessDatagram(datagram, sender))
            return;
        // A sender that cannot be resolved costs about a second per datagram;
        // if it announces faster than that, this loop would never end. Let the
        // event loop run; the socket reports the remaining datagrams again.
        if (m_PeerCheckWaited)
            return;
    }
}

bool tServiceListener::ProcessDatagram(const QByteArray& datagram, const QHostAddress& sender)
{
    // Multicast loops back to the sender: never treat our own shares as the peer's.
    if (IsOwnAddress(sender))
        return true;

    // Any datagram from the peer, even the keep-alive byte, tells us its address.
    bool fromPeer = false;
    if (m_PeerCheckEnabled && IsPeer(sender)) {
        Q_EMIT PeerDiscovered(sender.toString());
        fromPeer = true;
    }

    tDecodedShareMessage message;
    if (!DecodeShareDatagram(datagram.constData(), datagram.size(), sender.toString(), &message))
        return true;
    if (message.jsonPresent && !message.jsonValid)
        qCWarning(lcServiceListener, "tServiceListener::OnReadyRead(): Failed to decode JSON data");
    tNfsData& share = message.share;
    share.fromPeer = fromPeer;

    if (!share.contentId.isEmpty())
        qCDebug(lcServiceListener, "tServiceListener::OnReadyRead(): Received content ID: %s",
                qUtf8Printable(share.contentId));
    if (!share.serialNumber.isEmpty()) {
        qCDebug(lcServiceListener, "tServiceListener::OnReadyRead(): Received serial number: %s",
                qUtf8Printable(share.serialNumber));
        qCDebug(lcServiceListener, "tServiceListener::OnReadyRead(): Received serial number: %s",
                qUtf8Printable(share.serialNumber));
    }
    if (!share.codeName.isEmpty())
        qCDebug(lcServiceListener, "tServiceListener::OnReadyRead(): Received Code Name: %s",
                qUtf8Printable(share.codeName));

    switch (message.type) {
    case ShareDatagram::cSharePresent:
        if (m_Ignored.contains(share.source)) {
            // Still announced: keep it ignored for another period.
            if (QTimer* timer = m_Timers.value(share.source))
                timer->start(m_ExpiryMs);
            return false;
        }
        if (!m_Services.contains(share.source)) {
            // A withdrawn share's timer still runs, so it counts until it expires.
            if (!m_Timers.contains(share.source) && m_Timers.size() >= cMaxShares) {
                // The sender's text stays out: syslog takes the line as its format.
                if (!m_FullWarned)
                    qCWarning(lcServiceListener, "tServiceListener::OnReadyRead(): %d shares known, ignoring new ones",
                              cMaxShares);
                m_FullWarned = true;
                break;
            }
            m_Services.insert(share.source, share);
            auto* timer = new QTimer(this);
            timer->setSingleShot(true);
            timer->setTimerType(Qt::VeryCoarseTimer);
            timer->setObjectName(share.source);
            connect(timer, &QTimer::timeout, this, &tServiceListener::OnServiceTimeout);
            m_Timers.insert(share.source, timer);
            timer->start(m_ExpiryMs);
            Q_EMIT ServiceAdded(share);
        } else if (QTimer* timer = m_Timers.value(share.source)) {
            timer->start(m_ExpiryMs);
        }
        break;
    case ShareDatagram::cShareWithdrawn:
        // The expiry timer keeps running and later reports the share once more, empty.
        m_Services.remove(share.source);
        Q_EMIT ServiceRemoved(share);
        break;
    default:
        qCWarning(lcServiceListener, "tServiceListener::OnReadyRead(): Received unknown message type %u",
                  static_cast<unsigned>(message.type));
        break;
    }
    return true;
}

void tServiceListener::OnServiceTimeout()
{
    auto* timer = qobject_cast<QTimer*>(sender());
    if (!timer)
        return;
    const QString key = timer->objectName();
    Q_EMIT ServiceRemoved(m_Services.value(key));
    m_Services.remove(key);
    m_Timers.remove(key);
    m_Ignored.remove(key);
    m_FullWarned = false;
    timer->deleteLater();
}

void tServiceListener::ListenOnInterfaceOnly(const QString& interfaceName)
{
    const int fd = static_cast<int>(m_Socket->socketDescriptor());
    const QByteArray device = interfaceName.toLocal8Bit();
    if (setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, device.constData(), socklen_t(device.size())) != 0)
        qCWarning(lcServiceListener, "tServiceListener::Start - cannot bind to interface %s: %s",
                  device.constData(), std::strerror(errno));
    // Other groups joined on the machine stay unheard, as with the socket
    // bound to the group address.
    const int all = 0;
    setsockopt(fd, IPPROTO_IP, IP_MULTICAST_ALL, &all, sizeof all);
}

bool tServiceListener::IsOwnAddress(const QHostAddress& sender) const
{
    const QList<QNetworkAddressEntry> entries = QNetworkInterface::interfaceFromName(m_InterfaceName).addressEntries();
    for (const QNetworkAddressEntry& entry : entries) {
        if (entry.ip().isEqual(sender, QHostAddress::TolerantConversion))
            return true;
    }
    return false;
}

void tServiceListener::Nudge(const QHostAddress& sender)
{
    m_Socket->writeDatagram(QByteArray(1, '\0'), sender, cNudgePort);
    QThread::msleep(cArpRetryMs);
    m_PeerCheckWaited = true;
}

bool tServiceListener::IsPeer(const QHostAddress& sender)
{
    // A sender that does not resolve costs a second's stall per check.
    const quint32 address = sender.toIPv4Address();
    const auto cached = m_PeerChecks.constFind(address);
    if (cached != m_PeerChecks.constEnd() && !cached->until.hasExpired())
        return cached->fromPeer;
    if (m_PeerChecks.size() >= cMaxPeerChecks) {
        for (auto it = m_PeerChecks.begin(); it != m_PeerChecks.end();) {
            if (it->until.hasExpired())
                it = m_PeerChecks.erase(it);
            else
                ++it;
        }
    }
    // Still full: that many senders within one period are spoofed. A new one
    // waits for room rather than buy another stall.
    if (m_PeerChecks.size() >= cMaxPeerChecks)
        return false;
    const bool fromPeer = IsPacketFromPeer(sender);
    m_PeerChecks.insert(address, tPeerCheck{fromPeer, QDeadlineTimer(qMax(m_ExpiryMs, 0))});
    return fromPeer;
}

bool tServiceListener::IsPacketFromPeer(const QHostAddress& sender)
{
    const QByteArray senderText = sender.toString().toLatin1();
    const QByteArray device = m_InterfaceName.toLocal8Bit();
    for (unsigned attempt = 1;; ++attempt) {
        arpreq request{};
        auto* protocolAddress = reinterpret_cast<sockaddr_in*>(&request.arp_pa);
        protocolAddress->sin_family = AF_INET;
        protocolAddress->sin_addr.s_addr = inet_addr(senderText.constData());
        request.arp_ha.sa_family = ARPHRD_ETHER;
        std::memcpy(request.arp_dev, device.constData(), qMin(sizeof request.arp_dev, size_t(device.size())));
        int error = 0;
        if (ioctl(static_cast<int>(m_Socket->socketDescriptor()), SIOCGARP, &request) != 0)
            error = errno;
        else if (!(request.arp_flags & ATF_COM))
            error = ENXIO; // the entry our nudge created is still being resolved: no address yet
        else
            return std::memcmp(request.arp_ha.sa_data, m_PeerMac.data(), m_PeerMac.size()) == 0;
        if (attempt == cArpAttempts) {
            qCWarning(lcServiceListener,
                      "tServiceListener::IsPacketFromPeer(): attempt %u to obtain MAC for %s failed with error %d",
                      attempt, senderText.constData(), error);
            Nudge(sender);
            return false;
        }
        Nudge(sender);
    }
}
