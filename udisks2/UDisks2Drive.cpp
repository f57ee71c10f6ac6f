#include "udisks2/UDisks2Drive.h"

#include "daemon/Logging.h"
#include "udisks2/UDisks2.h"
#include "udisks2/UDisks2Names.h"


tUDisks2Drive::tUDisks2Drive(const QString& node, QObject* parent)
    : QObject(parent)
    , m_Path(UDisks2Names::DrivesPrefix + node)
    , m_Name(node)
{
    Update();
}

QVariant tUDisks2Drive::Property(const QString& name) const
{
    return tUDisks2::Objects().Property(m_Path, UDisks2Names::DriveInterface, name);
}

void tUDisks2Drive::Update()
{
    m_Size = Property(UDisks2Names::SizeProperty).toULongLong();
    m_Vendor = Property(UDisks2Names::VendorProperty).toString();
    m_Model = Property(UDisks2Names::ModelProperty).toString();
    m_Serial = Property(UDisks2Names::SerialProperty).toString();
    m_Id = Property(UDisks2Names::IdProperty).toString();
    m_Media = Property(UDisks2Names::MediaProperty).toString();
    m_Optical = Property(UDisks2Names::OpticalProperty).toBool();
    m_MediaRemovable = Property(UDisks2Names::MediaRemovableProperty).toBool();
    m_MediaAvailable = Property(UDisks2Names::MediaAvailableProperty).toBool();
    qCDebug(lcUDisks2) << "tUDisks2Drive::Update(): name:" << m_Name << "size:" << m_Size << "vendor:" << m_Vendor
                       << "model:" << m_Model << "serial:" << m_Serial << "id:" << m_Id << "media:" << m_Media
                       << "optical:" << m_Optical << "removable:" << m_MediaRemovable
                       << "available:" << m_MediaAvailable;
}

void tUDisks2Drive::OnPropertiesChanged(const QString& interface, const QVariantMap& changed,
                                        const QStringList& invalidated)
{
    Q_UNUSED(interface)
    Q_UNUSED(changed)
    Q_UNUSED(invalidated)
    Update();
    emit Changed(m_Name);
}
