#include "UnitSysfs.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

tUnitSysfs::tUnitSysfs(const QString& root)
    : m_Tree(root)
{
}

bool tUnitSysfs::Load(const QString& unitFile, QString* error)
{
    if (!m_Unit.Load(unitFile, error))
        return false;
    QFile file(unitFile);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = file.errorString();
        return false;
    }
    const QJsonArray media = QJsonDocument::fromJson(file.readAll()).object().value(QStringLiteral("media")).toArray();
    for (const QJsonValue& medium : media) {
        const QJsonObject object = medium.toObject();
        if (object.contains(QStringLiteral("cid")))
            m_Cids.insert(object.value(QStringLiteral("name")).toString(),
                          object.value(QStringLiteral("cid")).toString().toLatin1());
    }
    return true;
}

bool tUnitSysfs::WriteSlot(const QString& slotName, const QString& mediumName)
{
    const tUnitSlot* slot = m_Unit.Slot(slotName);
    const tUnitMedium* medium = mediumName.isEmpty() ? nullptr : m_Unit.Medium(mediumName);
    if (!slot || (!mediumName.isEmpty() && !medium))
        return false;

    int index = 0;
    while (m_Unit.Slots().at(index).name != slotName)
        ++index;
    QString parent;
    if (slot->bus == QLatin1String("sdio")) {
        parent = m_Tree.AddMmcCard(index, medium ? m_Cids.value(medium->name) : QByteArray());
    } else {
        const QString usbId = slot->hasReader ? slot->reader.usbId : (medium ? medium->usbId : QString());
        const QStringList ids = usbId.split(QLatin1Char(':'));
        parent = m_Tree.AddUsbStorage(QStringLiteral("1-%1").arg(index + 1), ids.value(0).toLatin1(),
                                      ids.value(1).toLatin1());
    }
    if (parent.isEmpty())
        return false;
    const QString disk = m_Tree.AddBlock(parent, slot->device, slot->major, slot->minor, QStringLiteral("disk"));
    if (disk.isEmpty())
        return false;
    for (int i = 0; medium && i < medium->partitions.size(); ++i) {
        if (m_Tree.AddBlock(disk, slot->PartitionDevice(i + 1), slot->major, slot->minor + i + 1,
                            QStringLiteral("partition"))
                .isEmpty())
            return false;
    }
    return true;
}
