#pragma once

// Process-wide trace set-up of the slice. Every module of the slice traces through the one
// FlashLog file that initQt opens and the DualLog facility below, and tells the tables apart
// by the trace id each table draws with getNextQtId.

#include <cstdint>
#include <string>

#include "FlashLog/FlashLog.h"

namespace ChipMbbSlice {

// Text traces of the slice: level 0 recorded failures, 5 placement operations and commits,
// 7 engine notifications, 8 handler entry, 9 per-key detail.
extern DualLog::Facility sliceLog;

// Opens the trace file once per process. With FLASHLOG_DISABLE set no file is opened, and
// the variable is looked at again on the next call.
void initQt();

// The file name initQt opens, before the trace library expands "%d" to the process id.
std::string qtFileName();

// Draws the next per-table trace id; the first is 1. Never reset.
std::uint32_t getNextQtId();

}  // namespace ChipMbbSlice
