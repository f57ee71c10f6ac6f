#pragma once

#include "storage/FileSystemInfo.h"
#include "storage/PlatformConfig.h"

class tUDisks2Block;

// What the descriptions of card slots and USB storage share: they read the
// live properties of their UDisks2 block and the platform's slot file.
class tLocalFileSystemInfo : public tFileSystemInfo
{
    Q_OBJECT
public:
    tLocalFileSystemInfo(tUDisks2Block* block, QObject* parent);
    ~tLocalFileSystemInfo() override;

    QString IdType() const override;
    bool ReadOnly() const override;
    QString ContentId() const override;
    QString SerialNumber() const override;
    bool FromPeer() const override;
    QString CodeName() const override;

    // Read on first use and kept for the life of the description.
    const PlatformConfig& Configuration() const;
    // The block's device node, e.g. "/dev/mmcblk0p1".
    QString DeviceNode() const;
    quint64 DeviceNumber() const;

protected:
    tUDisks2Block* m_Block;

private:
    mutable PlatformConfig* m_PlatformConfig = nullptr;
};
