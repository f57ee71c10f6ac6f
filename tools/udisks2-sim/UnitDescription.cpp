#include "UnitDescription.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSet>

namespace
{
// Partitions start at 1 MiB, as partitioning tools align them.
constexpr quint64 FirstPartitionOffset = 1024 * 1024;

quint64 ReadSize(const QJsonValue& value)
{
    // JSON numbers are doubles: sizes up to 2^53 are exact, which covers any card.
    return value.isString() ? value.toString().toULongLong() : static_cast<quint64>(value.toDouble());
}

bool ParseDeviceNumber(const QString& text, tUnitSlot* slot)
{
    static const QRegularExpression pattern(QStringLiteral("^(\\d+):(\\d+)$"));
    const QRegularExpressionMatch match = pattern.match(text);
    if (!match.hasMatch())
        return false;
    slot->major = match.captured(1).toUInt();
    slot->minor = match.captured(2).toUInt();
    return true;
}

bool ParseMedium(const QJsonObject& o, tUnitMedium* medium, QString* error)
{
    medium->name = o.value(QStringLiteral("name")).toString();
    medium->vendor = o.value(QStringLiteral("vendor")).toString();
    medium->model = o.value(QStringLiteral("model")).toString();
    medium->serial = o.value(QStringLiteral("serial")).toString();
    medium->revision = o.value(QStringLiteral("revision")).toString();
    medium->usbId = o.value(QStringLiteral("usbId")).toString();
    medium->size = ReadSize(o.value(QStringLiteral("size")));
    medium->readOnly = o.value(QStringLiteral("readOnly")).toBool();
    if (medium->name.isEmpty() || medium->size == 0) {
        *error = QStringLiteral("medium \"%1\": needs a name and a non-zero size").arg(medium->name);
        return false;
    }
    quint64 offset = FirstPartitionOffset;
    const QJsonArray partitions = o.value(QStringLiteral("partitions")).toArray();
    if (o.contains(QStringLiteral("filesystem"))) {
        const QJsonObject f = o.value(QStringLiteral("filesystem")).toObject();
        medium->filesystem.fsType = f.value(QStringLiteral("type")).toString();
        medium->filesystem.label = f.value(QStringLiteral("label")).toString();
        medium->filesystem.uuid = f.value(QStringLiteral("uuid")).toString();
        medium->filesystem.size = medium->size;
        if (medium->filesystem.fsType.isEmpty() || !partitions.isEmpty()) {
            *error = QStringLiteral("medium \"%1\": a whole-medium filesystem needs a type and excludes partitions").arg(medium->name);
            return false;
        }
    }
    for (const QJsonValue& v : partitions) {
        const QJsonObject p = v.toObject();
        tUnitPartition partition;
        partition.fsType = p.value(QStringLiteral("type")).toString();
        partition.label = p.value(QStringLiteral("label")).toString();
        partition.uuid = p.value(QStringLiteral("uuid")).toString();
        if (p.contains(QStringLiteral("partitionType")))
            partition.partitionType = p.value(QStringLiteral("partitionType")).toString();
        partition.offset = offset;
        // Without a size a partition fills the rest of the medium.
        partition.size = p.contains(QStringLiteral("size")) ? ReadSize(p.value(QStringLiteral("size")))
                                                            : (medium->size > offset ? medium->size - offset : 0);
        if (partition.size == 0 || offset + partition.size > medium->size) {
            *error = QStringLiteral("medium \"%1\": partition %2 does not fit").arg(medium->name).arg(medium->partitions.size() + 1);
            return false;
        }
        offset += partition.size;
        medium->partitions.append(partition);
    }
    return true;
}

bool ParseSlot(const QJsonObject& o, tUnitSlot* slot, QString* error)
{
    slot->name = o.value(QStringLiteral("name")).toString();
    slot->bus = o.value(QStringLiteral("bus")).toString();
    slot->device = o.value(QStringLiteral("device")).toString();
    slot->system = o.value(QStringLiteral("system")).toBool();
    if (slot->name.isEmpty() || slot->device.isEmpty()) {
        *error = QStringLiteral("slot \"%1\": needs a name and a device").arg(slot->name);
        return false;
    }
    if (slot->bus != QLatin1String("sdio") && slot->bus != QLatin1String("usb")) {
        *error = QStringLiteral("slot \"%1\": bus must be \"sdio\" or \"usb\"").arg(slot->name);
        return false;
    }
    if (!ParseDeviceNumber(o.value(QStringLiteral("deviceNumber")).toString(), slot)) {
        *error = QStringLiteral("slot \"%1\": deviceNumber must read MAJOR:MINOR").arg(slot->name);
        return false;
    }
    if (o.contains(QStringLiteral("reader"))) {
        const QJsonObject r = o.value(QStringLiteral("reader")).toObject();
        slot->hasReader = true;
        slot->reader.vendor = r.value(QStringLiteral("vendor")).toString();
        slot->reader.model = r.value(QStringLiteral("model")).toString();
        slot->reader.serial = r.value(QStringLiteral("serial")).toString();
        slot->reader.revision = r.value(QStringLiteral("revision")).toString();
        slot->reader.usbId = r.value(QStringLiteral("usbId")).toString();
        if (slot->bus != QLatin1String("usb")) {
            *error = QStringLiteral("slot \"%1\": a card reader sits on the usb bus").arg(slot->name);
            return false;
        }
    }
    return true;
}
} // namespace

quint64 tUnitSlot::DeviceNumber() const
{
    return tUnitDescription::MakeDeviceNumber(major, minor);
}

QString tUnitSlot::PartitionDevice(int number) const
{
    // The kernel separates the number with "p" when the disk name ends in a digit.
    const bool digit = !device.isEmpty() && device.back().isDigit();
    return device + (digit ? QStringLiteral("p") : QString()) + QString::number(number);
}

quint64 tUnitDescription::MakeDeviceNumber(quint32 major, quint32 minor)
{
    return (quint64(major & 0xfffff000u) << 32) | (quint64(major & 0xfffu) << 8) | (quint64(minor & 0xffffff00u) << 12)
        | quint64(minor & 0xffu);
}

bool tUnitDescription::Load(const QString& path, QString* error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("%1: %2").arg(path, file.errorString());
        return false;
    }
    return Parse(file.readAll(), error);
}

bool tUnitDescription::Parse(const QByteArray& json, QString* error)
{
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(json, &parseError);
    if (!document.isObject()) {
        *error = QStringLiteral("not a JSON object: %1").arg(parseError.errorString());
        return false;
    }
    const QJsonObject root = document.object();
    QList<tUnitSlot> slotList;
    QList<tUnitMedium> mediaList;
    QList<tUnitPresence> presentList;
    QSet<QString> names, devices;

    for (const QJsonValue& v : root.value(QStringLiteral("slots")).toArray()) {
        tUnitSlot slot;
        if (!ParseSlot(v.toObject(), &slot, error))
            return false;
        if (names.contains(slot.name) || devices.contains(slot.device)) {
            *error = QStringLiteral("slot \"%1\": name or device used twice").arg(slot.name);
            return false;
        }
        names.insert(slot.name);
        devices.insert(slot.device);
        slotList.append(slot);
    }
    names.clear();
    for (const QJsonValue& v : root.value(QStringLiteral("media")).toArray()) {
        tUnitMedium medium;
        if (!ParseMedium(v.toObject(), &medium, error))
            return false;
        if (names.contains(medium.name)) {
            *error = QStringLiteral("medium \"%1\": name used twice").arg(medium.name);
            return false;
        }
        names.insert(medium.name);
        mediaList.append(medium);
    }
    m_Slots = slotList;
    m_Media = mediaList;
    QSet<QString> filled;
    for (const QJsonValue& v : root.value(QStringLiteral("present")).toArray()) {
        const QJsonObject o = v.toObject();
        const tUnitPresence presence{o.value(QStringLiteral("slot")).toString(), o.value(QStringLiteral("medium")).toString()};
        if (!Slot(presence.slot) || !Medium(presence.medium) || filled.contains(presence.slot)) {
            *error = QStringLiteral("present: unknown or doubly filled slot \"%1\" or unknown medium \"%2\"")
                         .arg(presence.slot, presence.medium);
            m_Slots.clear();
            m_Media.clear();
            return false;
        }
        filled.insert(presence.slot);
        presentList.append(presence);
    }
    m_Present = presentList;
    return true;
}

const tUnitSlot* tUnitDescription::Slot(const QString& name) const
{
    for (const tUnitSlot& slot : m_Slots)
        if (slot.name == name)
            return &slot;
    return nullptr;
}

const tUnitMedium* tUnitDescription::Medium(const QString& name) const
{
    for (const tUnitMedium& medium : m_Media)
        if (medium.name == name)
            return &medium;
    return nullptr;
}
