#pragma once

#include "sharing/NfsData.h"
#include "storage/FileSystemInfo.h"

// The description of a peer's chart share: a copy of its announcement.
class tNfsFileSystemInfo : public tFileSystemInfo
{
    Q_OBJECT
public:
    tNfsFileSystemInfo(const tNfsData& data, QObject* parent);

    QString IdType() const override;
    QString FriendlyName() const override;
    QString SymlinkName() const override;
    bool ReadOnly() const override;
    QString Cid() const override;
    QString ContentId() const override;
    QString SerialNumber() const override;
    bool FromPeer() const override;
    QString CodeName() const override;

    // The share's key, "<peer address>:<exported path>".
    QString Source() const { return m_Data.source; }

private:
    tNfsData m_Data;
};
