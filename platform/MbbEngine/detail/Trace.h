#pragma once

#include "FlashLog/FlashLog.h"

namespace MbbEngine {

// Text traces of the engine: 3 configurations that cannot be honoured, 5 deadlocks broken,
// 7 notifications and waits, 8 handlers entered, 9 per-key decisions.
inline DualLog::Facility mbbEngineLog{"MbbEngine"};

}  // namespace MbbEngine
