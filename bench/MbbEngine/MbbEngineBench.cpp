#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <numeric>
#include <random>
#include <vector>

#include "ChipModel/ChipModel.h"
#include "Keel/TimerWheel.h"
#include "MbbEngine/MbbEngine.h"
#include "MbbEngine/testing/ChipCommitHelper.h"

// End to end in one process: a publisher writes heap Vault tables, the engine sequences them,
// a helper commits each operation to the chip model and writes the status. Beside each figure,
// the bare baseline of the same run: the same hardware operations committed and their statuses
// written by the helper alone, without configuration table or engine.

namespace {

using MbbEngine::Test::ChipCommitHelper;
using Vault::MbbEngine::EntryConfig;

constexpr std::uint32_t addTableHdl = 0x01000001;
constexpr std::uint32_t addTableSize = 1u << 20;
constexpr std::size_t numAdds = 1'000'000;
constexpr std::uint32_t reindexTableHdl = 0x01000002;
constexpr std::uint32_t reindexTableSize = 125'000;
constexpr std::size_t numReindexed = 100'000;

double cpuSeconds() {
   timespec ts{};
   clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
   return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// Bytes allocated, whether from the heap or, for large blocks, mapped on their own.
std::size_t heapInUse() {
   const struct mallinfo2 info = mallinfo2();
   return info.uordblks + info.hblkhd;
}

ChipModel::ChipProfile benchProfile(std::uint32_t hdl, std::uint32_t size) {
   ChipModel::ChipProfile profile;
   profile.name = "bench";
   profile.numPipes = 4;
   profile.devices = {0};
   profile.tables = {{"bench", hdl, ChipSdk::TableKind::mat, size, 0, 0, 0}};
   return profile;
}

// The chip of one measurement, installed while it lives, its hitless checker fatal.
struct BenchChip : ChipModel::InstalledChip {
   BenchChip(std::uint32_t hdl, std::uint32_t size) : InstalledChip(benchProfile(hdl, size)) {
      hitlessFatalIs(true);
   }
};

EntryConfig entry(std::uint64_t key, std::uint64_t opId, std::uint32_t handle,
                  std::uint32_t index) {
   std::uint8_t payload[16];
   std::memcpy(payload, &key, 8);
   std::memcpy(payload + 8, &opId, 8);
   return EntryConfig(key, opId, handle, 0, 0, 1, index, 0, 0,
                      ChipSdk::PlcmtDataBuilder().payload(payload, sizeof payload).block());
}

// One table served by an engine, on a manual clock.
struct EngineTable {
   EngineTable(std::uint32_t hdl, std::uint32_t size)
       : config(Vault::MbbEngine::tableConfigFactory("bench")),
         status(Vault::MbbEngine::tableStatusFactory("bench-status")),
         helper(Orb::ptrNew<ChipCommitHelper>("bench", status, 0, hdl, size)),
         impl(Orb::ptrNew<MbbEngine::FastMbbEngineImpl>("bench", config, nullptr, nullptr, helper,
                                                        1)),
         wheel(Orb::ptrNew<Orb::ManualTimeSource>(), 1, 1000, true, 16) {
      config->mountedIs(true);
      status->mountedIs(true);
      sm = Orb::ptrNew<MbbEngine::MbbEngineSm>(config, status, nullptr, nullptr, impl, nullptr,
                                               &wheel);
   }

   Orb::Ptr<Vault::MbbEngine::TableConfig> config;
   Orb::Ptr<Vault::MbbEngine::TableStatus> status;
   Orb::Ptr<ChipCommitHelper> helper;
   Orb::Ptr<MbbEngine::FastMbbEngineImpl> impl;
   Keel::TimerWheel wheel;
   Orb::Ptr<MbbEngine::MbbEngineSm> sm;
};

void figure(const char* name, double value, const char* unit, const char* target, bool met) {
   std::printf("figure: %s = %.0f %s (target %s) %s\n", name, value, unit, target,
               met ? "met" : "MISSED");
}

// An end-to-end rate, the bare baseline of the same run beside it, and their ratio.
void againstBaseline(const char* what, const char* unit, double engineRate, double baselineRate,
                     double target, bool complete) {
   std::printf("figure: MbbEngine %s end to end = %.0f %s (target >= %.0f) %s\n", what, engineRate,
               unit, target, engineRate >= target && complete ? "met" : "MISSED");
   std::printf("figure: MbbEngine %s baseline (chip commit + status write, no engine) = %.0f %s\n",
               what, baselineRate, unit);
   std::printf("figure: MbbEngine %s engine/baseline time ratio = %.2f\n", what,
               baselineRate / engineRate);
}

void millionAdds() {
   // Baseline: commit and status write only.
   double baselineSeconds;
   std::size_t baselineHeap;
   {
      BenchChip chip(addTableHdl, addTableSize);
      const std::size_t heap0 = heapInUse();
      auto status = Vault::MbbEngine::tableStatusFactory("baseline-status");
      status->mountedIs(true);
      ChipCommitHelper helper("baseline", status, 0, addTableHdl, addTableSize);
      const double start = cpuSeconds();
      for (std::uint32_t k = 1; k <= numAdds; ++k) helper.addEntry(entry(k, 1, k, k - 1));
      baselineSeconds = cpuSeconds() - start;
      baselineHeap = heapInUse() - heap0;
   }
   // The configuration table alone, for the memory account.
   std::size_t configHeap;
   {
      const std::size_t heap0 = heapInUse();
      auto config = Vault::MbbEngine::tableConfigFactory("config-only");
      for (std::uint32_t k = 1; k <= numAdds; ++k) config->entryIs(entry(k, 1, k, k - 1));
      configHeap = heapInUse() - heap0;
   }

   BenchChip chip(addTableHdl, addTableSize);
   const std::size_t heap0 = heapInUse();
   EngineTable table(addTableHdl, addTableSize);
   const double start = cpuSeconds();
   for (std::uint32_t k = 1; k <= numAdds; ++k) table.config->entryIs(entry(k, 1, k, k - 1));
   const double engineSeconds = cpuSeconds() - start;
   const std::size_t engineHeap = heapInUse() - heap0;
   const bool complete = table.impl->numCurrent() == numAdds && table.status->size() == numAdds &&
                         table.impl->numPending() == 0;

   againstBaseline("1M adds", "ops/s", numAdds / engineSeconds, numAdds / baselineSeconds, 500'000,
                   complete);
   const double perKey = static_cast<double>(table.impl->memoryBytes()) / numAdds;
   figure("MbbEngine memory per key (engine's own structures)", perKey, "bytes", "<= 150",
          perKey <= 150);
   const double heapPerKey = (static_cast<double>(engineHeap) - static_cast<double>(baselineHeap) -
                              static_cast<double>(configHeap)) /
                             numAdds;
   std::printf(
       "figure: MbbEngine heap per key (engine run - baseline run - config table) = %.0f bytes\n",
       heapPerKey);
}

// The hardware operations that carry a re-index out, planned ahead: a key moves once its
// target index is free, which frees its old index for the key waiting on it; when only cycles
// are left, one key of a cycle is deleted to open it and added back when its target frees.
// Targets are distinct, so at most one key waits on an index.
struct PlannedOp {
   enum Kind : std::uint8_t { move, del, add } kind;
   std::uint32_t key;  // key k sits at index k - 1 before the re-index
};

std::vector<PlannedOp> reindexPlan(const std::vector<std::uint32_t>& target) {
   constexpr std::int64_t none = -1;
   const auto n = static_cast<std::uint32_t>(target.size());
   std::vector<std::int64_t> pos(n), holder(reindexTableSize, none), waiter(reindexTableSize, none);
   std::vector<bool> done(n);
   std::vector<std::uint32_t> ready;
   for (std::uint32_t k = 0; k < n; ++k) {
      pos[k] = k;
      holder[k] = k;
   }
   for (std::uint32_t k = 0; k < n; ++k) {
      if (target[k] == k) {
         done[k] = true;
      } else if (holder[target[k]] == none) {
         ready.push_back(k);
      } else {
         waiter[target[k]] = k;
      }
   }
   auto free = [&](std::int64_t index) {
      holder[index] = none;
      if (waiter[index] != none) ready.push_back(static_cast<std::uint32_t>(waiter[index]));
      waiter[index] = none;
   };
   std::vector<PlannedOp> plan;
   for (std::uint32_t scan = 0;;) {
      while (!ready.empty()) {
         const std::uint32_t k = ready.back();
         ready.pop_back();
         const std::int64_t old = pos[k];
         plan.push_back({old == none ? PlannedOp::add : PlannedOp::move, k + 1});
         holder[target[k]] = k;
         pos[k] = target[k];
         done[k] = true;
         if (old != none) free(old);
      }
      while (scan < n && done[scan]) ++scan;
      if (scan == n) return plan;
      plan.push_back({PlannedOp::del, scan + 1});
      free(pos[scan]);
      pos[scan] = none;
   }
}

// Targets of the re-index: half of the keys trade indices among themselves (a permutation:
// cycles, some long), the other half spread over their own indices and free ones (chains that
// end in a free index).
std::vector<std::uint32_t> reindexTargets(std::mt19937& rng) {
   std::vector<std::uint32_t> keys(numReindexed);
   std::iota(keys.begin(), keys.end(), 0);
   std::shuffle(keys.begin(), keys.end(), rng);
   const std::size_t half = numReindexed / 2;
   std::vector<std::uint32_t> target(numReindexed);
   std::vector<std::uint32_t> cycled(keys.begin(), keys.begin() + half);
   std::vector<std::uint32_t> pool = cycled;
   std::shuffle(pool.begin(), pool.end(), rng);
   for (std::size_t i = 0; i < half; ++i) target[cycled[i]] = pool[i];
   pool.assign(keys.begin() + half, keys.end());
   for (std::uint32_t free = numReindexed; free < reindexTableSize; ++free) pool.push_back(free);
   std::shuffle(pool.begin(), pool.end(), rng);
   for (std::size_t i = half; i < numReindexed; ++i) target[keys[i]] = pool[i - half];
   return target;
}

struct ReindexRun {
   double seconds = 0;
   std::uint64_t hardwareOps = 0;
   std::uint64_t deadlocks = 0;
   bool complete = false;
};

ReindexRun engineReindex(const std::vector<std::uint32_t>& target,
                         const std::vector<std::uint32_t>& order) {
   BenchChip chip(reindexTableHdl, reindexTableSize);
   EngineTable table(reindexTableHdl, reindexTableSize);
   for (std::uint32_t k = 1; k <= numReindexed; ++k) table.config->entryIs(entry(k, 1, k, k - 1));
   const std::uint64_t ops0 = table.helper->numOps();
   ReindexRun run;
   const double start = cpuSeconds();
   for (std::uint32_t k : order) table.config->entryIs(entry(k, 2, k, target[k - 1]));
   run.seconds = cpuSeconds() - start;
   run.hardwareOps = table.helper->numOps() - ops0;
   run.deadlocks = table.impl->numDeadlock();
   run.complete = table.impl->numPending() == 0;
   for (std::uint32_t k = 1; k <= numReindexed; ++k) {
      run.complete = run.complete && table.status->entry(k).opId().value() == 2;
   }
   return run;
}

double baselineReindex(const std::vector<std::uint32_t>& target,
                       const std::vector<PlannedOp>& plan) {
   BenchChip chip(reindexTableHdl, reindexTableSize);
   auto status = Vault::MbbEngine::tableStatusFactory("baseline-status");
   status->mountedIs(true);
   ChipCommitHelper helper("baseline", status, 0, reindexTableHdl, reindexTableSize);
   for (std::uint32_t k = 1; k <= numReindexed; ++k) helper.addEntry(entry(k, 1, k, k - 1));
   const double start = cpuSeconds();
   for (const PlannedOp& op : plan) {
      const EntryConfig e = entry(op.key, 2, op.key, target[op.key - 1]);
      switch (op.kind) {
         case PlannedOp::move:
            helper.moveEntry(e);
            break;
         case PlannedOp::del:
            helper.deleteEntryDeadlock(entry(op.key, 1, op.key, op.key - 1));
            break;
         case PlannedOp::add:
            helper.addEntry(e);
            break;
      }
   }
   return cpuSeconds() - start;
}

// What the publisher's writes cost alone, into a table nobody watches.
double writesReindex(const std::vector<std::uint32_t>& target,
                     const std::vector<std::uint32_t>& order) {
   auto config = Vault::MbbEngine::tableConfigFactory("unwatched");
   for (std::uint32_t k = 1; k <= numReindexed; ++k) config->entryIs(entry(k, 1, k, k - 1));
   const double start = cpuSeconds();
   for (std::uint32_t k : order) config->entryIs(entry(k, 2, k, target[k - 1]));
   return cpuSeconds() - start;
}

double median(std::vector<double> v) {
   std::sort(v.begin(), v.end());
   return v[v.size() / 2];
}

// The machine is shared: each part runs three times, interleaved, and the median counts.
void reindex() {
   std::mt19937 rng(12345);
   const std::vector<std::uint32_t> target = reindexTargets(rng);
   std::vector<std::uint32_t> order(numReindexed);
   std::iota(order.begin(), order.end(), 1);
   std::shuffle(order.begin(), order.end(), rng);
   const std::vector<PlannedOp> plan = reindexPlan(target);

   std::vector<double> engine, baseline, writes;
   ReindexRun run;
   bool complete = true;
   for (int i = 0; i < 3; ++i) {
      run = engineReindex(target, order);
      complete = complete && run.complete;
      engine.push_back(run.seconds);
      baseline.push_back(baselineReindex(target, plan));
      writes.push_back(writesReindex(target, order));
   }
   const double engineRate = numReindexed / median(engine);
   const double baselineRate = numReindexed / median(baseline);
   std::printf(
       "figure: MbbEngine re-index: %llu hardware ops, %llu cycles broken (baseline plan %zu "
       "ops)\n",
       static_cast<unsigned long long>(run.hardwareOps),
       static_cast<unsigned long long>(run.deadlocks), plan.size());
   std::printf("figure: MbbEngine re-index: configuration writes alone = %.0f keys/s\n",
               numReindexed / median(writes));
   againstBaseline("random re-index of 100k keys", "keys/s", engineRate, baselineRate, 200'000,
                   complete);
}

// Steady state: one configured key modified again and again.
void BM_EngineUpdate(benchmark::State& state) {
   BenchChip chip(addTableHdl, 1024);
   EngineTable table(addTableHdl, 1024);
   std::uint64_t opId = 1;
   for (auto _ : state) table.config->entryIs(entry(1, ++opId, 1, 7));
}
BENCHMARK(BM_EngineUpdate);

void BM_HelperUpdateBaseline(benchmark::State& state) {
   BenchChip chip(addTableHdl, 1024);
   auto status = Vault::MbbEngine::tableStatusFactory("baseline-status");
   status->mountedIs(true);
   ChipCommitHelper helper("baseline", status, 0, addTableHdl, 1024);
   helper.addEntry(entry(1, 1, 1, 7));
   std::uint64_t opId = 1;
   for (auto _ : state) helper.updateEntry(entry(1, ++opId, 1, 7));
}
BENCHMARK(BM_HelperUpdateBaseline);

}  // namespace

int main(int argc, char** argv) {
   benchmark::Initialize(&argc, argv);
   benchmark::RunSpecifiedBenchmarks();
   benchmark::Shutdown();
   // MBB_BENCH_SCENARIO=adds or =reindex runs one scenario alone, for profiling.
   const char* only = std::getenv("MBB_BENCH_SCENARIO");
   if (!only || std::strcmp(only, "reindex") == 0) reindex();
   if (!only || std::strcmp(only, "adds") == 0) millionAdds();
   return 0;
}
