#include "storage/SdSlots.h"

#include "storage/LocalFileSystemInfo.h"

#include <QFileInfo>

namespace {

SlotPosition PositionFromName(const QString& name)
{
    static const struct
    {
        const char* name;
        SlotPosition position;
    } names[] = {
        { "single", SlotPosition::Single }, { "top", SlotPosition::Top },
        { "bottom", SlotPosition::Bottom }, { "left", SlotPosition::Left },
        { "right", SlotPosition::Right },
    };
    for (const auto& entry : names) {
        if (name.compare(QLatin1String(entry.name), Qt::CaseInsensitive) == 0)
            return entry.position;
    }
    return SlotPosition::None;
}

} // namespace

QList<SlotEntry> ParseSdSlots(const PlatformConfig& config)
{
    QList<SlotEntry> slotEntries;
    const QString value = ConfigValue(config, QStringLiteral("sd_slots"));
    const QStringList entries = value.split(QLatin1Char(':'), Qt::SkipEmptyParts);
    for (const QString& entry : entries) {
        const QStringList fields = entry.split(QLatin1Char(','));
        const SlotPosition position = PositionFromName(fields.first().trimmed());
        if (position == SlotPosition::None)
            continue;
        slotEntries.append({ position, fields.last().trimmed() });
    }
    return slotEntries;
}

SlotLocation LocateSlot(const tLocalFileSystemInfo& description)
{
    const QList<SlotEntry> entries = ParseSdSlots(description.Configuration());
    for (int i = 0; i < entries.size(); ++i) {
        const QFileInfo slotPath(entries[i].path);
        if (!slotPath.exists())
            continue;
        const QString device = description.DeviceNode();
        if (device.contains(slotPath.canonicalFilePath()))
            return { i + 1, entries[i].position };
    }
    return {};
}

QString SlotPositionName(const tLocalFileSystemInfo& description)
{
    switch (LocateSlot(description).position) {
    case SlotPosition::Top:
        return QStringLiteral("Top");
    case SlotPosition::Bottom:
        return QStringLiteral("Bottom");
    case SlotPosition::Left:
        return QStringLiteral("Left");
    case SlotPosition::Right:
        return QStringLiteral("Right");
    case SlotPosition::None:
    case SlotPosition::Single:
        break;
    }
    return QString();
}
