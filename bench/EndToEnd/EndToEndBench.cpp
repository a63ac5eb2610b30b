// Convergence of the whole system: a publisher announces tables and writes every entry, and
// the time runs until the last status shows its entry in hardware. Two processes (the
// slicehost binary serving shared tables, the publisher here) against, in the same run, the
// same work in one process (host in test mode, in-memory tables, no event loop between them)
// and the engine alone (in-memory tables, the slice's helper and the engine, configurations
// written one after the other, as the engine's own benchmark does). Then the ECMP build of the
// default chip's triple (next hops, groups, their members, routes), from the first write to the
// last status, across two processes and in one process, counted in placement operations. Then a
// 16-table publication rebuilt after its publisher is replaced, and a hundred replacements that
// must leave the host's mounts and the root's segments where they were.
//
//   EndToEndBench [--quick] [--only single|multi|ecmp|replace] [--rounds N]
//     --quick: a tenth of the entries; --only: one scenario; --rounds: runs of each variant
//     (2 by default), the order of the variants alternating from round to round;
//     --variant engine|one|two|stages: only that variant of the table scenarios (one|two of the
//     ECMP build), without figures (for profiling); --window: the measured span, to cut a profile
//     to it

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Atlas/EntityManager.h"
#include "ChipMbbSlice/ChipMbbEngineHelper.h"
#include "ChipModel/ChipModel.h"
#include "Keel/EventLoop.h"
#include "MbbEngine/FastMbbEngineImpl.h"
#include "MbbEngine/MbbEngineHelper.h"
#include "MbbEngine/MbbEngineSm.h"
#include "SliceSystem/AgentHost.h"
#include "SliceSystem/PublishTarget.h"
#include "SliceSystem/Publisher.h"
#include "SliceSystem/Routes.h"
#include "SliceSystem/SegmentId.h"
#include "SliceSystem/TablePlan.h"
#include "SliceSystem/TableRequests.h"
#include "Vault/ShmTable.h"

namespace {

// For profiling one variant: "engine", "one" or "two"; the figures then are not printed.
std::string onlyVariant;

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
   // Processor time of this process and of the host process during the run: on a loaded
   // machine the wall time says more about the neighbours than about the code.
   double cpuSelf = 0;
   double cpuHost = 0;
   // Time spent runnable but waiting for a processor, of this process and of the host: what
   // of the wall time beyond the processor time is the machine's load and not a wait for
   // the other side.
   double queuedSelf = 0;
   double queuedHost = 0;
   // The publisher's writing, from the first write to the last.
   double writeSeconds = 0;
   // Two processes: the host's resident set and the root's segments once converged.
   double hostRss = 0;
   double segmentBytes = 0;
};

double cpuSelfNow() {
   timespec ts{};
   ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
   return double(ts.tv_sec) + ts.tv_nsec / 1e9;
}

// User and system time of another process so far, from /proc.
double cpuOf(pid_t pid) {
   std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
   std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
   std::size_t close = text.rfind(')');
   if (close == std::string::npos) return 0;
   std::istringstream fields(text.substr(close + 2));
   std::string field;
   double ticks = 0;
   for (int i = 3; i <= 15 && fields >> field; ++i) {
      if (i == 14 || i == 15) ticks += std::stod(field);
   }
   return ticks / double(::sysconf(_SC_CLK_TCK));
}

// Run-queue delay of a process's main thread so far, from /proc.
double queuedOf(pid_t pid) {
   std::ifstream in("/proc/" + std::to_string(pid) + "/schedstat");
   double running = 0;
   double waiting = 0;
   in >> running >> waiting;
   return waiting / 1e9;
}

double monotonicNow() {
   timespec ts{};
   ::clock_gettime(CLOCK_MONOTONIC, &ts);
   return double(ts.tv_sec) + ts.tv_nsec / 1e9;
}

// With --window, the measured span on the monotonic clock, for cutting a profile to it
// (perf record -k CLOCK_MONOTONIC, then perf report --time FROM,TO).
bool windowShown = false;
void windowPrint(double from) {
   if (windowShown) std::printf("  window: %.6f,%.6f\n", from, monotonicNow());
}

double rssOf(pid_t pid) {
   std::ifstream in("/proc/" + std::to_string(pid) + "/status");
   std::string line;
   while (std::getline(in, line)) {
      if (line.starts_with("VmRSS:")) return std::stod(line.substr(6)) * 1024;
   }
   return 0;
}

double segmentBytesUnder(const std::string& root) {
   double bytes = 0;
   for (const auto& file : std::filesystem::directory_iterator("/dev/shm")) {
      if (file.path().filename().string().starts_with(root + ".")) bytes += file.file_size();
   }
   return bytes;
}

std::string loadNow() {
   double load[3] = {0, 0, 0};
   ::getloadavg(load, 3);
   char text[64];
   std::snprintf(text, sizeof text, "%.2f %.2f %.2f", load[0], load[1], load[2]);
   return text;
}

// The publish phase converged, every status equals its configuration, and the host has
// exactly those entries in hardware with no hitless violation.
Run runOf(SliceSystem::Publisher& publisher, std::uint64_t total) {
   Run run;
   const double cpu = cpuSelfNow();
   const double queued = queuedOf(::getpid());
   const double from = monotonicNow();
   SliceSystem::PhaseResult phase = publisher.publish();
   run.cpuSelf = cpuSelfNow() - cpu;
   run.queuedSelf = queuedOf(::getpid()) - queued;
   windowPrint(from);
   run.seconds = phase.seconds;
   run.writeSeconds = phase.writeSeconds;
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

// Runs `fn` in a child process and hands back its run. The host of the two-process variant is
// started afresh for every round and pays for first touching its memory each time; every
// round of either variant starts from fresh processes, or the one-process variant's later
// rounds would reuse a heap that the earlier ones warmed, and the variants would not do the
// same work.
Run freshProcess(const std::function<Run()>& fn) {
   struct Numbers {
      double seconds, cpuSelf, cpuHost, queuedSelf, queuedHost, writeSeconds, hostRss, segmentBytes;
      std::uint64_t entries;
      bool sound;
   };
   int fds[2];
   if (::pipe(fds) != 0) return Run{.why = "no pipe for the run's child\n"};
   std::fflush(stdout);
   const pid_t child = ::fork();
   if (child == 0) {
      ::close(fds[0]);
      const Run run = fn();
      const Numbers n{run.seconds,    run.cpuSelf,      run.cpuHost, run.queuedSelf,
                      run.queuedHost, run.writeSeconds, run.hostRss, run.segmentBytes,
                      run.entries,    run.sound};
      std::string bytes(reinterpret_cast<const char*>(&n), sizeof n);
      bytes += run.why;
      for (std::size_t at = 0; at < bytes.size();) {
         const ssize_t wrote = ::write(fds[1], bytes.data() + at, bytes.size() - at);
         if (wrote <= 0) break;
         at += std::size_t(wrote);
      }
      std::fflush(stdout);
      std::_Exit(0);
   }
   ::close(fds[1]);
   std::string bytes;
   char buffer[4096];
   for (ssize_t got; (got = ::read(fds[0], buffer, sizeof buffer)) > 0;) bytes.append(buffer, got);
   ::close(fds[0]);
   ::waitpid(child, nullptr, 0);
   Run run;
   if (bytes.size() < sizeof(Numbers)) {
      run.why = "the run's child ended without a result\n";
      return run;
   }
   Numbers n;
   std::memcpy(&n, bytes.data(), sizeof n);
   run.seconds = n.seconds;
   run.cpuSelf = n.cpuSelf;
   run.cpuHost = n.cpuHost;
   run.queuedSelf = n.queuedSelf;
   run.queuedHost = n.queuedHost;
   run.writeSeconds = n.writeSeconds;
   run.hostRss = n.hostRss;
   run.segmentBytes = n.segmentBytes;
   run.entries = n.entries;
   run.sound = n.sound;
   run.why = bytes.substr(sizeof n);
   return run;
}

// A helper that places nothing, so that the engine's own share can be told apart.
class BareHelper : public MbbEngine::MbbEngineHelper {
 public:
   using MbbEngineHelper::MbbEngineHelper;
   void addEntry(const Vault::MbbEngine::EntryConfig&) override { ++numOps; }
   void deleteEntry(const Vault::MbbEngine::EntryConfig&) override { ++numOps; }
   void deleteEntryDeadlock(const Vault::MbbEngine::EntryConfig&) override { ++numOps; }
   void moveEntry(const Vault::MbbEngine::EntryConfig&) override { ++numOps; }
   void updateEntry(const Vault::MbbEngine::EntryConfig&) override { ++numOps; }
   std::uint64_t numOps = 0;
};

// How far down the path an engine-alone run goes: the engine with a helper that places
// nothing, the slice's helper without committing, with the chip model's commit, with the
// statuses written to a shared segment as the host writes them; `full` is the engine-alone
// variant, statuses in process memory.
enum class Depth { configOnly, engine, helper, chip, status, full };

// One table served by the engine alone.
struct EngineTable {
   EngineTable(const SliceSystem::TableSpec& spec, Keel::TimerWheel* wheel, std::uint32_t qtId,
               Depth depth = Depth::full, const std::string& statusShm = "")
       : config(Vault::MbbEngine::tableConfigFactory(spec.name)),
         status(depth == Depth::status
                    ? Vault::shmTableWriterNew<Vault::MbbEngine::TableStatus>(spec.name + "-status",
                                                                              statusShm, spec.size)
                    : Vault::MbbEngine::tableStatusFactory(spec.name + "-status")) {
      config->mountedIs(true);
      status->mountedIs(true);
      if (depth == Depth::configOnly) return;
      Orb::Ptr<MbbEngine::MbbEngineHelper> helper;
      if (depth == Depth::engine) {
         helper = Orb::ptrNew<BareHelper>("", nullptr, spec.size);
      } else {
         auto slice = Orb::ptrNew<ChipMbbSlice::ChipMbbEngineHelper>(
             "", depth == Depth::status || depth == Depth::full ? status : nullptr, nullptr,
             nullptr, nullptr, 1, spec.tableId, 0, 0, spec.size, depth == Depth::helper, qtId);
         slice->devTgtIs(ChipDriver::ChipDevTgt{0, 0xFFFF});
         helper = slice;
      }
      auto impl = Orb::ptrNew<MbbEngine::FastMbbEngineImpl>(spec.name, config, nullptr, nullptr,
                                                            helper, qtId);
      sm = Orb::ptrNew<MbbEngine::MbbEngineSm>(config, status, nullptr, nullptr, impl, nullptr,
                                               wheel);
   }
   Orb::Ptr<Vault::MbbEngine::TableConfig> config;
   Orb::Ptr<Vault::MbbEngine::TableStatus> status;
   Orb::Ptr<MbbEngine::MbbEngineSm> sm;
};

Run engineOnly(const ChipModel::ChipProfile& profile, const Scenario& s,
               Depth depth = Depth::full) {
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
      const std::string statusShm =
          "/e2ebench-stage-" + std::to_string(::getpid()) + "-" + std::to_string(t);
      tables.push_back(
          std::make_unique<EngineTable>(options.tables[t], &wheel, t + 1, depth, statusShm));
   }
   const double cpu = cpuSelfNow();
   auto start = std::chrono::steady_clock::now();
   for (std::size_t t = 0; t < tables.size(); ++t) {
      for (const auto& change : changes[t])
         tables[t]->config->entryIs(plans[t].config(change.entry));
   }
   Run run;
   run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
   run.cpuSelf = cpuSelfNow() - cpu;
   run.sound = chip.numViolations() == 0;
   for (std::size_t t = 0; t < tables.size(); ++t) {
      run.entries += changes[t].size();
      const bool statuses = depth == Depth::status || depth == Depth::full;
      run.sound = run.sound && (!statuses || tables[t]->status->size() == changes[t].size());
   }
   if (!run.sound) run.why = "statuses missing or hitless violations\n";
   return run;
}

// The publisher's writes into shared configuration segments with nobody reading, then one
// reader draining every change and reading each changed entry, as the host's engines do.
std::pair<double, double> shmWriteAndDrain(const ChipModel::ChipProfile& profile,
                                           const Scenario& s) {
   SliceSystem::PublisherOptions options = optionsFor(profile, s);
   std::string source;
   std::vector<SliceSystem::Route> routes =
       SliceSystem::routesLoad("", std::size_t(s.numTables) * s.entriesPerTable, source);
   struct Reading : Vault::MbbEngine::TableConfig::Notifiee {
      void onEntry(const Vault::MbbEngine::EntryKey& key) override {
         numRead += notifier()->entry(key).opId() != Vault::MbbEngine::OpId();
      }
      std::uint64_t numRead = 0;
   };
   std::vector<Orb::Ptr<Vault::MbbEngine::TableConfig>> writers;
   std::vector<Orb::Ptr<Vault::MbbEngine::TableConfig>> readers;
   std::vector<std::unique_ptr<Reading>> reading;
   std::vector<SliceSystem::TablePlan> plans;
   std::vector<std::vector<SliceSystem::TablePlan::Change>> changes;
   SliceSystem::OpIdSource opIds;
   for (std::size_t t = 0; t < options.tables.size(); ++t) {
      auto first = routes.begin() + t * s.entriesPerTable;
      plans.emplace_back(options.tables[t],
                         std::vector<SliceSystem::Route>(first, first + s.entriesPerTable), t + 1);
      changes.push_back(plans.back().initial(opIds));
      const std::string shm =
          "/e2ebench-stage-" + std::to_string(::getpid()) + "-config-" + std::to_string(t);
      writers.push_back(Vault::shmTableWriterNew<Vault::MbbEngine::TableConfig>(
          "config", shm, options.tables[t].size));
      readers.push_back(Vault::shmTableReaderNew<Vault::MbbEngine::TableConfig>("reader", shm));
      reading.push_back(std::make_unique<Reading>());
      reading.back()->notifierIs(readers.back().get());
   }
   auto start = std::chrono::steady_clock::now();
   // As the publisher writes: each key's place fetched a few writes ahead.
   constexpr std::size_t writesAhead = 4;
   for (std::size_t t = 0; t < writers.size(); ++t) {
      const auto& planned = changes[t];
      for (std::size_t i = 0; i < planned.size(); ++i) {
         if (i + writesAhead < planned.size()) {
            writers[t]->entryPrefetch(
                Vault::MbbEngine::EntryKey(plans[t].entries()[planned[i + writesAhead].entry].key));
         }
         writers[t]->entryIs(plans[t].config(planned[i].entry));
      }
   }
   auto written = std::chrono::steady_clock::now();
   for (std::size_t t = 0; t < readers.size(); ++t) {
      while (reading[t]->numRead < changes[t].size()) readers[t]->changesDrain();
   }
   auto drained = std::chrono::steady_clock::now();
   for (auto& r : reading) r->notifierIs(nullptr);
   return {std::chrono::duration<double>(written - start).count(),
           std::chrono::duration<double>(drained - written).count()};
}

// Where an entry's time goes, stage by stage, each measured on the same entries: the
// publisher's write and the host's drain on shared segments, then the engine-alone path run
// deeper each time (in-memory configuration writes only, the engine, the slice's helper, the
// chip model's commit, the status written to a shared segment); each stage is the difference
// to the run before it. Each run's lowest time over the rounds, in nanoseconds per entry.
struct Stages {
   static constexpr const char* names[] = {"publisher write", "reader drain", "engine",
                                           "helper",          "chip model",   "status write"};
   // write, drain, then the engine-alone runs from configOnly to status.
   std::vector<std::array<double, 7>> rounds;

   void measure(const ChipModel::ChipProfile& profile, const Scenario& s) {
      std::array<double, 7> seconds{};
      const auto [write, drain] = shmWriteAndDrain(profile, s);
      seconds[0] = write;
      seconds[1] = drain;
      const Depth depths[] = {Depth::configOnly, Depth::engine, Depth::helper, Depth::chip,
                              Depth::status};
      for (int i = 0; i < 5; ++i) seconds[2 + i] = engineOnly(profile, s, depths[i]).seconds;
      rounds.push_back(seconds);
   }
   void print(const char* name, const Scenario& s) const {
      const double n = double(s.numTables) * s.entriesPerTable;
      std::array<double, 7> low = rounds[0];
      for (const auto& r : rounds) {
         for (int i = 0; i < 7; ++i) low[i] = std::min(low[i], r[i]);
      }
      const double ns[] = {low[0],          low[1],          low[3] - low[2],
                           low[4] - low[3], low[5] - low[4], low[6] - low[5]};
      double total = 0;
      for (int i = 0; i < 6; ++i) {
         total += ns[i] / n * 1e9;
         std::printf("figure: %s stage %s = %.0f ns/entry\n", name, names[i], ns[i] / n * 1e9);
      }
      std::printf("figure: %s stages together = %.0f ns/entry (%.0f entries/s on one core)\n", name,
                  total, 1e9 / total);
   }
};

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
      const double hostCpu = cpuOf(host);
      const double hostQueued = queuedOf(host);
      run = runOf(publisher, std::uint64_t(s.numTables) * s.entriesPerTable);
      run.cpuHost = cpuOf(host) - hostCpu;
      run.queuedHost = queuedOf(host) - hostQueued;
      run.hostRss = rssOf(host);
      run.segmentBytes = segmentBytesUnder(root);
   }
   ::kill(host, SIGTERM);
   ::waitpid(host, nullptr, 0);
   std::filesystem::remove(profilePath);
   return run;
}

// The rates of one variant over the rounds, lowest to highest.
struct Rates {
   std::vector<double> rates;
   std::vector<double> cpuRates;
   bool sound = true;

   void add(const Run& run) {
      if (!run.sound) std::printf("NOT SOUND:\n%s", run.why.c_str());
      sound = sound && run.sound;
      rates.push_back(run.entries / run.seconds);
      const double cpu = run.cpuSelf + run.cpuHost;
      cpuRates.push_back(cpu > 0 ? run.entries / cpu : 0);
   }
   double low() const { return *std::min_element(rates.begin(), rates.end()); }
   double high() const { return *std::max_element(rates.begin(), rates.end()); }
   std::string range() const {
      char text[96];
      std::snprintf(text, sizeof text, "%.0f-%.0f", low(), high());
      return text;
   }
   std::string cpuRange() const {
      char text[96];
      std::snprintf(text, sizeof text, "%.0f-%.0f",
                    *std::min_element(cpuRates.begin(), cpuRates.end()),
                    *std::max_element(cpuRates.begin(), cpuRates.end()));
      return text;
   }
};

const char* verdict(bool met) {
   return met ? "met" : "NOT MET";
}

// The rate across processes against the rate in one process, each variant at its best round:
// a round that another process slowed down lowers one side only, and would make the ratio of
// that round too low or too high. The rounds' own ratios are printed beside.
void ratioPrint(const char* name, const Rates& local, const Rates& shared,
                const std::vector<double>& ratios) {
   const double ratio = shared.high() / local.high();
   std::printf(
       "figure: %s two processes / one process rate = %.2f (each at its best round; rounds "
       "%.2f-%.2f) (target >= 0.8) %s\n",
       name, ratio, *std::min_element(ratios.begin(), ratios.end()),
       *std::max_element(ratios.begin(), ratios.end()),
       verdict(shared.sound && local.sound && ratio >= 0.8));
}

void runPrint(const char* name, const char* variant, const Run& run) {
   std::printf(
       "  %s %s: %.3f s wall (publisher writing %.3f s), cpu %.3f s here + %.3f s host, waiting "
       "for a processor %.3f s here + %.3f s host, load %s\n",
       name, variant, run.seconds, run.writeSeconds, run.cpuSelf, run.cpuHost, run.queuedSelf,
       run.queuedHost, loadNow().c_str());
   std::fflush(stdout);
}

// Each variant in every round, the order turned round from one round to the next, so that a
// change in the machine's load falls on both alike.
void scenario(const Scenario& s, std::uint32_t rounds, double oneTarget) {
   ChipModel::ChipProfile profile = profileFor(s);
   std::printf("== %s: %u table(s) of %u entries, publish to last status, load %s\n", s.name,
               s.numTables, s.entriesPerTable, loadNow().c_str());
   std::fflush(stdout);
   Rates engine;
   Rates local;
   Rates shared;
   Stages stages;
   std::vector<double> ratios;
   Run memory;
   for (std::uint32_t r = 0; r < rounds; ++r) {
      if (onlyVariant.empty() || onlyVariant == "stages") stages.measure(profile, s);
      if (onlyVariant == "stages") continue;
      Run e;
      if (onlyVariant.empty() || onlyVariant == "engine") {
         e = engineOnly(profile, s);
         runPrint(s.name, "engine alone", e);
      }
      if (onlyVariant == "engine") continue;
      Run l;
      Run t;
      if (onlyVariant == "one") {
         l = freshProcess([&] { return inProcess(profile, s); });
         runPrint(s.name, "one process", l);
         continue;
      }
      if (onlyVariant == "two") {
         t = freshProcess([&] { return twoProcesses(profile, s); });
         runPrint(s.name, "two processes", t);
         continue;
      }
      if (r % 2 == 0) {
         l = freshProcess([&] { return inProcess(profile, s); });
         runPrint(s.name, "one process", l);
         t = freshProcess([&] { return twoProcesses(profile, s); });
         runPrint(s.name, "two processes", t);
      } else {
         t = freshProcess([&] { return twoProcesses(profile, s); });
         runPrint(s.name, "two processes", t);
         l = freshProcess([&] { return inProcess(profile, s); });
         runPrint(s.name, "one process", l);
      }
      engine.add(e);
      local.add(l);
      shared.add(t);
      ratios.push_back((t.entries / t.seconds) / (l.entries / l.seconds));
      memory = t;
   }
   if (onlyVariant == "stages") stages.print(s.name, s);
   if (!onlyVariant.empty()) return;
   std::printf("figure: %s engine alone = %s entries/s\n", s.name, engine.range().c_str());
   std::printf("figure: %s in one process = %s entries/s (target >= %.0f) %s\n", s.name,
               local.range().c_str(), oneTarget, verdict(local.sound && local.high() >= oneTarget));
   std::printf("figure: %s across two processes = %s entries/s (target >= 500000) %s\n", s.name,
               shared.range().c_str(), verdict(shared.sound && shared.high() >= 500000));
   ratioPrint(s.name, local, shared, ratios);
   std::printf("figure: %s entries per cpu second, one process = %s, two processes = %s\n", s.name,
               local.cpuRange().c_str(), shared.cpuRange().c_str());
   const double entries = double(s.numTables) * s.entriesPerTable;
   std::printf(
       "figure: %s host resident memory per served entry = %.0f bytes (the root's segments: %.0f "
       "bytes per entry)\n",
       s.name, memory.hostRss / entries, memory.segmentBytes / entries);
   stages.print(s.name, s);
   std::fflush(stdout);
}

pid_t hostStart(const std::string& root, const std::string& profilePath) {
   pid_t host = ::fork();
   if (host == 0) {
      int null = ::open("/dev/null", O_WRONLY);
      ::dup2(null, 1);
      ::execl(SLICEHOST_PATH, SLICEHOST_PATH, "--root", root.c_str(), "--profile",
              profilePath.c_str(), "--status-interval", "0", nullptr);
      std::_Exit(127);
   }
   Atlas::EntityManager names(root);
   while (!SliceSystem::segmentId(names.shmName("mbb/hostCounters")) &&
          ::waitpid(host, nullptr, WNOHANG) == 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
   }
   return host;
}

std::size_t segmentsUnder(const std::string& root) {
   std::size_t n = 0;
   for (const auto& file : std::filesystem::directory_iterator("/dev/shm")) {
      n += file.path().filename().string().starts_with(root + ".");
   }
   return n;
}

// A publication of 16 tables rebuilt after its publisher was replaced, beside the first
// publication in the same run, each timed from the publisher's directory (what the host is
// told of) to the last status: the rebuild also takes the old entries out. Then a hundred
// replacements of it by a small publication, after each of which the host's mounts and the
// root's segments must be what they were after the first.
void replaceScenario(std::uint32_t scale) {
   const Scenario s{"replace", 16, 65536, 65536 / scale};
   const ChipModel::ChipProfile profile = profileFor(s);
   const std::string root = "e2ebench-replace-" + std::to_string(::getpid());
   const std::string profilePath =
       (std::filesystem::temp_directory_path() / (root + "-chip.json")).string();
   std::ofstream(profilePath) << profileJson(profile);
   std::printf("== publication replaced: 16 tables of %u entries, load %s\n", s.entriesPerTable,
               loadNow().c_str());
   std::fflush(stdout);
   const pid_t host = hostStart(root, profilePath);
   const std::uint64_t total = std::uint64_t(s.numTables) * s.entriesPerTable;
   Keel::EventLoop loop;
   auto publication = [&](const char* what, std::uint64_t seed) {
      const auto start = std::chrono::steady_clock::now();
      SliceSystem::ShmPublishTarget target(loop, root, "bench");
      SliceSystem::PublisherOptions options = optionsFor(profile, s);
      options.seed = seed;
      SliceSystem::Publisher publisher(target, options);
      const double ready =
          std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      Run run = runOf(publisher, total);
      run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      std::printf(
          "  %s: %.3f s from the directory to the last status (%.3f s of it making the "
          "publisher), %s\n",
          what, run.seconds, ready, run.sound ? "sound" : "NOT SOUND");
      if (!run.sound) std::printf("%s", run.why.c_str());
      std::fflush(stdout);
      return run;
   };
   const Run first = publication("first publication", 1);
   const Run rebuild = publication("rebuild after its replacement", 2);
   const double ratio = rebuild.seconds / first.seconds;
   std::printf("figure: rebuild after replacement / first publication = %.2f (target <= 2) %s\n",
               ratio, verdict(first.sound && rebuild.sound && ratio <= 2));

   std::optional<std::pair<std::uint64_t, std::size_t>> baseline;
   bool steady = true;
   for (int i = 0; i < 100 && steady; ++i) {
      SliceSystem::ShmPublishTarget target(loop, root, "bench");
      SliceSystem::PublisherOptions options = optionsFor(profile, s);
      options.tables.resize(1);
      options.tables[0].numEntries = 64;
      options.seed = i + 1;
      SliceSystem::Publisher publisher(target, options);
      const bool converged = publisher.publish().converged();
      const auto counters = publisher.hostCountersFresh(10);
      if (!converged || !counters) {
         steady = false;
         break;
      }
      const auto now = std::pair(counters->mounts, segmentsUnder(root));
      if (!baseline) baseline = now;
      steady = now == *baseline;
   }
   std::printf(
       "figure: host mounts and root segments after 100 replacements = %s baseline "
       "(%llu mounts, %zu segments) %s\n",
       steady ? "equal to" : "NOT equal to",
       static_cast<unsigned long long>(baseline ? baseline->first : 0),
       baseline ? baseline->second : 0, verdict(steady));
   std::fflush(stdout);
   ::kill(host, SIGTERM);
   ::waitpid(host, nullptr, 0);
   std::filesystem::remove(profilePath);
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
   const double cpu = cpuSelfNow();
   const double queued = queuedOf(::getpid());
   const double from = monotonicNow();
   std::optional<SliceSystem::PhaseResult> phase =
       publisher.ecmpPhase(SliceSystem::EcmpPhaseKind::build);
   windowPrint(from);
   run.cpuSelf = cpuSelfNow() - cpu;
   run.queuedSelf = queuedOf(::getpid()) - queued;
   if (!phase) {
      run.why = "the triple could not be published\n";
      return run;
   }
   run.seconds = phase->seconds;
   run.writeSeconds = phase->writeSeconds;
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
      const double hostCpu = cpuOf(host);
      const double hostQueued = queuedOf(host);
      run = ecmpBuildOf(publisher);
      run.cpuHost = cpuOf(host) - hostCpu;
      run.queuedHost = queuedOf(host) - hostQueued;
   }
   ::kill(host, SIGTERM);
   ::waitpid(host, nullptr, 0);
   return run;
}

void ecmpScenario(std::uint32_t scale, std::uint32_t rounds) {
   std::printf(
       "== ECMP build: %u groups x %u members, next hops, %u routes, first write to last "
       "status, load %s\n",
       4096 / scale, 64u, 16384 / scale, loadNow().c_str());
   std::fflush(stdout);
   Rates local;
   Rates shared;
   std::vector<double> ratios;
   for (std::uint32_t r = 0; r < rounds; ++r) {
      Run l;
      Run t;
      if (onlyVariant == "one") {
         runPrint("ECMP build", "one process", freshProcess([&] { return ecmpInProcess(scale); }));
         continue;
      }
      if (onlyVariant == "two") {
         runPrint("ECMP build", "two processes",
                  freshProcess([&] { return ecmpTwoProcesses(scale); }));
         continue;
      }
      if (r % 2 == 0) {
         l = freshProcess([&] { return ecmpInProcess(scale); });
         runPrint("ECMP build", "one process", l);
         t = freshProcess([&] { return ecmpTwoProcesses(scale); });
         runPrint("ECMP build", "two processes", t);
      } else {
         t = freshProcess([&] { return ecmpTwoProcesses(scale); });
         runPrint("ECMP build", "two processes", t);
         l = freshProcess([&] { return ecmpInProcess(scale); });
         runPrint("ECMP build", "one process", l);
      }
      local.add(l);
      shared.add(t);
      ratios.push_back((t.entries / t.seconds) / (l.entries / l.seconds));
   }
   if (!onlyVariant.empty()) return;
   std::printf("figure: ECMP build in one process = %s placement ops/s\n", local.range().c_str());
   std::printf(
       "figure: ECMP build across two processes = %s placement ops/s (target >= 150000) %s\n",
       shared.range().c_str(), verdict(shared.sound && shared.high() >= 150000));
   ratioPrint("ECMP build", local, shared, ratios);
   std::printf(
       "figure: ECMP build placement ops per cpu second, one process = %s, two processes = "
       "%s\n",
       local.cpuRange().c_str(), shared.cpuRange().c_str());
   std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
   std::uint32_t scale = 1;
   std::uint32_t rounds = 2;
   std::string only;
   for (int i = 1; i < argc; ++i) {
      if (std::strcmp(argv[i], "--quick") == 0) {
         scale = 10;
      } else if (std::strcmp(argv[i], "--only") == 0 && i + 1 < argc) {
         only = argv[++i];
      } else if (std::strcmp(argv[i], "--window") == 0) {
         windowShown = true;
      } else if (std::strcmp(argv[i], "--variant") == 0 && i + 1 < argc) {
         onlyVariant = argv[++i];
      } else if (std::strcmp(argv[i], "--rounds") == 0 && i + 1 < argc) {
         rounds = std::max(1, std::atoi(argv[++i]));
      } else {
         std::printf(
             "usage: %s [--quick] [--only single|multi|ecmp|replace] [--rounds N] "
             "[--variant engine|one|two|stages] [--window]\n",
             argv[0]);
         return std::strcmp(argv[i], "--help") == 0 ? 0 : 2;
      }
   }
   if (only.empty() || only == "single") {
      scenario({"1 table x 1M", 1, 1u << 20, 1'000'000 / scale}, rounds, 700000);
   }
   if (only.empty() || only == "multi") {
      scenario({"16 tables x 64K", 16, 65536, 65536 / scale}, rounds, 1000000);
   }
   if (only.empty() || only == "ecmp") ecmpScenario(scale, rounds);
   if (only.empty() || only == "replace") replaceScenario(scale);
   return 0;
}
