#pragma once

// The dependency engine of triple tables: the records of what it has issued, the engine that
// orders match entries, ADT entries and selector members against each other, and the state
// machine that drives it from the four configuration tables.

#include "ChipMbbSliceMatAdtSelSm/DependencyRecords.h"
#include "ChipMbbSliceMatAdtSelSm/MatAdtSelMbbEngineImpl.h"
#include "ChipMbbSliceMatAdtSelSm/MatAdtSelSm.h"
