#pragma once

#include "daemon/DaemonConfig.h"
#include "daemon/MessageFramer.h"
#include "system/NetworkInterfaceMonitor.h"

#include <QByteArray>
#include <QDateTime>
#include <QHash>
#include <QList>
#include <QMap>
#include <QObject>
#include <QSet>
#include <QString>

#include <functional>
#include <vector>

class QTcpServer;
class QTcpSocket;
class tFileSystem;
class tFileSystemInfo;
class tNfsFileSystem;
class tLinuxInterfaceMonitor;
class tServiceListener;
class tServicePublisher;
class tUDisks2;
class tUnixSignalNotifier;
struct tNfsData;
struct tVolumeDescription;

// The daemon's central object: owns every long-lived part and reacts to
// their events on the one event-loop thread. Its work is split by subject:
// lifecycle here, local volumes in MountingFlow.cpp, the display
// application in AppProtocol.cpp, peer shares in RemoteShares.cpp.
class tLarkDaemon : public QObject
{
    Q_OBJECT
public:
    explicit tLarkDaemon(const tDaemonConfig& config, QObject* parent = nullptr);
    ~tLarkDaemon() override;

    // The first word of each file, re-read whenever the file's modification
    // time differs from the last read.
    QString ContentId();
    QString SerialNumber();

    // The mount point as the display application sees it: below "/mnt" when
    // it lies below the NFS root.
    static QString PathForApp(const QString& nfsRoot, const QString& mountPoint);

    void AddNfsShare(const tNfsData& share);
    void RemoveNfsShare(const tNfsData& share);

signals:
    // The volumes present were asked for and those found are being mounted
    // (the start-up scan, or the rescan after SIGUSR2).
    void ScanFinished();
    // SIGTERM: the daemon is ending, once its queued commands have run.
    void Stopping();

private slots:
    void OnAppPendingConnection();
    void OnReadyRead();
    void OnFileSystemAdded(const QString& node);
    void OnFileSystemChanged(const QString& node);
    void OnFileSystemRemoved(const QString& node);
    void OnLocalMountFinished(const QString& mountPoint);
    void OnEnumerationFinished();
    void SignalHandler(int sigNum);
    void OnNetworkInterfaceStateChanged(const QString& name, const tNetworkInterfaceMonitor::InterfaceState& state);

private:
    // Mounting flow
    void MakeFriendlySymlink(const QString& mountPoint, const QString& friendlyName);
    void RemoveFriendlySymlink(const QString& mountPoint, const QString& friendlyName);
    void RemoveStaleLinks(const QString& directory);
    void OnLocalVolumeMounted(const QString& node, tFileSystem* fileSystem, const QString& mountPoint);
    void ManualScan();
    // Unmounts every mounted volume; then runs once the service has answered
    // for each local one.
    void UnmountAll(const std::function<void()>& then);

    // Display-application protocol
    void StartServer();
    void RepublishAll();
    void ProcessMessage(const QByteArray& message);
    void DropRemoteVolume(const QString& path, bool keepUnmounted);
    void RetireAppSocket(QTcpSocket* socket);
    bool AppConnected() const;
    // Sends one "dataarrival" document, NUL-terminated; returns its text.
    QByteArray SendToApp(const tVolumeDescription& description);
    void StopSharing();

    // Remote shares
    bool TreatedAsLocal(const tFileSystemInfo& info) const;
    tVolumeDescription RemoteDescription(const tFileSystemInfo& info, const QString& mountPath) const;
    QList<tFileSystem*> MountedRemoteVolumes() const;
    // After UnmountAll: each of these is mounted again once unmounted, if the
    // peer still announces it, and otherwise reported gone.
    void RemountRemoteVolumes(const QList<tFileSystem*>& unmounted);
    // Reports the share gone (if the application knew of it), unlists it and
    // frees it once umount has answered.
    void ForgetNfsShare(tNfsFileSystem* nfs, bool reported);
    void SendRemovalToApp(const QString& mountPoint);

    static QString ReadFirstWord(const QString& file, QDateTime& lastModified, QString& word);

    tUnixSignalNotifier* m_SignalNotifier = nullptr;
    tServicePublisher* m_Publisher = nullptr;
    tServiceListener* m_Listener = nullptr;
    quint16 m_Port;
    tUDisks2* m_UDisks2 = nullptr;
    QMap<QString, tFileSystem*> m_FileSystems;
    QList<tFileSystem*> m_RemoteFileSystems;
    QList<tFileSystem*> m_MountedFileSystems;
    // Local volumes whose Mount is not answered yet.
    QSet<tFileSystem*> m_MountingFileSystems;
    bool m_ScanPending = false;
    // What was exported and linked for each mounted node: its removal undoes
    // exactly that, whatever the service still says of the volume by then
    // (a pulled medium's objects are gone before its mount).
    struct tMountedVolume
    {
        QString mountPoint;
        QString linkName;
    };
    QMap<QString, tMountedVolume> m_MountedVolumes;
    QString m_VfatMountOpts;
    QString m_InternalSharePath;
    bool m_ChartSharingEnabled;
    QString m_ContentIdFile;
    QString m_ContentId;
    QDateTime m_ContentIdTime;
    QString m_SerialNumberFile;
    bool m_WriteableExports;
    bool m_TwoWayConnection;
    qint32 m_UnmountTimeoutPeriod;
    QString m_SerialNumber;
    QDateTime m_SerialNumberTime;
    QString m_NfsRoot;
    QString m_CodeName;
    QString m_TreatRemoteAsLocal;
    QTcpSocket* m_AppSocket = nullptr;
    QTcpServer* m_AppServer = nullptr;
    std::vector<char> m_ReceiveBuffer;
    tMessageFramer m_Framer;
    // Earlier clients still connected, oldest first.
    QList<QTcpSocket*> m_EarlierAppSockets;
    static constexpr int cMaxEarlierAppSockets = 8;
    tLinuxInterfaceMonitor* m_InterfaceMonitor = nullptr;
    bool m_SharingActive = false;
    QString m_SharingInterface; // while sharing is active
    // Peer shares unmounted by SIGUSR2 and not mounted again yet, with the
    // mount point the application was told of.
    QHash<tFileSystem*, QString> m_RemountingShares;
};
