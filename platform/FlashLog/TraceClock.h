#pragma once

// Record timestamps. Reading the time-stamp counter costs a third of a clock_gettime call, and a
// record pays for one on every write, so records carry raw ticks; the file keeps pairs of
// (ticks, CLOCK_REALTIME ns) from which the decoder converts them. Elsewhere ticks are
// nanoseconds already.

#include <time.h>

#include <cstdint>

#if defined(__x86_64__) || defined(__i386__)
#include <x86intrin.h>
#endif

namespace FlashLog {

inline std::uint64_t realtimeNs() {
   timespec ts;
   clock_gettime(CLOCK_REALTIME, &ts);
   return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000u +
          static_cast<std::uint64_t>(ts.tv_nsec);
}

inline std::uint64_t ticks() {
#if defined(__x86_64__) || defined(__i386__)
   return __rdtsc();
#else
   return realtimeNs();
#endif
}

struct ClockPair {
   std::uint64_t ticks;
   std::uint64_t ns;
};

// Ticks read either side of the clock, so that the pair is off by at most half their gap.
inline ClockPair clockPair() {
   const std::uint64_t before = ticks();
   const std::uint64_t ns = realtimeNs();
   const std::uint64_t after = ticks();
   return {before + (after - before) / 2, ns};
}

// Converts ticks along the line through two pairs; with a degenerate second pair, assumes that
// ticks are nanoseconds.
inline std::uint64_t ticksToNs(std::uint64_t t, ClockPair first, ClockPair last) {
   const long double dt = static_cast<long double>(t) - static_cast<long double>(first.ticks);
   if (last.ticks <= first.ticks || last.ns <= first.ns) {
      return static_cast<std::uint64_t>(static_cast<long double>(first.ns) + dt);
   }
   const long double rate = static_cast<long double>(last.ns - first.ns) /
                            static_cast<long double>(last.ticks - first.ticks);
   const long double ns = static_cast<long double>(first.ns) + dt * rate;
   return ns <= 0 ? 0 : static_cast<std::uint64_t>(ns);
}

}  // namespace FlashLog
