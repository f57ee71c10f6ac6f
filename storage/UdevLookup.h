#pragma once

#include <QByteArray>
#include <QtGlobal>

// Queries of the udev device behind a block device number.

// The sysfs attribute of the block device or of its nearest ancestor that
// has it (an MMC card's "cid" sits on the card, above the partition);
// a null array when no device in the chain has it.
QByteArray NearestSysAttribute(quint64 deviceNumber, const char* attribute);

struct tUsbId
{
    QByteArray vendor;
    QByteArray product;
};

// "idVendor" and "idProduct" of the USB device the block device hangs off;
// both null when it is not on USB or udev does not know it.
tUsbId UsbIdOf(quint64 deviceNumber);
