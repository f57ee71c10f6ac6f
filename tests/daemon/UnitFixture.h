#pragma once

#include <QString>

// The sysfs, /dev and platform configuration of the end-to-end unit
// (units/e2e-unit.json), laid over the machine's in the test's private mount
// namespace, which the units started afterwards inherit. SD slots "left" and
// "right" are configured; "extra" is not, so its cards fall back to the
// first slot's link name.

bool PrepareUnitMachine(QString* error);
QString E2eUnitFile();
// Writes the sysfs entries of a medium before it is inserted.
bool WriteMediumSysfs(const QString& slot, const QString& medium);
