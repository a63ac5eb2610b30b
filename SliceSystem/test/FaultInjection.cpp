// Damages the shared segments of a live agent host while a publisher churns, round after round,
// in each way that a process able to write or replace them could: garbage, an index of 0xFF, a
// segment cut short, another user's segment in place of one, and sizes that lie (the header's
// counters under a running table, or a file shorter than its header says when it is mounted).
// Each round takes one table and one of its segments, the status that the host writes or the
// configuration that the publisher writes, and checks: the host stays up and answers a status
// request within a second throughout, the other tables converge and lose no status, the host
// reports the damage once, and once the segment is replaced the table converges again, with no
// hitless violation anywhere. Prints its figures.

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <iostream>
#include <optional>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "Agent/CliClient.h"
#include "Agent/CliServer.h"
#include "Atlas/EntityManager.h"
#include "ChipModel/ChipProfile.h"
#include "Keel/EventLoop.h"
#include "SliceSystem/PublishTarget.h"
#include "SliceSystem/Publisher.h"
#include "SliceSystem/TableRequests.h"

namespace {

using Clock = std::chrono::steady_clock;

enum class Damage { garbage, index, truncate, foreign, sizes };
constexpr std::array<Damage, 5> damages{Damage::garbage, Damage::index, Damage::truncate,
                                        Damage::foreign, Damage::sizes};
constexpr std::array<const char*, 5> optionNames{"garbage", "index", "truncate", "foreign",
                                                 "sizes"};
constexpr std::array<const char*, 5> damageNames{"garbage", "index", "truncate", "foreign owner",
                                                 "lying sizes"};

// Another user, for segments that are not the host's own.
constexpr uid_t foreignUid = 65534;

// The segment format as any process sees it: the geometry after the magic, version, header size
// and type name; the changing counters on the next 64-byte line, the ring head on the one after.
struct Layout {
   std::uint64_t slotsOffset = 0;
   std::uint64_t indexOffset = 0;
   std::uint64_t ringOffset = 0;
   std::uint64_t totalSize = 0;
};
constexpr std::size_t geometryOffset = 8 + 4 + 4 + 96;
constexpr std::size_t countersOffset = 192;
constexpr std::size_t ringHeadOffset = 256;

Layout layoutOf(const unsigned char* base) {
   std::uint64_t offsets[5];
   std::memcpy(offsets, base + geometryOffset + 8 * 4, sizeof offsets);
   return {offsets[0], offsets[1], offsets[2], offsets[4]};
}

std::string shmPath(const std::string& shmName) {
   return "/dev/shm" + shmName;
}

// Damage written into a segment in place, under whoever has it mapped.
bool damageInPlace(const std::string& shmName, Damage kind, std::mt19937_64& random) {
   int fd = ::shm_open(shmName.c_str(), O_RDWR, 0);
   if (fd < 0) return false;
   struct stat st {};
   ::fstat(fd, &st);
   const auto size = static_cast<std::size_t>(st.st_size);
   if (kind == Damage::truncate) {
      bool cut = ::ftruncate(fd, 4096) == 0;
      ::close(fd);
      return cut;
   }
   void* map = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
   ::close(fd);
   if (map == MAP_FAILED) return false;
   auto* base = static_cast<unsigned char*>(map);
   const Layout l = layoutOf(base);
   bool done =
       l.slotsOffset < l.indexOffset && l.indexOffset < l.ringOffset && l.ringOffset <= size;
   if (done && kind == Damage::index) {
      std::memset(base + l.indexOffset, 0xFF, l.ringOffset - l.indexOffset);
   } else if (done && kind == Damage::garbage) {
      for (std::uint64_t i = l.slotsOffset; i < l.ringOffset; ++i) base[i] = std::uint8_t(random());
   } else if (done && kind == Damage::sizes) {
      // Count and high-water mark far past the capacity, the index forever being rebuilt, the
      // ring's head far ahead of anything written.
      const std::uint32_t lies[3] = {0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu};
      std::memcpy(base + countersOffset + 4, lies, sizeof lies);
      const std::uint64_t head = ~std::uint64_t{0} / 2;
      std::memcpy(base + ringHeadOffset, &head, sizeof head);
   }
   ::munmap(map, size);
   return done;
}

// Another user's file in the segment's place: a copy of it, or (with no segment there) a page of
// zeros. Whoever has the segment mapped keeps it.
bool foreignReplace(const std::string& shmName) {
   std::vector<char> bytes(4096, 0);
   if (int fd = ::shm_open(shmName.c_str(), O_RDONLY, 0); fd >= 0) {
      struct stat st {};
      ::fstat(fd, &st);
      bytes.resize(static_cast<std::size_t>(st.st_size));
      bool read = ::pread(fd, bytes.data(), bytes.size(), 0) == ssize_t(bytes.size());
      ::close(fd);
      if (!read) return false;
   }
   ::shm_unlink(shmName.c_str());
   int fd = ::open(shmPath(shmName).c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
   if (fd < 0) return false;
   bool made = ::write(fd, bytes.data(), bytes.size()) == ssize_t(bytes.size()) &&
               ::fchown(fd, foreignUid, foreignUid) == 0;
   ::close(fd);
   return made;
}

// A file shorter than its header says.
bool shorten(const std::string& shmName) {
   int fd = ::shm_open(shmName.c_str(), O_RDWR, 0);
   if (fd < 0) return false;
   struct stat st {};
   bool cut = ::fstat(fd, &st) == 0 && ::ftruncate(fd, st.st_size / 2) == 0;
   ::close(fd);
   return cut;
}

class Host {
 public:
   Host(const std::string& root, const std::string& logPath) {
      pid_ = ::fork();
      if (pid_ == 0) {
         int fd = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
         ::dup2(fd, 1);
         ::setenv("FLASHLOG_DISABLE", "1", 1);
         ::execl(SLICEHOST_PATH, SLICEHOST_PATH, "--root", root.c_str(), "--status-interval", "0",
                 nullptr);
         std::_Exit(127);
      }
   }
   ~Host() {
      if (!alive()) return;
      ::kill(pid_, SIGTERM);
      ::waitpid(pid_, nullptr, 0);
   }
   bool alive() const { return ::waitpid(pid_, nullptr, WNOHANG) == 0; }

 private:
   pid_t pid_;
};

// Asks the host for "mbb agents" every 100 ms, from its own thread, for as long as it lives.
class StatusRequests {
 public:
   explicit StatusRequests(std::string socketPath)
       : path_(std::move(socketPath)), thread_([this] { run(); }) {}
   ~StatusRequests() { stop(); }
   void stop() {
      stopping_ = true;
      if (thread_.joinable()) thread_.join();
   }
   int numAnswered() const { return answered_; }
   int numLate() const { return late_; }
   int numUnanswered() const { return unanswered_; }
   double slowest() const { return slowest_; }

 private:
   void run() {
      while (!stopping_) {
         const auto start = Clock::now();
         std::string error;
         bool answered = Agent::cliCommand(
                             path_, "mbb agents", [](std::string_view) {}, [](std::string_view) {},
                             error) == Agent::CliAnswer::answered;
         const double took = std::chrono::duration<double>(Clock::now() - start).count();
         slowest_ = std::max(slowest_.load(), took);
         late_ += took > 1.0;
         (answered ? answered_ : unanswered_) += 1;
         std::this_thread::sleep_for(std::chrono::milliseconds(100));
      }
   }

   std::string path_;
   std::atomic<bool> stopping_{false};
   std::atomic<int> answered_{0}, late_{0}, unanswered_{0};
   std::atomic<double> slowest_{0};
   std::thread thread_;
};

struct KindFigures {
   int injected = 0;
   int reported = 0;
   int extraReports = 0;
   int recovered = 0;
};

struct Figures {
   std::array<KindFigures, damages.size()> kinds;
   int rounds = 0;
   int othersConverged = 0;
   std::uint64_t othersLost = 0;
   int hostDeaths = 0;
   std::uint64_t violations = 0;
};

void print(const std::string& name, double value, const std::string& target = "", bool met = true) {
   std::cout << "figure: " << name << " = " << value;
   if (!target.empty()) std::cout << " (target " << target << ") " << (met ? "met" : "NOT MET");
   std::cout << std::endl;
}

class Injector {
 public:
   Injector(SliceSystem::ShmPublishTarget& target, SliceSystem::Publisher& publisher,
            std::vector<std::string> tables, std::mt19937_64& random)
       : target_(target), publisher_(publisher), tables_(std::move(tables)), random_(random) {}

   std::uint64_t damagedSegments() {
      auto counters = publisher_.hostCountersFresh(1.0);
      if (counters) {
         lastDamaged_ = counters->numDamagedSegments;
         violations_ = counters->numViolations;
      }
      return lastDamaged_;
   }
   std::uint64_t violations() const { return violations_; }

   // One fault of `kind` in table `victim`, on its configuration or on its status.
   void round(Damage kind, const std::string& victim, bool onConfig, Figures& f) {
      KindFigures& k = f.kinds[std::size_t(kind)];
      const std::string configPath = "mbb/" + victim + "/config";
      const std::string config = target_.entityManager().shmName(configPath);
      const std::string status = target_.entityManager().shmName("mbb/" + victim + "/status");
      const std::string& segment = onConfig ? config : status;
      std::set<std::string> others(tables_.begin(), tables_.end());
      others.erase(victim);
      const std::uint64_t before = damagedSegments();
      target_.damagedTake();

      bool injected = false;
      bool atMount = kind == Damage::foreign || (kind == Damage::sizes && !onConfig);
      if (atMount) {
         // Met when the host mounts the table afresh: another user's file in place of its
         // configuration or of its status, or a configuration shorter than its header says.
         publisher_.tableWithdraw(victim);
         injected = kind == Damage::foreign ? foreignReplace(segment) : shorten(config);
         publisher_.tableAnnounce(victim, false);
      } else {
         injected = damageInPlace(segment, kind, random_);
      }
      k.injected += injected;
      const bool othersConverged = publisher_.churnOf(others, true).converged();
      f.othersConverged += othersConverged;
      if (!atMount) publisher_.churnOf({victim}, false);

      std::uint64_t after = before;
      for (auto until = Clock::now() + std::chrono::seconds(3);
           after == before && Clock::now() < until;) {
         after = damagedSegments();
      }
      // Whatever else the host would say about this fault, it says soon.
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      after = damagedSegments();
      // A publisher that finds its own configuration damaged writes there no more, so the host
      // may never read the damage; the publisher's report counts then.
      const bool reported = after > before || target_.damagedTake().contains(configPath);
      k.reported += reported;
      k.extraReports += after > before + 1 ? int(after - before - 1) : 0;

      // The damaged segment replaced: the host makes its own status afresh, the publisher its
      // configuration; another user's file is removed first, as an operator would.
      if (kind == Damage::foreign) ::shm_unlink(segment.c_str());
      if (onConfig || atMount) {
         publisher_.tableWithdraw(victim);
         try {
            publisher_.tableAnnounce(victim, onConfig || kind == Damage::sizes);
         } catch (const std::exception& e) {
            std::cout << "faultinject: " << victim << ": " << e.what() << std::endl;
         }
      } else {
         publisher_.tableExpectAll(victim);
      }
      const bool recovered =
          publisher_.settle("recovery").converged() && publisher_.numMismatches(victim) == 0;
      k.recovered += recovered;
      std::uint64_t lost = 0;
      for (const std::string& other : others) lost += publisher_.numMismatches(other);
      f.othersLost += lost;
      if (!injected || !reported || after > before + 1 || !othersConverged || lost || !recovered) {
         std::cout << "faultinject: round " << f.rounds << ", " << damageNames[std::size_t(kind)]
                   << " in " << victim << "'s " << (onConfig ? "configuration" : "status") << ":"
                   << (injected ? "" : " not injected") << (reported ? "" : " not reported")
                   << (after > before + 1 ? " reported more than once" : "")
                   << (othersConverged ? "" : " the other tables did not converge")
                   << (lost ? " statuses lost on the other tables" : "")
                   << (recovered ? "" : " did not converge again") << std::endl;
      }
      ++f.rounds;
   }

 private:
   SliceSystem::ShmPublishTarget& target_;
   SliceSystem::Publisher& publisher_;
   std::vector<std::string> tables_;
   std::mt19937_64& random_;
   std::uint64_t lastDamaged_ = 0;
   std::uint64_t violations_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
   CLI::App app{"Damages a live agent host's segments while a publisher churns.", "faultinject"};
   int rounds = 3;
   std::uint64_t seed = std::random_device()();
   app.add_option("--rounds", rounds, "faults of each kind")->check(CLI::Range(1, 100000));
   app.add_option("--seed", seed, "seed of the damage");
   std::vector<std::string> only;
   app.add_option("--kind", only, "only these kinds (repeatable)")
       ->check(CLI::IsMember({"garbage", "index", "truncate", "foreign", "sizes"}));
   CLI11_PARSE(app, argc, argv);
   const bool root = ::geteuid() == 0;
   std::cout << "faultinject: seed " << seed << ", " << rounds << " rounds of each kind"
             << (root ? "" : " (not root: no foreign owners)") << std::endl;
   std::mt19937_64 random(seed);

   const std::string shmRoot = "faultinject-" + std::to_string(::getpid());
   const std::string hostLog = "/tmp/" + shmRoot + "-host.log";
   Host host(shmRoot, hostLog);
   Keel::EventLoop loop;
   SliceSystem::PublisherOptions options;
   std::string error;
   const std::vector<std::string> tables = {"ipv4_host", "ipv4_lpm", "acl_ingress"};
   SliceSystem::tableSpecsFor(ChipModel::ChipProfile::defaultProfile(),
                              {"ipv4_host:1500", "ipv4_lpm:1200", "acl_ingress:300"}, 0,
                              options.tables, error);
   options.prefixesPath = "synthetic";
   options.churnFraction = 0.2;
   options.timeout = 10;
   options.seed = seed;
   options.renewDamaged = false;
   Figures f;
   std::optional<StatusRequests> requests;
   {
      SliceSystem::ShmPublishTarget target(loop, shmRoot);
      SliceSystem::Publisher publisher(target, options);
      Injector injector(target, publisher, tables, random);
      bool published = publisher.publish().converged();
      if (!published) std::cout << "faultinject: the first publish did not converge" << std::endl;
      requests.emplace(Agent::socketPathFor(shmRoot));
      for (int round = 0; published && round < rounds && !f.hostDeaths; ++round) {
         for (Damage kind : damages) {
            if (kind == Damage::foreign && !root) continue;
            if (!only.empty() &&
                std::find(only.begin(), only.end(), optionNames[std::size_t(kind)]) == only.end()) {
               continue;
            }
            const std::string& victim = tables[std::size_t(f.rounds) % tables.size()];
            injector.round(kind, victim, round % 2 == 0, f);
            if (!host.alive()) {
               ++f.hostDeaths;
               break;
            }
         }
      }
      injector.damagedSegments();
      f.violations = injector.violations();
      requests->stop();
   }
   std::cout << "faultinject: the host's log is " << hostLog << std::endl;
   bool ok = f.hostDeaths == 0 && f.violations == 0;
   for (std::size_t i = 0; i < damages.size(); ++i) {
      if (damages[i] == Damage::foreign && !root) continue;
      if (!only.empty() && std::find(only.begin(), only.end(), optionNames[i]) == only.end()) {
         continue;
      }
      const int perKind = rounds;
      const KindFigures& k = f.kinds[i];
      const std::string name = damageNames[i];
      print("faults injected: " + name, k.injected, std::to_string(perKind), k.injected == perKind);
      print("faults reported (by the host, or by the publisher in its own segment): " + name,
            k.reported, std::to_string(k.injected), k.reported == k.injected);
      print("reports beyond one per fault: " + name, k.extraReports, "0", k.extraReports == 0);
      print("damaged tables converged again: " + name, k.recovered, std::to_string(k.injected),
            k.recovered == k.injected);
      ok = ok && k.injected == perKind && k.reported == k.injected && k.extraReports == 0 &&
           k.recovered == k.injected;
   }
   print("rounds in which the other tables converged", f.othersConverged, std::to_string(f.rounds),
         f.othersConverged == f.rounds);
   print("statuses lost on the other tables", double(f.othersLost), "0", f.othersLost == 0);
   print("host deaths", f.hostDeaths, "0", f.hostDeaths == 0);
   print("status requests answered", requests->numAnswered());
   print("status requests unanswered", requests->numUnanswered(), "0",
         requests->numUnanswered() == 0);
   print("status answers later than 1 s", requests->numLate(), "0", requests->numLate() == 0);
   print("slowest status answer (s)", requests->slowest());
   print("hitless violations", double(f.violations), "0", f.violations == 0);
   ok = ok && f.othersConverged == f.rounds && f.othersLost == 0 &&
        requests->numUnanswered() == 0 && requests->numLate() == 0 && requests->numAnswered() > 0;
   std::cout << "faultinject: " << (ok ? "OK" : "FAILED") << std::endl;
   return ok ? 0 : 1;
}
