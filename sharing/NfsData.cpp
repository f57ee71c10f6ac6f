#include "sharing/NfsData.h"

bool tNfsData::operator==(const tNfsData& other) const
{
    return source == other.source && shareType == other.shareType && name == other.name
        && detail == other.detail && auxText == other.auxText && readOnly == other.readOnly
        && reserved == other.reserved && fromPeer == other.fromPeer && contentId == other.contentId
        && serialNumber == other.serialNumber && codeName == other.codeName;
}

void RegisterNfsDataMetaType()
{
    qRegisterMetaType<tNfsData>("tNfsData");
}
