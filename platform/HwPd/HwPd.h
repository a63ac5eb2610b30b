#pragma once

// The SDK access layer: table contents as the chip holds them (HwPdIntf and its iterator),
// table resources (HwResourceInfo), device targets (ChipDriver, ChipId), and whether the chip
// is simulated (ChipSdk::inSimulation).

#include "ChipSdk/ChipSdk.h"
#include "HwPd/ChipDriver.h"
#include "HwPd/ChipId.h"
#include "HwPd/HwPdIntf.h"
#include "HwPd/HwPdTableIterator.h"
#include "HwPd/HwResourceInfo.h"
#include "HwPd/ModelHwPd.h"
