#include "storage/MmcFileSystemInfo.h"

#include "storage/SdSlots.h"
#include "storage/UdevLookup.h"

#include <QRegularExpression>

tMmcFileSystemInfo::tMmcFileSystemInfo(tUDisks2Block* block, QObject* parent)
    : tLocalFileSystemInfo(block, parent)
{
}

QString tMmcFileSystemInfo::FriendlyName() const
{
    const QString position = SlotPositionName(*this);
    if (position.isEmpty())
        return QStringLiteral("Memory Card");
    return QStringLiteral("Memory Card - ") + position;
}

QString tMmcFileSystemInfo::SymlinkName() const
{
    static const QRegularExpression mmcNode(QStringLiteral("/dev/mmcblk[0-9]+(p([0-9]+))?"));
    if (!mmcNode.match(DeviceNode()).hasMatch())
        return QStringLiteral("UNEXPECTED");
    return QStringLiteral("Memory Card - %1").arg(LocateSlot(*this).number);
}

QString tMmcFileSystemInfo::Cid() const
{
    const QByteArray cid = NearestSysAttribute(DeviceNumber(), "cid");
    return cid.isNull() ? QStringLiteral("") : QString::fromLocal8Bit(cid);
}
