#pragma once

// The software chip of the tests and tools: a model of the chip's tables behind the placement
// interface, its profiles (built in or read from JSON), its hitless checker, and the model
// versions of the SDK access layer (ModelHwPd) and of the table resources
// (ModelResourceInfo). Product libraries never link it; they are given a chip through the
// ChipSdk face and the HwPd interfaces.

#include "ChipModel/AdtTable.h"
#include "ChipModel/Chip.h"
#include "ChipModel/ChipProfile.h"
#include "ChipModel/Fault.h"
#include "ChipModel/MatTable.h"
#include "ChipModel/ModelHwPd.h"
#include "ChipModel/ModelResourceInfo.h"
#include "ChipModel/SelTable.h"
#include "ChipModel/TableModel.h"
#include "ChipModel/ViolationKind.h"
