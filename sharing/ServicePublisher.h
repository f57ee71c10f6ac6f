#pragma once

#include "sharing/NfsData.h"

#include <QHostAddress>
#include <QMap>
#include <QObject>
#include <QString>
#include <QStringList>

class QDateTime;
class QTimer;
class QUdpSocket;

// Exports this unit's chart volumes with `exportfs` and announces them once a
// second on the multicast group; grants the peer unit its own export entries.
class tServicePublisher : public QObject
{
    Q_OBJECT
public:
    tServicePublisher(const QString& codeName, QObject* parent = nullptr);

    void Start(const QString& interfaceName, const QHostAddress& localAddress);
    void StartAnnouncing();
    void SendMessage(quint16 type, const tNfsData& share);
    void AddServiceNFS(const QString& path, int shareType, const QString& name, const QString& contentId,
                       const QString& serialNumber, const QString& detail, bool readOnly);
    void RemoveServiceNFS(const QString& path);
    void WithdrawAll();
    // Withdraws every share; when there were any, blocks until the peer has
    // let go of them (see SetRmtabPath) or 5 s have passed.
    void Stop();
    void RestartNfsServer();

    // Where the NFS server records its clients' mounts; Stop() waits on it.
    void SetRmtabPath(const QString& path) { m_RmtabPath = path; }

public slots:
    void SetPeerIpAddress(const QString& peerIpAddress);
    void Republish();

private:
    void Export(const QString& client, const QString& options, const QString& path);
    void Unexport(const QString& client, const QString& path);
    void ExportFlush();
    void WaitForPeerToReleaseExports(const QDateTime& before);

    QString m_CodeName;
    QMap<QString, tNfsData> m_Shares;
    QUdpSocket* m_Socket = nullptr;
    bool m_Active = false;
    QHostAddress m_PeerAddress;
    QTimer* m_RepublishTimer = nullptr;
    QString m_RmtabPath;
};
