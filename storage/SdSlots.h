#pragma once

#include "storage/PlatformConfig.h"

#include <QList>
#include <QString>

class tLocalFileSystemInfo;

// Where a card slot sits on the unit's case.
enum class SlotPosition
{
    None = 0,
    Single = 1,
    Top = 2,
    Bottom = 3,
    Left = 4,
    Right = 5,
};

struct SlotEntry
{
    SlotPosition position;
    QString path;
};

struct SlotLocation
{
    int number = 1;
    SlotPosition position = SlotPosition::None;
};

// The slots listed under "sd_slots", in configuration order; entries with
// an unknown position name are dropped and do not count in the numbering.
QList<SlotEntry> ParseSdSlots(const PlatformConfig& config);

// The slot holding the description's block device: the first entry whose
// path resolves to a prefix of the block's device node, so every partition
// of a slot's card lands in that slot. {1, None} when nothing matches.
SlotLocation LocateSlot(const tLocalFileSystemInfo& description);

// "Top", "Bottom", "Left" or "Right"; empty for a single or unknown slot.
QString SlotPositionName(const tLocalFileSystemInfo& description);
