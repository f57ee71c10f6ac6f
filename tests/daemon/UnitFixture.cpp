#include "UnitFixture.h"

#include "PrivateMounts.h"
#include "UnitSysfs.h"

#include <QDir>
#include <QFile>

#include <memory>

namespace
{
std::unique_ptr<tUnitSysfs> g_Sysfs;

bool WriteFile(const QString& path, const QByteArray& contents = QByteArray())
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(contents) == contents.size();
}
} // namespace

QString E2eUnitFile()
{
    return qEnvironmentVariable("LARKD_DAEMON_UNITS") + QStringLiteral("/e2e-unit.json");
}

bool PrepareUnitMachine(QString* error)
{
    if (!MountTmpfs(QStringLiteral("/sys")) || !MountTmpfs(QStringLiteral("/run/corvex_platform"))
        || !ReplaceDevWithTmpfs()) {
        *error = QStringLiteral("cannot lay tmpfs over /sys, /run/corvex_platform and /dev");
        return false;
    }
    g_Sysfs.reset(new tUnitSysfs);
    if (!g_Sysfs->Load(E2eUnitFile(), error))
        return false;
    for (const char* slot : {"left", "right", "extra", "usb"}) {
        if (!g_Sysfs->WriteSlot(QLatin1String(slot)))
            return false;
    }
    if (!g_Sysfs->WriteSlot(QStringLiteral("internal"), QStringLiteral("emmc"))
        || !g_Sysfs->WriteSlot(QStringLiteral("left"), QStringLiteral("charts"))) {
        *error = QStringLiteral("cannot write the unit's sysfs");
        return false;
    }
    // The slot file names the card slots by their by-path links.
    if (!QDir().mkpath(QStringLiteral("/dev/disk/by-path")) || !WriteFile(QStringLiteral("/dev/mmcblk0"))
        || !WriteFile(QStringLiteral("/dev/mmcblk1"))
        || !QFile::link(QStringLiteral("../../mmcblk0"), QStringLiteral("/dev/disk/by-path/slot0"))
        || !QFile::link(QStringLiteral("../../mmcblk1"), QStringLiteral("/dev/disk/by-path/slot1"))
        || !WriteFile(QStringLiteral("/run/corvex_platform/config"),
                      "sd_slots=left,/dev/disk/by-path/slot0:right,/dev/disk/by-path/slot1\n")) {
        *error = QStringLiteral("cannot write the slot configuration");
        return false;
    }
    return true;
}

bool WriteMediumSysfs(const QString& slot, const QString& medium)
{
    return g_Sysfs && g_Sysfs->WriteSlot(slot, medium);
}
