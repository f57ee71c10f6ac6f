#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QStringList>

// Writes the part of a sysfs tree that libudev reads to resolve a block
// device number: /sys/dev/block/MAJ:MIN links, each device directory's
// "uevent", its "subsystem" link and its attribute files, nested as the
// kernel nests parents. Meant for a tmpfs mounted over /sys.
class tSysfsTree
{
public:
    explicit tSysfsTree(const QString& root = QStringLiteral("/sys"));

    // A device under devices/; subsystem is "bus/usb", "class/block", ...
    bool AddDevice(const QString& devicePath, const QString& subsystem, const QStringList& uevent,
                   const QMap<QString, QByteArray>& attributes = {});

    // A block device (devType "disk" or "partition") below parentPath;
    // returns its device path, empty on failure.
    QString AddBlock(const QString& parentPath, const QString& name, unsigned major, unsigned minor,
                     const QString& devType);

    // An SD card on MMC host number host, with its "cid" attribute;
    // returns the directory its disk goes below.
    QString AddMmcCard(int host, const QByteArray& cid);

    // A USB mass-storage device at the given port, with its idVendor and
    // idProduct; returns the SCSI device directory its disk goes below.
    QString AddUsbStorage(const QString& port, const QByteArray& vendor, const QByteArray& product);

private:
    QString m_Root;
};
