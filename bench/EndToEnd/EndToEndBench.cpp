// Convergence of the whole system: a publisher announces tables and writes every entry, and
// the time runs until the last status shows its entry in hardware. Two processes (the
// slicehost binary serving shared tables, the publisher here) against the same work in one
// process (host in test mode, in-memory tables, no event loop between them), in the same run.
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
#include <string>
#include <thread>

#include "Atlas/EntityManager.h"
#include "ChipSdk/ChipProfile.h"
#include "Keel/EventLoop.h"
#include "SliceSystem/AgentHost.h"
#include "SliceSystem/PublishTarget.h"
#include "SliceSystem/Publisher.h"
#include "SliceSystem/SegmentId.h"

namespace {

struct Scenario {
   const char* name;
   std::uint32_t numTables;
   std::uint32_t tableSize;
   std::uint32_t entriesPerTable;
};

ChipSdk::ChipProfile profileFor(const Scenario& s) {
   ChipSdk::ChipProfile profile;
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

std::string profileJson(const ChipSdk::ChipProfile& profile) {
   std::string json = "{\"name\": \"" + profile.name +
                      "\", \"numPipes\": " + std::to_string(profile.numPipes) +
                      ", \"devices\": [0], \"tables\": [";
   for (std::size_t i = 0; i < profile.tables.size(); ++i) {
      const ChipSdk::TableProfile& t = profile.tables[i];
      json += (i ? ", " : "") + std::string("{\"name\": \"") + t.name +
              "\", \"handle\": " + std::to_string(t.handle) +
              ", \"kind\": \"MAT\", \"size\": " + std::to_string(t.size) + "}";
   }
   return json + "]}";
}

SliceSystem::PublisherOptions optionsFor(const ChipSdk::ChipProfile& profile, const Scenario& s) {
   SliceSystem::PublisherOptions options;
   for (const ChipSdk::TableProfile& t : profile.tables) {
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

Run inProcess(const ChipSdk::ChipProfile& profile, const Scenario& s) {
   Keel::EventLoop loop;
   SliceSystem::AgentHostOptions hostOptions;
   hostOptions.profile = profile;
   hostOptions.log = [](const std::string&) {};
   SliceSystem::AgentHost host(loop, hostOptions);
   SliceSystem::LocalPublishTarget target(host);
   SliceSystem::Publisher publisher(target, optionsFor(profile, s));
   return runOf(publisher, std::uint64_t(s.numTables) * s.entriesPerTable);
}

Run twoProcesses(const ChipSdk::ChipProfile& profile, const Scenario& s) {
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
   ChipSdk::ChipProfile profile = profileFor(s);
   std::printf("== %s: %u table(s) of %u entries, publish to last status\n", s.name, s.numTables,
               s.entriesPerTable);
   std::fflush(stdout);
   Run local = inProcess(profile, s);
   Run shared = twoProcesses(profile, s);
   for (const Run* run : {&local, &shared}) {
      if (!run->sound) std::printf("NOT SOUND:\n%s", run->why.c_str());
   }
   double localRate = local.entries / local.seconds;
   double sharedRate = shared.entries / shared.seconds;
   std::printf("figure: %s in one process = %.0f entries/s (%.3f s)%s\n", s.name, localRate,
               local.seconds, local.sound ? "" : " UNSOUND");
   std::printf("figure: %s across two processes = %.0f entries/s (%.3f s)%s\n", s.name, sharedRate,
               shared.seconds, shared.sound ? "" : " UNSOUND");
   std::printf("figure: %s two processes / one process rate = %.2f\n", s.name,
               sharedRate / localRate);
   std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
   bool quick = argc > 1 && std::strcmp(argv[1], "--quick") == 0;
   std::uint32_t scale = quick ? 10 : 1;
   scenario({"1 table x 1M", 1, 1u << 20, 1'000'000 / scale});
   scenario({"16 tables x 64K", 16, 65536, 65536 / scale});
   return 0;
}
