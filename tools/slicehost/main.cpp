// The agent host: serves the single match tables that a feature agent publishes under a root,
// programming them into the chip model, until SIGINT or SIGTERM. SIGUSR1 prints the status.

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

const char* usage =
    "usage: slicehost --root NAME [--profile chip.json] [--table-info PATH]\n"
    "                 [--sync-gen-time T] [--status-interval SECONDS]\n"
    "                 [--audit-interval SECONDS] [--audit-hardware] [--fault FAULT]...\n"
    "  Serves the tables announced in the mount-info collection PATH (default mbb/tableInfo)\n"
    "  of the shared tables under NAME, and the triples announced in mbb/tripleInfo, and\n"
    "  writes its counters to mbb/hostCounters.\n"
    "  Prints a status line every SECONDS (default 1) when something changed, on SIGUSR1,\n"
    "  and when it stops on SIGINT or SIGTERM.\n"
    "  The audit of the tables runs every --audit-interval seconds (default 30);\n"
    "  --audit-hardware also compares every entry with what the chip holds.\n"
    "  --fault KIND:TABLE:HANDLE[:INDEX[:SUB]][@SECONDS] changes the chip model behind the\n"
    "  slice's back SECONDS after start: drop an entry, corrupt its data, or add a stray one\n"
    "  (at INDEX); on an ADT HANDLE is the member handle, on a selector INDEX:SUB the member.\n";

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

}  // namespace

int main(int argc, char** argv) {
   SliceSystem::Args args(argc, argv);
   if (args.flag("help")) {
      std::cout << usage;
      return 0;
   }
   SliceSystem::AgentHostOptions options;
   options.root = args.text("root");
   options.tableInfoPath = args.text("table-info", options.tableInfoPath);
   options.syncGenTime = args.number("sync-gen-time", options.syncGenTime);
   std::string profilePath = args.text("profile");
   Orb::Seconds statusInterval = args.number("status-interval", 1.0);
   options.auditInterval = args.number("audit-interval", options.auditInterval);
   options.auditHardware = args.flag("audit-hardware");
   std::vector<SliceSystem::TimedFault> faults;
   std::string error;
   for (const std::string& text : args.texts("fault")) {
      SliceSystem::TimedFault timed;
      if (!SliceSystem::faultOptionParse(text, timed, error)) break;
      faults.push_back(timed);
   }
   if (error.empty()) error = args.error();
   if (!error.empty() || options.root.empty()) {
      std::cerr << (error.empty() ? "--root is required" : error) << "\n" << usage;
      return 2;
   }
   if (!profilePath.empty() && !ChipModel::chipProfileLoad(profilePath, options.profile, error)) {
      std::cerr << "slicehost: " << error << "\n";
      return 2;
   }

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
             << options.profile.name << "', serving " << options.tableInfoPath << " and "
             << options.tripleInfoPath << std::endl;
   host.serve();
   statusPrinter.print(true);
   std::cout << "slicehost: stopped" << std::endl;
   return 0;
}
