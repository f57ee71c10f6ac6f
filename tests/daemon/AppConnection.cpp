#include "AppConnection.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QTest>
#include <QThread>

tAppConnection::tAppConnection()
{
    QObject::connect(&m_Client, &tAppClient::MessageReceived, [this](const QByteArray& document) { m_Documents << document; });
}

bool tAppConnection::Connect(quint16 port, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    for (;;) {
        m_Client.ConnectTo(QStringLiteral("127.0.0.1"), port);
        if (Socket().waitForConnected(5000))
            return true;
        Socket().abort();
        if (clock.hasExpired(timeoutMs))
            return false;
        QThread::msleep(2);
    }
}

void tAppConnection::SendRaw(const QByteArray& bytes)
{
    Socket().write(bytes);
    Socket().flush();
}

void tAppConnection::Send(const QJsonObject& message)
{
    m_Client.Send(QJsonDocument(message));
}

QList<QByteArray> tAppConnection::TakeDocuments(int count, int timeoutMs)
{
    (void)QTest::qWaitFor([&] { return m_Documents.size() >= count; }, count ? timeoutMs : 0);
    QCoreApplication::processEvents();
    QList<QByteArray> documents;
    documents.swap(m_Documents);
    return documents;
}

QList<QJsonObject> tAppConnection::TakeArrivals(int count, int timeoutMs)
{
    QList<QJsonObject> arrivals;
    for (const QByteArray& document : TakeDocuments(count, timeoutMs)) {
        const QJsonObject message = QJsonDocument::fromJson(document).object().value(QStringLiteral("message")).toObject();
        arrivals << message.value(QStringLiteral("content")).toObject().value(QStringLiteral("dataarrival")).toObject();
    }
    return arrivals;
}

QString E2eUnitFile()
{
    return qEnvironmentVariable("LARKD_DAEMON_UNITS") + QStringLiteral("/e2e-unit.json");
}

QStringList Reported(const QList<QJsonObject>& arrivals)
{
    QStringList paths;
    for (const QJsonObject& arrival : arrivals)
        paths << (arrival.value(QStringLiteral("type")).isNull() ? QStringLiteral("-") : QStringLiteral("+"))
                     + arrival.value(QStringLiteral("path")).toString();
    paths.sort();
    return paths;
}

QJsonObject AppRequest(const QString& type, const QJsonValue& content)
{
    QJsonObject message{{QStringLiteral("type"), type}};
    if (!content.isUndefined())
        message.insert(QStringLiteral("content"), content);
    return QJsonObject{{QStringLiteral("message"), message}};
}

bool Boot(tLarkdUnit& unit, tAppConnection& app)
{
    QString error;
    if (unit.Start(&error) && app.Connect(unit.Port())
        && Reported(app.TakeArrivals(1)) == QStringList{QStringLiteral("+/run/media/CHARTS")})
        return true;
    qWarning("%s\n%s", qPrintable(error), unit.Log().constData());
    return false;
}

QList<QJsonObject> Settled(tAppConnection& app, int count)
{
    QList<QJsonObject> arrivals = app.TakeArrivals(count);
    QTest::qWait(300);
    return arrivals + app.TakeArrivals(0);
}

bool Arrived(tAppConnection& app, const QJsonObject& expected, int timeoutMs)
{
    const QJsonObject arrival = app.TakeArrivals(1, timeoutMs).value(0);
    for (auto it = expected.begin(); it != expected.end(); ++it) {
        if (arrival.value(it.key()) != it.value()) {
            qWarning("%s", QJsonDocument(arrival).toJson().constData());
            return false;
        }
    }
    return true;
}
