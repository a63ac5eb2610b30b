// Convergence of the whole system: a publisher announces tables and writes every entry, and
// the time runs until the last status shows its entry in hardware. Two processes (the
// slicehost binary serving shared tables, the publisher here) against, in the same run, the
// same work in one process (host in test mode, in-memory tables, no event loop between them)
// and the engine alone (in-memory tables, the slice's helper and the engine, configurations
// written one after the other, as the engine's own benchmark does). Then the ECMP build of the
// default chip's triple (next hops, groups, their members, routes), from the first write to the
// last status, across two processes and in one process, counted in placement operations.
//
//   EndToEndBench [--quick]     --quick: a tenth of the entries

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <thread>

#include "Atlas/EntityManager.h"
#include "ChipMbbSlice/ChipMbbEngineHelper.h"
#include "ChipModel/ChipModel.h"
#include "Keel/EventLoop.h"
#include "MbbEngine/FastMbbEngineImpl.h"
#include "MbbEngine/MbbEngineSm.h"
#include "SliceSystem/AgentHost.h"
#include "SliceSystem/PublishTarget.h"
#include "SliceSystem/Publisher.h"
#include "SliceSystem/Routes.h"
#include "SliceSystem/SegmentId.h"
#include "SliceSystem/TablePlan.h"
#include "SliceSystem/TableRequests.h"

namespace {

struct Scenario {
   const char* name;
   std::uint32_t numTables;
   std::uint32_t tableSize;
   std::uint32_t entriesPerTable;
};

ChipModel::ChipProfile profileFor(const Scenario& s) {
   ChipModel::ChipProfile profile;
   profile.name = s.name;
   profile.numPipes = 4;
   profile.devices = {0};
   for (std::uint32_t t = 0; t < s.numTables; ++t) {
      char name[32];
      std::snprintf(name, sizeof name, "route_%02u", t);
      profile.tables.push_back(
          {name, 0x01000100 + t, ChipSdk::TableKind::mat, s.tableSize, 0, 0, 0});
   }
   return profile;
}

std::string profileJson(const ChipModel::ChipProfile& profile) {
   std::string json = "{\"name\": \"" + profile.name +
                      "\", \"numPipes\": " + std::to_string(profile.numPipes) +
                      ", \"devices\": [0], \"tables\": [";
   for (std::size_t i = 0; i < profile.tables.size(); ++i) {
      const ChipModel::TableProfile& t = profile.tables[i];
      json += (i ? ", " : "") + std::string("{\"name\": \"") + t.name +
              "\", \"handle\": " + std::to_string(t.handle) +
              ", \"kind\": \"MAT\", \"size\": " + std::to_string(t.size) + "}";
   }
   return json + "]}";
}

SliceSystem::PublisherOptions optionsFor(const ChipModel::ChipProfile& profile, const Scenario& s) {
   SliceSystem::PublisherOptions options;
   for (const ChipModel::TableProfile& t : profile.tables) {
      options.tables.push_back({t.name, t.handle, t.size, 0, s.entriesPerTable});
   }
   options.timeout = 600;
   return options;
}

struct Run {
   double seconds = 0;
   std::uint64_t entries = 0;
   bool sound = false;
   std::string why;
};

// The publish phase converged, every status equals its configuration, and the host has
// exactly those entries in hardware with no hitless violation.
Run runOf(SliceSystem::Publisher& publisher, std::uint64_t total) {
   Run run;
   SliceSystem::PhaseResult phase = publisher.publish();
   run.seconds = phase.seconds;
   run.entries = phase.changes.total();
   SliceSystem::PublisherReport report;
   report.phases.push_back(phase);
   publisher.check(report);
   report.host = publisher.hostCountersFresh(10.0);
   run.sound = report.ok() && run.entries == total && report.host->entries == total;
   if (!run.sound) run.why = report.text();
   return run;
}

Run inProcess(const ChipModel::ChipProfile& profile, const Scenario& s) {
   Keel::EventLoop loop;
   SliceSystem::AgentHostOptions hostOptions;
   hostOptions.profile = profile;
   hostOptions.log = [](const std::string&) {};
   SliceSystem::AgentHost host(loop, hostOptions);
   SliceSystem::LocalPublishTarget target(host);
   SliceSystem::Publisher publisher(target, optionsFor(profile, s));
   return runOf(publisher, std::uint64_t(s.numTables) * s.entriesPerTable);
}

// One table served by the engine alone.
struct EngineTable {
   EngineTable(const SliceSystem::TableSpec& spec, Keel::TimerWheel* wheel, std::uint32_t qtId)
       : config(Vault::MbbEngine::tableConfigFactory(spec.name)),
         status(Vault::MbbEngine::tableStatusFactory(spec.name + "-status")) {
      config->mountedIs(true);
      status->mountedIs(true);
      auto helper = Orb::ptrNew<ChipMbbSlice::ChipMbbEngineHelper>(
          "", status, nullptr, nullptr, nullptr, 1, spec.tableId, 0, 0, spec.size, false, qtId);
      helper->devTgtIs(ChipDriver::ChipDevTgt{0, 0xFFFF});
      auto impl = Orb::ptrNew<MbbEngine::FastMbbEngineImpl>(spec.name, config, nullptr, nullptr,
                                                            helper, qtId);
      sm = Orb::ptrNew<MbbEngine::MbbEngineSm>(config, status, nullptr, nullptr, impl, nullptr,
                                               wheel);
   }
   Orb::Ptr<Vault::MbbEngine::TableConfig> config;
   Orb::Ptr<Vault::MbbEngine::TableStatus> status;
   Orb::Ptr<MbbEngine::MbbEngineSm> sm;
};

Run engineOnly(const ChipModel::ChipProfile& profile, const Scenario& s) {
   ChipModel::InstalledChip chip(profile);
   SliceSystem::PublisherOptions options = optionsFor(profile, s);
   std::string source;
   std::vector<SliceSystem::Route> routes =
       SliceSystem::routesLoad("", std::size_t(s.numTables) * s.entriesPerTable, source);
   Keel::TimerWheel wheel(Orb::ptrNew<Orb::ManualTimeSource>(), 1, 1000, true, 16);
   std::vector<std::unique_ptr<EngineTable>> tables;
   std::vector<SliceSystem::TablePlan> plans;
   std::vector<std::vector<SliceSystem::TablePlan::Change>> changes;
   SliceSystem::OpIdSource opIds;
   for (std::size_t t = 0; t < options.tables.size(); ++t) {
      auto first = routes.begin() + t * s.entriesPerTable;
      plans.emplace_back(options.tables[t],
                         std::vector<SliceSystem::Route>(first, first + s.entriesPerTable), t + 1);
      changes.push_back(plans.back().initial(opIds));
      tables.push_back(std::make_unique<EngineTable>(options.tables[t], &wheel, t + 1));
   }
   auto start = std::chrono::steady_clock::now();
   for (std::size_t t = 0; t < tables.size(); ++t) {
      for (const auto& change : changes[t])
         tables[t]->config->entryIs(plans[t].config(change.entry));
   }
   Run run;
   run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
   run.sound = chip.numViolations() == 0;
   for (std::size_t t = 0; t < tables.size(); ++t) {
      run.entries += changes[t].size();
      run.sound = run.sound && tables[t]->status->size() == changes[t].size();
   }
   if (!run.sound) run.why = "statuses missing or hitless violations\n";
   return run;
}

Run twoProcesses(const ChipModel::ChipProfile& profile, const Scenario& s) {
   std::string root = "e2ebench-" + std::to_string(::getpid());
   std::string profilePath =
       (std::filesystem::temp_directory_path() / (root + "-chip.json")).string();
   std::ofstream(profilePath) << profileJson(profile);
   pid_t host = ::fork();
   if (host == 0) {
      int null = ::open("/dev/null", O_WRONLY);
      ::dup2(null, 1);
      ::execl(SLICEHOST_PATH, SLICEHOST_PATH, "--root", root.c_str(), "--profile",
              profilePath.c_str(), "--status-interval", "0", nullptr);
      std::_Exit(127);
   }
   Run run;
   {
      Atlas::EntityManager names(root);
      while (!SliceSystem::segmentId(names.shmName("mbb/hostCounters")) &&
             ::waitpid(host, nullptr, WNOHANG) == 0) {
         std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
      Keel::EventLoop loop;
      SliceSystem::ShmPublishTarget target(loop, root);
      SliceSystem::Publisher publisher(target, optionsFor(profile, s));
      run = runOf(publisher, std::uint64_t(s.numTables) * s.entriesPerTable);
   }
   ::kill(host, SIGTERM);
   ::waitpid(host, nullptr, 0);
   std::filesystem::remove(profilePath);
   return run;
}

void scenario(const Scenario& s) {
   ChipModel::ChipProfile profile = profileFor(s);
   std::printf("== %s: %u table(s) of %u entries, publish to last status\n", s.name, s.numTables,
               s.entriesPerTable);
   std::fflush(stdout);
   Run engine = engineOnly(profile, s);
   Run local = inProcess(profile, s);
   Run shared = twoProcesses(profile, s);
   for (const Run* run : {&engine, &local, &shared}) {
      if (!run->sound) std::printf("NOT SOUND:\n%s", run->why.c_str());
   }
   double engineRate = engine.entries / engine.seconds;
   double localRate = local.entries / local.seconds;
   double sharedRate = shared.entries / shared.seconds;
   std::printf(
       "figure: %s engine alone (in-memory tables, helper, engine) = %.0f entries/s "
       "(%.3f s)%s\n",
       s.name, engineRate, engine.seconds, engine.sound ? "" : " UNSOUND");
   std::printf("figure: %s in one process = %.0f entries/s (%.3f s)%s\n", s.name, localRate,
               local.seconds, local.sound ? "" : " UNSOUND");
   std::printf("figure: %s across two processes = %.0f entries/s (%.3f s)%s\n", s.name, sharedRate,
               shared.seconds, shared.sound ? "" : " UNSOUND");
   std::printf("figure: %s two processes / one process rate = %.2f\n", s.name,
               sharedRate / localRate);
   std::printf("figure: %s two processes / engine alone rate = %.2f\n", s.name,
               sharedRate / engineRate);
   std::fflush(stdout);
}

SliceSystem::PublisherOptions ecmpOptions(std::uint32_t scale) {
   SliceSystem::PublisherOptions options;
   SliceSystem::EcmpTableSpec spec;
   std::string error;
   if (!SliceSystem::ecmpSpecFor(ChipModel::ChipProfile::defaultProfile(), "nexthop_ecmp",
                                 "default", spec, error)) {
      std::printf("NOT SOUND: %s\n", error.c_str());
   }
   SliceSystem::EcmpSizes& sizes = spec.workload.sizes;
   sizes.numGroups /= scale;
   sizes.numMembers /= scale;
   sizes.numNextHops /= scale;
   sizes.numRoutes /= scale;
   options.ecmp = spec;
   options.timeout = 600;
   return options;
}

// The build converged hitlessly with every status equal to its configuration.
Run ecmpBuildOf(SliceSystem::Publisher& publisher) {
   Run run;
   std::optional<SliceSystem::PhaseResult> phase =
       publisher.ecmpPhase(SliceSystem::EcmpPhaseKind::build);
   if (!phase) {
      run.why = "the triple could not be published\n";
      return run;
   }
   run.seconds = phase->seconds;
   run.entries = phase->placementOps.value_or(0);
   run.sound = phase->converged() && phase->mismatches == 0 && phase->strayStatuses == 0 &&
               phase->violations == 0u && run.entries > 0;
   if (!run.sound) run.why = phase->text() + "\n";
   return run;
}

Run ecmpInProcess(std::uint32_t scale) {
   Keel::EventLoop loop;
   SliceSystem::AgentHostOptions hostOptions;
   hostOptions.log = [](const std::string&) {};
   SliceSystem::AgentHost host(loop, hostOptions);
   SliceSystem::LocalPublishTarget target(host);
   SliceSystem::Publisher publisher(target, ecmpOptions(scale));
   return ecmpBuildOf(publisher);
}

Run ecmpTwoProcesses(std::uint32_t scale) {
   std::string root = "e2ebench-ecmp-" + std::to_string(::getpid());
   pid_t host = ::fork();
   if (host == 0) {
      int null = ::open("/dev/null", O_WRONLY);
      ::dup2(null, 1);
      ::execl(SLICEHOST_PATH, SLICEHOST_PATH, "--root", root.c_str(), "--status-interval", "0",
              nullptr);
      std::_Exit(127);
   }
   Run run;
   {
      Atlas::EntityManager names(root);
      while (!SliceSystem::segmentId(names.shmName("mbb/hostCounters")) &&
             ::waitpid(host, nullptr, WNOHANG) == 0) {
         std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
      Keel::EventLoop loop;
      SliceSystem::ShmPublishTarget target(loop, root);
      SliceSystem::Publisher publisher(target, ecmpOptions(scale));
      run = ecmpBuildOf(publisher);
   }
   ::kill(host, SIGTERM);
   ::waitpid(host, nullptr, 0);
   return run;
}

void ecmpScenario(std::uint32_t scale) {
   std::printf(
       "== ECMP build: %u groups x %u members, next hops, %u routes, first write to last "
       "status\n",
       4096 / scale, 64u, 16384 / scale);
   std::fflush(stdout);
   Run local = ecmpInProcess(scale);
   Run shared = ecmpTwoProcesses(scale);
   for (const Run* run : {&local, &shared}) {
      if (!run->sound) std::printf("NOT SOUND:\n%s", run->why.c_str());
   }
   const double localRate = local.entries / local.seconds;
   const double sharedRate = shared.entries / shared.seconds;
   const double ratio = sharedRate / localRate;
   std::printf("figure: ECMP build in one process = %.0f placement ops/s (%llu ops, %.3f s)%s\n",
               localRate, static_cast<unsigned long long>(local.entries), local.seconds,
               local.sound ? "" : " UNSOUND");
   std::printf(
       "figure: ECMP build across two processes = %.0f placement ops/s (%llu ops, %.3f s)%s "
       "(target >= 150000) %s\n",
       sharedRate, static_cast<unsigned long long>(shared.entries), shared.seconds,
       shared.sound ? "" : " UNSOUND", shared.sound && sharedRate >= 150000 ? "met" : "NOT MET");
   std::printf("figure: ECMP build two processes / one process rate = %.2f (target >= 0.8) %s\n",
               ratio, shared.sound && local.sound && ratio >= 0.8 ? "met" : "NOT MET");
   std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
   bool quick = argc > 1 && std::strcmp(argv[1], "--quick") == 0;
   std::uint32_t scale = quick ? 10 : 1;
   scenario({"1 table x 1M", 1, 1u << 20, 1'000'000 / scale});
   scenario({"16 tables x 64K", 16, 65536, 65536 / scale});
   ecmpScenario(scale);
   return 0;
}
