#pragma once

#include <QList>
#include <QString>

// The storage of one simulated unit, read from a JSON file: the places where
// media go (slots), the media that can be put there, and what is present at
// start. Kept free of D-Bus so that other generators (a sysfs tree, say) can
// share it.

struct tUnitPartition
{
    QString fsType;   // "vfat", "ext4", ...; empty: no filesystem
    QString label;
    QString uuid;
    QString partitionType = QStringLiteral("0x0c");
    quint64 offset = 0;
    quint64 size = 0;
};

struct tUnitMedium
{
    QString name;
    QString vendor;
    QString model;
    QString serial;
    QString revision;
    QString usbId;     // "vvvv:pppp", for USB sticks
    quint64 size = 0;
    bool readOnly = false;
    QList<tUnitPartition> partitions;
    // A filesystem on the whole medium, without a partition table (fsType
    // empty: none), as on many USB sticks and some cards.
    tUnitPartition filesystem;
};

struct tUnitReader
{
    QString vendor;
    QString model;
    QString serial;
    QString revision;
    QString usbId;
};

struct tUnitSlot
{
    QString name;
    QString bus;      // "sdio" or "usb"
    QString device;   // kernel name of the whole disk: "mmcblk0", "sda"
    quint32 major = 0;
    quint32 minor = 0;
    bool system = false;     // the unit's own storage: every block carries HintSystem
    bool hasReader = false;  // a USB card reader: drive and empty block exist without a card
    tUnitReader reader;

    quint64 DeviceNumber() const;
    // Kernel name of partition number (1-based): mmcblk0p1, sda1.
    QString PartitionDevice(int number) const;
};

struct tUnitPresence
{
    QString slot;
    QString medium;
};

class tUnitDescription
{
public:
    // False with a message naming the fault when the file is unusable.
    bool Load(const QString& path, QString* error);
    bool Parse(const QByteArray& json, QString* error);

    const QList<tUnitSlot>& Slots() const { return m_Slots; }
    const QList<tUnitMedium>& Media() const { return m_Media; }
    const QList<tUnitPresence>& Present() const { return m_Present; }
    const tUnitSlot* Slot(const QString& name) const;
    const tUnitMedium* Medium(const QString& name) const;

    // Linux's device number encoding (makedev), as UDisks2 reports it.
    static quint64 MakeDeviceNumber(quint32 major, quint32 minor);

private:
    QList<tUnitSlot> m_Slots;
    QList<tUnitMedium> m_Media;
    QList<tUnitPresence> m_Present;
};
