// The demo: the whole system on the default chip and the routing table snapshot, in one
// command. By default it is a tour over shared tables under a fresh root: the agent host
// (auditing every 0.25 s), a publisher of the single tables that dies in the middle of its
// churn, its successor under the same name beside a second publisher with the ECMP triple, show
// commands through slicecli while they work, faults injected through the host's own commands
// and found by the audit, and the host's final status; "result: OK" only when every publisher
// converged with its statuses equal to its configuration, no hitless violation occurred and no
// segment is left. With --in-process the host and one publisher share this process, its event
// loop and in-memory tables. Either way the demo ends with the audit in this process, every
// 50 ms, first under a publisher's churn, then with faults of every kind injected into the chip,
// in a single table and in the triple (--audit runs only that part).

#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <iostream>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Agent/CliServer.h"
#include "Atlas/EntityManager.h"
#include "ChipModel/ChipProfile.h"
#include "FlashLog/DualLog.h"
#include "Keel/EventLoop.h"
#include "SliceSystem/AgentHost.h"
#include "SliceSystem/Args.h"
#include "SliceSystem/PublishTarget.h"
#include "SliceSystem/Publisher.h"
#include "SliceSystem/PublisherArgs.h"
#include "SliceSystem/SegmentId.h"
#include "SliceSystem/ShowCommands.h"

namespace {

void say(const std::string& line) {
   std::cout << "slicedemo: " << line << std::endl;
}

// Runs a tool of the system; its output goes to `out`, by default the demo's own.
pid_t spawn(const std::string& path, const std::vector<std::string>& args, int out = -1) {
   std::cout << std::flush;
   pid_t pid = ::fork();
   if (pid != 0) return pid;
   if (out >= 0) ::dup2(out, STDOUT_FILENO);
   // The host and the publishers stop (and clean up) when the demo dies, however it dies.
   ::prctl(PR_SET_PDEATHSIG, SIGTERM);
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

// Shows the audit's flags, notifications and recorded failures as they happen, and counts them.
class AuditWatch : public DualLog::Sink {
 public:
   explicit AuditWatch(const SliceSystem::AgentHost& host)
       : host_(host), previous_(DualLog::sinkIs(this)) {
      DualLog::levelIs("TableAudit", 8);
   }
   ~AuditWatch() override {
      DualLog::levelIs("TableAudit", -1);
      DualLog::sinkIs(previous_);
   }
   void write(const DualLog::Facility& facility, unsigned level, std::string_view text) override {
      if (facility.name() != "TableAudit") return;
      if (text.starts_with("Completed table audit")) ++audits;
      bool flag = text.starts_with("Flagging");
      bool notify = text.starts_with("Notifying");
      bool failed = text.starts_with("Failed audit");
      flags += flag;
      notifications += notify;
      failures += failed;
      if (show && (flag || notify || failed)) {
         std::cout << "slicedemo:   audit " << host_.auditMgr()->configInstance()->instance()
                   << ": " << text << std::endl;
      }
   }

   bool show = false;
   unsigned audits = 0, flags = 0, notifications = 0, failures = 0;

 private:
   const SliceSystem::AgentHost& host_;
   DualLog::Sink* previous_;
};

void loopFor(Keel::EventLoop& loop, Orb::Seconds seconds) {
   const Orb::Seconds end = Orb::activityTimeSource()->now() + seconds;
   for (Orb::Seconds now; (now = Orb::activityTimeSource()->now()) < end;) loop.runOnce(end - now);
}

// A fault put into the chip behind the slice's back, the identifier the failed-audit record
// names it by, and what undoes it so that the engines can take their entries out at the end.
struct DemoFault {
   std::string what;
   ChipModel::Fault fault;
   std::uint64_t identifier = 0;
   std::optional<ChipModel::Fault> heal;
};

ChipModel::Fault faultOf(const ChipDriver::ChipDevTgt& devTgt, std::uint32_t tblHdl,
                         ChipModel::FaultKind kind, std::uint32_t hdl, std::uint32_t index = 0,
                         std::uint32_t subIndex = 0, std::uint32_t grpHdl = 0) {
   ChipModel::Fault f;
   f.kind = kind;
   f.devId = devTgt.devId;
   f.pipe = devTgt.pipeId;
   f.tblHdl = tblHdl;
   f.hdl = hdl;
   f.index = index;
   f.subIndex = subIndex;
   f.grpHdl = grpHdl;
   return f;
}

ChipModel::Fault undone(ChipModel::Fault f, ChipModel::FaultKind kind) {
   f.kind = kind;
   return f;
}

// In the first single table: an entry dropped, one whose data changed, one that nobody placed.
bool singleFaults(const SliceSystem::AgentHost& host, std::vector<DemoFault>& faults) {
   using ChipModel::FaultKind;
   const auto mgr = host.watcher()->tableMgr(SliceSystem::singlesName("slicepub"));
   if (!mgr || mgr->mbbEngineSms().empty()) return false;
   const auto& engines = mgr->mbbEngineSms();
   const auto& [key, engine] = *engines.begin();
   std::vector<Vault::MbbEngine::EntryConfig> live;
   std::set<std::uint32_t> usedIndex;
   std::uint32_t maxHdl = 0;
   for (const auto& [k, config] : *engine->tableConfig()) {
      if (config.isDel() || config.isDefaultEntry()) continue;
      live.push_back(config);
      maxHdl = std::max(maxHdl, config.entryHandle());
      usedIndex.insert(config.index());
   }
   std::uint32_t strayIndex = 0;
   while (usedIndex.contains(strayIndex)) ++strayIndex;
   if (live.size() < 2 || strayIndex >= host.chip().tableProfile(key.tableId())->size) {
      return false;
   }
   const auto& dropped = live.front();
   const auto& changed = live.back();
   const std::uint32_t strayHdl = maxHdl + 0x100;
   const auto fault = [&](FaultKind kind, std::uint32_t hdl, std::uint32_t index = 0) {
      return faultOf(key.devTgt(), key.tableId(), kind, hdl, index);
   };
   const std::string in = " in " + key.name();
   faults.push_back({"entry dropped" + in, fault(FaultKind::drop, dropped.entryHandle()),
                     dropped.key().value(),
                     fault(FaultKind::stray, dropped.entryHandle(), dropped.index())});
   faults.push_back({"entry changed" + in, fault(FaultKind::corrupt, changed.entryHandle()),
                     changed.key().value(), std::nullopt});
   faults.push_back({"entry nobody placed" + in, fault(FaultKind::stray, strayHdl, strayIndex),
                     strayHdl, fault(FaultKind::drop, strayHdl)});
   return true;
}

// In the ECMP triple: a next hop (action data entry) dropped, one changed, one that nobody
// placed; a selector member dropped and one changed, each beside another active member of its
// vector, and one that nobody placed in a free slot of a group's vector.
bool tripleFaults(const SliceSystem::AgentHost& host, std::vector<DemoFault>& faults) {
   using ChipModel::FaultKind;
   const auto mgr = host.watcher()->matAdtSelTableMgr(SliceSystem::triplesName("slicepub"));
   if (!mgr || mgr->matAdtSelSliceSms().empty()) return false;
   const auto& [key, sm] = *mgr->matAdtSelSliceSms().begin();
   const ChipMbbSlice::MatAdtSelMbbEngineImpl& impl = *sm->matAdtSelImpl();
   const std::uint32_t adtHdl = impl.adtTableHandle();
   const std::uint32_t selHdl = impl.selTableHandle();
   std::vector<ChipMbbShared::AdtEntryConfig> nextHops;
   std::uint32_t maxMbrHdl = 0;
   for (const auto& [k, config] : *sm->adtTableConfig()) {
      if (config.isDel() || !impl.currentAdt(k)) continue;
      nextHops.push_back(config);
      maxMbrHdl = std::max(maxMbrHdl, config.mbrHdl());
   }
   // Members whose group and configuration agree with the engine, two of different groups.
   std::vector<std::pair<Orb::Ptr<ChipMbbSlice::SelGrpState>, Orb::Ptr<ChipMbbSlice::SelMbrState>>>
       members;
   for (const auto& [grpKey, sgs] : impl.currentSelGrps()) {
      for (const auto& [mbrKey, sms] : sgs->issuedSelMbrs()) {
         const ChipMbbSlice::VectorIndex vi(mbrKey.vector());
         if (!sms->active() || sgs->activeMbrCnt(vi) < 3 ||
             sm->selMbrTableConfig()->entry(mbrKey).opId() != sms->opId()) {
            continue;
         }
         members.emplace_back(sgs, sms);
         break;
      }
      if (members.size() == 2) break;
   }
   if (nextHops.size() < 2 || members.size() < 2) return false;
   const auto adt = [&](FaultKind kind, std::uint32_t hdl) {
      return faultOf(key.devTgt(), adtHdl, kind, hdl);
   };
   const auto& dropped = nextHops.front();
   const auto& changed = nextHops.back();
   faults.push_back({"next hop dropped", adt(FaultKind::drop, dropped.mbrHdl()),
                     dropped.key().value(), adt(FaultKind::stray, dropped.mbrHdl())});
   faults.push_back({"next hop changed", adt(FaultKind::corrupt, changed.mbrHdl()),
                     changed.key().value(), std::nullopt});
   faults.push_back({"next hop nobody placed", adt(FaultKind::stray, maxMbrHdl + 0x100),
                     maxMbrHdl + 0x100, adt(FaultKind::drop, maxMbrHdl + 0x100)});
   const auto member = [&](FaultKind kind, const ChipMbbSlice::SelGrpState& sgs,
                           const ChipMbbSlice::SelMbrState& sms, std::uint32_t subIndex) {
      return faultOf(key.devTgt(), selHdl, kind, sms.mbrHdl(),
                     sgs.baseIndex() + sms.selMbrKey().vector(), subIndex, sgs.grpHdl());
   };
   const auto& [dropGrp, dropMbr] = members.front();
   const auto& [changeGrp, changeMbr] = members.back();
   const ChipModel::Fault drop =
       member(FaultKind::drop, *dropGrp, *dropMbr, dropMbr->selMbrKey().subIndex());
   faults.push_back({"selector member dropped", drop, dropMbr->selMbrKey().value(),
                     undone(drop, FaultKind::stray)});
   faults.push_back(
       {"selector member changed",
        member(FaultKind::corrupt, *changeGrp, *changeMbr, changeMbr->selMbrKey().subIndex()),
        changeMbr->selMbrKey().value(), std::nullopt});
   // The highest sub-index of the changed member's vector that its group leaves free.
   std::uint32_t freeSub = ChipMbbShared::SelMbrEntryKey::numSubIndices - 1;
   const auto taken = [&](std::uint32_t sub) {
      return changeGrp->issuedSelMbr(ChipMbbShared::SelMbrEntryKey(
                 changeGrp->key(), changeMbr->selMbrKey().vector(), sub)) != nullptr;
   };
   while (freeSub > 0 && taken(freeSub)) --freeSub;
   const ChipModel::Fault stray = member(FaultKind::stray, *changeGrp, *changeMbr, freeSub);
   faults.push_back({"selector member nobody placed", stray,
                     std::uint64_t{stray.index} << 7 | freeSub, undone(stray, FaultKind::drop)});
   return true;
}

// Faults of every kind the chip can have, in a single table and in the triple, with the
// hardware comparison on (without it the audit reads neither data nor selector members back):
// each shown as it is flagged, notified to the engine and recorded as failed.
int auditFaults(Keel::EventLoop& loop, SliceSystem::AgentHost& host, AuditWatch& watch) {
   std::vector<DemoFault> faults;
   if (!singleFaults(host, faults)) {
      say("no single table large enough for the faults");
      return 1;
   }
   if (!tripleFaults(host, faults)) say("no triple to inject faults into");
   host.auditMgr()->auditPolicy()->auditHardwareIs(true);
   say("injecting " + std::to_string(faults.size()) + " faults, hardware comparison on");
   bool injected = true;
   for (const DemoFault& f : faults) {
      say("  " + f.what);
      injected &= host.faultInject(f.fault) == BF_SUCCESS;
   }
   const auto& failed = host.auditMgr()->failedAuditStatus()->failedEntries();
   auto numFound = [&] {
      std::set<std::uint64_t> recorded;
      for (const auto& [time, entry] : failed) recorded.insert(entry.identifier());
      return std::count_if(faults.begin(), faults.end(),
                           [&](const DemoFault& f) { return recorded.contains(f.identifier); });
   };
   const auto numFaults = static_cast<std::ptrdiff_t>(faults.size());
   // A fault is recorded once it has failed `failAuditLimit` audits in a row; a large table
   // takes several audit intervals per audit.
   watch.show = true;
   const Orb::Seconds giveUp = Orb::activityTimeSource()->now() + 120;
   while (injected && numFound() < numFaults && Orb::activityTimeSource()->now() < giveUp) {
      loopFor(loop, 0.1);
   }
   watch.show = false;
   say("failed-audit record:");
   for (const auto& [time, entry] : failed) std::cout << "  " << Orb::toString(entry) << std::endl;
   say("faults recorded: " + std::to_string(numFound()) + " of " + std::to_string(numFaults));
   // The operator puts back what went and takes out what nobody placed, so that the tables can
   // be taken down cleanly.
   for (const DemoFault& f : faults) {
      if (f.heal) host.faultInject(*f.heal);
   }
   return injected && numFound() == numFaults ? 0 : 1;
}

int auditDemo(const ChipModel::ChipProfile& profile, SliceSystem::PublisherOptions options) {
   say("the audit every 50 ms, first under churn, then with faults (in this process)");
   if (options.ecmp) {
      // A smaller router than the main job's, so that one audit of everything takes well under
      // a second and several run during the churn.
      SliceSystem::EcmpSizes& sizes = options.ecmp->workload.sizes;
      sizes.numNextHops = 512;
      sizes.numGroups = 512;
      sizes.numMembers = 512 * 16;
      sizes.maxGroupMembers = 16;
      sizes.numRoutes = 2048;
   } else {
      say("no ECMP triple (--no-ecmp): the faults go into a single table only");
   }
   Keel::EventLoop loop;
   SliceSystem::AgentHostOptions hostOptions;
   hostOptions.profile = profile;
   hostOptions.auditInterval = 0.05;
   hostOptions.log = [](const std::string& line) { say(line); };
   SliceSystem::AgentHost host(loop, hostOptions);
   AuditWatch watch(host);
   SliceSystem::LocalPublishTarget target(host);
   options.log = [](const std::string&) {};
   SliceSystem::Publisher publisher(target, options);
   // The tables are published and the triple built; a publisher's full run would take the
   // triple down again at its end.
   const auto converged = [](const std::optional<SliceSystem::PhaseResult>& phase) {
      return !phase || phase->converged();
   };
   bool published = publisher.publish().converged() &&
                    converged(publisher.ecmpPhase(SliceSystem::EcmpPhaseKind::build));
   // Further rounds of churn of the single tables and the triple, each waiting on the event
   // loop until it is in hardware, so that audits keep running while the configuration changes.
   for (std::size_t round = 0; published && round < 100 && (round < 30 || watch.audits < 6);
        ++round) {
      published = publisher.churn().converged() &&
                  converged(publisher.ecmpPhase(
                      SliceSystem::ecmpChurnPhases[round % SliceSystem::ecmpChurnPhases.size()]));
      loopFor(loop, 0.05);
   }
   loopFor(loop, 0.25);
   say("under churn: " + std::to_string(watch.audits) + " audits, " + std::to_string(watch.flags) +
       " flags, " + std::to_string(watch.notifications) + " notifications, " +
       std::to_string(watch.failures) + " failures recorded");
   const bool clean = published && watch.notifications == 0 && watch.failures == 0;
   const bool found = auditFaults(loop, host, watch) == 0;
   say(clean && found ? "audit OK" : "audit FAILED");
   return clean && found ? 0 : 1;
}

// What the tour runs: the publishers' options as the user gave them (passed on to slicepub),
// and what the demo needs to know of them.
struct Tour {
   std::vector<std::string> passOn;
   SliceSystem::PublisherOptions options;
   std::string profilePath;
   // The largest single table, where the show commands and the faults go; empty without one.
   std::string largest;
   bool crash = true;
   bool ecmp = true;
};

bool hostReady(const std::string& root, pid_t host) {
   Atlas::EntityManager names(root);
   for (int i = 0; i < 1000; ++i) {
      if (SliceSystem::segmentId(names.shmName("mbb/hostCounters"))) return true;
      if (::waitpid(host, nullptr, WNOHANG) != 0) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
   }
   return false;
}

// What one slicecli run printed, how it ended and how long it took.
struct CliRun {
   int status = -1;
   std::string out;
   double seconds = 0;

   bool answered() const { return WIFEXITED(status) && WEXITSTATUS(status) == 0; }
   std::size_t count(std::string_view what) const {
      std::size_t n = 0;
      for (std::size_t at = out.find(what); at != std::string::npos; at = out.find(what, at + 1)) {
         ++n;
      }
      return n;
   }
};

CliRun cli(const std::string& root, const std::vector<std::string>& command) {
   int fds[2];
   CliRun run;
   if (::pipe(fds) != 0) return run;
   std::vector<std::string> args = {"--root", root};
   args.insert(args.end(), command.begin(), command.end());
   const auto t0 = std::chrono::steady_clock::now();
   const pid_t pid = spawn(SLICECLI_PATH, args, fds[1]);
   ::close(fds[1]);
   char buffer[65536];
   for (ssize_t n; (n = ::read(fds[0], buffer, sizeof buffer)) != 0;) {
      if (n > 0) run.out.append(buffer, std::size_t(n));
      if (n < 0 && errno != EINTR) break;
   }
   ::close(fds[0]);
   run.status = waitFor(pid);
   run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
   return run;
}

std::string costText(const CliRun& run, std::size_t items, const char* what) {
   if (!run.answered()) return "no answer (" + exitText(run.status) + ")";
   char text[160];
   std::snprintf(text, sizeof text, "%zu %s, %zu bytes in %.1f ms (%.0f %s/s)", items, what,
                 run.out.size(), run.seconds * 1e3, run.seconds > 0 ? items / run.seconds : 0.0,
                 what);
   return text;
}

bool running(pid_t pid) {
   siginfo_t info{};
   return ::waitid(P_PID, pid, &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == 0;
}

// The show commands through slicecli on a table the host serves, while `busy` (if any) works.
void showCommands(const std::string& root, const std::string& table, pid_t busy) {
   say(std::string("show commands through slicecli") +
       (busy != 0 && running(busy) ? " while the ECMP publisher works:" : ":"));
   const CliRun agents = cli(root, {"mbb", "agents"});
   say("  'mbb agents': " + costText(agents, agents.count("\n"), "lines"));
   const CliRun engine = cli(root, {"mbb", "table", table, "pipe", "0", "key", "0"});
   say("  'mbb table " + table +
       " pipe 0 key 0': " + costText(engine, engine.count("\n"), "lines"));
   const CliRun hw = cli(root, {"hw", "table", table, "pipe", "0"});
   say("  'hw table " + table + " pipe 0': " + costText(hw, hw.count(":{"), "rows"));
}

// Faults behind the slice's back in the largest table, through the host's own commands: an
// entry dropped, an entry's data changed (the host compares with hardware), an entry nobody
// placed. Each must end in the failed-audit record; then the dropped entry is put back.
bool auditFaults(const std::string& root, const std::string& table) {
   say("faults injected into " + table + " through 'slicecli host fault':");
   std::size_t injected = 0;
   for (const char* kind : {"drop", "corrupt", "stray"}) {
      const CliRun run = cli(root, {"host", "fault", kind, table});
      say("  " + (run.answered() ? run.out.substr(0, run.out.find('\n')) : "refused: " + run.out));
      injected += run.answered();
   }
   const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(60);
   CliRun audit;
   auto failedKeys = [&] {
      audit = cli(root, {"host", "audit"});
      return audit.count("FailedAuditStatusEntry");
   };
   while (failedKeys() < injected && std::chrono::steady_clock::now() < giveUp) {
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
   }
   say("'host audit':");
   std::cout << audit.out;
   const CliRun restore = cli(root, {"host", "fault", "restore"});
   say("'host fault restore': " + restore.out.substr(0, restore.out.find('\n')));
   const bool found = injected == 3 && audit.count("FailedAuditStatusEntry") >= 3;
   say("faults recorded by the audit: " + std::to_string(audit.count("FailedAuditStatusEntry")) +
       " of " + std::to_string(injected) + (found ? "" : " (FAILED)"));
   return found;
}

// The tour: a host, a publisher of single tables that dies mid-churn and its successor, a
// publisher of the ECMP triple beside it, show commands while they work, faults found by the
// audit, and the host's final status.
int tour(const Tour& t) {
   std::string root = "slicedemo-" + std::to_string(::getpid());
   std::vector<std::string> hostArgs = {"--root",           root,   "--status-interval", "0",
                                        "--audit-interval", "0.25", "--audit-hardware"};
   if (!t.profilePath.empty()) hostArgs.insert(hostArgs.end(), {"--profile", t.profilePath});
   say("root " + root +
       "; starting the agent host " SLICEHOST_PATH
       ", auditing every 0.25 s with the hardware comparison on");
   pid_t host = spawn(SLICEHOST_PATH, hostArgs);
   if (!hostReady(root, host)) {
      say("the agent host did not come up");
      ::kill(host, SIGKILL);
      waitFor(host);
      segmentsRemove(root);
      return 1;
   }
   std::vector<std::string> pubArgs = {"--root", root};
   if (!t.profilePath.empty()) pubArgs.insert(pubArgs.end(), {"--profile", t.profilePath});
   pubArgs.insert(pubArgs.end(), t.passOn.begin(), t.passOn.end());
   auto publisherArgs = [&](const char* name, std::vector<std::string> more) {
      std::vector<std::string> args = pubArgs;
      args.insert(args.end(), {"--name", name});
      args.insert(args.end(), more.begin(), more.end());
      return args;
   };
   bool ok = true;

   if (t.crash) {
      std::uint64_t total = 0;
      for (const SliceSystem::TableSpec& spec : t.options.tables) total += spec.numEntries;
      auto crashAfter = total + std::uint64_t(total * t.options.churnFraction / 4) + 1;
      say("publisher 'routes' with the single tables, dying after " + std::to_string(crashAfter) +
          " writes, in the middle of its churn");
      int status = waitFor(
          spawn(SLICEPUB_PATH,
                publisherArgs("routes", {"--quiet", "--crash-after", std::to_string(crashAfter)})));
      bool alive = running(host);
      say("that publisher ended with " + exitText(status) + "; the agent host is " +
          (alive ? "still running" : "GONE"));
      ok = ok && alive && WIFEXITED(status) && WEXITSTATUS(status) == 3;
   }

   say("publisher 'routes' (again), with four bad announcements" +
       std::string(t.ecmp ? ", and publisher 'ecmp' with the triple beside it" : ""));
   pid_t routes = spawn(SLICEPUB_PATH, publisherArgs("routes", {"--bad-announcements"}));
   pid_t ecmp = t.ecmp ? spawn(SLICEPUB_PATH, publisherArgs("ecmp", {"--ecmp-only"})) : 0;
   auto publisherEnds = [&](const char* name, pid_t pid) {
      const int status = waitFor(pid);
      say(std::string("publisher '") + name + "' ended with " + exitText(status));
      ok = ok && WIFEXITED(status) && WEXITSTATUS(status) == 0;
   };
   publisherEnds("routes", routes);
   // The single tables are whole in hardware now, while the triple still churns.
   if (!t.largest.empty()) showCommands(root, t.largest, ecmp);
   if (ecmp != 0) publisherEnds("ecmp", ecmp);

   if (!t.largest.empty()) ok = auditFaults(root, t.largest) && ok;
   const CliRun status = cli(root, {"host", "status"});
   say("the host's status: " + status.out.substr(0, status.out.find('\n')));
   say("stopping the agent host");
   ::kill(host, SIGTERM);
   int hostStatus = waitFor(host);
   std::size_t left = segmentsRemove(root);
   say("agent host ended with " + exitText(hostStatus) + "; " + std::to_string(left) +
       " shared segments left behind");
   ok = ok && WIFEXITED(hostStatus) && WEXITSTATUS(hostStatus) == 0 && left == 0 &&
        status.out.find("violations 0,") != std::string::npos;
   say(ok ? "result: OK" : "result: FAILED");
   return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
   CLI::App app{
       "The whole system on the default chip and the routing table snapshot: an agent "
       "host, a publisher of single tables that dies mid-way and its successor, a publisher "
       "of the ECMP triple, show commands, faults found by the audit. The publisher options "
       "are passed on to slicepub.",
       "slicedemo"};
   bool local = false;
   bool auditOnly = false;
   bool noCrash = false;
   bool noEcmp = false;
   std::string profilePath;
   app.add_flag("--in-process", local,
                "host and publisher in this one process (test mode, in-memory tables)");
   app.add_flag("--audit", auditOnly,
                "only the audit part: churn, then injected faults, audited every 50 ms")
       ->excludes("--in-process");
   app.add_flag("--no-crash", noCrash, "leave out the publisher that dies mid-way");
   app.add_flag("--no-ecmp", noEcmp, "leave out the ECMP triple (published unless this is given)");
   app.add_option("--profile", profilePath, "chip profile (JSON; default: the built-in one)");
   SliceSystem::PublisherArgs pubArgs;
   SliceSystem::publisherArgsAdd(app, pubArgs);
   if (auto status = SliceSystem::argsParse(app, argc, argv)) return *status;
   // The triple goes with the single tables unless asked otherwise.
   pubArgs.ecmp = pubArgs.ecmp || !noEcmp;
   ChipModel::ChipProfile profile = ChipModel::ChipProfile::defaultProfile();
   SliceSystem::PublisherOptions options;
   std::string error;
   if ((!profilePath.empty() && !ChipModel::chipProfileLoad(profilePath, profile, error)) ||
       !SliceSystem::publisherOptionsFor(pubArgs, profile, options, error)) {
      std::cerr << "slicedemo: " << error << "\n";
      return 2;
   }
   if (auditOnly) return auditDemo(profile, options);
   // The audit part runs after the main job.
   if (local) {
      const int status = inProcess(profile, options);
      return std::max(status, auditDemo(profile, options));
   }
   Tour t;
   t.options = options;
   t.profilePath = profilePath;
   t.crash = !noCrash;
   t.ecmp = !noEcmp;
   const SliceSystem::TableSpec* largest = nullptr;
   for (const SliceSystem::TableSpec& spec : options.tables) {
      if (!largest || spec.numEntries > largest->numEntries) largest = &spec;
   }
   if (largest) t.largest = largest->name;
   // The publishers get the user's publisher options; the triple goes to a publisher of its own.
   for (int i = 1; i < argc; ++i) {
      std::string arg = argv[i];
      if (arg == "--in-process" || arg == "--no-crash" || arg == "--audit" || arg == "--no-ecmp" ||
          arg == "--ecmp")
         continue;
      if (arg == "--profile") {
         ++i;
         continue;
      }
      if (arg.rfind("--profile=", 0) == 0) continue;
      t.passOn.push_back(arg);
   }
   const int status = tour(t);
   return std::max(status, auditDemo(profile, options));
}
