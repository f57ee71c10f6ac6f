// unit-sysfs ROOT UNITFILE [SLOT[=MEDIUM]...]
// Writes what libudev reads for the slots of a simulated unit, and for the
// media in them, under ROOT (without SLOTs: every slot, with the media the
// unit starts with): the same tree the end-to-end tests lay, for
// scripts that run a unit in a private mount namespace with a tmpfs on /sys
// (larkd-unit.sh, scripts/run.sh).

#include "UnitDescription.h"
#include "UnitSysfs.h"

#include <QCoreApplication>
#include <QFile>
#include <QStringList>

#include <cstdio>

#include <linux/magic.h>
#include <sys/vfs.h>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QStringList arguments = app.arguments().mid(1);
    if (arguments.size() < 2) {
        std::fprintf(stderr, "usage: unit-sysfs ROOT UNITFILE [SLOT[=MEDIUM]...]\n");
        return 2;
    }
    // The machine's own sysfs is never written to, whatever the caller thinks.
    struct statfs filesystem;
    if (statfs(QFile::encodeName(arguments.at(0)).constData(), &filesystem) != 0 || filesystem.f_type == SYSFS_MAGIC) {
        std::fprintf(stderr, "unit-sysfs: %s is missing or a real sysfs\n", qPrintable(arguments.at(0)));
        return 1;
    }
    tUnitSysfs sysfs(arguments.at(0));
    QString error;
    if (!sysfs.Load(arguments.at(1), &error)) {
        std::fprintf(stderr, "unit-sysfs: %s\n", qPrintable(error));
        return 1;
    }
    QStringList entries = arguments.mid(2);
    if (entries.isEmpty()) {
        tUnitDescription unit;
        unit.Load(arguments.at(1), &error);
        for (const tUnitSlot& slot : unit.Slots())
            entries << slot.name;
        for (const tUnitPresence& present : unit.Present())
            entries << present.slot + QLatin1Char('=') + present.medium;
    }
    for (const QString& entry : entries) {
        if (!sysfs.WriteSlot(entry.section(QLatin1Char('='), 0, 0), entry.section(QLatin1Char('='), 1))) {
            std::fprintf(stderr, "unit-sysfs: cannot write %s (unknown slot or medium?)\n", qPrintable(entry));
            return 1;
        }
    }
    return 0;
}
