#pragma once

// The slice's placement side: trace set-up shared by every module of the slice, and the
// placement helper that turns the engine's decisions into SDK placement operations and
// status writes; and the interface by which table managers register their tables with the
// audit.

#include "ChipMbbSlice/ChipEntryStatus.h"
#include "ChipMbbSlice/ChipMbbEngineHelper.h"
#include "ChipMbbSlice/DependencyEngineIntf.h"
#include "ChipMbbSlice/LinkQueueMetadataValue.h"
#include "ChipMbbSlice/TableAuditRegistry.h"
#include "ChipMbbSlice/TraceSetup.h"
