#pragma once

// Times a block and writes its duration as one record when the block is left; nothing is
// measured while the handle is closed. Only the start is read here: the record's own time is
// the end, and the decoder prints the difference in nanoseconds.

#include <cstdint>

#include "FlashLog/Handle.h"
#include "FlashLog/TraceClock.h"
#include "FlashLog/detail/ArgCodec.h"

namespace FlashLog {

template <class Write>
class BlockTimer {
 public:
   BlockTimer(Handle& handle, unsigned level, Write write)
       : handle_(handle),
         level_(level),
         write_(write),
         timing_(handle.isOpen()),
         start_(timing_ ? ticks() : 0) {}
   ~BlockTimer() {
      if (timing_) write_(handle_, level_, Since{start_});
   }
   BlockTimer(const BlockTimer&) = delete;
   BlockTimer& operator=(const BlockTimer&) = delete;

 private:
   Handle& handle_;
   unsigned level_;
   Write write_;
   bool timing_;
   std::uint64_t start_;
};

}  // namespace FlashLog
