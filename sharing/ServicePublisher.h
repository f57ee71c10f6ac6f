#pragma once

#include "sharing/NfsData.h"

#include <QHostAddress>
#include <QMap>
#include <QObject>
#include <QString>
#include <QStringList>

#include <functional>

class QTimer;
class QUdpSocket;
class tCommandQueue;

// Exports this unit's chart volumes with `exportfs` and announces them once a
// second on the multicast group; grants the peer unit its own export entries.
//
// Nothing here waits: exportfs runs, and Stop() waits for the peer, in a
// queue of steps that run one after another in the order they were asked
// for, while the event loop carries on. What must follow them (unmounting a
// volume once it is unexported, quitting) goes behind them with
// AfterCommands() or waits for CommandsDone().
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
    // Withdraws every share and returns. When there were any, the commands
    // asked for afterwards wait until the peer has let go of them (see
    // SetRmtabPath) or 5 s have passed.
    void Stop();
    void RestartNfsServer();

    // Runs action once every command asked for before (Stop()'s wait
    // included) has ended: at once when none is pending. Not run if context
    // has been destroyed meanwhile, nor if the publisher goes first.
    void AfterCommands(QObject* context, std::function<void()> action);
    // Some command or wait is running or waiting for its turn.
    bool CommandsPending() const;
    // How long one exportfs may run before it is killed; 30 s unless set.
    void SetCommandTimeout(int ms);

    // Where the NFS server records its clients' mounts; Stop() waits on it.
    void SetRmtabPath(const QString& path) { m_RmtabPath = path; }

public slots:
    void SetPeerIpAddress(const QString& peerIpAddress);
    void Republish();

signals:
    // The last pending command has ended.
    void CommandsDone();

private:
    void Export(const QString& client, const QString& options, const QString& path);
    void Unexport(const QString& client, const QString& path);
    void ExportFlush();

    QString m_CodeName;
    QMap<QString, tNfsData> m_Shares;
    QUdpSocket* m_Socket = nullptr;
    bool m_Active = false;
    QHostAddress m_PeerAddress;
    QTimer* m_RepublishTimer = nullptr;
    QString m_RmtabPath;
    tCommandQueue* m_Commands;
};
