#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <thread>
#include <tuple>

#include "Atlas/EntityManager.h"
#include "ChipModel/ChipProfile.h"
#include "Keel/EventLoop.h"
#include "SliceSystem/PublishTarget.h"
#include "SliceSystem/Publisher.h"
#include "SliceSystem/SegmentId.h"
#include "SliceSystem/test/SmallRun.h"

namespace {

using SliceSystem::Test::ecmpRun;
using SliceSystem::Test::smallRun;

std::vector<std::string> segmentsUnder(const std::string& root) {
   std::vector<std::string> names;
   for (const auto& file : std::filesystem::directory_iterator("/dev/shm")) {
      std::string name = file.path().filename();
      if (name.rfind(root + ".", 0) == 0) names.push_back(name);
   }
   return names;
}

// The agent host binary on its own root, its output kept in a file.
class HostProcess {
 public:
   explicit HostProcess(std::string root = "", std::vector<std::string> args = {})
       : root_(std::move(root)) {
      static int serial = 0;
      if (root_.empty())
         root_ = "e2e-" + std::to_string(::getpid()) + "-" + std::to_string(++serial);
      logPath_ = (std::filesystem::temp_directory_path() /
                  (root_ + "." + std::to_string(++serial) + ".log"))
                     .string();
      pid_ = ::fork();
      if (pid_ == 0) {
         int fd = ::open(logPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
         ::dup2(fd, 1);
         ::dup2(fd, 2);
         // The host's trace file is not what these tests look at.
         ::setenv("FLASHLOG_DISABLE", "1", 1);
         args.insert(args.begin(), {SLICEHOST_PATH, "--root", root_, "--status-interval", "0"});
         std::vector<char*> argv;
         for (std::string& arg : args) argv.push_back(arg.data());
         argv.push_back(nullptr);
         ::execv(SLICEHOST_PATH, argv.data());
         std::_Exit(127);
      }
   }
   ~HostProcess() {
      if (running()) {
         ::kill(pid_, SIGKILL);
         ::waitpid(pid_, nullptr, 0);
      }
      for (const std::string& name : segmentsUnder(root_)) ::shm_unlink(("/" + name).c_str());
      std::filesystem::remove(logPath_);
   }

   const std::string& root() const { return root_; }
   bool running() {
      if (exited_) return false;
      if (::waitpid(pid_, &status_, WNOHANG) == 0) return true;
      exited_ = true;
      return false;
   }
   // Exit status after SIGTERM, -1 when it did not exit normally.
   int stop() {
      ::kill(pid_, SIGTERM);
      ::waitpid(pid_, &status_, 0);
      exited_ = true;
      return WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
   }
   // Exit status once it ended by itself; -1 when it did not exit normally.
   int wait() {
      ::waitpid(pid_, &status_, 0);
      exited_ = true;
      return WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
   }
   void kill() {
      ::kill(pid_, SIGKILL);
      wait();
   }
   std::string log() const {
      std::ifstream in(logPath_);
      std::stringstream text;
      text << in.rdbuf();
      return text.str();
   }

 private:
   std::string root_;
   std::string logPath_;
   pid_t pid_ = -1;
   int status_ = 0;
   bool exited_ = false;
};

TEST(EndToEnd, TwoProcessesConvergeThroughChurnAndSkipBadAnnouncements) {
   HostProcess host;
   {
      Keel::EventLoop loop;
      SliceSystem::ShmPublishTarget target(loop, host.root());
      SliceSystem::PublisherOptions options = smallRun();
      options.badAnnouncements = true;
      SliceSystem::Publisher publisher(target, options);
      SliceSystem::PublisherReport report = publisher.run();

      EXPECT_TRUE(report.ok()) << report.text() << host.log();
      ASSERT_EQ(report.phases.size(), 3u) << host.log();
      EXPECT_GT(report.phases[1].changes.total(), 500u);
      EXPECT_EQ(report.keysChecked, 3000u);
      EXPECT_EQ(report.mismatches, 0u);
      EXPECT_EQ(report.strayStatuses, 0u);
      ASSERT_TRUE(report.host) << host.log();
      EXPECT_EQ(report.host->tablesPublished, 7u);
      EXPECT_EQ(report.host->tablesRunning, 3u);
      EXPECT_EQ(report.host->numTablesSkipped, 4u) << host.log();
      EXPECT_EQ(report.host->entries, 3000u);
      EXPECT_EQ(report.host->statuses, 3000u);
      EXPECT_EQ(report.host->numViolations, 0u);
      EXPECT_EQ(report.host->numHandlerFailures, 0u);
      EXPECT_EQ(report.host->numMatModOps,
                report.phases[1].changes.count[std::size_t(SliceSystem::ChangeKind::modify)]);
      EXPECT_TRUE(host.running());
   }
   EXPECT_EQ(host.stop(), 0) << host.log();
   EXPECT_NE(host.log().find("slicehost: stopped"), std::string::npos) << host.log();
   // Both sides removed what they created.
   EXPECT_EQ(segmentsUnder(host.root()), std::vector<std::string>());
}

TEST(EndToEnd, TwoProcessesConvergeTheEcmpWorkloadHitlessly) {
   HostProcess host;
   {
      Keel::EventLoop loop;
      SliceSystem::ShmPublishTarget target(loop, host.root());
      SliceSystem::Publisher publisher(target, ecmpRun());
      SliceSystem::PublisherReport report = publisher.run();

      EXPECT_TRUE(report.ok()) << report.text() << host.log();
      ASSERT_EQ(report.phases.size(), 7u) << report.text() << host.log();
      for (const SliceSystem::PhaseResult& phase : report.phases) {
         EXPECT_EQ(phase.violations, 0u) << phase.text();
         EXPECT_GT(phase.keysChecked + phase.ecmpChanges.total(), 0u) << phase.text();
      }
      ASSERT_TRUE(report.host) << host.log();
      EXPECT_EQ(report.host->triplesPublished, 1u);
      EXPECT_EQ(report.host->triplesRunning, 1u);
      EXPECT_GT(report.host->numSelDeactivateOps, 0u);
      EXPECT_EQ(std::tuple(report.host->groups, report.host->members, report.host->statuses),
                std::tuple(0u, 0u, 0u));
   }
   EXPECT_EQ(host.stop(), 0) << host.log();
   EXPECT_EQ(segmentsUnder(host.root()), std::vector<std::string>());
}

TEST(EndToEnd, PublisherDyingMidWayLeavesTheHostServingAndItsSuccessorConverges) {
   HostProcess host;
   pid_t child = ::fork();
   if (child == 0) {
      Keel::EventLoop loop;
      SliceSystem::ShmPublishTarget target(loop, host.root());
      SliceSystem::PublisherOptions options = smallRun();
      // Past the publish phase, in the middle of the churn.
      options.crashAfterWrites = 3000 + 200;
      SliceSystem::Publisher(target, options).run();
      std::_Exit(0);
   }
   int status = 0;
   ::waitpid(child, &status, 0);
   ASSERT_TRUE(WIFEXITED(status));
   EXPECT_EQ(WEXITSTATUS(status), 3);
   EXPECT_TRUE(host.running()) << host.log();

   Keel::EventLoop loop;
   SliceSystem::ShmPublishTarget target(loop, host.root());
   SliceSystem::Publisher successor(target, smallRun());
   SliceSystem::PublisherReport report = successor.run();
   EXPECT_TRUE(report.ok()) << report.text() << host.log();
   ASSERT_TRUE(report.host);
   EXPECT_EQ(report.host->publications, 2u);
   EXPECT_EQ(report.host->tablesRunning, 3u);
   // The dead publisher's entries were taken out; only the successor's are in hardware.
   EXPECT_EQ(report.host->entries, 3000u);
   EXPECT_EQ(report.host->numViolations, 0u);
   EXPECT_EQ(host.stop(), 0) << host.log();
   EXPECT_NE(host.log().find("replaced"), std::string::npos) << host.log();
}

// Publishers of one name replace each other a hundred times, each with a small table: the host
// serves every successor from scratch, and while one is served it holds as many mounts, and
// the root as many segments, as while the first one was.
TEST(EndToEnd, HundredReplacedPublicationsLeaveMountsAndSegmentsAtTheirBaseline) {
   HostProcess host("", {"--probe-interval", "0.005"});
   Keel::EventLoop loop;
   std::optional<std::pair<std::uint64_t, std::size_t>> baseline;
   for (int i = 0; i < 100; ++i) {
      SliceSystem::ShmPublishTarget target(loop, host.root(), "replaced");
      SliceSystem::PublisherOptions options = smallRun();
      options.tables.resize(1);
      options.tables[0].numEntries = 20;
      options.seed = i + 1;
      SliceSystem::Publisher publisher(target, options);
      ASSERT_TRUE(publisher.publish().converged()) << host.log();
      const std::optional<SliceSystem::HostCounters> counters = publisher.hostCountersFresh(5);
      ASSERT_TRUE(counters) << host.log();
      ASSERT_EQ(counters->entries, 20u);
      const auto now = std::pair(counters->mounts, segmentsUnder(host.root()).size());
      if (!baseline) baseline = now;
      ASSERT_EQ(now, *baseline) << "after " << i << " replacements\n" << host.log();
   }
   EXPECT_EQ(host.stop(), 0) << host.log();
   EXPECT_EQ(segmentsUnder(host.root()), std::vector<std::string>());
}

// A second host on a root in use says why and leaves; a host killed outright leaves its
// segments behind, and the next host on the root removes them before it starts.
TEST(EndToEnd, OneHostPerRootAndNothingLeftBehindByOneThatWasKilled) {
   HostProcess first;
   for (int i = 0; i < 500 && segmentsUnder(first.root()).empty(); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
   }
   ASSERT_FALSE(segmentsUnder(first.root()).empty()) << first.log();
   HostProcess second(first.root());
   EXPECT_EQ(second.wait(), 1) << second.log();
   EXPECT_NE(second.log().find("already has a writer that is running"), std::string::npos)
       << second.log();
   first.kill();
   const std::size_t left = segmentsUnder(first.root()).size();
   EXPECT_GT(left, 0u);
   HostProcess third(first.root());
   for (int i = 0; i < 500 && third.log().find("slicehost: pid") == std::string::npos; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
   }
   EXPECT_EQ(third.stop(), 0) << third.log();
   EXPECT_NE(third.log().find("removed " + std::to_string(left) + " segments"), std::string::npos)
       << third.log();
   EXPECT_EQ(segmentsUnder(first.root()), std::vector<std::string>());
}

}  // namespace
