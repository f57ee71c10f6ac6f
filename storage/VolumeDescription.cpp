#include "storage/VolumeDescription.h"

#include "storage/CidWithCrc.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>

tVolumeDescription::tVolumeDescription(const QVariant& state_, const QVariant& memoryCard_,
                                       const QVariant& fixed_, const QVariant& remote_,
                                       const QVariant& readOnly_, const QString& path_,
                                       const QVariant& friendlyName_, const QVariant& cid_,
                                       const QVariant& contentId_, const QVariant& serialNumber_)
    : state(state_)
    , memoryCard(memoryCard_)
    , fixed(fixed_)
    , remote(remote_)
    , readOnly(readOnly_)
    , path(path_)
    , friendlyName(friendlyName_)
    , cid(cid_)
    , contentId(contentId_)
    , serialNumber(serialNumber_)
{
}

QByteArray BuildDataArrivalMessage(const tVolumeDescription& description)
{
    QJsonObject arrival;
    arrival.insert(QStringLiteral("friendlyname"), QJsonValue::fromVariant(description.friendlyName));
    arrival.insert(QStringLiteral("fixed"), QJsonValue::fromVariant(description.fixed));
    arrival.insert(QStringLiteral("readonly"), QJsonValue::fromVariant(description.readOnly));
    arrival.insert(QStringLiteral("remote"), QJsonValue::fromVariant(description.remote));
    arrival.insert(QStringLiteral("serialnumber"), QJsonValue::fromVariant(description.serialNumber));
    arrival.insert(QStringLiteral("contentid"), QJsonValue::fromVariant(description.contentId));
    arrival.insert(QStringLiteral("key"), description.cid.isNull()
                                              ? QJsonValue(QJsonValue::Null)
                                              : QJsonValue(CidWithCrc(description.cid.toString())));
    arrival.insert(QStringLiteral("path"), QJsonValue::fromVariant(description.path));
    QJsonValue type(QJsonValue::Null);
    if (!description.memoryCard.isNull())
        type = description.memoryCard.toBool() ? QStringLiteral("memorycard") : QStringLiteral("harddrive");
    arrival.insert(QStringLiteral("type"), type);

    QJsonObject content;
    content.insert(QStringLiteral("dataarrival"), arrival);
    QJsonObject message;
    message.insert(QStringLiteral("type"), QStringLiteral("datasource"));
    message.insert(QStringLiteral("version"), 1);
    message.insert(QStringLiteral("content"), content);
    QJsonObject outer;
    outer.insert(QStringLiteral("message"), message);
    return QJsonDocument(outer).toJson();
}
