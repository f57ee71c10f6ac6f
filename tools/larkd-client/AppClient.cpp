#include "AppClient.h"

tAppClient::tAppClient(QObject* parent)
    : QObject(parent)
    , m_Socket(this)
{
    connect(&m_Socket, &QTcpSocket::connected, this, &tAppClient::Connected);
    connect(&m_Socket, &QTcpSocket::disconnected, this, &tAppClient::Disconnected);
    connect(&m_Socket, &QTcpSocket::readyRead, this, &tAppClient::OnReadyRead);
    connect(&m_Socket, &QAbstractSocket::errorOccurred, this,
            [this](QAbstractSocket::SocketError) { emit Failed(m_Socket.errorString()); });
}

void tAppClient::ConnectTo(const QString& host, quint16 port)
{
    m_Socket.connectToHost(host, port);
}

void tAppClient::Send(const QJsonDocument& document)
{
    m_Socket.write(document.toJson(QJsonDocument::Compact) + '\0');
    m_Socket.flush();
}

void tAppClient::OnReadyRead()
{
    m_Pending += m_Socket.readAll();
    int end;
    while ((end = m_Pending.indexOf('\0')) >= 0) {
        const QByteArray document = m_Pending.left(end);
        m_Pending.remove(0, end + 1);
        emit MessageReceived(document);
    }
}
