#pragma once

// The monitor is shared by both engines and lives in engines/ now; this name still works.
#include "engines/MemoryPressureMonitor.h"
