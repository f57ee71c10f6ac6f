#pragma once

#include <QByteArray>
#include <QString>
#include <QVariant>

// What the display application is told about one volume. A null field is
// sent as JSON null, which is how a removal is announced.
struct tVolumeDescription
{
    tVolumeDescription(const QVariant& state, const QVariant& memoryCard, const QVariant& fixed,
                       const QVariant& remote, const QVariant& readOnly, const QString& path,
                       const QVariant& friendlyName, const QVariant& cid, const QVariant& contentId,
                       const QVariant& serialNumber);

    QVariant state;
    QVariant memoryCard;
    QVariant fixed;
    QVariant remote;
    QVariant readOnly;
    QString path;
    QVariant friendlyName;
    QVariant cid;
    QVariant contentId;
    QVariant serialNumber;
};

// The indented "datasource" document carrying one "dataarrival" record.
QByteArray BuildDataArrivalMessage(const tVolumeDescription& description);
