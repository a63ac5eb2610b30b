#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Agent/CliServer.h"
#include "Atlas/EntityManager.h"
#include "ChipMbbShared/MountInfo.h"
#include "ChipMbbSliceTableMgr/ChipSliceMatAdtSelTableMgrSm.h"
#include "ChipMbbSliceTableMgr/ChipSliceTableMgrSm.h"
#include "ChipMbbSliceTableMgr/CliCallback.h"
#include "ChipMbbSliceTableMgr/MountConfig.h"
#include "ChipModel/Chip.h"
#include "ChipModel/ChipProfile.h"
#include "ChipModel/Fault.h"
#include "Keel/EventLoop.h"
#include "Keel/TimerWheel.h"
#include "Keel/WheelClock.h"
#include "MbbEngine/MbbEngineFlushStatus.h"
#include "Orb/Ptr.h"
#include "Orb/Time.h"
#include "SliceSystem/HostCounters.h"
#include "SliceSystem/SegmentId.h"
#include "TableAuditSm/TableAuditSm.h"

namespace SliceSystem {

struct AgentHostOptions {
   // Root of the shared tables. Empty runs in test mode: no entity manager, and the
   // mount-info collection, the tables and the counters live in this process.
   std::string root;
   std::string tableInfoPath = "mbb/tableInfo";
   std::string tripleInfoPath = "mbb/tripleInfo";
   std::string countersPath = "mbb/hostCounters";
   ChipModel::ChipProfile profile = ChipModel::ChipProfile::defaultProfile();
   Orb::Seconds syncGenTime = 1.0;
   std::uint32_t supportedDevices = 0xFFFFFFFF;
   std::uint32_t sessHdl = 1;
   ChipMbbSlice::MountMode mountMode = ChipMbbSlice::MountMode::mountAllTables;
   // How often the counters are written for publishers, and how often the host looks for a
   // new or replaced publication.
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

// The agent process's slice: the chip model, the mount configuration, the engines' flush
// status and timer wheel, a single-table manager over a feature agent's mount-info collection
// and a triple manager over its triple mount-info collection, all on the caller's event loop.
//
// With shared tables the host mounts the collection for reading once the publisher has
// created it. A publisher that dies leaves its collections behind; the host keeps its tables
// as they are in hardware. When a new publisher replaces the collection, the host lets the old
// manager go (its engines take their entries out of hardware), unmounts what it had mounted
// for it, and serves the new one from scratch.
class AgentHost : private ChipMbbSlice::CliTableDir {
 public:
   AgentHost(Keel::EventLoop& loop, AgentHostOptions options);
   AgentHost(const AgentHost&) = delete;
   AgentHost& operator=(const AgentHost&) = delete;
   ~AgentHost();

   const AgentHostOptions& options() const { return options_; }
   const ChipModel::Chip& chip() const { return chip_; }
   Keel::EventLoop& loop() const { return loop_; }
   bool testmode() const { return !entityManager_; }
   // Null until a publication has been found (always set in test mode).
   const Orb::Ptr<ChipMbbShared::TableConfigMountInfo>& tableMountInfo() const {
      return tableMountInfo_;
   }
   const Orb::Ptr<ChipMbbSlice::ChipSliceTableMgrSm>& tableMgr() const { return tableMgr_; }
   const Orb::Ptr<ChipMbbShared::MatAdtSelTableConfigMountInfo>& tripleMountInfo() const {
      return tripleMountInfo_;
   }
   const Orb::Ptr<ChipMbbSlice::ChipSliceMatAdtSelTableMgrSm>& tripleMgr() const {
      return tripleMgr_;
   }
   const Orb::Ptr<HostCountersTable>& countersTable() const { return countersTable_; }
   const Orb::Ptr<ChipMbbSlice::MountConfig>& mountConfig() const { return mountConfig_; }
   const Orb::Ptr<MbbEngine::MbbEngineFlushStatus>& flushStatus() const { return flushStatus_; }
   const Orb::Ptr<ChipMbbSlice::TableAuditMgrSm>& auditMgr() const { return auditMgr_; }

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

   // The show commands, and their server when the host has a socket for them.
   const Orb::Ptr<ChipMbbSlice::CliCallback>& cliCallback() const { return cliCallback_; }
   const Agent::CliServer* cliServer() const { return cliServer_.get(); }

   // Looks for a new or replaced publication now rather than at the next probe.
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

   void log(const std::string& line) const;
   void publicationMount(const SegmentId& segment);
   void publicationRelease();
   void tableMgrNew();
   void cliNew();
   TableMgrMap tableMgrs() const override;
   TripleMgrMap tripleMgrs() const override;
   void tripleMgrNew();
   // Triples are announced in a collection of their own, served as the single tables' is.
   void triplePublicationProbe();
   void triplePublicationRelease();
   void tripleCountersAdd(HostCounters& c) const;
   // A segment found damaged, or refused at mount (damaged or another user's): reported once,
   // its table stopped at the next probe and offered again once the segment is a new one.
   void handleSegmentDamage(const std::string& path, const std::string& reason);
   // An announced table whose collections could not be mounted: said once, and counted.
   void handleTableSkip(const ChipMbbShared::TableConfigMountKey& key, const std::string& reason);
   void damagedTablesStop();
   void damagedTablesRestart();

   Keel::EventLoop& loop_;
   AgentHostOptions options_;
   // Installed for as long as the host runs; the tables' engines clear it as they go.
   ChipModel::InstalledChip chip_;
   Orb::Ptr<Keel::TimerWheel> timerWheel_;
   Orb::Ptr<Atlas::EntityManager> entityManager_;
   Orb::Ptr<ChipMbbSlice::MountConfig> mountConfig_;
   Orb::Ptr<MbbEngine::MbbEngineFlushStatus> flushStatus_;
   // Created before the table managers, which register their tables with it.
   Orb::Ptr<ChipMbbSlice::TableAuditMgrSm> auditMgr_;
   Orb::Ptr<HostCountersTable> countersTable_;
   Orb::Ptr<ChipMbbShared::TableConfigMountInfo> tableMountInfo_;
   SegmentId tableInfoSegment_;
   bool publisherGoneLogged_ = false;
   Orb::Ptr<ChipMbbSlice::ChipSliceTableMgrSm> tableMgr_;
   Orb::Ptr<ChipMbbShared::MatAdtSelTableConfigMountInfo> tripleMountInfo_;
   SegmentId tripleInfoSegment_;
   Orb::Ptr<ChipMbbSlice::ChipSliceMatAdtSelTableMgrSm> tripleMgr_;
   std::uint32_t publications_ = 0;
   std::uint64_t seq_ = 0;
   std::uint64_t numHandlerFailures_ = 0;
   std::uint64_t numDamagedSegments_ = 0;
   std::uint64_t numTablesSkipped_ = 0;
   std::set<std::string> skipsSaid_;
   // Damaged paths not yet acted on, and the tables stopped for them with the configuration
   // segment they had then (empty when the damage was in a segment the host writes itself).
   std::set<std::string> damagedPaths_;
   struct StoppedTable {
      ChipMbbShared::TableConfigMountKey key;
      bool triple = false;
      std::string configPath;
      SegmentId configSegment;
   };
   std::vector<StoppedTable> stoppedTables_;
   PeriodicTimer countersTimer_;
   PeriodicTimer probeTimer_;
   Orb::Ptr<ChipMbbSlice::CliCallback> cliCallback_;
   std::unique_ptr<Agent::CliServer> cliServer_;
};

}  // namespace SliceSystem
