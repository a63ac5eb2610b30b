// The agent host: loads the slice over the table directory that publishers write under a root
// and serves what they publish, programming it into the chip model, until SIGINT or SIGTERM.
// SIGUSR1 prints the status.

#include <signal.h>
#include <unistd.h>

#include <iostream>
#include <memory>
#include <vector>

#include "ChipModel/ChipProfile.h"
#include "Keel/EventLoop.h"
#include "SliceSystem/AgentHost.h"
#include "SliceSystem/Args.h"
#include "SliceSystem/FaultOption.h"
#include "SliceSystem/SignalWatch.h"

namespace {

const char* description =
    "The agent host: serves the single tables and triples that publishers announce under\n"
    "--root, each in a directory of its own at --dir-prefix (default mbb/publishers/) followed\n"
    "by its name, and writes its counters to mbb/hostCounters. Prints a status line every\n"
    "--status-interval seconds when something changed, on SIGUSR1, and when it stops on\n"
    "SIGINT or SIGTERM.";

constexpr double maxSeconds = 86400;

// Prints the status line when it says something new, and always when asked.
class StatusPrinter : public Keel::TimerWheel::Timer {
 public:
   StatusPrinter(Keel::EventLoop& loop, SliceSystem::AgentHost& host, Orb::Seconds period)
       : Timer(&loop.timerWheel()), host_(host), period_(period) {
      if (period_ > 0) timeMinIs(timerWheel()->now() + period_);
   }
   void print(bool always) {
      std::string line = host_.statusLine();
      if (!always && line == last_) return;
      last_ = line;
      std::cout << "slicehost: " << line << std::endl;
   }
   void onTime() override {
      print(false);
      timeMinIs(timerWheel()->now() + period_);
   }

 private:
   SliceSystem::AgentHost& host_;
   Orb::Seconds period_;
   std::string last_;
};

// Injects one fault when its time comes.
class FaultTimer : public Keel::TimerWheel::Timer {
 public:
   FaultTimer(Keel::EventLoop& loop, SliceSystem::AgentHost& host,
              const SliceSystem::TimedFault& timed)
       : Timer(&loop.timerWheel()), host_(host), fault_(timed.fault) {
      timeMinIs(timerWheel()->now() + timed.at);
   }
   void onTime() override { host_.faultInject(fault_); }

 private:
   SliceSystem::AgentHost& host_;
   ChipModel::Fault fault_;
};

int serve(const SliceSystem::AgentHostOptions& options, Orb::Seconds statusInterval,
          const std::vector<SliceSystem::TimedFault>& faults) {
   Keel::EventLoop loop;
   StatusPrinter* printer = nullptr;
   SliceSystem::SignalWatch signals(loop, {SIGINT, SIGTERM, SIGUSR1}, [&](int signo) {
      if (signo == SIGUSR1) {
         printer->print(true);
      } else {
         loop.stop();
      }
   });
   SliceSystem::AgentHost host(loop, options);
   StatusPrinter statusPrinter(loop, host, statusInterval);
   printer = &statusPrinter;
   std::vector<std::unique_ptr<FaultTimer>> faultTimers;
   for (const auto& timed : faults) {
      faultTimers.push_back(std::make_unique<FaultTimer>(loop, host, timed));
   }
   std::cout << "slicehost: pid " << ::getpid() << ", root " << options.root << ", chip profile '"
             << options.profile.name << "', serving the publishers under " << options.dirPrefix
             << std::endl;
   host.serve();
   statusPrinter.print(true);
   std::cout << "slicehost: stopped" << std::endl;
   return 0;
}
}  // namespace

int main(int argc, char** argv) {
   CLI::App app{description, "slicehost"};
   SliceSystem::AgentHostOptions options;
   std::string profilePath;
   Orb::Seconds statusInterval = 1.0;
   std::vector<std::string> faultTexts;
   app.add_option("--root", options.root, "root of the shared tables")->required();
   app.add_option("--profile", profilePath, "chip profile (JSON; default: the built-in one)");
   app.add_option("--dir-prefix", options.dirPrefix,
                  "where publishers' directories are, each followed by its publisher's name");
   app.add_option("--sync-gen-time", options.syncGenTime, "generation time of a sync")
       ->check(SliceSystem::numberIn(0, 1e12));
   app.add_option("--status-interval", statusInterval,
                  "seconds between status lines (0: only on SIGUSR1 and at the end)")
       ->check(SliceSystem::numberIn(0, maxSeconds));
   app.add_option("--probe-interval", options.probePeriod,
                  "seconds between looks for new and replaced publishers (default 0.1)")
       ->check(SliceSystem::numberIn(0.001, 60));
   app.add_option("--audit-interval", options.auditInterval,
                  "start an audit of the served tables every S seconds (default 30)")
       ->check(SliceSystem::numberIn(0.001, maxSeconds));
   app.add_flag("--audit-hardware", options.auditHardware,
                "the audit also compares every entry, action data entry and selector member "
                "with what the chip holds");
   std::string group;
   app.add_option("--group", group,
                  "also serve segments owned by this group (default: only this user's)");
   app.add_option("--fault", faultTexts,
                  "KIND:TABLE:HANDLE[:INDEX[:SUB]][@SECONDS] (repeatable): SECONDS after start, "
                  "change the chip model behind the slice's back: drop an entry, corrupt its "
                  "data, or add a stray one (at INDEX); on an ADT HANDLE is the member handle, "
                  "on a selector INDEX:SUB the member");
   if (auto status = SliceSystem::argsParse(app, argc, argv)) return *status;
   std::vector<SliceSystem::TimedFault> faults;
   std::string error;
   for (const std::string& text : faultTexts) {
      SliceSystem::TimedFault timed;
      if (!SliceSystem::faultOptionParse(text, timed, error)) {
         std::cerr << "slicehost: --fault: " << error << "\n";
         return 2;
      }
      faults.push_back(timed);
   }
   if (!profilePath.empty() && !ChipModel::chipProfileLoad(profilePath, options.profile, error)) {
      std::cerr << "slicehost: " << error << "\n";
      return 2;
   }
   if (!group.empty() && !SliceSystem::trustedGroupNamed(group, error)) {
      std::cerr << "slicehost: " << error << "\n";
      return 2;
   }
   try {
      return serve(options, statusInterval, faults);
   } catch (const std::exception& e) {
      // Another host on the root, a root this user may not use, ...
      std::cerr << "slicehost: cannot serve " << options.root << ": " << e.what() << "\n";
      return 1;
   }
}
