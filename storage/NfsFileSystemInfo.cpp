#include "storage/NfsFileSystemInfo.h"

tNfsFileSystemInfo::tNfsFileSystemInfo(const tNfsData& data, QObject* parent)
    : tFileSystemInfo(parent)
    , m_Data(data)
{
}

QString tNfsFileSystemInfo::IdType() const
{
    return QStringLiteral("nfs");
}

QString tNfsFileSystemInfo::FriendlyName() const
{
    return m_Data.detail;
}

QString tNfsFileSystemInfo::SymlinkName() const
{
    return QStringLiteral("");
}

bool tNfsFileSystemInfo::ReadOnly() const
{
    return m_Data.readOnly;
}

QString tNfsFileSystemInfo::Cid() const
{
    return m_Data.name;
}

QString tNfsFileSystemInfo::ContentId() const
{
    return m_Data.contentId;
}

QString tNfsFileSystemInfo::SerialNumber() const
{
    return m_Data.serialNumber;
}

bool tNfsFileSystemInfo::FromPeer() const
{
    return m_Data.fromPeer;
}

QString tNfsFileSystemInfo::CodeName() const
{
    return m_Data.codeName;
}
