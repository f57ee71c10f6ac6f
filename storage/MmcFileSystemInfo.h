#pragma once

#include "storage/LocalFileSystemInfo.h"

// A volume on a built-in SD card slot, named after where the slot sits.
class tMmcFileSystemInfo : public tLocalFileSystemInfo
{
    Q_OBJECT
public:
    explicit tMmcFileSystemInfo(tUDisks2Block* block, QObject* parent = nullptr);

    QString FriendlyName() const override;
    QString SymlinkName() const override;
    QString Cid() const override;
};
