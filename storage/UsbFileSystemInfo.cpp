#include "storage/UsbFileSystemInfo.h"

#include "storage/SdSlots.h"
#include "storage/SmscScsiCommand.h"
#include "storage/UdevLookup.h"

#include <QRegularExpression>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <scsi/scsi.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr unsigned char ReadCidCommand = 0x18;

// Closes the device node on every path out.
class tDeviceNode
{
public:
    explicit tDeviceNode(const QString& path)
        : m_Fd(::open(path.toLocal8Bit().constData(), O_RDONLY))
    {
    }
    ~tDeviceNode()
    {
        if (m_Fd >= 0)
            ::close(m_Fd);
    }
    tDeviceNode(const tDeviceNode&) = delete;
    tDeviceNode& operator=(const tDeviceNode&) = delete;

    int Fd() const { return m_Fd; }

private:
    int m_Fd;
};

} // namespace

CardReaderKind DetectCardReader(const tUsbFileSystemInfo& description)
{
    const tUsbId id = UsbIdOf(description.DeviceNumber());
    if (id.vendor != "0424")
        return CardReaderKind::None;
    if (id.product == "2240")
        return CardReaderKind::Ksx;
    if (id.product == "4040")
        return CardReaderKind::Rv20;
    return CardReaderKind::None;
}

tUsbFileSystemInfo::tUsbFileSystemInfo(tUDisks2Block* block, QObject* parent)
    : tLocalFileSystemInfo(block, parent)
{
}

QString tUsbFileSystemInfo::FriendlyName() const
{
    const QString position = SlotPositionName(*this);
    if (!position.isEmpty())
        return QStringLiteral("Memory Card - ") + position;

    switch (DetectCardReader(*this)) {
    case CardReaderKind::None:
        return QStringLiteral("USB Mass Storage");
    case CardReaderKind::Ksx:
        return QStringLiteral("KSX SD Card Reader");
    case CardReaderKind::Rv20:
        break;
    }

    // This reader shows each of its card units as a LUN of one SCSI device.
    const QString name = QStringLiteral("RV20");
    const QString device = DeviceNode();
    const tDeviceNode node(device);
    if (node.Fd() < 0) {
        qWarning("tUsbFileSystemInfo::FriendlyName(): Failed to open %s", qUtf8Printable(device));
        return name;
    }
    int idLun[2] = { 0, 0 };
    if (ioctl(node.Fd(), SCSI_IOCTL_GET_IDLUN, idLun) < 0) {
        qWarning("tUsbFileSystemInfo::FriendlyName(): ioctl(): %s", std::strerror(errno));
        return name;
    }
    const int lun = (idLun[0] >> 8) & 0xFF;
    return QStringLiteral("%1 - %2").arg(name).arg(lun + 1);
}

QString tUsbFileSystemInfo::SymlinkName() const
{
    static const QRegularExpression scsiNode(QStringLiteral("/dev/sd([a-z])([0-9]*)"));
    const QRegularExpressionMatch match = scsiNode.match(DeviceNode());
    if (!match.hasMatch())
        return QStringLiteral("UNEXPECTED");
    const SlotLocation slot = LocateSlot(*this);
    if (slot.position != SlotPosition::None)
        return QStringLiteral("Memory Card - %1").arg(slot.number);
    const QString partition = match.captured(2).isEmpty() ? QStringLiteral("1") : match.captured(2);
    return QStringLiteral("USB Memory Card ") + match.captured(1).toUpper() + partition;
}

QString tUsbFileSystemInfo::Cid() const
{
    if (DetectCardReader(*this) == CardReaderKind::None)
        return QStringLiteral("");
    const QString device = DeviceNode();
    const tDeviceNode node(device);
    if (node.Fd() < 0) {
        // Same text as FriendlyName's: this is how the failure has always been logged.
        qWarning("tUsbFileSystemInfo::FriendlyName(): Failed to open %s", qUtf8Printable(device));
        return QStringLiteral("");
    }
    // A reader that does not answer has no identity, which the application
    // is told as an empty key, not as the null of a removal.
    const QString cid = SendSmscScsiCommand(node.Fd(), ReadCidCommand, 0);
    return cid.isNull() ? QStringLiteral("") : cid;
}
