#pragma once

#include "storage/LocalFileSystemInfo.h"

// The card readers the daemon knows by their USB ids.
enum class CardReaderKind
{
    None = 0,
    Ksx = 1,  // 0424:2240
    Rv20 = 2, // 0424:4040
};

class tUsbFileSystemInfo;
CardReaderKind DetectCardReader(const tUsbFileSystemInfo& description);

// A volume on USB storage: a stick, or a card in one of the known readers,
// which may also be wired to one of the unit's slots.
class tUsbFileSystemInfo : public tLocalFileSystemInfo
{
    Q_OBJECT
public:
    explicit tUsbFileSystemInfo(tUDisks2Block* block, QObject* parent = nullptr);

    QString FriendlyName() const override;
    QString SymlinkName() const override;
    QString Cid() const override;
};
