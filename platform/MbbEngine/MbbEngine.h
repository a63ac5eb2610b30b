#pragma once

// The make-before-break engine: orders the entries of a match table so that a configured entry
// stays in hardware until its replacement is in, and no two entries ever share an index.

#include "MbbEngine/DebugConfig.h"
#include "MbbEngine/DebugStatus.h"
#include "MbbEngine/FastMbbEngineAtcamImpl.h"
#include "MbbEngine/FastMbbEngineImpl.h"
#include "MbbEngine/MbbEngineFlushStatus.h"
#include "MbbEngine/MbbEngineHelper.h"
#include "MbbEngine/MbbEngineImpl.h"
#include "MbbEngine/MbbEngineSm.h"
