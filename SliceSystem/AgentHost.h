#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Agent/CliServer.h"
#include "Atlas/EntityManager.h"
#include "ChipMbbShared/TableInfoDir.h"
#include "ChipMbbSliceTableMgr/ChipSliceTableWatcherSm.h"
#include "ChipMbbSliceTableMgr/MountConfig.h"
#include "ChipModel/Chip.h"
#include "ChipModel/ChipProfile.h"
#include "ChipModel/Fault.h"
#include "Keel/EventLoop.h"
#include "Keel/TimerWheel.h"
#include "MbbEngine/MbbEngineFlushStatus.h"
#include "Orb/Dir.h"
#include "Orb/Ptr.h"
#include "Orb/Time.h"
#include "SliceSystem/HostCommands.h"
#include "SliceSystem/HostCounters.h"
#include "SliceSystem/SegmentId.h"
#include "TableAuditSm/TableAuditSm.h"

namespace SliceSystem {

struct AgentHostOptions {
   // Root of the shared tables. Empty runs in test mode: no entity manager, and the published
   // table directory, the tables and the counters live in this process.
   std::string root;
   // Every publisher announces its mount-info collections in a directory of its own at this
   // prefix followed by its name.
   std::string dirPrefix = "mbb/publishers/";
   std::string countersPath = "mbb/hostCounters";
   ChipModel::ChipProfile profile = ChipModel::ChipProfile::defaultProfile();
   Orb::Seconds syncGenTime = 1.0;
   std::uint32_t supportedDevices = 0xFFFFFFFF;
   std::uint32_t sessHdl = 1;
   ChipMbbSlice::MountMode mountMode = ChipMbbSlice::MountMode::mountAllTables;
   // How often the counters are written for publishers, and how often the host looks for new
   // or replaced publishers' directories.
   Orb::Seconds countersPeriod = 0.05;
   Orb::Seconds probePeriod = 0.1;
   // The show commands' socket; empty serves them at Agent::socketPathFor(root), and not at
   // all in test mode.
   std::string cliSocketPath;
   // The audit of the served tables: its period, and whether it also reads every entry back
   // from the chip and compares it with the configuration.
   Orb::Seconds auditInterval = ChipMbbSlice::TableAuditMgrSm::defaultAuditInterval;
   bool auditHardware = false;
   // Where the host says what happens to its publications; stdout when empty.
   std::function<void(const std::string&)> log;
};

// The agent process, loading the slice as an agent does: the chip model, the mount
// configuration, the engines' flush status and the table-info watcher over the published
// table directory, all on the caller's event loop, with the show commands on a socket.
//
// The watcher decides which managers serve what is published; the host keeps the directory it
// reads in step with the publishers' own. Each publisher writes a directory segment of its own
// under the root; the host mirrors each into the one directory the watcher follows. A publisher
// that goes leaves its tables as they are in hardware (its segments vanish, the mirror stays);
// one that replaces it (a new segment under the same name) is served from scratch: the old
// mirror goes first, which removes the old entities and with them the managers the watcher
// lets go, then the new one comes. Managers that go take their tables and mounts with them.
class AgentHost {
 public:
   AgentHost(Keel::EventLoop& loop, AgentHostOptions options);
   AgentHost(const AgentHost&) = delete;
   AgentHost& operator=(const AgentHost&) = delete;
   ~AgentHost();

   const AgentHostOptions& options() const { return options_; }
   const ChipModel::Chip& chip() const { return chip_; }
   Keel::EventLoop& loop() const { return loop_; }
   bool testmode() const { return !entityManager_; }
   const Orb::Ptr<Atlas::EntityManager>& entityManager() const { return entityManager_; }
   // What the watcher follows; in test mode publishers in this process put their mount-info
   // collections here themselves.
   const Orb::Ptr<Orb::Dir>& tableInfoDir() const { return tableInfoDir_; }
   const Orb::Ptr<ChipMbbSlice::ChipSliceTableWatcherSm>& watcher() const { return watcher_; }
   const Orb::Ptr<ChipMbbSlice::TableAuditMgrSm>& auditMgr() const {
      return watcher_->tableAuditMgrSm();
   }
   const Orb::Ptr<HostCountersTable>& countersTable() const { return countersTable_; }
   const Orb::Ptr<ChipMbbSlice::MountConfig>& mountConfig() const { return mountConfig_; }
   const Orb::Ptr<MbbEngine::MbbEngineFlushStatus>& flushStatus() const { return flushStatus_; }

   // Changes the chip behind the slice's back, as an outage would (ChipModel/Fault.h); logged.
   bf_status_t faultInject(const ChipModel::Fault& fault);

   // The counters as they are now, and their publication.
   HostCounters counters() const;
   void countersWrite();
   // Runs the loop until it is stopped; an exception that a handler lets out is counted and
   // logged, and the loop goes on.
   void serve();
   void handlerFailure(const std::string& what);
   std::string statusLine() const { return counters().text(); }

   // The show commands and the host's own (HostCommands), when the host has a socket for them.
   const Agent::CliServer* cliServer() const { return cliServer_.get(); }

   // Looks for new, replaced and damaged publications now rather than at the next probe.
   void handlePublicationProbe();

 private:
   class PeriodicTimer : public Keel::TimerWheel::Timer {
    public:
      PeriodicTimer(Keel::TimerWheel* wheel, Orb::Seconds period, std::function<void()> fn)
          : Timer(wheel), period_(period), fn_(std::move(fn)) {}
      void start() { timeMinIs(timerWheel()->now() + period_); }
      void onTime() override {
         start();
         fn_();
      }

    private:
      Orb::Seconds period_;
      std::function<void()> fn_;
   };
   // One publisher's directory as the host follows it.
   struct Publication {
      SegmentId segment;
      std::unique_ptr<ChipMbbShared::TableInfoDirMirror> mirror;
      bool goneLogged = false;
   };
   struct StoppedTable {
      ChipMbbShared::TableConfigMountKey key;
      bool triple = false;
      std::string configPath;
      SegmentId configSegment;
   };

   // The host's say on the managers the watcher makes.
   class WatcherReactor : public ChipMbbSlice::ChipSliceTableWatcherSm::Notifiee {
    public:
      explicit WatcherReactor(AgentHost* host) : host_(host) {}
      void onTableMgr(const std::string& name) override { host_->handleTableMgr(name); }
      void onMatAdtSelTableMgr(const std::string& name) override {
         host_->handleMatAdtSelTableMgr(name);
      }

    private:
      AgentHost* host_;
   };

   void log(const std::string& line) const;
   void cliServe();
   void handleTableMgr(const std::string& name);
   void handleMatAdtSelTableMgr(const std::string& name);
   void publicationProbe(const std::string& dirPath);
   void publicationFollow(const std::string& dirPath, const SegmentId& segment);
   void publicationGone(const std::string& dirPath, Publication& publication);
   std::size_t tablesServed(const ChipMbbShared::TableInfoDirMirror& mirror) const;
   // A mounted segment found damaged: reported once, its table stopped at the next probe and
   // offered again once the segment is a new one.
   void handleSegmentDamage(const std::string& path, const std::string& reason);
   // An announced table whose collections could not be mounted: said once, and counted.
   void handleTableSkip(const ChipMbbShared::TableConfigMountKey& key, const std::string& reason);
   // A publisher's directory entry whose collection cannot be followed: said once, and counted.
   void handleDirEntryRefusal(const std::string& dirPath, const std::string& name,
                              const std::string& reason);
   void damagedTablesStop();
   void damagedTablesRestart();

   Keel::EventLoop& loop_;
   AgentHostOptions options_;
   // Installed for as long as the host runs; the tables' engines clear it as they go.
   ChipModel::InstalledChip chip_;
   Orb::Ptr<Atlas::EntityManager> entityManager_;
   Orb::Ptr<ChipMbbSlice::MountConfig> mountConfig_;
   Orb::Ptr<MbbEngine::MbbEngineFlushStatus> flushStatus_;
   Orb::Ptr<Orb::Dir> tableInfoDir_;
   Orb::Ptr<ChipMbbSlice::ChipSliceTableWatcherSm> watcher_;
   WatcherReactor watcherReactor_{this};
   Orb::Ptr<HostCountersTable> countersTable_;
   // By directory path. Declared after the watcher: they go first, and with them the entities
   // the managers serve.
   std::map<std::string, Publication> publications_;
   std::uint32_t numPublications_ = 0;
   std::uint64_t seq_ = 0;
   std::uint64_t numHandlerFailures_ = 0;
   std::uint64_t numDamagedSegments_ = 0;
   std::uint64_t numTablesSkipped_ = 0;
   std::set<std::string> skipsSaid_;
   // Damaged paths not yet acted on, and the tables stopped for them with the configuration
   // segment they had then (empty when the damage was in a segment the host writes itself).
   std::set<std::string> damagedPaths_;
   std::vector<StoppedTable> stoppedTables_;
   PeriodicTimer countersTimer_;
   PeriodicTimer probeTimer_;
   std::unique_ptr<HostCommands> commands_;
   std::unique_ptr<Agent::CliServer> cliServer_;
};

}  // namespace SliceSystem
