#pragma once

// Table management and start-up of the slice: the mount configuration, the trace set-up that
// every table manager shares, and the manager of single match tables.

#include "ChipMbbSlice/TraceSetup.h"
#include "ChipMbbSliceTableMgr/ChipSliceTableMgrSm.h"
#include "ChipMbbSliceTableMgr/DebugIntf.h"
#include "ChipMbbSliceTableMgr/MountConfig.h"
