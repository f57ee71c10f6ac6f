#pragma once

#include <QString>

// Every D-Bus name the simulator speaks: the service it stands in for and its
// own control interface.
namespace SimNames
{
inline const QString Service = QStringLiteral("org.freedesktop.UDisks2");
inline const QString RootPath = QStringLiteral("/org/freedesktop/UDisks2");
inline const QString ManagerPath = QStringLiteral("/org/freedesktop/UDisks2/Manager");
inline const QString BlockDevicesPath = QStringLiteral("/org/freedesktop/UDisks2/block_devices");
inline const QString DrivesPath = QStringLiteral("/org/freedesktop/UDisks2/drives");
inline const QString JobsPath = QStringLiteral("/org/freedesktop/UDisks2/jobs");

inline const QString ObjectManagerInterface = QStringLiteral("org.freedesktop.DBus.ObjectManager");
inline const QString PropertiesInterface = QStringLiteral("org.freedesktop.DBus.Properties");
inline const QString IntrospectableInterface = QStringLiteral("org.freedesktop.DBus.Introspectable");
inline const QString PeerInterface = QStringLiteral("org.freedesktop.DBus.Peer");
inline const QString ManagerInterface = QStringLiteral("org.freedesktop.UDisks2.Manager");
inline const QString BlockInterface = QStringLiteral("org.freedesktop.UDisks2.Block");
inline const QString PartitionInterface = QStringLiteral("org.freedesktop.UDisks2.Partition");
inline const QString PartitionTableInterface = QStringLiteral("org.freedesktop.UDisks2.PartitionTable");
inline const QString FilesystemInterface = QStringLiteral("org.freedesktop.UDisks2.Filesystem");
inline const QString DriveInterface = QStringLiteral("org.freedesktop.UDisks2.Drive");
inline const QString JobInterface = QStringLiteral("org.freedesktop.UDisks2.Job");

inline const QString ErrorFailed = QStringLiteral("org.freedesktop.UDisks2.Error.Failed");
inline const QString ErrorAlreadyMounted = QStringLiteral("org.freedesktop.UDisks2.Error.AlreadyMounted");
inline const QString ErrorNotMounted = QStringLiteral("org.freedesktop.UDisks2.Error.NotMounted");
inline const QString ErrorUnknownMethod = QStringLiteral("org.freedesktop.DBus.Error.UnknownMethod");
inline const QString ErrorUnknownObject = QStringLiteral("org.freedesktop.DBus.Error.UnknownObject");
inline const QString ErrorUnknownProperty = QStringLiteral("org.freedesktop.DBus.Error.UnknownProperty");
inline const QString ErrorUnknownInterface = QStringLiteral("org.freedesktop.DBus.Error.UnknownInterface");
inline const QString ErrorInvalidArgs = QStringLiteral("org.freedesktop.DBus.Error.InvalidArgs");
inline const QString ErrorPropertyReadOnly = QStringLiteral("org.freedesktop.DBus.Error.PropertyReadOnly");

// The simulator's own control interface, on the same bus.
inline const QString ControlService = QStringLiteral("org.larkd.UDisks2Sim");
inline const QString ControlPath = QStringLiteral("/org/larkd/UDisks2Sim");
inline const QString ControlInterface = QStringLiteral("org.larkd.UDisks2Sim");
inline const QString ControlError = QStringLiteral("org.larkd.UDisks2Sim.Error");
}
