#include "daemon/AppRequest.h"

#include "system/JsonKeys.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

tAppRequest ParseAppRequest(const QByteArray& message)
{
    tAppRequest request;
    if (RepeatsAKey(message)) {
        request.kind = tAppRequest::Kind::Malformed;
        request.parseError = QStringLiteral("duplicate key");
        return request;
    }
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(message, &error);
    if (error.error != QJsonParseError::NoError) {
        request.kind = tAppRequest::Kind::Malformed;
        request.parseError = error.errorString();
        return request;
    }
    // Members that are missing or of another JSON type read as empty values.
    const QJsonObject envelope = document.object().value(QStringLiteral("message")).toObject();
    const QString type = envelope.value(QStringLiteral("type")).toString();
    const QJsonValue content = envelope.value(QStringLiteral("content"));

    if (type == QLatin1String("enquerydevicelist")) {
        request.kind = tAppRequest::Kind::EnquireDeviceList;
    } else if (type == QLatin1String("chartsharing")) {
        request.kind = tAppRequest::Kind::ChartSharing;
        const QJsonArray interfaces = content.toArray();
        request.namesInterface = !interfaces.isEmpty();
        if (request.namesInterface)
            request.interfaceName = interfaces.first().toString();
    } else if (type == QLatin1String("datasource")) {
        const QJsonObject unmount = content.toObject().value(QStringLiteral("dataunmount")).toObject();
        const QJsonValue path = unmount.value(QStringLiteral("path"));
        request.kind = path.isString() ? tAppRequest::Kind::DataUnmount : tAppRequest::Kind::Ignored;
        request.path = path.toString();
        request.keepUnmounted = unmount.value(QStringLiteral("keepunmounted")).toBool(false);
    }
    return request;
}
