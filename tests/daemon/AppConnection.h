#pragma once

#include "AppClient.h"
#include "LarkdUnit.h"

#include <QJsonObject>

// The display application: the client's connection, keeping what arrives.
class tAppConnection
{
public:
    tAppConnection();
    // Connects as soon as something listens on port: before larkd's start-up
    // scan is done, the connection waits in the listen queue.
    bool Connect(quint16 port, int timeoutMs = 20000);
    // Sends the bytes as they are (the caller adds the NULs).
    void SendRaw(const QByteArray& bytes);
    void Send(const QJsonObject& message);
    // Waits up to timeoutMs until at least count documents are there, then
    // takes them all.
    QList<QByteArray> TakeDocuments(int count = 0, int timeoutMs = 10000);
    // The same for "dataarrival" objects.
    QList<QJsonObject> TakeArrivals(int count, int timeoutMs = 10000);
    QTcpSocket& Socket() { return *m_Client.Socket(); }

private:
    tAppClient m_Client;
    QList<QByteArray> m_Documents;
};

// units/e2e-unit.json: SD slots "left" and "right" are configured; "extra" is
// not, so its cards fall back to the first slot's link name.
QString E2eUnitFile();

// The paths reported, sorted, each after "+" for an arrival or "-" for a removal.
QStringList Reported(const QList<QJsonObject>& arrivals);

// The envelope of an application request.
QJsonObject AppRequest(const QString& type, const QJsonValue& content = QJsonValue::Undefined);

// How most stories begin: the unit up and the application connected, told of
// the card present at start. On failure the unit's log is printed.
bool Boot(tLarkdUnit& unit, tAppConnection& app);

// The arrivals of at least count volumes and whatever else comes within
// 300 ms, so that a volume told twice shows.
QList<QJsonObject> Settled(tAppConnection& app, int count = 0);

// Takes one arrival and compares the values of the expected keys; on a
// mismatch the arrival is printed.
bool Arrived(tAppConnection& app, const QJsonObject& expected, int timeoutMs = 10000);
