// The cost of the placement helper per match-table add: helper, chip model and status write,
// against the bare chip-model commit and status write of the same run. Tracing is as an agent
// runs it by default: the slice's trace file open (in a temporary directory), text traces off.
//
// A third loop does only what every add must do on top of the bare commit, with no helper around
// it: the data copy taken and freed with the system allocator, and the add, commit (timed) and
// status records in the trace file. Its ratio to the bare loop is the floor that no helper can go
// below on this machine; the helper is held to 1.2 times it.
//
// The machine is shared, so the loops are measured in short chunks, in turns, that see the same
// load, in CPU time of this thread, and the medians over many chunks are compared.

#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "Atlas/EntityManager.h"
#include "ChipMbbSlice/ChipMbbSlice.h"
#include "ChipModel/ChipModel.h"
#include "ChipSdk/ChipSdk.h"
#include "FlashLog/FlashLog.h"
#include "Vault/MbbEngine/Tables.h"

namespace {

using Vault::MbbEngine::EntryConfig;
using Vault::MbbEngine::EntryStatus;
using Vault::MbbEngine::TableStatus;

constexpr std::uint32_t tblHdl = 0x01000001;
constexpr std::uint32_t chunk = 2000;
constexpr std::uint32_t tableSize = 3 * chunk;
constexpr int rounds = 300;
constexpr double target = 1.2;

double cpuSeconds() {
   timespec ts{};
   clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
   return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

void check(bf_status_t status) {
   if (status == BF_SUCCESS) return;
   const auto* chip = dynamic_cast<const ChipModel::Chip*>(ChipSdk::sdkImpl());
   std::fprintf(stderr, "placement failed: %s %s\n", ChipSdk::statusName(status),
                chip ? chip->lastError().c_str() : "");
   std::abort();
}

// Entries first .. first + chunk - 1, each with its own handle, index and data.
std::vector<EntryConfig> entries(std::uint32_t first) {
   std::vector<EntryConfig> result;
   result.reserve(chunk);
   for (std::uint32_t i = first; i < first + chunk; ++i) {
      std::uint8_t payload[16] = {};
      std::memcpy(payload, &i, sizeof i);
      ChipSdk::PlcmtDataBlock data = ChipSdk::PlcmtDataBuilder().payload(payload, 16).block();
      result.emplace_back(i + 1, 1, i + 1, 0, 0, 1, i, 0, 0, data);
   }
   return result;
}

// Where the status tables live: in this process, as in test mode, or in shared memory, mounted
// for writing as an agent mounts them.
class StatusTables {
 public:
   explicit StatusTables(const std::string& shmRoot) {
      if (!shmRoot.empty()) manager_ = std::make_unique<Atlas::EntityManager>(shmRoot);
   }
   const char* where() const { return manager_ ? "shared memory" : "process memory"; }
   Orb::Ptr<TableStatus> tableNew(const std::string& name) {
      if (manager_) return manager_->mount<TableStatus>(name, Atlas::MountMode::writer, chunk);
      auto status = Vault::MbbEngine::tableStatusFactory(name);
      status->mountedIs(true);
      return status;
   }

 private:
   std::unique_ptr<Atlas::EntityManager> manager_;
};

// Empties the chip's table and the status table between chunks, outside the measured time, so
// that every measured add is an insert.
void chunkClear(const std::vector<EntryConfig>& all, TableStatus& status) {
   p4_pd_plcmt_info_t* info = p4_pd_create_plcmt_info();
   for (const EntryConfig& e : all) check(p4_pd_set_one_plcmt_op_mat_del(info, e.entryHandle()));
   std::uint32_t processed = 0;
   check(p4_pd_process_plcmt_info(1, 0, tblHdl, info, 0, &processed));
   p4_pd_destroy_plcmt_info(info);
   status.entryDelAll();
}

// What placing an add takes at the least: one batch, committed and released, and the status.
double bareAdds(const std::vector<EntryConfig>& all, TableStatus& status) {
   double start = cpuSeconds();
   for (const EntryConfig& e : all) {
      p4_pd_plcmt_info_t* info = p4_pd_create_plcmt_info();
      check(p4_pd_set_one_plcmt_op_mat_add(info, e.entryHandle(), P4_PD_PIPE_ALL, e.index(),
                                           e.selectorIndex(), e.adtIndex(), e.plcmtData().data()));
      std::uint32_t processed = 0;
      check(p4_pd_process_plcmt_info(1, 0, tblHdl, info, 0, &processed));
      p4_pd_destroy_plcmt_info(info);
      status.entryIs(EntryStatus(e.key(), e.opId()));
   }
   return cpuSeconds() - start;
}

// The bare loop plus the copy of the data block and the three trace records an add writes.
double floorAdds(const std::vector<EntryConfig>& all, TableStatus& status) {
   constexpr std::uint32_t qtId = 1;
   double start = cpuSeconds();
   for (const EntryConfig& e : all) {
      FLASHLOG(5, qtId, ":add key:", FlashLog::hex(e.key().value()),
               " hdl:", FlashLog::hex(e.entryHandle()), " index:", e.index(),
               " selindex:", e.selectorIndex(), " adtindex:", e.adtIndex());
      std::uint32_t size = 0;
      p4_pd_plcmt_data_size(e.plcmtData().data(), &size);
      void* copy = std::malloc(size);
      std::memcpy(copy, e.plcmtData().data(), size);
      p4_pd_plcmt_info_t* info = p4_pd_create_plcmt_info();
      check(p4_pd_set_one_plcmt_op_mat_add(info, e.entryHandle(), P4_PD_PIPE_ALL, e.index(),
                                           e.selectorIndex(), e.adtIndex(), copy));
      {
         FLASHLOG_BLOCK_TIMER(5, qtId, ":processMatPlcmtInfo tblHdl:", FlashLog::hex(tblHdl));
         std::uint32_t processed = 0;
         check(p4_pd_process_plcmt_info(1, 0, tblHdl, info, 0, &processed));
      }
      std::free(copy);
      FLASHLOG(5, qtId, ":mat status key:", FlashLog::hex(e.key().value()),
               " opId:", FlashLog::hex(e.opId().value()));
      status.entryIs(EntryStatus(e.key(), e.opId()));
      p4_pd_destroy_plcmt_info(info);
   }
   return cpuSeconds() - start;
}

double helperAdds(const std::vector<EntryConfig>& all, ChipMbbSlice::ChipMbbEngineHelper& helper) {
   double start = cpuSeconds();
   for (const EntryConfig& e : all) helper.addEntry(e);
   return cpuSeconds() - start;
}

double median(std::vector<double> values) {
   std::sort(values.begin(), values.end());
   return values[values.size() / 2];
}

struct Medians {
   double bareNs;
   double floorNs;
   double helperNs;
   double floorRatio;
   double helperRatio;
   double helperFloorRatio;
};

struct Loops {
   explicit Loops(StatusTables& tables)
       : bareStatus(tables.tableNew("bare-status")),
         floorStatus(tables.tableNew("floor-status")),
         helper(Orb::ptrNew<ChipMbbSlice::ChipMbbEngineHelper>(
             "bench", tables.tableNew("helper-status"), nullptr, nullptr, nullptr, 1, tblHdl, 0, 0,
             tableSize, false, 1)) {
      helper->devTgtIs({0, P4_PD_PIPE_ALL});
   }
   std::vector<EntryConfig> bareEntries = entries(0);
   std::vector<EntryConfig> floorEntries = entries(chunk);
   std::vector<EntryConfig> helperEntries = entries(2 * chunk);
   Orb::Ptr<TableStatus> bareStatus;
   Orb::Ptr<TableStatus> floorStatus;
   Orb::Ptr<ChipMbbSlice::ChipMbbEngineHelper> helper;
};

Medians measure(Loops& loops) {
   TableStatus& helperStatus = *loops.helper->matTableStatus();
   std::vector<double> bareNs, floorNs, helperNs, floorRatios, helperRatios, helperFloorRatios;
   for (int round = 0; round < rounds; ++round) {
      double times[3] = {};
      // Each loop takes each place in the turn equally often.
      for (int turn = 0; turn < 3; ++turn) {
         switch ((round + turn) % 3) {
            case 0:
               times[0] = bareAdds(loops.bareEntries, *loops.bareStatus);
               break;
            case 1:
               times[1] = floorAdds(loops.floorEntries, *loops.floorStatus);
               break;
            case 2:
               times[2] = helperAdds(loops.helperEntries, *loops.helper);
               break;
         }
      }
      if (helperStatus.size() != chunk) std::abort();
      chunkClear(loops.bareEntries, *loops.bareStatus);
      chunkClear(loops.floorEntries, *loops.floorStatus);
      chunkClear(loops.helperEntries, helperStatus);
      bareNs.push_back(times[0] * 1e9 / chunk);
      floorNs.push_back(times[1] * 1e9 / chunk);
      helperNs.push_back(times[2] * 1e9 / chunk);
      floorRatios.push_back(times[1] / times[0]);
      helperRatios.push_back(times[2] / times[0]);
      helperFloorRatios.push_back(times[2] / times[1]);
   }
   return {median(bareNs),      median(floorNs),      median(helperNs),
           median(floorRatios), median(helperRatios), median(helperFloorRatios)};
}

}  // namespace

int main() {
   auto dir = std::filesystem::temp_directory_path() / ("slice-bench-" + std::to_string(getpid()));
   std::filesystem::create_directories(dir);
   setenv("FLASHLOGDIR", dir.c_str(), 1);
   ChipMbbSlice::initQt();

   ChipModel::ChipProfile profile;
   profile.name = "bench";
   profile.numPipes = 4;
   profile.devices = {0};
   profile.tables = {{"bench", tblHdl, ChipSdk::TableKind::mat, tableSize, 0, 0, 0}};
   ChipModel::InstalledChip chip(profile);

   StatusTables inProcess("");
   StatusTables inShm("slice-bench-" + std::to_string(getpid()));
   Loops heapLoops(inProcess);
   Loops shmLoops(inShm);
   for (Loops* loops : {&heapLoops, &shmLoops}) {
      const Medians traced = measure(*loops);
      const char* where = loops == &heapLoops ? inProcess.where() : inShm.where();
      std::printf("status tables in %s:\n", where);
      std::printf("figure: bare chip-model commit + status write per MAT add, median = %.0f ns\n",
                  traced.bareNs);
      std::printf(
          "figure: floor (bare + data copy + the three trace records) per MAT add, median = %.0f "
          "ns\n",
          traced.floorNs);
      std::printf("figure: helper + chip model + status write per MAT add, median = %.0f ns\n",
                  traced.helperNs);
      std::printf("figure: floor / bare per MAT add, median of %d rounds = %.2f\n", rounds,
                  traced.floorRatio);
      std::printf("figure: helper / bare per MAT add, median of %d rounds = %.2f\n", rounds,
                  traced.helperRatio);
      std::printf(
          "figure: helper / floor per MAT add, median of %d rounds = %.2f (target <= %.1f) %s\n",
          rounds, traced.helperFloorRatio, target,
          traced.helperFloorRatio <= target ? "met" : "NOT MET");
   }

   // Where the difference goes: the same again with the trace file closed.
   FlashLog::defaultHandle().close();
   const Medians untraced = measure(heapLoops);
   std::printf(
       "figure: status tables in process memory, without trace file, floor / bare = %.2f, "
       "helper / bare = %.2f (helper %.0f ns, bare %.0f ns; for reference)\n",
       untraced.floorRatio, untraced.helperRatio, untraced.helperNs, untraced.bareNs);

   std::filesystem::remove_all(dir);
   return 0;
}
