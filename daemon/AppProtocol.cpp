// The display application's channel: one local TCP client, JSON documents
// each terminated by a NUL byte in both directions.

#include "daemon/LarkDaemon.h"

#include "daemon/AppRequest.h"
#include "daemon/Logging.h"
#include "sharing/ServiceListener.h"
#include "sharing/ServicePublisher.h"
#include "storage/FileSystem.h"
#include "storage/FileSystemInfo.h"
#include "storage/NfsFileSystem.h"
#include "storage/VolumeDescription.h"
#include "system/LinuxInterfaceMonitor.h"

#include <QFile>
#include <QFileInfo>
#include <QHostAddress>
#include <QTcpServer>
#include <QTcpSocket>

namespace
{
constexpr qint64 cAppReadBufferBytes = 64 * 1024;

// A field of /proc/self/mounts, with the kernel's octal escapes (\040 for a
// space) undone.
QString MountsField(const QByteArray& field)
{
    QByteArray text;
    for (int i = 0; i < field.size(); ++i) {
        if (field.at(i) == '\\' && i + 3 < field.size()) {
            bool ok = false;
            const int value = field.mid(i + 1, 3).toInt(&ok, 8);
            if (ok) {
                text.append(char(value));
                i += 3;
                continue;
            }
        }
        text.append(field.at(i));
    }
    return QString::fromUtf8(text);
}

// The source of the mount at mountPoint in the process's mount table, or empty.
QString MountSource(const QString& mountPoint)
{
    QFile mounts(QStringLiteral("/proc/self/mounts"));
    if (!mounts.open(QIODevice::ReadOnly))
        return QString();
    QString source;
    // The last entry wins: it is the one on top.
    for (const QByteArray& line : mounts.readAll().split('\n')) {
        const QList<QByteArray> fields = line.split(' ');
        if (fields.size() >= 2 && MountsField(fields.at(1)) == mountPoint)
            source = MountsField(fields.at(0));
    }
    return source;
}
} // namespace

void tLarkDaemon::StartServer()
{
    // Only the unit's own display application is served.
    if (!m_AppServer->listen(QHostAddress::LocalHost, m_Port))
        qCWarning(lcDaemon, "tLarkD::StartServer(): LarkD server fails to start");
    connect(m_AppServer, &QTcpServer::newConnection, this, &tLarkDaemon::OnAppPendingConnection);
}

void tLarkDaemon::OnAppPendingConnection()
{
    // One client at a time: a newer connection takes over. The older one is
    // no longer read from or written to; it is closed when too many pile up
    // and freed once its peer goes, so reconnecting never exhausts descriptors.
    QTcpSocket* socket = m_AppServer->nextPendingConnection();
    if (!socket)
        return;
    if (m_AppSocket)
        RetireAppSocket(m_AppSocket);
    m_AppSocket = socket;
    // Qt's own buffer stays as small as the framer's limit keeps the rest.
    m_AppSocket->setReadBufferSize(cAppReadBufferBytes);
    m_Framer.Reset();
    connect(m_AppSocket, &QTcpSocket::readyRead, this, &tLarkDaemon::OnReadyRead);
    RepublishAll();
}

void tLarkDaemon::RetireAppSocket(QTcpSocket* socket)
{
    disconnect(socket, &QTcpSocket::readyRead, this, &tLarkDaemon::OnReadyRead);
    if (socket->state() != QAbstractSocket::ConnectedState) {
        socket->deleteLater();
        return;
    }
    // What an earlier client still sends is read and dropped, not buffered.
    connect(socket, &QTcpSocket::readyRead, socket, [socket] { socket->skip(socket->bytesAvailable()); });
    connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    connect(socket, &QObject::destroyed, this, [this, socket] { m_EarlierAppSockets.removeOne(socket); });
    m_EarlierAppSockets.append(socket);
    while (m_EarlierAppSockets.size() > cMaxEarlierAppSockets)
        m_EarlierAppSockets.takeFirst()->abort();
}

void tLarkDaemon::OnReadyRead()
{
    if (!m_AppSocket)
        return;
    const qint64 capacity = qint64(m_ReceiveBuffer.size());
    qint64 received = 0;
    do {
        received = m_AppSocket->read(m_ReceiveBuffer.data(), capacity);
        if (received <= 0)
            break;
        m_Framer.Feed(
            m_ReceiveBuffer.data(), received, [this](const QByteArray& message) { ProcessMessage(message); },
            [] {
                qCWarning(lcDaemon, "tLarkDaemon::OnReadyRead(): message longer than %d bytes without a NUL, discarded",
                          tMessageFramer::cMaxMessageBytes);
            });
    } while (received == capacity);
}

bool tLarkDaemon::AppConnected() const
{
    return m_AppSocket && m_AppSocket->state() == QAbstractSocket::ConnectedState;
}

QByteArray tLarkDaemon::SendToApp(const tVolumeDescription& description)
{
    QByteArray document = BuildDataArrivalMessage(description);
    m_AppSocket->write(document);
    m_AppSocket->write(QByteArray(1, '\0'));
    return document;
}

void tLarkDaemon::RepublishAll()
{
    if (!AppConnected())
        return;
    QList<tFileSystem*> volumes = m_FileSystems.values();
    volumes += m_RemoteFileSystems;
    for (tFileSystem* fileSystem : qAsConst(volumes)) {
        if (!AppConnected())
            break;
        // Only what is mounted: a rescan may have entered a node not yet mounted.
        if (!m_MountedFileSystems.contains(fileSystem))
            continue;
        const QStringList mountPoints = fileSystem->MountPoints();
        if (mountPoints.isEmpty())
            continue;
        const tFileSystemInfo* info = fileSystem->Info();
        if (m_RemoteFileSystems.contains(fileSystem)) {
            SendToApp(RemoteDescription(*info, mountPoints.first()));
            continue;
        }
        const QString cid = info->Cid();
        SendToApp(tVolumeDescription(true, !cid.isEmpty(), false, false, info->ReadOnly(),
                                     PathForApp(m_NfsRoot, mountPoints.first()), info->FriendlyName(), cid,
                                     ContentId(), SerialNumber()));
    }
}

void tLarkDaemon::ProcessMessage(const QByteArray& message)
{
    const tAppRequest request = ParseAppRequest(message);
    switch (request.kind) {
    case tAppRequest::Kind::Malformed:
        qCWarning(lcDaemon) << "tLarkDaemon::ProcessMessage: Failed to decode JSON data:" << request.parseError;
        break;
    case tAppRequest::Kind::EnquireDeviceList:
        RepublishAll();
        break;
    case tAppRequest::Kind::ChartSharing:
        if (!m_TwoWayConnection) {
            qCWarning(lcDaemon, "Unexpected interface configuration message");
            break;
        }
        // An application may repeat itself; stopping costs the peer its
        // mounts and holds the next exports back for seconds.
        if (request.namesInterface && m_SharingActive && request.interfaceName == m_SharingInterface)
            break;
        // Sharing starts again once the named interface is up, running and addressed.
        StopSharing();
        m_InterfaceMonitor->RemoveAllInterfaces();
        if (request.namesInterface)
            m_InterfaceMonitor->AddInterface(request.interfaceName);
        break;
    case tAppRequest::Kind::DataUnmount:
        DropRemoteVolume(request.path, request.keepUnmounted);
        break;
    case tAppRequest::Kind::Ignored:
        break;
    case tAppRequest::Kind::Unknown:
        qCDebug(lcDaemon, "tLarkDaemon::ProcessMessage: Wrong message from MFDApp");
        break;
    }
}

void tLarkDaemon::DropRemoteVolume(const QString& path, bool keepUnmounted)
{
    if (!m_Listener)
        return;
    // The application may see the volume under "/mnt" rather than the NFS
    // root, so only the mount directory's own name is compared.
    const QString name = QFileInfo(path).fileName();
    for (tFileSystem* fileSystem : qAsConst(m_RemoteFileSystems)) {
        const QString mountPoint = fileSystem->MountPoints().value(0);
        if (mountPoint.isEmpty() || QFileInfo(mountPoint).fileName() != name)
            continue;
        // The listener knows the share by the source it was mounted from.
        const QString source = MountSource(mountPoint);
        if (source.isEmpty()) {
            qCWarning(lcDaemon, "tLarkDaemon::ProcessMessage: %s is not in the mount table",
                      qUtf8Printable(mountPoint));
            return;
        }
        m_Listener->DropService(source, keepUnmounted);
        return;
    }
}
