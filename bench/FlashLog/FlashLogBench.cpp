// Cost of writing one trace record, from any thread and from a handle's one writer thread, and of
// a disabled text trace, beside the bare clock reads that every record pays for its timestamp.

#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "FlashLog/FlashLog.h"
#include "FlashLog/TraceClock.h"

namespace {

constexpr FlashLog::LevelSizes productSizes = {64, 64, 64, 64, 64, 64, 64, 64, 64, 16384};
DualLog::Facility benchLog{"FlashLogBench"};

void writeRecord(std::uint32_t i) {
   const std::uint32_t qtId = 1;
   FLASHLOG(5, qtId, ":add key:", FlashLog::hex(0x1234500000000ull + i), " hdl:", i,
            " index:", i & 0xFFFF);
}

void disabledText(std::uint32_t i) {
   DUALLOG(benchLog, 9, "mounting table for read " << i);
}

void bareClock(std::uint32_t) {
   timespec ts;
   clock_gettime(CLOCK_REALTIME, &ts);
   benchmark::DoNotOptimize(ts);
}

void recordClock(std::uint32_t) {
   benchmark::DoNotOptimize(FlashLog::ticks());
}

void BM_Record(benchmark::State& state) {
   std::uint32_t i = 0;
   for (auto _ : state) writeRecord(++i);
}
BENCHMARK(BM_Record);

FlashLog::Handle closedHandle;

void BM_RecordHandleClosed(benchmark::State& state) {
   std::uint32_t i = 0;
   for (auto _ : state) {
      FLASHLOG_H(closedHandle, 5, "key:", ++i);
      benchmark::ClobberMemory();
   }
}
BENCHMARK(BM_RecordHandleClosed);

void BM_BareClock(benchmark::State& state) {
   for (auto _ : state) bareClock(0);
}
BENCHMARK(BM_BareClock);

void BM_DualLogDisabled(benchmark::State& state) {
   std::uint32_t i = 0;
   for (auto _ : state) {
      disabledText(++i);
      benchmark::ClobberMemory();
   }
}
BENCHMARK(BM_DualLogDisabled);

// Median over samples of the mean cost of a batch of calls, in nanoseconds.
template <class F>
double medianNs(F f) {
   constexpr int numSamples = 201, batch = 20000;
   std::vector<double> samples;
   std::uint32_t i = 0;
   for (int s = 0; s < numSamples; ++s) {
      const auto start = std::chrono::steady_clock::now();
      for (int b = 0; b < batch; ++b) {
         f(++i);
         benchmark::ClobberMemory();
      }
      const auto elapsed = std::chrono::steady_clock::now() - start;
      samples.push_back(std::chrono::duration<double, std::nano>(elapsed).count() / batch);
   }
   std::nth_element(samples.begin(), samples.begin() + numSamples / 2, samples.end());
   return samples[numSamples / 2];
}

void figure(const char* what, double measured, double target) {
   std::printf("figure: %s = %.2f ns (target <= %.0f ns) %s\n", what, measured, target,
               measured <= target ? "ok" : "MISSED");
}

}  // namespace

int main(int argc, char** argv) {
   char dir[] = "/tmp/flashlog-bench-XXXXXX";
   if (!mkdtemp(dir)) return 1;
   setenv("FLASHLOGDIR", dir, 1);
   if (!FlashLog::defaultHandle().open("bench-%d.qt", productSizes)) return 1;

   benchmark::Initialize(&argc, argv);
   benchmark::RunSpecifiedBenchmarks();
   benchmark::Shutdown();

   figure("FlashLog record, key and three U32, median", medianNs(writeRecord), 50);
   if (!FlashLog::defaultHandle().open("bench-one-%d.qt", productSizes,
                                       FlashLog::Writers::oneThread)) {
      return 1;
   }
   figure("FlashLog record from the handle's one writer thread, median", medianNs(writeRecord), 50);
   std::printf("figure: record clock (time-stamp counter) read, median = %.2f ns (baseline)\n",
               medianNs(recordClock));
   std::printf("figure: bare CLOCK_REALTIME read, median = %.2f ns (baseline)\n",
               medianNs(bareClock));
   figure("DualLog disabled level, median", medianNs(disabledText), 2);

   FlashLog::defaultHandle().close();
   std::filesystem::remove_all(dir);
   return 0;
}
