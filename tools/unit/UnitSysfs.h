#pragma once

#include "SysfsTree.h"
#include "UnitDescription.h"

#include <QMap>

// The sysfs side of a simulated unit: from the same unit description the
// simulator serves on D-Bus, writes what libudev reads for each slot's disk
// and partitions, with the same device numbers. An SD slot hangs off an MMC
// host and its card carries "cid"; a USB slot hangs off a USB device whose
// idVendor/idProduct are the reader's, or the stick's own.
//
// A medium's card identity is the optional "cid" key of its entry in the
// unit file (the simulator itself has no use for it).
class tUnitSysfs
{
public:
    explicit tUnitSysfs(const QString& root = QStringLiteral("/sys"));

    bool Load(const QString& unitFile, QString* error);

    // Writes the slot's device chain and, with a medium, its partitions.
    bool WriteSlot(const QString& slotName, const QString& mediumName = QString());

private:
    tSysfsTree m_Tree;
    tUnitDescription m_Unit;
    QMap<QString, QByteArray> m_Cids;
};
