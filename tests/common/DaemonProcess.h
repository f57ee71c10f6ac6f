#pragma once

#include "UnitProcesses.h"

// The larkd binary under test (LARKD_BINARY, set by CTest).
QString LarkdBinary();

// A script from tests/scripts (LARKD_TEST_SCRIPTS, set by CTest).
QString TestScript(const QString& name);

// Puts the recording stand-ins for exportfs, mount, umount and mountpoint
// first on PATH, recording to recordFile (nowhere when empty).
void UseStandins(const QString& recordFile);
