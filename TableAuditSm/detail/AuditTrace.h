#pragma once

// The audit's own trace file and text facility. Every audit line goes to both, at the same
// level: the text as the system prints it, the record as a short label and raw values.

#include "FlashLog/FlashLog.h"

namespace ChipMbbSlice {

extern DualLog::Facility auditLog;
FlashLog::Handle& auditQt();

// Levels: failures 0; audit start, overshoot and completion 5; notifications 7; handler entry
// 8; per-slice handlers, bookmarks and keys 9.
constexpr unsigned failureLevel = 0;
constexpr unsigned auditLevel = 5;
constexpr unsigned notifyLevel = 7;
constexpr unsigned entryLevel = 8;
constexpr unsigned detailLevel = 9;

}  // namespace ChipMbbSlice

#define AUDIT_TRACE(level, text, ...)                              \
   do {                                                            \
      FLASHLOG_H(::ChipMbbSlice::auditQt(), (level), __VA_ARGS__); \
      DUALLOG(::ChipMbbSlice::auditLog, (level), text);            \
   } while (0)
