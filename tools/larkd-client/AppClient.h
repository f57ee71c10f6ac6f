#pragma once

#include <QByteArray>
#include <QJsonDocument>
#include <QObject>
#include <QTcpSocket>

// One connection to the daemon's display-application port. Outgoing
// documents get their NUL terminator; incoming bytes are split at NULs and
// each complete document is reported once.
class tAppClient : public QObject
{
    Q_OBJECT
public:
    explicit tAppClient(QObject* parent = nullptr);

    void ConnectTo(const QString& host, quint16 port);
    void Send(const QJsonDocument& document);
    QTcpSocket* Socket() { return &m_Socket; }

signals:
    void Connected();
    void MessageReceived(const QByteArray& document);
    void Failed(const QString& reason);
    void Disconnected();

private slots:
    void OnReadyRead();

private:
    QTcpSocket m_Socket;
    QByteArray m_Pending;
};
