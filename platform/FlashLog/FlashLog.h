#pragma once

// Binary trace records in memory-mapped ring buffers, one ring per level, and the leveled text
// traces of DualLog.
//
//    FLASHLOG(5, qtId, ":add key:", FlashLog::hex(key), " hdl:", hdl, " index:", index);
//
// String literals are labels: stored once per call site in the file's format table. Every
// other argument is a value whose raw bytes go into the record; the decoder (FlashLog/Decoder.h
// and tools/flashlogdecode) turns records back into text. A closed handle costs one branch.

#include "FlashLog/DualLog.h"
#include "FlashLog/Handle.h"
#include "FlashLog/Types.h"
#include "FlashLog/detail/BlockTimer.h"

#define FLASHLOG_H(handle, level, ...)                               \
   do {                                                              \
      ::FlashLog::Handle& flashLogHandle_ = (handle);                \
      if (flashLogHandle_.isOpen()) {                                \
         static const ::FlashLog::FormatSite flashLogSite_;          \
         flashLogHandle_.write(flashLogSite_, (level), __VA_ARGS__); \
      }                                                              \
   } while (0)

// Writes to the process-wide handle.
#define FLASHLOG(level, ...) FLASHLOG_H(::FlashLog::defaultHandle(), level, __VA_ARGS__)

#define FLASHLOG_CONCAT_(a, b) a##b
#define FLASHLOG_CONCAT(a, b) FLASHLOG_CONCAT_(a, b)

// Until the end of the enclosing block; writes the labels and values given, then " ns:" and the
// elapsed nanoseconds. The arguments are evaluated when the block is left.
#define FLASHLOG_BLOCK_TIMER_H(handle, level, ...)                                          \
   ::FlashLog::BlockTimer FLASHLOG_CONCAT(flashLogBlockTimer_, __LINE__)(                   \
       (handle), (level), [&](::FlashLog::Handle& h, unsigned l, ::FlashLog::Since start) { \
          FLASHLOG_H(h, l, __VA_ARGS__, " ns:", start);                                     \
       })

#define FLASHLOG_BLOCK_TIMER(level, ...) \
   FLASHLOG_BLOCK_TIMER_H(::FlashLog::defaultHandle(), level, __VA_ARGS__)
