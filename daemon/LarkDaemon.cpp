#include "daemon/LarkDaemon.h"

#include "daemon/Logging.h"
#include "storage/FileSystem.h"
#include "sharing/ServiceListener.h"
#include "sharing/ServicePublisher.h"
#include "system/LinuxInterfaceMonitor.h"
#include "system/UnixSignalNotifier.h"
#include "udisks2/UDisks2.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QHostAddress>
#include <QTcpServer>
#include <QTextStream>
#include <QTimer>

#include <csignal>

namespace
{
const char* const cWatchedInterface = "eth0";
constexpr quint32 cLinkLocalPrefix = 0xA9FE; // 169.254.0.0/16
constexpr int cShutdownGraceMs = 7000;

bool HasLinkLocalAddress(const tNetworkInterfaceMonitor::InterfaceState& state)
{
    for (quint32 address : state.addresses) {
        if ((address >> 16) == cLinkLocalPrefix)
            return true;
    }
    return false;
}
} // namespace

tLarkDaemon::tLarkDaemon(const tDaemonConfig& config, QObject* parent)
    : QObject(parent)
    , m_Port(config.port)
    , m_VfatMountOpts(config.vfatMountOpts)
    , m_InternalSharePath(config.internalSharePath)
    , m_ChartSharingEnabled(!config.disableChartSharing)
    , m_ContentIdFile(config.contentIdFile)
    , m_SerialNumberFile(config.serialNumberFile)
    , m_WriteableExports(config.writeableExports)
    , m_TwoWayConnection(config.twoWayConnection)
    , m_UnmountTimeoutPeriod(config.unmountTimeoutPeriod)
    , m_NfsRoot(config.nfsRoot)
    , m_CodeName(config.codeName)
    , m_TreatRemoteAsLocal(config.treatRemoteAsLocal)
    , m_ReceiveBuffer(2048, 0)
{
    // Everything is connected before the first scan, so no volume is missed.
    m_UDisks2 = new tUDisks2(this);

    qRegisterMetaType<tNetworkInterfaceMonitor::InterfaceState>();
    m_InterfaceMonitor = new tLinuxInterfaceMonitor(this);
    connect(m_InterfaceMonitor, &tNetworkInterfaceMonitor::StateChanged, this,
            &tLarkDaemon::OnNetworkInterfaceStateChanged);
    m_SharingActive = false;

    connect(m_UDisks2, &tUDisks2::FileSystemAdded, this, &tLarkDaemon::OnFileSystemAdded);
    connect(m_UDisks2, &tUDisks2::FileSystemChanged, this, &tLarkDaemon::OnFileSystemChanged);
    connect(m_UDisks2, &tUDisks2::FileSystemRemoved, this, &tLarkDaemon::OnFileSystemRemoved);
    connect(m_UDisks2, &tUDisks2::EnumerationFinished, this, &tLarkDaemon::OnEnumerationFinished);

    m_SignalNotifier = new tUnixSignalNotifier(this);
    connect(m_SignalNotifier, &tUnixSignalNotifier::SignalReceived, this, &tLarkDaemon::SignalHandler);
    for (int sig : {SIGHUP, SIGTERM, SIGUSR1, SIGUSR2})
        m_SignalNotifier->RegisterSignal(sig);

    m_Publisher = new tServicePublisher(m_CodeName, this);

    if (m_ChartSharingEnabled) {
        m_Listener = new tServiceListener(config.peerMac, m_UnmountTimeoutPeriod, this);
        connect(m_Listener, &tServiceListener::PeerDiscovered, m_Publisher, &tServicePublisher::SetPeerIpAddress);
        connect(m_Listener, &tServiceListener::ServiceAdded, this, &tLarkDaemon::AddNfsShare);
        connect(m_Listener, &tServiceListener::ServiceRemoved, this, &tLarkDaemon::RemoveNfsShare);
    }

    m_AppSocket = nullptr;
    m_AppServer = new QTcpServer(this);
    StartServer();

    // With a two-way connection the display application names the interface.
    if (!m_TwoWayConnection)
        m_InterfaceMonitor->AddInterface(QString::fromLatin1(cWatchedInterface));

    ManualScan();
}

tLarkDaemon::~tLarkDaemon()
{
    // Peer shares stay mounted, only the objects go; those being unmounted
    // are children. A mount or umount still running is killed, not awaited.
    qDeleteAll(m_RemoteFileSystems);
}

QString tLarkDaemon::ContentId()
{
    return ReadFirstWord(m_ContentIdFile, m_ContentIdTime, m_ContentId);
}

QString tLarkDaemon::SerialNumber()
{
    return ReadFirstWord(m_SerialNumberFile, m_SerialNumberTime, m_SerialNumber);
}

QString tLarkDaemon::ReadFirstWord(const QString& file, QDateTime& lastModified, QString& word)
{
    const QDateTime modified = QFileInfo(file).lastModified();
    if (modified != lastModified) {
        QFile input(file);
        if (input.open(QIODevice::ReadOnly | QIODevice::Text)) {
            QTextStream stream(&input);
            stream.setCodec("UTF-8");
            QString first;
            stream >> first;
            word = first;
        }
        lastModified = modified;
    }
    return word;
}

void tLarkDaemon::SignalHandler(int sigNum)
{
    switch (sigNum) {
    case SIGHUP:
        qCInfo(lcDaemon, "tLarkDaemon::SignalHandler(): Ignoring SIGHUP");
        break;
    case SIGTERM:
        qCInfo(lcDaemon, "tLarkDaemon::SignalHandler(): Handling SIGTERM");
        emit Stopping();
        // Exports and unexports already queued still run (an unexport left
        // out would keep a pulled card exported), for at most 7 s.
        if (m_Publisher->CommandsPending()) {
            connect(m_Publisher, &tServicePublisher::CommandsDone, qApp, &QCoreApplication::quit);
            QTimer::singleShot(cShutdownGraceMs, qApp, &QCoreApplication::quit);
        } else {
            QCoreApplication::quit();
        }
        break;
    case SIGUSR1:
        qCInfo(lcDaemon, "tLarkDaemon::SignalHandler(): Handling SIGUSR1: Republishing all mounted filesystems");
        RepublishAll();
        break;
    case SIGUSR2:
        qCInfo(lcDaemon, "tLarkDaemon::SignalHandler(): SIGUSR2: Simulating removing/inserting SD card");
        {
            const QList<tFileSystem*> remote = MountedRemoteVolumes();
            // Scan once the service has answered these unmounts and its
            // reports of them have been handled: handled after the scan, they
            // would take the freshly mounted volumes for ejected ones.
            UnmountAll([this] { ManualScan(); });
            RemountRemoteVolumes(remote);
        }
        break;
    default:
        break;
    }
}

void tLarkDaemon::OnNetworkInterfaceStateChanged(const QString& name,
                                                 const tNetworkInterfaceMonitor::InterfaceState& state)
{
    if (!m_ChartSharingEnabled)
        return;
    // Whatever addresses remain: the link-local one may go with the carrier.
    if (!state.present || !state.running) {
        if (m_SharingActive)
            StopSharing();
        return;
    }
    // The peer is reached only over the direct cable, which has link-local addresses.
    if (!m_TwoWayConnection && !HasLinkLocalAddress(state))
        return;
    if (m_SharingActive || state.addresses.isEmpty())
        return;
    // Unspecified: the publisher binds to every IPv4 address.
    m_Publisher->Start(name, QHostAddress());
    m_Publisher->StartAnnouncing();
    m_Listener->Start(name, nullptr);
    m_SharingActive = true;
    m_SharingInterface = name;
}

void tLarkDaemon::StopSharing()
{
    m_Publisher->Stop();
    if (m_Listener)
        m_Listener->Stop();
    m_SharingActive = false;
    m_SharingInterface.clear();
}
