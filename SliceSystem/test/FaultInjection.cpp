// Damages the shared segments of a live agent host while a publisher churns, round after round,
// and checks that the host takes it: it stays up and keeps answering, reports each damage once,
// stops only the damaged table, and serves it again from a fresh segment, so that every round's
// churn converges on every table with no hitless violation. Prints its figures.

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstring>
#include <iostream>
#include <random>
#include <thread>

#include "Atlas/EntityManager.h"
#include "ChipModel/ChipProfile.h"
#include "Keel/EventLoop.h"
#include "SliceSystem/PublishTarget.h"
#include "SliceSystem/Publisher.h"
#include "SliceSystem/TableRequests.h"
#include "Vault/ShmTable.h"

namespace {

enum class Damage { garbage, index, truncate };
constexpr Damage damages[] = {Damage::garbage, Damage::index, Damage::truncate};

const char* damageName(Damage d) {
   switch (d) {
      case Damage::garbage:
         return "garbage";
      case Damage::index:
         return "index";
      case Damage::truncate:
         return "truncate";
   }
   return "?";
}

// Where a segment's index lies, read from its header as any process could.
struct IndexSpan {
   std::uint64_t offset = 0;
   std::uint64_t size = 0;
};

// The header's layout is the segment format's: 64-byte aligned lines, the geometry after the
// magic, version, header size and type name.
IndexSpan indexSpanOf(const unsigned char* base) {
   struct Geometry {
      std::uint32_t keySize, valueSize, capacity, slotSize, indexSize, ringSize, ringEntrySize,
          waiterCount;
      std::uint64_t slotsOffset, indexOffset;
   } g;
   std::memcpy(&g, base + 8 + 4 + 4 + 96, sizeof g);
   return {g.indexOffset, std::uint64_t(g.indexSize) * 8};
}

bool damage(const std::string& shmName, Damage kind, std::mt19937_64& random) {
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
   IndexSpan span = indexSpanOf(base);
   bool fits = span.size > 0 && span.offset + span.size <= size;
   if (fits && kind == Damage::index) std::memset(base + span.offset, 0xFF, span.size);
   if (fits && kind == Damage::garbage) {
      for (std::uint64_t i = 0; i < span.size; ++i) base[span.offset + i] = std::uint8_t(random());
   }
   ::munmap(map, size);
   return fits;
}

class Host {
 public:
   explicit Host(const std::string& root) {
      pid_ = ::fork();
      if (pid_ == 0) {
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

struct Figures {
   int injected = 0;
   int reported = 0;
   int converged = 0;
   int hostDeaths = 0;
   int lateAnswers = 0;
   std::uint64_t violations = 0;
   double slowestAnswer = 0;
};

void print(const char* name, double value, const std::string& target = "", bool met = true) {
   std::cout << "figure: " << name << " = " << value;
   if (!target.empty()) std::cout << " (target " << target << ") " << (met ? "met" : "NOT MET");
   std::cout << std::endl;
}

}  // namespace

int main(int argc, char** argv) {
   CLI::App app{"Damages a live agent host's segments while a publisher churns.", "faultinject"};
   int rounds = 3;
   std::uint64_t seed = std::random_device()();
   app.add_option("--rounds", rounds, "faults of each kind")->check(CLI::Range(1, 100000));
   app.add_option("--seed", seed, "seed of the damage");
   CLI11_PARSE(app, argc, argv);
   std::cout << "faultinject: seed " << seed << ", " << rounds << " rounds of each kind"
             << std::endl;
   std::mt19937_64 random(seed);

   const std::string root = "faultinject-" + std::to_string(::getpid());
   Host host(root);
   Keel::EventLoop loop;
   SliceSystem::PublisherOptions options;
   std::string error;
   SliceSystem::tableSpecsFor(ChipModel::ChipProfile::defaultProfile(),
                              {"ipv4_host:1500", "ipv4_lpm:1200", "acl_ingress:300"}, 0,
                              options.tables, error);
   options.prefixesPath = "synthetic";
   options.churnFraction = 0.2;
   options.timeout = 20;
   options.seed = seed;
   Figures f;
   {
      SliceSystem::ShmPublishTarget target(loop, root);
      SliceSystem::Publisher publisher(target, options);
      bool published = publisher.publish().converged();
      const std::string victim = Atlas::EntityManager(root).shmName("mbb/acl_ingress/status");
      std::uint64_t damaged = 0;
      for (int round = 0; published && round < rounds; ++round) {
         for (Damage kind : damages) {
            f.injected += damage(victim, kind, random);
            bool converged = false;
            try {
               converged = publisher.churn().converged();
            } catch (const std::exception& e) {
               std::cout << "faultinject: " << damageName(kind) << ": " << e.what() << std::endl;
            }
            f.converged += converged;
            const auto start = std::chrono::steady_clock::now();
            auto counters = publisher.hostCountersFresh(1.0);
            const double answer =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            f.slowestAnswer = std::max(f.slowestAnswer, answer);
            if (!host.alive()) {
               ++f.hostDeaths;
               break;
            }
            if (!counters) {
               ++f.lateAnswers;
               continue;
            }
            f.reported += counters->numDamagedSegments > damaged;
            damaged = counters->numDamagedSegments;
            f.violations = counters->numViolations;
         }
         if (f.hostDeaths) break;
      }
      if (!published) std::cout << "faultinject: the first publish did not converge" << std::endl;
   }
   const int expected = rounds * int(std::size(damages));
   print("faults injected", f.injected, std::to_string(expected), f.injected == expected);
   print("faults reported by the host", f.reported, std::to_string(f.injected),
         f.reported == f.injected);
   print("rounds converged on every table", f.converged, std::to_string(expected),
         f.converged == expected);
   print("host deaths", f.hostDeaths, "0", f.hostDeaths == 0);
   print("status answers later than 1 s", f.lateAnswers, "0", f.lateAnswers == 0);
   print("slowest status answer (s)", f.slowestAnswer);
   print("hitless violations", double(f.violations), "0", f.violations == 0);
   const bool ok = f.injected == expected && f.reported == f.injected && f.converged == expected &&
                   f.hostDeaths == 0 && f.lateAnswers == 0 && f.violations == 0;
   std::cout << "faultinject: " << (ok ? "OK" : "FAILED") << std::endl;
   return ok ? 0 : 1;
}
