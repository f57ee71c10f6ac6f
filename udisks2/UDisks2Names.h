#pragma once

#include <QString>

// Every D-Bus name the UDisks2 client uses, in one place so that a typo
// cannot hide in a string literal.
namespace UDisks2Names {

inline const QString Service = QStringLiteral("org.freedesktop.UDisks2");

inline const QString RootPath = QStringLiteral("/org/freedesktop/UDisks2");
// Block paths are matched without a trailing "/", drive paths with one.
inline const QString BlockDevicesPath = QStringLiteral("/org/freedesktop/UDisks2/block_devices");
inline const QString BlockDevicesPrefix = QStringLiteral("/org/freedesktop/UDisks2/block_devices/");
inline const QString DrivesPath = QStringLiteral("/org/freedesktop/UDisks2/drives");
inline const QString DrivesPrefix = QStringLiteral("/org/freedesktop/UDisks2/drives/");

inline const QString ObjectManagerInterface = QStringLiteral("org.freedesktop.DBus.ObjectManager");
inline const QString PropertiesInterface = QStringLiteral("org.freedesktop.DBus.Properties");
inline const QString BlockInterface = QStringLiteral("org.freedesktop.UDisks2.Block");
inline const QString DriveInterface = QStringLiteral("org.freedesktop.UDisks2.Drive");
inline const QString FilesystemInterface = QStringLiteral("org.freedesktop.UDisks2.Filesystem");

inline const QString InterfacesAddedSignal = QStringLiteral("InterfacesAdded");
inline const QString InterfacesRemovedSignal = QStringLiteral("InterfacesRemoved");
inline const QString PropertiesChangedSignal = QStringLiteral("PropertiesChanged");
inline const QString GetManagedObjectsMethod = QStringLiteral("GetManagedObjects");
inline const QString GetMethod = QStringLiteral("Get");
inline const QString MountMethod = QStringLiteral("Mount");
inline const QString UnmountMethod = QStringLiteral("Unmount");

inline const QString MountOptionsKey = QStringLiteral("options");

inline const QString AlreadyMountedError = QStringLiteral("org.freedesktop.UDisks2.Error.AlreadyMounted");

// Block properties
inline const QString DeviceProperty = QStringLiteral("Device");
inline const QString DeviceNumberProperty = QStringLiteral("DeviceNumber");
inline const QString IdProperty = QStringLiteral("Id");
inline const QString DriveProperty = QStringLiteral("Drive");
inline const QString SizeProperty = QStringLiteral("Size");
inline const QString ReadOnlyProperty = QStringLiteral("ReadOnly");
inline const QString IdUsageProperty = QStringLiteral("IdUsage");
inline const QString IdTypeProperty = QStringLiteral("IdType");
inline const QString HintSystemProperty = QStringLiteral("HintSystem");

// Filesystem properties
inline const QString MountPointsProperty = QStringLiteral("MountPoints");

// Drive properties
inline const QString VendorProperty = QStringLiteral("Vendor");
inline const QString ModelProperty = QStringLiteral("Model");
inline const QString SerialProperty = QStringLiteral("Serial");
inline const QString MediaProperty = QStringLiteral("Media");
inline const QString OpticalProperty = QStringLiteral("Optical");
inline const QString MediaRemovableProperty = QStringLiteral("MediaRemovable");
inline const QString MediaAvailableProperty = QStringLiteral("MediaAvailable");
inline const QString ConnectionBusProperty = QStringLiteral("ConnectionBus");

inline const QString SdioBus = QStringLiteral("sdio");
inline const QString UsbBus = QStringLiteral("usb");

} // namespace UDisks2Names
