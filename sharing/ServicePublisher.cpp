#include "sharing/ServicePublisher.h"

#include "daemon/Logging.h"
#include "sharing/ShareDatagram.h"

#include <QDateTime>
#include <QFileInfo>
#include <QNetworkInterface>
#include <QProcess>
#include <QThread>
#include <QTimer>
#include <QUdpSocket>

namespace
{
constexpr int cCommandTimeoutMs = 30000;
constexpr int cExportFlushDelayMs = 2000;
constexpr int cRmtabPolls = 5;
constexpr unsigned long cRmtabPollMs = 1000;
constexpr unsigned long cRmtabSettleMs = 2000;
const QString cExportfs = QStringLiteral("exportfs");
const QString cExportOptionsSuffix = QStringLiteral(",no_root_squash,no_subtree_check");
const QString cAnyClient = QStringLiteral("*");
const QString cReadOnly = QStringLiteral("ro");
const QString cReadWrite = QStringLiteral("rw");

enum class tCommandResult { Finished, Failed };

// Success is judged by how the program ended, not by its exit code: exportfs
// reports harmless conditions with non-zero codes.
tCommandResult RunExportfs(const QStringList& arguments)
{
    QProcess process;
    process.start(cExportfs, arguments);
    process.waitForFinished(cCommandTimeoutMs);
    if (process.error() == QProcess::FailedToStart || process.exitStatus() == QProcess::CrashExit)
        return tCommandResult::Failed;
    return tCommandResult::Finished;
}
} // namespace

tServicePublisher::tServicePublisher(const QString& codeName, QObject* parent)
    : QObject(parent)
    , m_CodeName(codeName)
    , m_RmtabPath(QStringLiteral("/var/lib/nfs/rmtab"))
{
    RegisterNfsDataMetaType();
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
    if (withdrew)
        WaitForPeerToReleaseExports(before);
}

// Blocks on purpose: local volumes must not be unmounted while the peer still
// holds NFS mounts of them. The peer's unmounts show up as rmtab changes.
void tServicePublisher::WaitForPeerToReleaseExports(const QDateTime& before)
{
    for (int poll = 0; poll < cRmtabPolls; ++poll) {
        QThread::msleep(cRmtabPollMs);
        if (QFileInfo(m_RmtabPath).lastModified() != before) {
            QThread::msleep(cRmtabSettleMs);
            return;
        }
    }
}

void tServicePublisher::RestartNfsServer()
{
    if (RunExportfs({QStringLiteral("-ar")}) == tCommandResult::Failed)
        qCWarning(lcServicePublisher, "tServicePublisher::RestartNfsServer(): error clearing exports");
    if (m_Active) {
        for (auto it = m_Shares.cbegin(); it != m_Shares.cend(); ++it) {
            Export(cAnyClient, cReadOnly, it.key());
            if (!m_PeerAddress.isNull())
                Export(m_PeerAddress.toString(), cReadWrite, it.key());
        }
    }
    qCInfo(lcServicePublisher, "tServicePublisher: Restarting nfsd done");
}

void tServicePublisher::Export(const QString& client, const QString& options, const QString& path)
{
    const QStringList arguments{QStringLiteral("-o"), options + cExportOptionsSuffix, client + QLatin1Char(':') + path};
    const QString commandLine = QStringList(QStringList{cExportfs} + arguments).join(QLatin1Char(' '));
    if (RunExportfs(arguments) == tCommandResult::Finished)
        qCInfo(lcServicePublisher, "Export: exporting '%s' PASS", qUtf8Printable(commandLine));
    else
        qCWarning(lcServicePublisher, "Export: error exporting %s", qUtf8Printable(commandLine));
}

void tServicePublisher::Unexport(const QString& client, const QString& path)
{
    RunExportfs({QStringLiteral("-u"), client + QLatin1Char(':') + path});
}

void tServicePublisher::ExportFlush()
{
    if (RunExportfs({QStringLiteral("-f")}) == tCommandResult::Finished)
        qCInfo(lcServicePublisher, "ExportFlush: 'exportfs -f' PASS");
    else
        qCWarning(lcServicePublisher, "ExportFlush: 'exportfs -f' FAILED");
}
