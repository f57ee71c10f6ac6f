#include "storage/UdevLookup.h"

#include "storage/UdevHandle.h"

#include <libudev.h>

namespace {

using tUdev = UdevHandle<udev>;
using tUdevDevice = UdevHandle<udev_device>;

tUdevDevice BlockDevice(const tUdev& context, quint64 deviceNumber)
{
    return tUdevDevice(
        [&context, deviceNumber] {
            return context ? udev_device_new_from_devnum(context.Get(), 'b', static_cast<dev_t>(deviceNumber))
                           : nullptr;
        },
        udev_device_unref);
}

} // namespace

QByteArray NearestSysAttribute(quint64 deviceNumber, const char* attribute)
{
    const tUdev context(udev_new, udev_unref);
    const tUdevDevice device = BlockDevice(context, deviceNumber);
    // Parents belong to their child and must not be unreferenced.
    for (udev_device* current = device.Get(); current; current = udev_device_get_parent(current)) {
        if (const char* value = udev_device_get_sysattr_value(current, attribute))
            return QByteArray(value);
    }
    return QByteArray();
}

tUsbId UsbIdOf(quint64 deviceNumber)
{
    const tUdev context(udev_new, udev_unref);
    const tUdevDevice device = BlockDevice(context, deviceNumber);
    udev_device* current = device.Get();
    while (current && !udev_device_get_sysattr_value(current, "idProduct"))
        current = udev_device_get_parent_with_subsystem_devtype(current, "usb", "usb_device");
    if (!current)
        return {};
    return { QByteArray(udev_device_get_sysattr_value(current, "idVendor")),
             QByteArray(udev_device_get_sysattr_value(current, "idProduct")) };
}
