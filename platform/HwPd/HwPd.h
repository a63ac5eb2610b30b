#pragma once

// The SDK access layer, as interfaces that whoever brings up the chip implements and hands
// to the product: table contents as the chip holds them (HwPdIntf and its iterator), table
// resources (HwResourceInfo), and device targets (ChipDriver, ChipId).

#include "HwPd/ChipDriver.h"
#include "HwPd/ChipId.h"
#include "HwPd/HwPdIntf.h"
#include "HwPd/HwPdTableIterator.h"
#include "HwPd/HwResourceInfo.h"
