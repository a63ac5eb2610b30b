#pragma once

// Table management and start-up of the slice: the mount configuration and the trace set-up
// that every table manager shares.

#include "ChipMbbSlice/TraceSetup.h"
#include "ChipMbbSliceTableMgr/MountConfig.h"
