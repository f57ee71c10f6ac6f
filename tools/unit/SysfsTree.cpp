#include "SysfsTree.h"

#include <QDir>
#include <QFile>

tSysfsTree::tSysfsTree(const QString& root)
    : m_Root(root)
{
    // libudev refuses device directories that are not on sysfs; this is its
    // own switch for trees built by tests.
    qputenv("SYSTEMD_DEVICE_VERIFY_SYSFS", "0");
}

bool tSysfsTree::AddDevice(const QString& devicePath, const QString& subsystem, const QStringList& uevent,
                           const QMap<QString, QByteArray>& attributes)
{
    const QString dir = m_Root + QStringLiteral("/devices/") + devicePath;
    const QString subsystemDir = m_Root + QLatin1Char('/') + subsystem;
    if (!QDir().mkpath(dir) || !QDir().mkpath(subsystemDir))
        return false;
    QFile::remove(dir + QStringLiteral("/subsystem"));
    if (!QFile::link(subsystemDir, dir + QStringLiteral("/subsystem")))
        return false;
    QMap<QString, QByteArray> files = attributes;
    files.insert(QStringLiteral("uevent"), uevent.join(QLatin1Char('\n')).toUtf8());
    for (auto it = files.cbegin(); it != files.cend(); ++it) {
        QFile file(dir + QLatin1Char('/') + it.key());
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(it.value() + '\n') < 0)
            return false;
    }
    return true;
}

QString tSysfsTree::AddBlock(const QString& parentPath, const QString& name, unsigned major, unsigned minor,
                             const QString& devType)
{
    const QString path = devType == QLatin1String("partition") ? parentPath + QLatin1Char('/') + name
                                                               : parentPath + QStringLiteral("/block/") + name;
    const QStringList uevent = { QStringLiteral("MAJOR=%1").arg(major), QStringLiteral("MINOR=%1").arg(minor),
                                 QStringLiteral("DEVNAME=") + name, QStringLiteral("DEVTYPE=") + devType };
    if (!AddDevice(path, QStringLiteral("class/block"), uevent))
        return QString();
    const QString numberDir = m_Root + QStringLiteral("/dev/block");
    QDir().mkpath(numberDir);
    const QString link = numberDir + QStringLiteral("/%1:%2").arg(major).arg(minor);
    QFile::remove(link);
    if (!QFile::link(QStringLiteral("../../devices/") + path, link))
        return QString();
    return path;
}

QString tSysfsTree::AddMmcCard(int host, const QByteArray& cid)
{
    const QString hostPath = QStringLiteral("platform/soc/2190000.mmc/mmc_host/mmc%1").arg(host);
    const QString cardPath = hostPath + QStringLiteral("/mmc%1:0001").arg(host);
    const bool ok =
        AddDevice(hostPath, QStringLiteral("class/mmc_host"), { QStringLiteral("MMC_HOST=mmc%1").arg(host) })
        && AddDevice(cardPath, QStringLiteral("bus/mmc"), { QStringLiteral("MMC_TYPE=SD") },
                     { { QStringLiteral("cid"), cid }, { QStringLiteral("type"), "SD" } });
    return ok ? cardPath : QString();
}

QString tSysfsTree::AddUsbStorage(const QString& port, const QByteArray& vendor, const QByteArray& product)
{
    const QString usbDevice = QStringLiteral("pci0000:00/0000:00:14.0/usb1/") + port;
    const QString usbInterface = usbDevice + QLatin1Char('/') + port + QStringLiteral(":1.0");
    const QString host = usbInterface + QStringLiteral("/host0");
    const QString target = host + QStringLiteral("/target0:0:0");
    const QString scsiDevice = target + QStringLiteral("/0:0:0:0");
    const bool ok =
        AddDevice(usbDevice, QStringLiteral("bus/usb"), { QStringLiteral("DEVTYPE=usb_device") },
                  { { QStringLiteral("idVendor"), vendor }, { QStringLiteral("idProduct"), product } })
        && AddDevice(usbInterface, QStringLiteral("bus/usb"), { QStringLiteral("DEVTYPE=usb_interface") },
                     { { QStringLiteral("bInterfaceClass"), "08" } })
        && AddDevice(host, QStringLiteral("bus/scsi"), { QStringLiteral("DEVTYPE=scsi_host") })
        && AddDevice(target, QStringLiteral("bus/scsi"), { QStringLiteral("DEVTYPE=scsi_target") })
        && AddDevice(scsiDevice, QStringLiteral("bus/scsi"), { QStringLiteral("DEVTYPE=scsi_device") });
    return ok ? scsiDevice : QString();
}
