#pragma once

// The slice's placement side: trace set-up shared by every module of the slice.

#include "ChipMbbSlice/TraceSetup.h"
