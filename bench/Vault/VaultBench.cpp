// Figures of the shared-memory table against a bare std::unordered_map in the same run:
// lookup and write cost on a table of a million entries, how soon a reader's event loop sees
// another process's change, what an idle reader costs, and the segment's size.

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <random>
#include <unordered_map>
#include <vector>

#include "Keel/EventLoop.h"
#include "Vault/MbbEngine/MbbEngine.h"
#include "Vault/Vault.h"

namespace {

using namespace Vault::MbbEngine;
using Clock = std::chrono::steady_clock;

constexpr std::uint32_t numEntries = 1'000'000;
// Short rounds, each measuring every contender in turn, so that what other processes do to
// the caches and the cores falls on all of them alike.
constexpr int numRounds = 80;
constexpr std::size_t opsPerRound = 20'000;

std::string shmNameFor(const char* what) {
   return "/vaultbench." + std::to_string(::getpid()) + "." + what;
}

EntryConfig configOf(std::uint64_t key, std::uint64_t opId) {
   return EntryConfig(key, opId, static_cast<std::uint32_t>(key), 1, 2, 1,
                      static_cast<std::uint32_t>(key & 0xFFFF), 3, 4,
                      ChipSdk::PlcmtDataBuilder().selGroup(key >> 8, 2).block());
}

double median(std::vector<double> v) {
   std::sort(v.begin(), v.end());
   return v[v.size() / 2];
}

double percentile(std::vector<double> v, double p) {
   std::sort(v.begin(), v.end());
   return v[std::min(v.size() - 1, static_cast<std::size_t>(p * v.size()))];
}

// Thread CPU time: the machine is shared, and wall time would count other processes' turns.
double threadCpuNs() {
   timespec ts{};
   clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
   return double(ts.tv_sec) * 1e9 + double(ts.tv_nsec);
}

template <class Fn>
double nsPerOp(std::size_t ops, Fn&& fn) {
   double start = threadCpuNs();
   fn();
   return (threadCpuNs() - start) / double(ops);
}

// Keeps a value the compiler would otherwise not build.
template <class T>
void keep(const T& value) {
   asm volatile("" : : "r"(&value) : "memory");
}

void figure(const char* what, double value, const char* unit, const char* target, bool met) {
   std::printf("figure: %s = %.3f %s (target %s) %s\n", what, value, unit, target,
               met ? "met" : "NOT MET");
}

std::int64_t monotonicNs() {
   timespec ts{};
   clock_gettime(CLOCK_MONOTONIC, &ts);
   return std::int64_t(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

double cpuSeconds() {
   rusage usage{};
   getrusage(RUSAGE_SELF, &usage);
   return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
          (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
}

void lookupsAndWrites() {
   std::mt19937_64 random(7);
   std::vector<std::uint64_t> keys(numEntries);
   for (auto& key : keys) key = random();

   std::unordered_map<std::uint64_t, EntryConfig> map;
   map.reserve(numEntries);
   std::string shmName = shmNameFor("big");
   auto writer = Vault::shmTableWriterNew<TableConfig>("big", shmName, numEntries);
   auto reader = Vault::shmTableReaderNew<TableConfig>("big", shmName);
   for (std::uint64_t key : keys) {
      map[key] = configOf(key, 1);
      writer->entryIs(configOf(key, 1));
   }

   std::vector<std::uint64_t> order(opsPerRound);
   std::vector<double> mapFind, mapLookup, shmLookup, shmWriterLookup, mapWrite, shmWrite;
   std::uint64_t sink = 0;
   for (int round = 0; round < numRounds; ++round) {
      for (auto& k : order) k = keys[random() % numEntries];
      mapFind.push_back(nsPerOp(opsPerRound, [&] {
         for (std::uint64_t k : order) sink += map.find(k)->second.entryHandle();
      }));
      // What entry(key) does: find the key and hand out a copy of its entry.
      mapLookup.push_back(nsPerOp(opsPerRound, [&] {
         for (std::uint64_t k : order) {
            EntryConfig config = map.find(k)->second;
            keep(config);
            sink += config.entryHandle();
         }
      }));
      shmLookup.push_back(nsPerOp(opsPerRound, [&] {
         for (std::uint64_t k : order) sink += reader->entry(k).entryHandle();
      }));
      shmWriterLookup.push_back(nsPerOp(opsPerRound, [&] {
         for (std::uint64_t k : order) sink += writer->entry(k).entryHandle();
      }));
      std::uint64_t opId = round + 2;
      mapWrite.push_back(nsPerOp(opsPerRound, [&] {
         for (std::uint64_t k : order) map[k] = configOf(k, opId);
      }));
      shmWrite.push_back(nsPerOp(opsPerRound, [&] {
         for (std::uint64_t k : order) writer->entryIs(configOf(k, opId));
      }));
   }
   if (sink == 42) std::puts("");

   double lf = median(mapFind), lm = median(mapLookup), ls = median(shmLookup);
   double lw = median(shmWriterLookup), wm = median(mapWrite), ws = median(shmWrite);
   std::printf(
       "lookup of a present key, %u entries, median of %d rounds of %zu (thread CPU "
       "time): unordered_map find %.1f ns, find and copy the entry %.1f ns, shm reader "
       "entry() %.1f ns, shm writer entry() %.1f ns\n",
       numEntries, numRounds, opsPerRound, lf, lm, ls, lw);
   std::printf("shm reader entry() / unordered_map find alone = %.2f x\n", ls / lf);
   figure("shm reader lookup / unordered_map lookup with copy", ls / lm, "x", "<= 2", ls / lm <= 2);
   std::printf("write (entryIs) of a present key: unordered_map %.1f ns, shm %.1f ns\n", wm, ws);
   figure("shm write / unordered_map write", ws / wm, "x", "<= 3", ws / wm <= 3);

   const Vault::ShmFootprint footprint = Vault::shmFootprint(*writer);
   double ratio = footprint.mappedBytes / (double(footprint.capacity) * footprint.slotBytes);
   std::printf("segment: %zu bytes for %u slots of %u bytes (index %u cells, ring %u)\n",
               footprint.mappedBytes, footprint.capacity, footprint.slotBytes, footprint.indexCells,
               footprint.ringSize);
   figure("segment size / (capacity x slot size)", ratio, "x", "<= 1.5", ratio <= 1.5);
}

// A writer in another process stamps each change with the time it made it; the reader's event
// loop notes how long each took to arrive.
void changeLatencyAndIdleCost() {
   std::string shmName = shmNameFor("latency");
   constexpr int numChanges = 3000;
   int ready[2], go[2];
   if (::pipe(ready) != 0 || ::pipe(go) != 0) return;
   pid_t child = ::fork();
   if (child == 0) {
      char byte = 0;
      {
         auto writer = Vault::shmTableWriterNew<TableStatus>("latency", shmName, 1024);
         (void)!::write(ready[1], "r", 1);
         (void)!::read(go[0], &byte, 1);
         std::mt19937 random(3);
         for (int i = 0; i < numChanges; ++i) {
            ::usleep(200 + random() % 800);
            writer->entryIs(EntryStatus(i % 1024, static_cast<std::uint64_t>(monotonicNs())));
         }
         (void)!::read(go[0], &byte, 1);
      }
      ::_exit(0);
   }
   char byte = 0;
   if (::read(ready[0], &byte, 1) != 1) return;
   auto reader = Vault::shmTableReaderNew<TableStatus>("latency", shmName);
   Keel::EventLoop loop;
   std::vector<double> latencies;
   struct Stamp : TableStatus::Notifiee {
      void onEntry(const EntryKey& key) override {
         std::int64_t now = monotonicNs();
         latencies->push_back((now - std::int64_t(table->entry(key).opId().value())) * 1e-6);
      }
      TableStatus* table;
      std::vector<double>* latencies;
   } stamp;
   stamp.table = reader.get();
   stamp.latencies = &latencies;
   stamp.notifierIs(reader.get());
   loop.fdReadHandlerIs(reader->changeFd(), [&] { reader->changesDrain(); });
   (void)!::write(go[1], "g", 1);
   auto deadline = Clock::now() + std::chrono::seconds(30);
   while (latencies.size() < numChanges && Clock::now() < deadline) loop.runOnce(0.1);
   std::printf("changes seen: %zu of %d\n", latencies.size(), numChanges);
   if (!latencies.empty()) {
      std::printf("change latency: p50 %.3f ms, p99 %.3f ms, max %.3f ms\n",
                  percentile(latencies, 0.5), percentile(latencies, 0.99),
                  percentile(latencies, 1.0));
      double p99 = percentile(latencies, 0.99);
      figure("change seen by the reader's event loop, p99", p99, "ms", "<= 2", p99 <= 2);
   }

   // The writer is alive and quiet; the reader's loop waits.
   double cpuBefore = cpuSeconds();
   auto wallBefore = Clock::now();
   while (Clock::now() - wallBefore < std::chrono::seconds(3)) loop.runOnce(1.0);
   double wall = std::chrono::duration<double>(Clock::now() - wallBefore).count();
   double idle = 100.0 * (cpuSeconds() - cpuBefore) / wall;
   figure("idle reader CPU", idle, "% of a core", "< 1", idle < 1);

   loop.fdReadHandlerDel(reader->changeFd());
   (void)!::write(go[1], "x", 1);
   ::waitpid(child, nullptr, 0);
   for (int fd : {ready[0], ready[1], go[0], go[1]}) ::close(fd);
}

}  // namespace

int main() {
   lookupsAndWrites();
   changeLatencyAndIdleCost();
   return 0;
}
