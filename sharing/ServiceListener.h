#pragma once

#include "sharing/NfsData.h"

#include <QDeadlineTimer>
#include <QHash>
#include <QMap>
#include <QObject>
#include <QSet>
#include <QString>

#include <array>

class QHostAddress;
class QTimer;
class QUdpSocket;

// Receives the peer unit's share announcements, keeps the shares that are
// alive (one expiry timer each) and recognises the peer by its MAC address.
class tServiceListener : public QObject
{
    Q_OBJECT
public:
    tServiceListener(const QString& peerMac, int expiryMs, QObject* parent = nullptr);

    void Start(const QString& interfaceName, const QHostAddress* bindAddress);
    void Stop();
    // Lets go of a share at the display application's request: reports it
    // removed at once. With keepUnmounted its announcements are then ignored
    // until the peer stops making them, so it is not mounted again meanwhile.
    void DropService(const QString& source, bool keepUnmounted);

    // The share is believed alive: announced, neither withdrawn nor expired.
    bool Announces(const QString& source) const { return m_Services.contains(source); }

signals:
    void ServiceAdded(const tNfsData& nfsData);
    void ServiceRemoved(const tNfsData& nfsData);
    void PeerDiscovered(const QString& peerIpAddress);

private slots:
    void OnReadyRead();
    void OnServiceTimeout();

private:
    // Group datagrams and unicast ones to any address, but only from this interface.
    void ListenOnInterfaceOnly(const QString& interfaceName);
    bool IsOwnAddress(const QHostAddress& sender) const;
    // IsPacketFromPeer's answer, asked at most once per expiry period and sender.
    bool IsPeer(const QHostAddress& sender);
    bool IsPacketFromPeer(const QHostAddress& sender);
    void Nudge(const QHostAddress& sender);
    // False when processing must stop for this batch of datagrams.
    bool ProcessDatagram(const QByteArray& datagram, const QHostAddress& sender);

    QMap<QString, tNfsData> m_Services;
    QMap<QString, QTimer*> m_Timers;
    QSet<QString> m_Ignored; // dropped and kept unmounted; their announcements are skipped
    std::array<unsigned char, 6> m_PeerMac{};
    bool m_PeerCheckEnabled = false;
    int m_ExpiryMs;
    QString m_InterfaceName;
    QUdpSocket* m_Socket = nullptr;
    bool m_PeerCheckWaited = false; // the current datagram's peer check had to sleep
    struct tPeerCheck
    {
        bool fromPeer;
        QDeadlineTimer until;
    };
    QHash<quint32, tPeerCheck> m_PeerChecks; // by IPv4 address
    bool m_FullWarned = false; // the share limit was reported since it was last reached
};
