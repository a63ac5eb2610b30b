// The cost of the placement helper per match-table add: helper, chip model and status write,
// against the bare chip-model commit and status write of the same run. Tracing is as an agent
// runs it by default: the slice's trace file open (in a temporary directory), text traces off.
//
// The machine is shared, so the two are measured in short alternating chunks that see the same
// load, in CPU time of this thread, and the medians over many chunks are compared.

#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <vector>

#include "ChipMbbSlice/ChipMbbSlice.h"
#include "ChipSdk/ChipSdk.h"
#include "Vault/MbbEngine/Tables.h"

namespace {

using Vault::MbbEngine::EntryConfig;
using Vault::MbbEngine::EntryStatus;
using Vault::MbbEngine::TableStatus;

constexpr std::uint32_t tblHdl = 0x01000001;
constexpr std::uint32_t chunk = 2000;
constexpr std::uint32_t tableSize = 2 * chunk;
constexpr int rounds = 300;
constexpr double target = 1.5;

double cpuSeconds() {
   timespec ts{};
   clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
   return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

void check(bf_status_t status) {
   if (status == BF_SUCCESS) return;
   std::fprintf(stderr, "placement failed: %s %s\n", ChipSdk::statusName(status),
                ChipSdk::chipModel().lastError().c_str());
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

Orb::Ptr<TableStatus> statusTableNew(const std::string& name) {
   auto status = Vault::MbbEngine::tableStatusFactory(name);
   status->mountedIs(true);
   return status;
}

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
   double helperNs;
   double ratio;
};

Medians measure(const std::vector<EntryConfig>& bareEntries, TableStatus& bareStatus,
                const std::vector<EntryConfig>& helperEntries,
                ChipMbbSlice::ChipMbbEngineHelper& helper) {
   TableStatus& helperStatus = *helper.matTableStatus();
   std::vector<double> bareNs, helperNs, ratios;
   for (int round = 0; round < rounds; ++round) {
      double bare = 0;
      double withHelper = 0;
      if (round % 2 == 0) {
         bare = bareAdds(bareEntries, bareStatus);
         withHelper = helperAdds(helperEntries, helper);
      } else {
         withHelper = helperAdds(helperEntries, helper);
         bare = bareAdds(bareEntries, bareStatus);
      }
      if (helperStatus.size() != chunk) std::abort();
      chunkClear(bareEntries, bareStatus);
      chunkClear(helperEntries, helperStatus);
      bareNs.push_back(bare * 1e9 / chunk);
      helperNs.push_back(withHelper * 1e9 / chunk);
      ratios.push_back(withHelper / bare);
   }
   return {median(bareNs), median(helperNs), median(ratios)};
}

}  // namespace

int main() {
   auto dir = std::filesystem::temp_directory_path() / ("slice-bench-" + std::to_string(getpid()));
   std::filesystem::create_directories(dir);
   setenv("FLASHLOGDIR", dir.c_str(), 1);
   ChipMbbSlice::initQt();

   ChipSdk::ChipProfile profile;
   profile.name = "bench";
   profile.numPipes = 4;
   profile.devices = {0};
   profile.tables = {{"bench", tblHdl, ChipSdk::TableKind::mat, tableSize, 0, 0, 0}};
   ChipSdk::chipModelIs(profile);

   const std::vector<EntryConfig> bareEntries = entries(0);
   const std::vector<EntryConfig> helperEntries = entries(chunk);
   auto bareStatus = statusTableNew("bare-status");
   auto helperStatus = statusTableNew("helper-status");
   auto helper = Orb::ptrNew<ChipMbbSlice::ChipMbbEngineHelper>(
       "bench", helperStatus, nullptr, nullptr, nullptr, 1, tblHdl, 0, 0, tableSize, false, 1);
   helper->devTgtIs({0, P4_PD_PIPE_ALL});

   const Medians traced = measure(bareEntries, *bareStatus, helperEntries, *helper);
   std::printf("figure: bare chip-model commit + status write per MAT add, median = %.0f ns\n",
               traced.bareNs);
   std::printf("figure: helper + chip model + status write per MAT add, median = %.0f ns\n",
               traced.helperNs);
   std::printf(
       "figure: helper / bare per MAT add, median of %d rounds = %.2f (target <= %.1f) %s\n",
       rounds, traced.ratio, target, traced.ratio <= target ? "ok" : "NOT MET");

   // Where the difference goes: the same again with the trace file closed.
   FlashLog::defaultHandle().close();
   const Medians untraced = measure(bareEntries, *bareStatus, helperEntries, *helper);
   std::printf(
       "figure: helper without trace file / bare per MAT add, median = %.2f "
       "(helper %.0f ns, bare %.0f ns; for reference)\n",
       untraced.ratio, untraced.helperNs, untraced.bareNs);

   std::filesystem::remove_all(dir);
   return 0;
}
