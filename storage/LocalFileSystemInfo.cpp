#include "storage/LocalFileSystemInfo.h"

#include "udisks2/UDisks2Block.h"
#include "udisks2/UDisks2Names.h"
#include "udisks2/UDisks2Text.h"

tLocalFileSystemInfo::tLocalFileSystemInfo(tUDisks2Block* block, QObject* parent)
    : tFileSystemInfo(parent)
    , m_Block(block)
{
}

tLocalFileSystemInfo::~tLocalFileSystemInfo()
{
    delete m_PlatformConfig;
}

QString tLocalFileSystemInfo::IdType() const
{
    return m_Block->Property(UDisks2Names::IdTypeProperty).toString();
}

bool tLocalFileSystemInfo::ReadOnly() const
{
    return m_Block->Property(UDisks2Names::ReadOnlyProperty).toBool();
}

QString tLocalFileSystemInfo::ContentId() const
{
    return QStringLiteral("");
}

QString tLocalFileSystemInfo::SerialNumber() const
{
    return QStringLiteral("");
}

bool tLocalFileSystemInfo::FromPeer() const
{
    return false;
}

QString tLocalFileSystemInfo::CodeName() const
{
    return QString();
}

const PlatformConfig& tLocalFileSystemInfo::Configuration() const
{
    if (!m_PlatformConfig)
        m_PlatformConfig = new PlatformConfig(ReadPlatformConfig());
    return *m_PlatformConfig;
}

QString tLocalFileSystemInfo::DeviceNode() const
{
    return TextUpToNul(m_Block->Property(UDisks2Names::DeviceProperty).toByteArray());
}

quint64 tLocalFileSystemInfo::DeviceNumber() const
{
    return m_Block->Property(UDisks2Names::DeviceNumberProperty).toULongLong();
}
