#include "sharing/ServicePublisher.h"

#include "daemon/Logging.h"
#include "sharing/CommandQueue.h"
#include "sharing/ShareDatagram.h"

#include <QDateTime>
#include <QFileInfo>
#include <QNetworkInterface>
#include <QTimer>
#include <QUdpSocket>

namespace
{
constexpr int cExportFlushDelayMs = 2000;
constexpr int cRmtabPolls = 5;
constexpr int cRmtabPollMs = 1000;
constexpr int cRmtabSettleMs = 2000;
const QString cExportfs = QStringLiteral("exportfs");
const QString cExportOptionsSuffix = QStringLiteral(",no_root_squash,no_subtree_check");
const QString cAnyClient = QStringLiteral("*");
const QString cReadOnly = QStringLiteral("ro");
const QString cReadWrite = QStringLiteral("rw");

// The pauses of the wait for the peer to let go of its mounts, which show up
// as changes of rmtab: a second at a time, at most five, and two more once
// the file has changed.
std::function<int()> RmtabPauses(const QString& rmtab, const QDateTime& before)
{
    return [rmtab, before, polls = 0, settling = false]() mutable {
        if (settling)
            return -1;
        if (polls > 0 && QFileInfo(rmtab).lastModified() != before) {
            settling = true;
            return cRmtabSettleMs;
        }
        if (polls == cRmtabPolls)
            return -1;
        ++polls;
        return cRmtabPollMs;
    };
}
} // namespace

tServicePublisher::tServicePublisher(const QString& codeName, QObject* parent)
    : QObject(parent)
    , m_CodeName(codeName)
    , m_RmtabPath(QStringLiteral("/var/lib/nfs/rmtab"))
    , m_Commands(new tCommandQueue(this))
{
    RegisterNfsDataMetaType();
    connect(m_Commands, &tCommandQueue::Idle, this, &tServicePublisher::CommandsDone);
}

void tServicePublisher::Start(const QString& interfaceName, const QHostAddress& localAddress)
{
    m_Active = true;
    if (!m_Socket) {
        m_Socket = new QUdpSocket(this);
        const QHostAddress bindAddress = localAddress.isNull() ? QHostAddress(QHostAddress::AnyIPv4) : localAddress;
        m_Socket->bind(bindAddress, ShareDatagram::cPort, QUdpSocket::ShareAddress);
    }
    m_Socket->setMulticastInterface(QNetworkInterface::interfaceFromName(interfaceName));
    Republish();
}

void tServicePublisher::StartAnnouncing()
{
    if (!m_RepublishTimer) {
        m_RepublishTimer = new QTimer(this);
        m_RepublishTimer->setTimerType(Qt::VeryCoarseTimer);
        connect(m_RepublishTimer, &QTimer::timeout, this, &tServicePublisher::Republish);
    }
    m_RepublishTimer->start(ShareDatagram::cIntervalMs);
}

void tServicePublisher::Republish()
{
    if (!m_Active)
        return;
    for (auto it = m_Shares.cbegin(); it != m_Shares.cend(); ++it) {
        qCDebug(lcServicePublisher, "tServicePublisher::Republish(): %s", qUtf8Printable(it.key()));
        SendMessage(ShareDatagram::cSharePresent, it.value());
    }
    // With nothing to announce the peer's listener would otherwise not hear
    // from this unit at all.
    if (m_Shares.isEmpty() && !m_PeerAddress.isNull())
        m_Socket->writeDatagram(QByteArray(1, '\0'), m_PeerAddress, ShareDatagram::cPort);
}

void tServicePublisher::SendMessage(quint16 type, const tNfsData& share)
{
    const tEncodedShareDatagram encoded = EncodeShareDatagram(type, share);
    if (!encoded.fits) {
        qCWarning(lcServicePublisher, "tServicePublisher::SendMessage(): message size exceeds buffer size: %d",
                  encoded.jsonLength);
        return;
    }
    if (m_Socket)
        m_Socket->writeDatagram(encoded.datagram, QHostAddress(QLatin1String(ShareDatagram::GroupAddress())),
                                ShareDatagram::cPort);
}

void tServicePublisher::AddServiceNFS(const QString& path, int shareType, const QString& name,
                                      const QString& contentId, const QString& serialNumber,
                                      const QString& detail, bool readOnly)
{
    tNfsData share;
    share.source = path;
    share.shareType = shareType;
    share.name = name;
    share.detail = detail;
    share.readOnly = readOnly;
    share.contentId = contentId;
    share.serialNumber = serialNumber;
    share.codeName = m_CodeName;
    m_Shares.insert(path, share);

    if (!readOnly && !m_PeerAddress.isNull())
        Export(m_PeerAddress.toString(), cReadWrite, path);
    Export(cAnyClient, readOnly ? cReadOnly : cReadWrite, path);

    Republish();
    qCDebug(lcServicePublisher, "AddServiceNFS: %s", qUtf8Printable(path));
}

void tServicePublisher::RemoveServiceNFS(const QString& path)
{
    const auto it = m_Shares.constFind(path);
    if (it == m_Shares.cend())
        return;
    if (m_Active)
        SendMessage(ShareDatagram::cShareWithdrawn, it.value());
    Unexport(cAnyClient, path);
    if (!m_PeerAddress.isNull())
        Unexport(m_PeerAddress.toString(), path);
    m_Shares.remove(path);
    qCDebug(lcServicePublisher, "RemoveServiceNFS: %s", qUtf8Printable(path));
}

void tServicePublisher::SetPeerIpAddress(const QString& peerIpAddress)
{
    const QHostAddress address(peerIpAddress);
    if (address.isNull()) {
        qCWarning(lcServicePublisher, "Invalid ip address: %s", qUtf8Printable(peerIpAddress));
        return;
    }
    if (address == m_PeerAddress)
        return;
    qCInfo(lcServicePublisher, "tServicePublisher::SetPeerIpAddress(): Discovered peer IP address: %s",
           qUtf8Printable(peerIpAddress));
    if (m_Active) {
        for (auto it = m_Shares.cbegin(); it != m_Shares.cend(); ++it) {
            if (!m_PeerAddress.isNull())
                Unexport(m_PeerAddress.toString(), it.key());
            Export(address.toString(), cReadWrite, it.key());
        }
    }
    m_PeerAddress = address;
    // Give the peer time to mount before the server drops stale handles.
    QTimer::singleShot(cExportFlushDelayMs, Qt::VeryCoarseTimer, this, &tServicePublisher::ExportFlush);
}

void tServicePublisher::WithdrawAll()
{
    if (!m_Active)
        return;
    for (const tNfsData& share : qAsConst(m_Shares))
        SendMessage(ShareDatagram::cShareWithdrawn, share);
    m_Active = false;
}

void tServicePublisher::Stop()
{
    const QDateTime before = QFileInfo(m_RmtabPath).lastModified();
    // Only what was announced can be mounted by the peer: with nothing
    // withdrawn there is nothing to wait for.
    const bool withdrew = m_Active && !m_Shares.isEmpty();
    WithdrawAll();
    if (m_RepublishTimer)
        m_RepublishTimer->stop();
    // Whatever is asked for next (unmounting a local volume above all) waits
    // until the peer has dropped its NFS mounts.
    if (withdrew)
        m_Commands->AddPauses(RmtabPauses(m_RmtabPath, before));
}

void tServicePublisher::RestartNfsServer()
{
    m_Commands->AddProcess(cExportfs, {QStringLiteral("-ar")}, [](tCommandQueue::tOutcome outcome) {
        if (outcome == tCommandQueue::tOutcome::Failed)
            qCWarning(lcServicePublisher, "tServicePublisher::RestartNfsServer(): error clearing exports");
    });
    if (m_Active) {
        for (auto it = m_Shares.cbegin(); it != m_Shares.cend(); ++it) {
            Export(cAnyClient, cReadOnly, it.key());
            if (!m_PeerAddress.isNull())
                Export(m_PeerAddress.toString(), cReadWrite, it.key());
        }
    }
    m_Commands->AddAction(this, [] { qCInfo(lcServicePublisher, "tServicePublisher: Restarting nfsd done"); });
}

void tServicePublisher::AfterCommands(QObject* context, std::function<void()> action)
{
    m_Commands->AddAction(context, std::move(action));
}

bool tServicePublisher::CommandsPending() const
{
    return m_Commands->Pending();
}

void tServicePublisher::SetCommandTimeout(int ms)
{
    m_Commands->SetCommandTimeout(ms);
}

void tServicePublisher::Export(const QString& client, const QString& options, const QString& path)
{
    const QStringList arguments{QStringLiteral("-o"), options + cExportOptionsSuffix, client + QLatin1Char(':') + path};
    const QString commandLine = QStringList(QStringList{cExportfs} + arguments).join(QLatin1Char(' '));
    m_Commands->AddProcess(cExportfs, arguments, [commandLine](tCommandQueue::tOutcome outcome) {
        if (outcome == tCommandQueue::tOutcome::Finished)
            qCInfo(lcServicePublisher, "Export: exporting '%s' PASS", qUtf8Printable(commandLine));
        else
            qCWarning(lcServicePublisher, "Export: error exporting %s", qUtf8Printable(commandLine));
    });
}

void tServicePublisher::Unexport(const QString& client, const QString& path)
{
    m_Commands->AddProcess(cExportfs, {QStringLiteral("-u"), client + QLatin1Char(':') + path});
}

void tServicePublisher::ExportFlush()
{
    m_Commands->AddProcess(cExportfs, {QStringLiteral("-f")}, [](tCommandQueue::tOutcome outcome) {
        if (outcome == tCommandQueue::tOutcome::Finished)
            qCInfo(lcServicePublisher, "ExportFlush: 'exportfs -f' PASS");
        else
            qCWarning(lcServicePublisher, "ExportFlush: 'exportfs -f' FAILED");
    });
}
