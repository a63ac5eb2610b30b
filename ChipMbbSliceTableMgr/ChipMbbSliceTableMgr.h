#pragma once

// Table management and start-up of the slice: the mount configuration, the trace set-up that
// every table manager shares, the watcher that a hosting agent creates, the managers of single
// match tables and of triples it makes, and the show commands.

#include "ChipMbbSlice/TraceSetup.h"
#include "ChipMbbSliceTableMgr/ChipSliceMatAdtSelTableMgrSm.h"
#include "ChipMbbSliceTableMgr/ChipSliceTableMgrSm.h"
#include "ChipMbbSliceTableMgr/ChipSliceTableWatcherSm.h"
#include "ChipMbbSliceTableMgr/CliCallback.h"
#include "ChipMbbSliceTableMgr/CliYieldSm.h"
#include "ChipMbbSliceTableMgr/DebugIntf.h"
#include "ChipMbbSliceTableMgr/MountConfig.h"
