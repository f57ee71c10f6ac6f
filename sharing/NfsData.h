#pragma once

#include <QMetaType>
#include <QString>
#include <QtGlobal>

// One shared chart volume. The publisher fills it for its own volumes; the
// listener builds it from a peer's announcement, with `source` = "IP:path".
struct tNfsData
{
    QString source;
    int shareType = 0;
    QString name;
    QString detail;
    QString auxText;
    bool readOnly = false;
    qint32 reserved = 0;
    bool fromPeer = false;
    QString contentId;
    QString serialNumber;
    QString codeName;

    bool operator==(const tNfsData& other) const;
    bool operator!=(const tNfsData& other) const { return !(*this == other); }
};

Q_DECLARE_METATYPE(tNfsData)

// Registers tNfsData for queued connections and QVariant; safe to call repeatedly.
void RegisterNfsDataMetaType();
