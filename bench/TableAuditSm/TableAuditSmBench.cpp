// The audit's own figures, on the chip model in one process:
// - pass throughput, beside a bare baseline of the same run (configuration and status iterated
//   alone; the SDK handles walked alone);
// - one 1,000,000-entry table and 16 tables of 65,536 entries audited in 1 ms slices 10 ms
//   apart, on real time that jumps over the rests instead of sleeping through them, with the
//   distribution of slice lengths;
// - faults injected behind the engine's back that the audit records, and records made under
//   random churn that were not faults.

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <limits>
#include <map>
#include <random>
#include <set>
#include <vector>

#include "TableAuditSm/testing/AuditWorld.h"

namespace {

using ChipMbbSlice::AuditFailReason;
using Vault::MbbEngine::EntryConfig;

constexpr std::uint32_t bigHdl = 0x01000001;
constexpr std::uint32_t bigEntries = 1'000'000;
constexpr std::uint32_t smallHdl = 0x01000100;
constexpr std::uint32_t smallEntries = 65'536;
constexpr std::uint32_t numSmall = 16;

void figure(const char* name, double value, const char* unit, const char* target, bool met) {
   std::printf("figure: %s = %.3f %s (target %s) %s\n", name, value, unit, target,
               met ? "met" : "NOT MET");
}

void info(const char* name, double value, const char* unit) {
   std::printf("figure: %s = %.3f %s\n", name, value, unit);
}

// The thread's own processor time: on a shared machine the wall clock also counts the time that
// other processes had the processor.
double cpuNow() {
   timespec ts{};
   clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
   return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// Context switches of this thread so far: a slice during which the processor was taken away
// measures the machine, not the audit.
long numSwitches() {
   rusage usage{};
   getrusage(RUSAGE_THREAD, &usage);
   return usage.ru_nvcsw + usage.ru_nivcsw;
}

double realNow() {
   return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
       .count();
}

// Real time that can be moved forward at once: the rests between slices are skipped rather
// than slept, and the slices themselves take the time they take.
class JumpTimeSource : public Orb::TimeSource {
 public:
   Orb::Seconds now() const override { return realNow() + offset_; }
   void jumpTo(Orb::Seconds t) { offset_ += std::max(0.0, t - now()); }

 private:
   Orb::Seconds offset_ = 0;
};

ChipModel::ChipProfile scheduleProfile() {
   ChipModel::ChipProfile profile;
   profile.name = "audit-bench";
   profile.numPipes = 2;
   profile.devices = {0};
   profile.tables = {{"big", bigHdl, ChipSdk::TableKind::mat, bigEntries, 0, 0, 0}};
   for (std::uint32_t t = 0; t < numSmall; ++t) {
      profile.tables.push_back({"small" + std::to_string(t), smallHdl + t, ChipSdk::TableKind::mat,
                                smallEntries, 0, 0, 0});
   }
   return profile;
}

EntryConfig entry(std::uint64_t key, std::uint32_t index) {
   std::uint8_t payload[16];
   std::memcpy(payload, &key, 8);
   std::memset(payload + 8, 0x5A, 8);
   return EntryConfig(key, 1, static_cast<std::uint32_t>(key), 0, 0, 1, index, 0, 0,
                      ChipSdk::PlcmtDataBuilder().payload(payload, sizeof payload).block());
}

// One full table served by an engine that commits to the chip at once.
struct ServedTable {
   ServedTable(const std::string& name, std::uint32_t hdl, std::uint32_t entries,
               Keel::TimerWheel& wheel)
       : mountKey({0, P4_PD_PIPE_ALL}, name, hdl),
         config(Vault::MbbEngine::tableConfigFactory(name)),
         status(Vault::MbbEngine::tableStatusFactory(name + "-status")) {
      config->mountedIs(true);
      status->mountedIs(true);
      auto helper = Orb::ptrNew<MbbEngine::Test::ChipCommitHelper>(name, status, 0, hdl, entries);
      auto impl =
          Orb::ptrNew<MbbEngine::FastMbbEngineImpl>(name, config, nullptr, nullptr, helper, 1);
      engine = Orb::ptrNew<MbbEngine::MbbEngineSm>(config, status, nullptr, nullptr, impl, nullptr,
                                                   &wheel);
      for (std::uint32_t k = 1; k <= entries; ++k) config->entryIs(entry(k, k - 1));
   }
   ~ServedTable() {
      // The chip goes with the run; the engine need not take its entries out one by one.
      static_cast<MbbEngine::FastMbbEngineImpl&>(*engine->mbbEngineImpl()).handleToKeyDelAll();
   }

   ChipMbbShared::TableConfigMountKey mountKey;
   Orb::Ptr<Vault::MbbEngine::TableConfig> config;
   Orb::Ptr<Vault::MbbEngine::TableStatus> status;
   Orb::Ptr<MbbEngine::MbbEngineSm> engine;
};

struct ScheduleWorld {
   ScheduleWorld()
       : clock(std::make_shared<JumpTimeSource>()),
         previousClock(Orb::activityTimeSource()),
         wheel(clock, 1, 600000, true, 1024),
         chip(scheduleProfile()),
         hwPd(ChipModel::modelHwPdNew(chip)) {
      Orb::activityTimeSourceIs(clock);
      tables.push_back(std::make_unique<ServedTable>("big", bigHdl, bigEntries, wheel));
      for (std::uint32_t t = 0; t < numSmall; ++t) {
         tables.push_back(std::make_unique<ServedTable>("small" + std::to_string(t), smallHdl + t,
                                                        smallEntries, wheel));
      }
   }
   ~ScheduleWorld() {
      tables.clear();
      Orb::activityTimeSourceIs(previousClock);
   }

   Orb::Ptr<JumpTimeSource> clock;
   Orb::Ptr<Orb::TimeSource> previousClock;
   Keel::TimerWheel wheel;
   ChipModel::InstalledChip chip;
   std::shared_ptr<HwPd::HwPdIntf> hwPd;
   std::vector<std::unique_ptr<ServedTable>> tables;
};

// Each pass of the big table on its own, without deadline, best of three; the baselines walk
// what the passes walk and do nothing else. The key at index 0x7FFFF is the table's default
// entry, which the SDK's handle walk does not list.
void throughput(ScheduleWorld& w) {
   const ServedTable& big = *w.tables.front();
   auto instance = Orb::ptrNew<ChipMbbSlice::AuditInstance>();
   auto policy = Orb::ptrNew<ChipMbbSlice::AuditPolicy>();
   policy->auditHardwareIs(false);
   auto failed = Orb::ptrNew<ChipMbbSlice::FailedAuditStatus>();
   auto sm =
       ChipMbbSlice::TableAuditSmIs(big.engine, instance, 1, failed, policy, w.hwPd, big.mountKey);
   const Orb::Seconds never = std::numeric_limits<double>::infinity();
   double vault = 1e9, vaultHw = 1e9, sdk = 1e9, vaultBare = 1e9, sdkBare = 1e9;
   std::uint64_t sink = 0, numHdls = 0;
   for (int round = 0; round < 3; ++round) {
      instance->instanceInc(1);
      double t0 = cpuNow();
      sm->continueMatVaultAudit(never);
      double t1 = cpuNow();
      sm->continueMatSdkAudit(never);
      double t2 = cpuNow();
      vault = std::min(vault, t1 - t0);
      sdk = std::min(sdk, t2 - t1);

      instance->instanceInc(1);
      policy->auditHardwareIs(true);
      t0 = cpuNow();
      sm->continueMatVaultAudit(never);
      vaultHw = std::min(vaultHw, cpuNow() - t0);
      policy->auditHardwareIs(false);
      sm->continueMatSdkAudit(never);

      t0 = cpuNow();
      for (const auto& [key, config] : *big.config) {
         sink += config.opId().value() ^ big.status->entry(key).opId().value();
      }
      vaultBare = std::min(vaultBare, cpuNow() - t0);
      t0 = cpuNow();
      numHdls = 0;
      for (HwPd::HwPdTableIterator it(w.hwPd, 1, 0, P4_PD_PIPE_ALL, bigHdl); !it.end(); it.next()) {
         sink += it.entryHdl();
         ++numHdls;
      }
      sdkBare = std::min(sdkBare, cpuNow() - t0);
   }
   const bool clean =
       failed->failedEntries().empty() && sm->matFlagSm()->flaggedVaultKeys().empty() &&
       sm->matFlagSm()->flaggedEntryHdls().empty() && numHdls == bigEntries - 1 && sink != 0;
   const double usPerKey = vault / bigEntries * 1e6;
   const double usPerHdl = sdk / numHdls * 1e6;
   figure("TableAudit vault pass per key", usPerKey, "us", "<= 1 us", clean && usPerKey <= 1.0);
   info("TableAudit vault pass baseline per key (configuration and status iterated alone)",
        vaultBare / bigEntries * 1e6, "us");
   info("TableAudit vault pass per key with the hardware comparison on", vaultHw / bigEntries * 1e6,
        "us");
   figure("TableAudit SDK pass per handle", usPerHdl, "us", "<= 0.3 us", clean && usPerHdl <= 0.3);
   info("TableAudit SDK pass baseline per handle (HwPd iterator walked alone)",
        sdkBare / numHdls * 1e6, "us");
}

double percentile(std::vector<double> values, double p) {
   std::sort(values.begin(), values.end());
   return values[std::min(values.size() - 1, static_cast<std::size_t>(p * values.size()))];
}

// One audit of every table through the manager's timers, the rests jumped over.
void schedule(ScheduleWorld& w) {
   auto mgr = ChipMbbSlice::TableAuditMgrSmIs(&w.wheel, 1, w.hwPd);
   auto runDue = [&](Orb::Seconds at) {
      w.clock->jumpTo(at);
      w.wheel.runExpired(w.clock->now());
   };
   while (mgr->auditState() == ChipMbbSlice::AuditState::ongoing) {
      runDue(mgr->continueTimer().timeMin());
   }
   for (const auto& table : w.tables) mgr->addTable(table->mountKey, table->engine);
   const Orb::Seconds start = mgr->auditTimer().timeMin();
   runDue(start);
   std::vector<double> slices, wallSlices, unswitched;
   while (mgr->auditState() == ChipMbbSlice::AuditState::ongoing) {
      const Orb::Seconds next =
          std::min(mgr->continueTimer().timeMin(), mgr->auditTimer().timeMin());
      w.clock->jumpTo(next);
      const long switches = numSwitches();
      const double t0 = cpuNow();
      const double wall0 = realNow();
      w.wheel.runExpired(w.clock->now());
      slices.push_back(cpuNow() - t0);
      wallSlices.push_back(realNow() - wall0);
      if (numSwitches() == switches) unswitched.push_back(slices.back());
   }
   const double duration = w.clock->now() - start;
   const std::uint32_t instance = mgr->configInstance()->instance();
   const bool clean = mgr->failedAuditStatus()->failedEntries().empty() && instance == 2;
   info("TableAudit entries audited (1 x 1,000,000 + 16 x 65,536)",
        bigEntries + numSmall * smallEntries, "");
   figure("TableAudit one audit of all tables", duration, "s", "<= 30 s, no overshoot",
          clean && duration <= mgr->auditInterval() && mgr->overshotCnt() == 0);
   info("TableAudit overshoots", mgr->overshotCnt(), "");
   info("TableAudit slices", static_cast<double>(slices.size()), "");
   info("TableAudit slice length median", percentile(slices, 0.5) * 1e3, "ms");
   info("TableAudit slice length p99", percentile(slices, 0.99) * 1e3, "ms");
   info("TableAudit slice length p99.9", percentile(slices, 0.999) * 1e3, "ms");
   const double longest = *std::max_element(unswitched.begin(), unswitched.end());
   figure("TableAudit longest slice not interrupted by a context switch", longest * 1e3, "ms",
          "<= 1.1 ms", longest <= 0.0011);
   info("TableAudit slices interrupted by a context switch",
        static_cast<double>(slices.size() - unswitched.size()), "");
   info("TableAudit longest slice of all", *std::max_element(slices.begin(), slices.end()) * 1e3,
        "ms");
   // The slices' deadlines are on the wall clock, so preemption by other processes shows here.
   info("TableAudit slice length on the wall clock median", percentile(wallSlices, 0.5) * 1e3,
        "ms");
   info("TableAudit slice length on the wall clock p99", percentile(wallSlices, 0.99) * 1e3, "ms");
}

// Every kind of match-table fault, several of each, with the hardware comparison on; all of
// them must be in the record after `failAuditLimit` audits.
void faultsFound() {
   using TableAuditTesting::AuditWorld;
   AuditWorld w(4096);
   w.mgr->auditPolicy()->auditHardwareIs(true);
   for (std::uint64_t key = 1; key <= 1000; ++key) w.publish(key, 1, key, key);
   w.audit();
   std::set<std::uint64_t> injected;
   bool allInjected = true;
   for (std::uint32_t i = 0; i < 20; ++i) {
      allInjected &= w.fault(ChipModel::FaultKind::drop, 10 + i) == BF_SUCCESS;
      allInjected &= w.fault(ChipModel::FaultKind::corrupt, 500 + i) == BF_SUCCESS;
      allInjected &= w.fault(ChipModel::FaultKind::stray, 0x10000 + i, 2000 + i) == BF_SUCCESS;
      injected.insert({10 + i, 500 + i, 0x10000 + i});
   }
   w.clock->stepIs(1e-7);  // every record its own time
   for (std::uint32_t a = 0; a < w.mgr->auditPolicy()->failAuditLimit(); ++a) w.audit();
   std::set<std::uint64_t> recorded;
   for (const auto& [time, failure] : w.mgr->failedAuditStatus()->failedEntries()) {
      recorded.insert(failure.identifier());
   }
   std::size_t found = 0;
   for (std::uint64_t id : injected) found += recorded.contains(id);
   const double share = 100.0 * found / injected.size();
   figure("TableAudit injected faults found", share, "%", "100 %",
          allInjected && found == injected.size() && recorded.size() == injected.size());
}

// Random adds, changes, moves and deletes while the audit runs every 20 ms; nothing of it may
// end in the record.
void churnRecords() {
   using TableAuditTesting::AuditWorld;
   AuditWorld w(1024);
   w.mgr->auditIntervalIs(0.02);
   std::mt19937 rng(11);
   std::map<std::uint64_t, std::pair<std::uint32_t, std::uint32_t>> live;
   std::set<std::uint32_t> usedIndex;
   std::uint64_t opId = 1;
   std::uint32_t nextHdl = 1;
   for (int step = 0; step < 50'000; ++step) {
      const std::uint64_t key = 1 + rng() % 600;
      auto it = live.find(key);
      if (it != live.end() && rng() % 4 == 0) {
         w.config->entryIs(EntryConfig::deletion(key, ++opId));
         usedIndex.erase(it->second.second);
         live.erase(it);
      } else {
         std::uint32_t index = rng() % 1024;
         while (usedIndex.contains(index)) index = (index + 1) % 1024;
         const std::uint32_t hdl = it != live.end() && rng() % 2 ? it->second.first : nextHdl++;
         if (it != live.end()) usedIndex.erase(it->second.second);
         usedIndex.insert(index);
         live[key] = {hdl, index};
         w.publish(key, ++opId, hdl, index);
      }
      w.clock->nowIs(w.clock->peek() + 0.0002);
      w.wheel.runExpired(w.clock->peek());
   }
   const auto records = w.mgr->failedAuditStatus()->failedEntries().size();
   const auto notes =
       w.mgr->tableAuditSm(w.mountKey)->matFlagSm()->mbbNotifier()->notificationCount();
   info("TableAudit audits under churn", w.mgr->configInstance()->instance(), "");
   figure("TableAudit false records under churn", static_cast<double>(records), "", "0",
          records == 0);
   figure("TableAudit engine notifications under churn", notes, "", "0", notes == 0);
}

}  // namespace

int main() {
   {
      ScheduleWorld world;
      throughput(world);
      schedule(world);
   }
   faultsFound();
   churnRecords();
   return 0;
}
