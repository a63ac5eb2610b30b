#pragma once

// The chip SDK: the placement interface (p4_pd_*, pipe_mgr_tbl_set_property), the placement
// data block, and the software chip model that carries them out.

#include "ChipSdk/ChipModel.h"
#include "ChipSdk/ChipProfile.h"
#include "ChipSdk/OpKind.h"
#include "ChipSdk/PlcmtApi.h"
#include "ChipSdk/PlcmtData.h"
