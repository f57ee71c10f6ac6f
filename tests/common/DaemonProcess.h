#pragma once

#include "UnitProcesses.h"

// The larkd binary under test (LARKD_BINARY, set by CTest).
QString LarkdBinary();

// A script from tests/scripts (LARKD_TEST_SCRIPTS, set by CTest).
QString TestScript(const QString& name);
