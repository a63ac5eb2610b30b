// The demo: the whole system on the default chip and the routing table snapshot, in one
// command. By default the agent host and the publishers are separate processes over shared
// tables under a fresh root: a first publisher dies in the middle of its churn, a second one
// replaces it, publishes, churns and re-adds (with two announcements the host must skip), and
// the host is stopped at the end. With --in-process the host and one publisher share this
// process, its event loop and in-memory tables.

#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "Agent/CliServer.h"
#include "Atlas/EntityManager.h"
#include "ChipModel/ChipProfile.h"
#include "Keel/EventLoop.h"
#include "SliceSystem/AgentHost.h"
#include "SliceSystem/Args.h"
#include "SliceSystem/PublishTarget.h"
#include "SliceSystem/Publisher.h"
#include "SliceSystem/PublisherArgs.h"
#include "SliceSystem/SegmentId.h"
#include "SliceSystem/ShowCommands.h"

namespace {

const char* usage =
    "usage: slicedemo [--help] [--in-process] [--no-crash] [--profile chip.json] [publisher "
    "options]\n"
    "  --in-process  host and publisher in this one process (test mode, in-memory tables)\n"
    "  --no-crash    leave out the publisher that dies mid-way\n"
    "publisher options, passed on to slicepub:\n";

void say(const std::string& line) {
   std::cout << "slicedemo: " << line << std::endl;
}

pid_t spawn(const std::string& path, const std::vector<std::string>& args) {
   std::cout << std::flush;
   pid_t pid = ::fork();
   if (pid != 0) return pid;
   sigset_t none;
   sigemptyset(&none);
   sigprocmask(SIG_SETMASK, &none, nullptr);
   std::vector<char*> argv;
   argv.push_back(const_cast<char*>(path.c_str()));
   for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
   argv.push_back(nullptr);
   ::execv(path.c_str(), argv.data());
   std::cerr << "slicedemo: cannot run " << path << "\n";
   std::_Exit(127);
}

std::string exitText(int status) {
   if (WIFEXITED(status)) return "exit status " + std::to_string(WEXITSTATUS(status));
   if (WIFSIGNALED(status)) return "killed by signal " + std::to_string(WTERMSIG(status));
   return "status " + std::to_string(status);
}

int waitFor(pid_t pid) {
   int status = 0;
   while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
   }
   return status;
}

// Segments left under the root by a process that could not remove its own.
std::size_t segmentsRemove(const std::string& root) {
   std::size_t n = 0;
   std::error_code ec;
   for (const auto& file : std::filesystem::directory_iterator("/dev/shm", ec)) {
      std::string name = file.path().filename();
      if (name.rfind(root + ".", 0) == 0 && ::shm_unlink(("/" + name).c_str()) == 0) ++n;
   }
   return n;
}

int inProcess(const ChipModel::ChipProfile& profile, SliceSystem::PublisherOptions options) {
   say("host and publisher in this process, in test mode");
   Keel::EventLoop loop;
   SliceSystem::AgentHostOptions hostOptions;
   hostOptions.profile = profile;
   hostOptions.log = [](const std::string& line) {
      std::cout << "slicehost: " << line << std::endl;
   };
   SliceSystem::AgentHost host(loop, hostOptions);
   SliceSystem::LocalPublishTarget target(host);
   options.log = [](const std::string& line) { std::cout << "slicepub: " << line << std::endl; };
   SliceSystem::Publisher publisher(target, options);
   SliceSystem::PublisherReport report = publisher.run();
   std::cout << "slicepub report (in process):\n" << report.text();
   std::cout << "slicehost: " << host.statusLine() << std::endl;
   return report.ok() ? 0 : 1;
}

bool hostReady(const std::string& root, pid_t host) {
   Atlas::EntityManager names(root);
   for (int i = 0; i < 1000; ++i) {
      if (SliceSystem::segmentId(names.shmName("mbb/hostCounters"))) return true;
      if (::waitpid(host, nullptr, WNOHANG) != 0) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
   }
   return false;
}

// The show commands against the host while the publisher works, on its largest table.
void showCommands(const std::string& root, const SliceSystem::PublisherOptions& options,
                  pid_t publisher) {
   const SliceSystem::TableSpec* largest = nullptr;
   for (const SliceSystem::TableSpec& spec : options.tables) {
      if (!largest || spec.numEntries > largest->numEntries) largest = &spec;
   }
   if (!largest) return;
   auto publishing = [publisher] {
      siginfo_t info{};
      return ::waitid(P_PID, publisher, &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
             info.si_pid == 0;
   };
   say("show commands while the publisher works:");
   if (!SliceSystem::showCommandsRun(Agent::socketPathFor(root), largest->name, publishing,
                                     [](const std::string& line) { say("  " + line); })) {
      say("  the publisher ended before the host served " + largest->name);
   }
}

int twoProcesses(const std::vector<std::string>& passOn,
                 const SliceSystem::PublisherOptions& options, const std::string& profilePath,
                 bool crash) {
   std::string root = "slicedemo-" + std::to_string(::getpid());
   std::vector<std::string> hostArgs = {"--root", root, "--status-interval", "0"};
   if (!profilePath.empty()) hostArgs.insert(hostArgs.end(), {"--profile", profilePath});
   say("root " + root + "; starting the agent host " SLICEHOST_PATH);
   pid_t host = spawn(SLICEHOST_PATH, hostArgs);
   if (!hostReady(root, host)) {
      say("the agent host did not come up");
      ::kill(host, SIGKILL);
      waitFor(host);
      segmentsRemove(root);
      return 1;
   }
   std::vector<std::string> pubArgs = {"--root", root};
   if (!profilePath.empty()) pubArgs.insert(pubArgs.end(), {"--profile", profilePath});
   pubArgs.insert(pubArgs.end(), passOn.begin(), passOn.end());

   if (crash) {
      std::uint64_t total = 0;
      for (const SliceSystem::TableSpec& spec : options.tables) total += spec.numEntries;
      auto crashAfter = total + std::uint64_t(total * options.churnFraction / 4) + 1;
      say("a publisher that dies after " + std::to_string(crashAfter) +
          " writes, in the middle of its churn");
      std::vector<std::string> args = pubArgs;
      args.insert(args.end(), {"--quiet", "--crash-after", std::to_string(crashAfter)});
      int status = waitFor(spawn(SLICEPUB_PATH, args));
      bool alive = ::waitpid(host, nullptr, WNOHANG) == 0;
      say("that publisher ended with " + exitText(status) + "; the agent host is " +
          (alive ? "still running" : "GONE"));
      if (alive) {
         // Its status line, from what the dead publisher left.
         ::kill(host, SIGUSR1);
         std::this_thread::sleep_for(std::chrono::milliseconds(200));
      }
   }

   say("the publisher, with two bad announcements");
   std::vector<std::string> args = pubArgs;
   args.push_back("--bad-announcements");
   pid_t pub = spawn(SLICEPUB_PATH, args);
   showCommands(root, options, pub);
   int pubStatus = waitFor(pub);
   say("publisher ended with " + exitText(pubStatus) + "; stopping the agent host");
   ::kill(host, SIGTERM);
   int hostStatus = waitFor(host);
   std::size_t left = segmentsRemove(root);
   say("agent host ended with " + exitText(hostStatus) + "; " + std::to_string(left) +
       " shared segments left behind (removed)");
   bool ok = WIFEXITED(pubStatus) && WEXITSTATUS(pubStatus) == 0 && WIFEXITED(hostStatus) &&
             WEXITSTATUS(hostStatus) == 0;
   say(ok ? "OK" : "FAILED");
   return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
   SliceSystem::Args args(argc, argv);
   if (args.flag("help")) {
      std::cout << usage << SliceSystem::publisherArgsUsage;
      return 0;
   }
   bool local = args.flag("in-process");
   bool crash = !args.flag("no-crash");
   std::string profilePath = args.text("profile");
   ChipModel::ChipProfile profile = ChipModel::ChipProfile::defaultProfile();
   std::string error;
   if (!profilePath.empty() && !ChipModel::chipProfileLoad(profilePath, profile, error)) {
      std::cerr << "slicedemo: " << error << "\n";
      return 2;
   }
   SliceSystem::PublisherOptions options;
   bool parsed = SliceSystem::publisherOptionsParse(args, profile, options, error);
   if (!parsed || !args.error().empty()) {
      std::cerr << "slicedemo: " << (parsed ? args.error() : error) << "\n"
                << usage << SliceSystem::publisherArgsUsage;
      return 2;
   }
   if (local) return inProcess(profile, options);
   std::vector<std::string> passOn;
   for (int i = 1; i < argc; ++i) {
      std::string arg = argv[i];
      if (arg == "--in-process" || arg == "--no-crash") continue;
      if (arg == "--profile") {
         ++i;
         continue;
      }
      if (arg.rfind("--profile=", 0) == 0) continue;
      passOn.push_back(arg);
   }
   return twoProcesses(passOn, options, profilePath, crash);
}
