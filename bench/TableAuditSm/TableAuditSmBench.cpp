// The audit's own figures, on the chip model in one process:
// - pass throughput, beside a bare baseline of the same run (configuration and status iterated
//   alone; the SDK handles walked alone);
// - one 1,000,000-entry table, 16 tables of 65,536 entries and an ECMP triple (4,096 groups of
//   64 members, their next hops and 16,384 routes) audited in 1 ms slices 10 ms apart, on real
//   time that jumps over the rests instead of sleeping through them, with the distribution of
//   slice lengths and the longest work between two reads of the clock, beside the same for a
//   bare walk (what the machine adds); then once more with the hardware comparison on;
// - faults injected behind the engines' backs, in a single table and in every part of a
//   triple: which the audit records, with the hardware comparison off (the manager's setting)
//   and on, and records made under random churn of both that were not faults.

#include <stdlib.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <limits>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "ChipMbbSlice/ChipMbbSlice.h"
#include "ChipMbbSliceMatAdtSelSm/ChipMbbSliceMatAdtSelSm.h"
#include "SliceSystem/EcmpWorkload.h"
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
   Orb::Seconds now() const override {
      const double real = realNow();
      if (gapWatch_) longestGap_ = std::max(longestGap_, real - lastRead_);
      lastRead_ = real;
      return real + offset_;
   }
   void jumpTo(Orb::Seconds t) { offset_ += std::max(0.0, t - now()); }
   // While on, the longest stretch between two reads of the clock, up to the moment it is
   // switched off.
   void gapWatchIs(bool on) {
      now();
      if (on) longestGap_ = 0;
      gapWatch_ = on;
   }
   double longestGap() const { return longestGap_; }

 private:
   Orb::Seconds offset_ = 0;
   mutable double lastRead_ = 0;
   mutable double longestGap_ = 0;
   bool gapWatch_ = false;
};

constexpr std::uint32_t routeHdl = 0x01000200;
constexpr std::uint32_t nextHopHdl = 0x01000201;
constexpr std::uint32_t selectorHdl = 0x01000202;

// The chip's tables of an ECMP triple with room for what the workload holds at its peaks.
std::vector<ChipModel::TableProfile> tripleTables(const SliceSystem::EcmpWorkload& workload) {
   const SliceSystem::EcmpSizes& sizes = workload.sizes();
   const std::uint32_t nextHops = workload.capacities()[SliceSystem::EcmpTable::nextHop];
   return {
       {"route", routeHdl, ChipSdk::TableKind::mat, sizes.routeIndices, 0, nextHopHdl, selectorHdl},
       {"route_adt", nextHopHdl, ChipSdk::TableKind::adt, nextHops, 0, 0, 0},
       {"route_sel", selectorHdl, ChipSdk::TableKind::sel, sizes.selectorIndices, 0, 0, 0}};
}

// An ECMP triple served by the slice's placement helper and dependency engine on `wheel`; the
// chip must hold its tables. The workload's writes go to its configuration.
struct ServedTriple {
   ServedTriple(const SliceSystem::EcmpWorkload& workload, Keel::TimerWheel& wheel)
       : mountKey({0, P4_PD_PIPE_ALL}, "route", routeHdl) {
      sink.adt = ChipMbbShared::adtTableConfigFactory("route_adt");
      sink.selGrp = ChipMbbShared::selGrpTableConfigFactory("route_grp");
      sink.selMbr = ChipMbbShared::selMbrTableConfigFactory("route_mbr");
      sink.mat = Vault::MbbEngine::tableConfigFactory("route");
      for (auto* table : {matStatus.get(), adtStatus.get(), grpStatus.get(), mbrStatus.get()}) {
         table->mountedIs(true);
      }
      sink.mat->mountedIs(true);
      sink.adt->mountedIs(true);
      sink.selGrp->mountedIs(true);
      sink.selMbr->mountedIs(true);
      auto helper = Orb::ptrNew<ChipMbbSlice::ChipMbbEngineHelper>(
          "route", matStatus, adtStatus, grpStatus, mbrStatus, 1, routeHdl, nextHopHdl, selectorHdl,
          workload.sizes().routeIndices, false, 1);
      helper->devTgtIs({0, P4_PD_PIPE_ALL});
      auto impl = Orb::ptrNew<ChipMbbSlice::MatAdtSelMbbEngineImpl>(
          "route", nullptr, nullptr, helper, 1, sink.mat, sink.adt, sink.selGrp, sink.selMbr);
      sm = ChipMbbSlice::matAdtSelSmFactory(nullptr, nullptr,
                                            Orb::ptrNew<MbbEngine::MbbEngineFlushStatus>(), &wheel,
                                            sink.mat, matStatus, sink.adt, adtStatus, sink.selGrp,
                                            grpStatus, sink.selMbr, mbrStatus, helper, impl);
   }

   // Every configured key shows its configuration's op id in its status, and no other key
   // has one.
   bool converged(const SliceSystem::EcmpState& state) const {
      auto same = [](const auto& configs, const Vault::MbbEngine::TableStatus& status) {
         if (status.size() != configs.size()) return false;
         for (const auto& [key, config] : configs) {
            if (status.entry(key).opId() != config.opId()) return false;
         }
         return true;
      };
      return same(state.routes, *matStatus) && same(state.nextHops, *adtStatus) &&
             same(state.groups, *grpStatus) && same(state.members, *mbrStatus);
   }
   std::size_t numKeys() const {
      return sink.mat->size() + sink.adt->size() + sink.selGrp->size() + sink.selMbr->size();
   }

   ChipMbbShared::TableConfigMountKey mountKey;
   SliceSystem::EcmpTableSink sink;
   Orb::Ptr<Vault::MbbEngine::TableStatus> matStatus =
       Vault::MbbEngine::tableStatusFactory("route-status");
   Orb::Ptr<Vault::MbbEngine::TableStatus> adtStatus =
       Vault::MbbEngine::tableStatusFactory("route_adt-status");
   Orb::Ptr<Vault::MbbEngine::TableStatus> grpStatus =
       Vault::MbbEngine::tableStatusFactory("route_grp-status");
   Orb::Ptr<Vault::MbbEngine::TableStatus> mbrStatus =
       Vault::MbbEngine::tableStatusFactory("route_mbr-status");
   Orb::Ptr<ChipMbbSlice::MatAdtSelSm> sm;
};

// Writes the workload's next phase and turns `wheel` (retry periods passing on `advance`) until
// the triple has it all in hardware; false when it does not get there.
template <class Advance>
bool phaseConverge(SliceSystem::EcmpWorkload& workload, SliceSystem::EcmpPhaseKind kind,
                   ServedTriple& triple, Advance advance) {
   workload.apply(workload.phase(kind), triple.sink);
   const SliceSystem::EcmpState state = workload.state();
   for (int turn = 0; turn < 50; ++turn) {
      if (triple.converged(state)) return true;
      advance(MbbEngine::MbbEngineSm::defaultRetryPeriod);
   }
   return triple.converged(state);
}

ChipModel::ChipProfile scheduleProfile(const SliceSystem::EcmpWorkload& ecmp) {
   ChipModel::ChipProfile profile;
   profile.name = "audit-bench";
   profile.numPipes = 2;
   profile.devices = {0};
   profile.tables = tripleTables(ecmp);
   profile.tables.push_back({"big", bigHdl, ChipSdk::TableKind::mat, bigEntries, 0, 0, 0});
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
         ecmp(SliceSystem::EcmpOptions{}),
         chip(scheduleProfile(ecmp)),
         hwPd(ChipModel::modelHwPdNew(chip)) {
      Orb::activityTimeSourceIs(clock);
      tables.push_back(std::make_unique<ServedTable>("big", bigHdl, bigEntries, wheel));
      for (std::uint32_t t = 0; t < numSmall; ++t) {
         tables.push_back(std::make_unique<ServedTable>("small" + std::to_string(t), smallHdl + t,
                                                        smallEntries, wheel));
      }
      triple = std::make_unique<ServedTriple>(ecmp, wheel);
      tripleBuilt =
          phaseConverge(ecmp, SliceSystem::EcmpPhaseKind::build, *triple, [&](Orb::Seconds by) {
             clock->jumpTo(clock->now() + by);
             wheel.runExpired(clock->now());
          });
   }
   ~ScheduleWorld() {
      triple.reset();
      tables.clear();
      Orb::activityTimeSourceIs(previousClock);
   }

   Orb::Ptr<JumpTimeSource> clock;
   Orb::Ptr<Orb::TimeSource> previousClock;
   Keel::TimerWheel wheel;
   SliceSystem::EcmpWorkload ecmp;
   ChipModel::InstalledChip chip;
   std::shared_ptr<HwPd::HwPdIntf> hwPd;
   std::vector<std::unique_ptr<ServedTable>> tables;
   std::unique_ptr<ServedTriple> triple;
   bool tripleBuilt = false;
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
         sink += config.opId().value() + big.status->entry(key).opId().value();
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

void distribution(const char* what, const std::vector<double>& values) {
   const std::string name = std::string("TableAudit slice length ") + what;
   info((name + " p50").c_str(), percentile(values, 0.5) * 1e3, "ms");
   info((name + " p99").c_str(), percentile(values, 0.99) * 1e3, "ms");
   info((name + " max").c_str(), *std::max_element(values.begin(), values.end()) * 1e3, "ms");
}

// Slices of the same length with nothing in them but a walk of the big table's configuration
// and status and a read of the clock after each key: what the machine itself adds to 1 ms of
// work, in the slice's length and between two reads of the clock.
struct BareSlices {
   std::vector<double> lengths, gaps;  // of the slices not interrupted
};

BareSlices bareSlices(const ServedTable& big, JumpTimeSource& clock, std::size_t n) {
   BareSlices bare;
   std::uint64_t sink = 0;
   auto it = big.config->begin();
   for (std::size_t slice = 0; slice < n; ++slice) {
      const long switches = numSwitches();
      const double t0 = cpuNow();
      clock.gapWatchIs(true);
      const Orb::Seconds deadline = clock.now() + 0.001;
      do {
         if (it == big.config->end()) it = big.config->begin();
         sink += it->second.opId().value() + big.status->entry(it->first).opId().value();
         ++it;
      } while (clock.now() <= deadline);
      clock.gapWatchIs(false);
      if (numSwitches() == switches) {
         bare.lengths.push_back(cpuNow() - t0);
         bare.gaps.push_back(clock.longestGap());
      }
   }
   if (sink == 0) bare = {};
   return bare;
}

// Keys and handles that a table's audit holds flagged, the sub-tables of a triple included.
std::size_t numFlags(const ChipMbbSlice::TableAuditSm& sm) {
   std::vector<const ChipMbbSlice::FlagSm*> flagSms{sm.matFlagSm().get()};
   if (const auto* triple = dynamic_cast<const ChipMbbSlice::MatAdtSelTableAuditSm*>(&sm)) {
      flagSms.insert(flagSms.end(), {triple->adtFlagSm().get(), triple->selGrpFlagSm().get(),
                                     triple->selMbrFlagSm().get()});
   }
   std::size_t n = 0;
   for (const auto* flags : flagSms) {
      n += flags->flaggedVaultKeys().size() + flags->flaggedEntryHdls().size();
   }
   return n;
}

// One audit of every table through the manager's timers, the rests jumped over. A slice's
// length is this thread's processor time from the timer's expiry to the slice's end; a slice
// during which the thread lost the processor is measured, but judged apart, since its deadline
// on the wall clock passed while something else ran.
struct AuditRun {
   double duration = 0;
   std::vector<double> slices, unswitched, gaps;  // gaps: of the slices not interrupted
};

AuditRun auditOnce(ScheduleWorld& w, ChipMbbSlice::TableAuditMgrSm& mgr) {
   AuditRun run;
   const Orb::Seconds start = mgr.auditTimer().timeMin();
   w.clock->jumpTo(start);
   w.wheel.runExpired(w.clock->now());
   while (mgr.auditState() == ChipMbbSlice::AuditState::ongoing) {
      const Orb::Seconds next = std::min(mgr.continueTimer().timeMin(), mgr.auditTimer().timeMin());
      w.clock->jumpTo(next);
      const long switches = numSwitches();
      const double t0 = cpuNow();
      w.clock->gapWatchIs(true);
      w.wheel.runExpired(w.clock->now());
      w.clock->gapWatchIs(false);
      run.slices.push_back(cpuNow() - t0);
      if (numSwitches() == switches) {
         run.unswitched.push_back(run.slices.back());
         run.gaps.push_back(w.clock->longestGap());
      }
   }
   run.duration = w.clock->now() - start;
   return run;
}

double longest(const std::vector<double>& values) {
   return *std::max_element(values.begin(), values.end());
}

void schedule(ScheduleWorld& w) {
   auto mgr = ChipMbbSlice::TableAuditMgrSmIs(&w.wheel, 1, w.hwPd);
   while (mgr->auditState() == ChipMbbSlice::AuditState::ongoing) {
      w.clock->jumpTo(mgr->continueTimer().timeMin());
      w.wheel.runExpired(w.clock->now());
   }
   std::size_t numKeys = w.triple->numKeys();
   for (const auto& table : w.tables) {
      mgr->addTable(table->mountKey, table->engine);
      numKeys += table->config->size();
   }
   mgr->addMatAdtSelTable(w.triple->mountKey, w.triple->sm);
   const AuditRun run = auditOnce(w, *mgr);
   const auto& [duration, slices, unswitched, gaps] = run;
   const std::uint32_t instance = mgr->configInstance()->instance();
   std::size_t flags = 0;
   for (const auto& [key, sm] : mgr->tableAuditSms()) flags += numFlags(*sm);
   const bool clean = w.tripleBuilt && flags == 0 && instance == 2;
   info("TableAudit keys audited (1 x 1,000,000 + 16 x 65,536 + ECMP triple)",
        static_cast<double>(numKeys), "");
   info("TableAudit ECMP triple keys (routes, next hops, groups, members)",
        static_cast<double>(w.triple->numKeys()), "");
   figure("TableAudit one audit of all tables", duration, "s", "<= 30 s, no overshoot",
          clean && duration <= mgr->auditInterval() && mgr->overshotCnt() == 0);
   info("TableAudit overshoots", mgr->overshotCnt(), "");
   info("TableAudit slice budget", mgr->processTime() * 1e3, "ms");
   info("TableAudit rest between slices", mgr->continueInterval() * 1e3, "ms");
   info("TableAudit slices", static_cast<double>(slices.size()), "");
   info("TableAudit slices interrupted by a context switch",
        static_cast<double>(slices.size() - unswitched.size()), "");
   distribution("of all slices", slices);
   distribution("not interrupted", unswitched);
   const BareSlices bare = bareSlices(*w.tables.front(), *w.clock, slices.size());
   distribution("of bare slices (the walk alone) not interrupted", bare.lengths);
   figure("TableAudit longest slice not interrupted by a context switch", longest(unswitched) * 1e3,
          "ms", "<= 1.1 ms", longest(unswitched) <= 0.0011);
   // What the audit itself controls: the work between two reads of the clock, one key or
   // handle of a pass, or the manager's step from one table to the next. Beside it the same for
   // the bare walk, whose step is one lookup: what is left over there (interrupts, the
   // hypervisor) is the machine's.
   info("TableAudit longest time between two clock reads, slices not interrupted, p99",
        percentile(gaps, 0.99) * 1e6, "us");
   info("TableAudit longest time between two clock reads, slices not interrupted, max",
        longest(gaps) * 1e6, "us");
   info("TableAudit longest time between two clock reads, bare slices not interrupted, p99",
        percentile(bare.gaps, 0.99) * 1e6, "us");
   info("TableAudit longest time between two clock reads, bare slices not interrupted, max",
        longest(bare.gaps) * 1e6, "us");

   // The next audit reads every entry and member back from the chip.
   mgr->auditPolicy()->auditHardwareIs(true);
   const AuditRun compared = auditOnce(w, *mgr);
   info("TableAudit one audit of all tables, hardware comparison on", compared.duration, "s");
   info("TableAudit slices, hardware comparison on", static_cast<double>(compared.slices.size()),
        "");
   info("TableAudit longest slice not interrupted, hardware comparison on",
        longest(compared.unswitched) * 1e3, "ms");
   info("TableAudit longest time between two clock reads, hardware comparison on, p99",
        percentile(compared.gaps, 0.99) * 1e6, "us");
}

// A small router's triple beside the audited single table.
SliceSystem::EcmpOptions smallEcmp() {
   SliceSystem::EcmpOptions options;
   SliceSystem::EcmpSizes& sizes = options.sizes;
   sizes.numNextHops = 128;
   sizes.numGroups = 128;
   sizes.numMembers = 128 * 8;
   sizes.maxGroupMembers = 8;
   sizes.numRoutes = 512;
   sizes.routeIndices = 1024;
   sizes.selectorIndices = 512;
   return options;
}

// One fault put into the chip behind the slice's back: what a record of it names and why, and
// whether only the hardware comparison sees it.
struct FaultCase {
   const char* kind;
   ChipModel::Fault fault;
   std::uint64_t identifier = 0;
   bool needsCompare = false;
   AuditFailReason reason{};
};

ChipModel::Fault faultOf(ChipModel::FaultKind kind, std::uint32_t tblHdl, std::uint32_t hdl,
                         std::uint32_t index = 0, std::uint32_t subIndex = 0) {
   ChipModel::Fault f;
   f.kind = kind;
   f.tblHdl = tblHdl;
   f.hdl = hdl;
   f.index = index;
   f.subIndex = subIndex;
   return f;
}

// Four of every kind in each table: match entries of the single table and of the triple's
// routes, next hops (action data entries) and selector members, each dropped, changed, or
// placed by nobody. The handles placed by nobody differ from table to table, so that a record
// names one fault.
std::vector<FaultCase> faultCases(const SliceSystem::EcmpState& ecmp) {
   using ChipModel::FaultKind;
   using R = AuditFailReason;
   std::vector<FaultCase> cases;
   for (std::uint32_t i = 0; i < 4; ++i) {
      const std::uint32_t single = TableAuditTesting::AuditWorld::tblHdl;
      cases.push_back({"match entry dropped", faultOf(FaultKind::drop, single, 10 + i, 10 + i),
                       10 + i, false, R::matEntryNotInSdk});
      cases.push_back({"match entry changed", faultOf(FaultKind::corrupt, single, 500 + i), 500 + i,
                       true, R::entryAndHwNotEqual});
      cases.push_back({"match entry placed by nobody",
                       faultOf(FaultKind::stray, single, 0x10000 + i, 2000 + i), 0x10000 + i, false,
                       R::matSdkHandleNotInMbb});
   }
   auto route = ecmp.routes.begin();
   auto nextHop = ecmp.nextHops.begin();
   auto member = ecmp.members.begin();
   for (std::uint32_t i = 0; i < 4; ++i) {
      const auto& r1 = (route++)->second;
      const auto& r2 = (route++)->second;
      cases.push_back({"route dropped",
                       faultOf(FaultKind::drop, routeHdl, r1.entryHandle(), r1.index()),
                       r1.key().value(), false, R::matEntryNotInSdk});
      cases.push_back({"route changed", faultOf(FaultKind::corrupt, routeHdl, r2.entryHandle()),
                       r2.key().value(), true, R::entryAndHwNotEqual});
      cases.push_back({"route placed by nobody",
                       faultOf(FaultKind::stray, routeHdl, 0x20000 + i, 1000 + i), 0x20000 + i,
                       false, R::matSdkHandleNotInMbb});
      const auto& n1 = (nextHop++)->second;
      const auto& n2 = (nextHop++)->second;
      cases.push_back({"next hop dropped", faultOf(FaultKind::drop, nextHopHdl, n1.mbrHdl()),
                       n1.key().value(), false, R::adtEntryNotInSdk});
      cases.push_back({"next hop changed", faultOf(FaultKind::corrupt, nextHopHdl, n2.mbrHdl()),
                       n2.key().value(), true, R::adtEntryAndHwNotEqual});
      cases.push_back({"next hop placed by nobody",
                       faultOf(FaultKind::stray, nextHopHdl, 0x30000 + i), 0x30000 + i, false,
                       R::adtSdkHandleNotInMbb});
      // Members of different groups, each beside others in its vector.
      for (FaultKind kind : {FaultKind::drop, FaultKind::corrupt, FaultKind::stray}) {
         const auto& m = member->second;
         const auto& group = ecmp.groups.at(m.key().selGrp().value());
         const std::uint32_t mbrHdl = ecmp.nextHops.at(m.adtKey().value()).mbrHdl();
         const std::uint32_t index = group.baseIndex() + m.key().vector();
         const std::uint32_t subIndex =
             kind == FaultKind::stray ? ChipModel::selVectorMembers - 1 : m.key().subIndex();
         // A member found in hardware that nobody placed is named by its place.
         const bool stray = kind == FaultKind::stray;
         cases.push_back({kind == FaultKind::drop      ? "selector member dropped"
                          : kind == FaultKind::corrupt ? "selector member changed"
                                                       : "selector member placed by nobody",
                          faultOf(kind, selectorHdl, mbrHdl, index, subIndex),
                          stray ? std::uint64_t{index} << 7 | subIndex : m.key().value(), true,
                          kind == FaultKind::drop      ? R::selMbrNotInSdk
                          : kind == FaultKind::corrupt ? R::selMbrAndHwNotEqual
                                                       : R::selSdkMbrNotInMbb});
         while (member != ecmp.members.end() && member->second.key().selGrp() == m.key().selGrp()) {
            ++member;
         }
      }
   }
   return cases;
}

// The fault that undoes `f`, as far as the engines' clean-up needs: what was dropped is there
// again, what nobody placed is gone.
std::optional<ChipModel::Fault> healOf(ChipModel::Fault f) {
   if (f.kind == ChipModel::FaultKind::corrupt) return std::nullopt;
   f.kind = f.kind == ChipModel::FaultKind::drop ? ChipModel::FaultKind::stray
                                                 : ChipModel::FaultKind::drop;
   return f;
}

struct FaultTally {
   std::map<std::string, std::pair<std::size_t, std::size_t>> byKind;  // found, injected
   std::size_t found = 0, injected = 0, otherRecords = 0;
   // Of the faults that the checks made read at all.
   std::size_t readFound = 0, read = 0;
   bool sound = true;
};

// Every fault of faultCases() in one world, audited `failAuditLimit` times with the hardware
// comparison as given: which of them the record names, with the reason expected.
FaultTally faultRun(bool compare) {
   SliceSystem::EcmpWorkload ecmp(smallEcmp());
   TableAuditTesting::AuditWorld w(4096, tripleTables(ecmp));
   w.chip.hitlessFatalIs(false);  // the faults break what the chip's checker watches
   ServedTriple triple(ecmp, w.wheel);
   FaultTally tally;
   tally.sound =
       phaseConverge(ecmp, SliceSystem::EcmpPhaseKind::build, triple, [&](Orb::Seconds by) {
          w.clock->nowIs(w.clock->peek() + by);
          w.wheel.runExpired(w.clock->peek());
       });
   w.mgr->addMatAdtSelTable(triple.mountKey, triple.sm);
   w.mgr->auditPolicy()->auditHardwareIs(compare);
   for (std::uint64_t key = 1; key <= 1000; ++key) w.publish(key, 1, key, key);
   const std::uint32_t limit = w.mgr->auditPolicy()->failAuditLimit();
   for (std::uint32_t a = 0; a < limit; ++a) w.audit();
   tally.sound &= w.mgr->failedAuditStatus()->failedEntries().empty();
   const std::vector<FaultCase> cases = faultCases(ecmp.state());
   for (const FaultCase& c : cases) tally.sound &= w.chip.faultInject(c.fault) == BF_SUCCESS;
   w.clock->stepIs(1e-7);  // every record its own time
   for (std::uint32_t a = 0; a < limit; ++a) w.audit();
   std::set<std::pair<std::uint64_t, AuditFailReason>> records;
   for (const auto& [time, failure] : w.mgr->failedAuditStatus()->failedEntries()) {
      records.emplace(failure.identifier(), failure.reason());
   }
   for (const FaultCase& c : cases) {
      const bool found = records.contains({c.identifier, c.reason});
      auto& [kindFound, kindInjected] = tally.byKind[c.kind];
      kindFound += found;
      ++kindInjected;
      tally.found += found;
      ++tally.injected;
      if (compare || !c.needsCompare) {
         tally.readFound += found;
         ++tally.read;
      }
   }
   tally.otherRecords = records.size() - tally.found;
   for (const FaultCase& c : cases) {
      if (auto heal = healOf(c.fault)) tally.sound &= w.chip.faultInject(*heal) == BF_SUCCESS;
   }
   return tally;
}

void faultsFound() {
   const FaultTally off = faultRun(false);
   const FaultTally on = faultRun(true);
   for (const auto& [kind, counts] : on.byKind) {
      const auto& offCounts = off.byKind.at(kind);
      std::printf(
          "figure: TableAudit faults recorded, %s = %zu of %zu with the hardware "
          "comparison off, %zu of %zu on\n",
          kind.c_str(), offCounts.first, offCounts.second, counts.first, counts.second);
   }
   const auto share = [](std::size_t part, std::size_t whole) { return 100.0 * part / whole; };
   figure("TableAudit injected faults found, hardware comparison on", share(on.found, on.injected),
          "%", "100 %", on.sound && on.found == on.injected && on.otherRecords == 0);
   // The manager's setting reads neither action data nor selector members back from the chip.
   info("TableAudit injected faults found, hardware comparison off (the manager's setting)",
        share(off.found, off.injected), "%");
   figure(
       "TableAudit injected faults found, hardware comparison off, of those its checks read back",
       share(off.readFound, off.read), "%", "100 %",
       off.sound && off.readFound == off.read && off.otherRecords == 0);
}

// Random adds, changes, moves and deletes of a single table and the phases of a router's
// triple (member flaps, re-points, members added and removed, groups replaced, next hops
// retired), one write every 0.2 ms while an audit starts every 20 ms (or as soon as the one
// before is done) and yields inside the tables; nothing of it may end in the record, and the
// engines are never nudged. The hardware comparison is on: its checks are those made without
// it and more.
void churnRecords() {
   using TableAuditTesting::AuditWorld;
   SliceSystem::EcmpWorkload ecmp(smallEcmp());
   AuditWorld w(1024, tripleTables(ecmp));
   ServedTriple triple(ecmp, w.wheel);
   auto advance = [&](Orb::Seconds by) {
      w.clock->nowIs(w.clock->peek() + by);
      w.wheel.runExpired(w.clock->peek());
   };
   bool sound = phaseConverge(ecmp, SliceSystem::EcmpPhaseKind::build, triple, advance);
   w.mgr->addMatAdtSelTable(triple.mountKey, triple.sm);
   w.mgr->auditPolicy()->auditHardwareIs(true);
   w.mgr->auditIntervalIs(0.02);
   w.clock->stepIs(1e-6);  // slices end inside the tables, not only between them
   std::mt19937 rng(11);
   std::map<std::uint64_t, std::pair<std::uint32_t, std::uint32_t>> live;
   std::set<std::uint32_t> usedIndex;
   std::uint64_t opId = 1;
   std::uint32_t nextHdl = 1;
   std::size_t numPhases = 0, numEcmpWrites = 0, written = 0;
   SliceSystem::EcmpPhase phase;
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
      // A phase's next write; the next phase once the triple has the last one in hardware.
      if (written < phase.writes.size()) {
         ecmp.apply(phase, phase.writes[written++], triple.sink);
         ++numEcmpWrites;
      } else if (step % 50 == 0 && (numPhases == 0 || triple.converged(ecmp.state()))) {
         phase = ecmp.phase(
             SliceSystem::ecmpChurnPhases[numPhases++ % SliceSystem::ecmpChurnPhases.size()]);
         written = 0;
      }
      advance(0.0002);
   }
   const auto records = w.mgr->failedAuditStatus()->failedEntries().size();
   const auto& single = *w.mgr->tableAuditSm(w.mountKey);
   const auto& sm = static_cast<const ChipMbbSlice::MatAdtSelTableAuditSm&>(
       *w.mgr->tableAuditSm(triple.mountKey));
   std::uint32_t notes = single.matFlagSm()->mbbNotifier()->notificationCount();
   for (const auto* flags :
        {&sm.matFlagSm(), &sm.adtFlagSm(), &sm.selGrpFlagSm(), &sm.selMbrFlagSm()}) {
      notes += (*flags)->mbbNotifier()->notificationCount();
   }
   sound &= numPhases > 5;
   info("TableAudit audits under churn", w.mgr->configInstance()->instance(), "");
   info("TableAudit triple phases under churn", static_cast<double>(numPhases), "");
   info("TableAudit triple writes under churn", static_cast<double>(numEcmpWrites), "");
   figure("TableAudit false records under churn", static_cast<double>(records), "", "0",
          sound && records == 0);
   figure("TableAudit engine notifications under churn", notes, "", "0", sound && notes == 0);
}

}  // namespace

int main() {
   // The slice and the audit write their trace files as they do in the agent, here into a
   // directory of the run's own.
   char traceDir[] = "/tmp/TableAuditSmBench-XXXXXX";
   if (::mkdtemp(traceDir)) ::setenv("FLASHLOGDIR", traceDir, 1);
   {
      ScheduleWorld world;
      throughput(world);
      schedule(world);
   }
   faultsFound();
   churnRecords();
   std::filesystem::remove_all(traceDir);
   return 0;
}
