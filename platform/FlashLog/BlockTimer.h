#pragma once

// Times a block and writes its duration as one record when the block is left; nothing is
// measured while the handle is closed.

#include <time.h>

#include <cstdint>

#include "FlashLog/Handle.h"

namespace FlashLog {

template <class Write>
class BlockTimer {
 public:
   BlockTimer(Handle& handle, unsigned level, Write write)
       : handle_(handle), level_(level), write_(write), startNs_(handle.isOpen() ? nowNs() : 0) {}
   ~BlockTimer() {
      if (startNs_ != 0) write_(handle_, level_, nowNs() - startNs_);
   }
   BlockTimer(const BlockTimer&) = delete;
   BlockTimer& operator=(const BlockTimer&) = delete;

 private:
   static std::uint64_t nowNs() {
      timespec ts;
      clock_gettime(CLOCK_MONOTONIC, &ts);
      return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000u +
             static_cast<std::uint64_t>(ts.tv_nsec);
   }

   Handle& handle_;
   unsigned level_;
   Write write_;
   std::uint64_t startNs_;
};

}  // namespace FlashLog
