#pragma once

// The chip SDK as a product sees it: the placement interface (p4_pd_*,
// pipe_mgr_tbl_set_property, status codes), the placement data block, and the seam behind the
// interface.
//
// The face is a thin library that forwards every call to an implementation installed at run
// time (SdkImpl), rather than a bare header whose symbols some other library defines. The
// product libraries then link completely against the face alone and never name what carries
// out their calls, a call made before anything is installed stops on an assertion that says so
// instead of on an unresolved symbol, and a test installs the software chip, or anything else,
// per case without relinking.

#include "ChipSdk/OpKind.h"
#include "ChipSdk/PlcmtApi.h"
#include "ChipSdk/PlcmtData.h"
#include "ChipSdk/SdkImpl.h"
