#include "SliceSystem/AgentHost.h"

#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <map>
#include <set>

#include "Brio/Brio.h"
#include "ChipMbbSlice/ChipMbbEngineHelper.h"
#include "ChipModel/ModelHwPd.h"
#include "ChipModel/ModelResourceInfo.h"
#include "Vault/Errors.h"
#include "Vault/ShmTable.h"

namespace SliceSystem {

namespace {

// The timer wheel of the slice: 1 ms ticks, ten minutes ahead, timers of a tick in order.
Orb::Ptr<Keel::TimerWheel> sliceTimerWheelNew() {
   return Orb::ptrNew<Keel::TimerWheel>(Orb::activityTimeSource(), 1, 600000, true, 1024);
}

void countHelperOps(const ChipMbbSlice::ChipMbbEngineHelper& helper, HostCounters& c) {
   c.numMatAddOps += helper.numMatAddOps();
   c.numMatModOps += helper.numMatModOps();
   c.numMatMovOps += helper.numMatMovOps();
   c.numMatDelOps += helper.numMatDelOps();
   c.numMatDelDeadlockOps += helper.numMatDelDeadlockOps();
   c.numMatSetDfltOps += helper.numMatSetDfltOps();
   c.numMatClrDfltOps += helper.numMatClrDfltOps();
   c.numAdtAddOps += helper.numAdtAddOps();
   c.numAdtModOps += helper.numAdtModOps();
   c.numAdtDelOps += helper.numAdtDelOps();
   c.numSelAddOps += helper.numSelAddOps();
   c.numSelDelOps += helper.numSelDelOps();
   c.numSelActivateOps += helper.numSelActivateOps();
   c.numSelDeactivateOps += helper.numSelDeactivateOps();
   c.numSelSetFallbackOps += helper.numSelSetFallbackOps();
   c.numSelClrFallbackOps += helper.numSelClrFallbackOps();
}

std::uint64_t chipEntries(const ChipModel::Chip& chip, std::uint8_t devId, std::uint32_t tableId) {
   const ChipModel::MatTable* table = chip.matTable(devId, tableId);
   if (!table) return 0;
   std::uint64_t n = 0;
   for (std::uint16_t i = 0; i < table->numInstances(); ++i) n += table->numEntries(i);
   return n;
}

}  // namespace

AgentHost::AgentHost(Keel::EventLoop& loop, AgentHostOptions options)
    : loop_(loop),
      options_(std::move(options)),
      chip_(options_.profile),
      timerWheel_(sliceTimerWheelNew()),
      mountConfig_(Orb::ptrNew<ChipMbbSlice::MountConfig>(options_.mountMode)),
      flushStatus_(Orb::ptrNew<MbbEngine::MbbEngineFlushStatus>("flushStatus")),
      auditMgr_(ChipMbbSlice::TableAuditMgrSmIs(timerWheel_.get(), options_.sessHdl,
                                                ChipModel::modelHwPdNew(chip_))),
      countersTimer_(timerWheel_.get(), options_.countersPeriod, [this] { countersWrite(); }),
      probeTimer_(timerWheel_.get(), options_.probePeriod, [this] { handlePublicationProbe(); }) {
   loop_.timerWheelAdd(timerWheel_.get());
   auditMgr_->auditIntervalIs(options_.auditInterval);
   auditMgr_->auditPolicy()->auditHardwareIs(options_.auditHardware);
   if (options_.root.empty()) {
      countersTable_ = Vault::localTableNew<HostCountersTable>(options_.countersPath);
      countersTable_->mountedIs(true);
      tableMountInfo_ =
          Vault::localTableNew<ChipMbbShared::TableConfigMountInfo>(options_.tableInfoPath);
      tableMountInfo_->mountedIs(true);
      tableMgrNew();
      tripleMountInfo_ = Vault::localTableNew<ChipMbbShared::MatAdtSelTableConfigMountInfo>(
          options_.tripleInfoPath);
      tripleMountInfo_->mountedIs(true);
      tripleMgrNew();
   } else {
      entityManager_ = Orb::ptrNew<Atlas::EntityManager>(options_.root, &loop_);
      if (std::size_t n = Vault::shmStaleSegmentsRemove(entityManager_->shmName(""))) {
         log("removed " + std::to_string(n) + " segments that dead processes left under the root");
      }
      entityManager_->corruptionHandlerIs(
          [this](const std::string& path, const std::string& reason) {
             handleSegmentDamage(path, reason);
          });
      countersTable_ = entityManager_->mount<HostCountersTable>(options_.countersPath,
                                                                Atlas::MountMode::writer, 4);
      handlePublicationProbe();
      probeTimer_.start();
   }
   countersWrite();
   countersTimer_.start();
   cliNew();
}

AgentHost::~AgentHost() {
   cliServer_.reset();
   cliCallback_.reset();
   tripleMgr_.reset();
   tableMgr_.reset();
   loop_.timerWheelDel(timerWheel_.get());
}

void AgentHost::log(const std::string& line) const {
   if (options_.log) {
      options_.log(line);
   } else {
      std::cout << "slicehost: " << line << std::endl;
   }
}

bf_status_t AgentHost::faultInject(const ChipModel::Fault& fault) {
   const bf_status_t status = chip_.faultInject(fault);
   char text[160];
   std::snprintf(text, sizeof text, "fault %s on table 0x%x handle 0x%x index 0x%x: %s",
                 ChipModel::faultKindName(fault.kind), fault.tblHdl, fault.hdl, fault.index,
                 status == BF_SUCCESS ? "injected" : chip_.lastError().c_str());
   log(text);
   return status;
}

void AgentHost::tableMgrNew() {
   tableMgr_ = Orb::ptrNew<ChipMbbSlice::ChipSliceTableMgrSm>(
       tableMountInfo_, entityManager_, options_.supportedDevices, options_.sessHdl,
       options_.syncGenTime, timerWheel_, flushStatus_, mountConfig_,
       ChipModel::modelResourceInfoNew(chip_.profile()));
   // A publisher may withdraw a table; the host then takes it down instead of stopping.
   tableMgr_->allowUnmountIs(true);
   tableMgr_->tableAuditMgrSmIs(auditMgr_);
   tableMgr_->skipHandlerIs([this](const ChipMbbShared::TableConfigMountKey& key,
                                   const std::string& reason) { handleTableSkip(key, reason); });
   // The manager decided on what was announced already while it was made; what it could not
   // serve then is decided again, now that somebody hears of it.
   tableMgr_->handleTableMount();
   ++publications_;
}

void AgentHost::cliNew() {
   cliCallback_ = Orb::ptrNew<ChipMbbSlice::CliCallback>(
       "ChipMbbSlice", "ChipMbbSliceCli", static_cast<const ChipMbbSlice::CliTableDir*>(this),
       ChipModel::modelResourceInfoNew(chip_.profile()), ChipModel::modelHwPdNew(chip_),
       options_.sessHdl, Orb::ptrNew<Keel::WheelClock>(timerWheel_.get()));
   std::string path = options_.cliSocketPath;
   if (path.empty() && !testmode()) path = Agent::socketPathFor(options_.root);
   if (path.empty()) return;
   Agent::CliServerOptions cli;
   cli.path = path;
   cli.commands = ChipMbbSlice::CliCallback::commandNames();
   cliServer_ = std::make_unique<Agent::CliServer>(loop_, cliCallback_.get(), std::move(cli));
}

ChipMbbSlice::CliTableDir::TableMgrMap AgentHost::tableMgrs() const {
   if (!tableMgr_) return {};
   return {{options_.tableInfoPath, tableMgr_}};
}

ChipMbbSlice::CliTableDir::TripleMgrMap AgentHost::tripleMgrs() const {
   if (!tripleMgr_) return {};
   return {{options_.tripleInfoPath, tripleMgr_}};
}

void AgentHost::tripleMgrNew() {
   tripleMgr_ = Orb::ptrNew<ChipMbbSlice::ChipSliceMatAdtSelTableMgrSm>(
       tripleMountInfo_, entityManager_, options_.supportedDevices, options_.sessHdl,
       options_.syncGenTime, timerWheel_, flushStatus_, mountConfig_,
       ChipModel::modelResourceInfoNew(chip_.profile()));
   tripleMgr_->allowUnmountIs(true);
   tripleMgr_->tableAuditMgrSmIs(auditMgr_);
   tripleMgr_->skipHandlerIs([this](const ChipMbbShared::TableConfigMountKey& key,
                                    const std::string& reason) { handleTableSkip(key, reason); });
   tripleMgr_->handleTableMount();
}

// A triple publication that is withdrawn leaves its triples as they are, as for single tables.
void AgentHost::triplePublicationProbe() {
   const std::string& path = options_.tripleInfoPath;
   SegmentId segment = segmentId(entityManager_->shmName(path));
   if (!segment || segment == tripleInfoSegment_) return;
   if (tripleMountInfo_) {
      log("publication " + path + " replaced; restarting its triples");
      triplePublicationRelease();
   }
   try {
      tripleMountInfo_ = entityManager_->mount<ChipMbbShared::MatAdtSelTableConfigMountInfo>(
          path, Atlas::MountMode::reader);
   } catch (const Vault::MountException& e) {
      return;
   } catch (const Brio::CorruptionDetectedException& e) {
      return;  // said by the entity manager, once for this segment
   }
   if (segmentId(entityManager_->shmName(path)) != segment) {
      entityManager_->unmount(path);
      tripleMountInfo_.reset();
      return;
   }
   tripleInfoSegment_ = segment;
   log("serving publication " + path + " (" + std::to_string(tripleMountInfo_->size()) +
       " triples announced so far)");
   try {
      tripleMgrNew();
   } catch (const std::exception& e) {
      tripleMgr_.reset();
      log("cannot serve publication " + path + ": " + e.what());
   }
}

void AgentHost::triplePublicationRelease() {
   std::set<std::string> paths;
   if (tripleMgr_) {
      for (const auto& [key, e] : tripleMgr_->mountInfos()) {
         paths.insert({e.matConfigPath(), e.adtConfigPath(), e.selGrpConfigPath(),
                       e.selMbrConfigPath(), e.adtStatusPath(), e.selGrpStatusPath()});
         if (e.needStatus()) paths.insert({e.matStatusPath(), e.selMbrStatusPath()});
      }
   }
   tripleMgr_.reset();
   for (const std::string& path : paths) entityManager_->unmount(path);
   entityManager_->unmount(options_.tripleInfoPath);
   tripleMountInfo_.reset();
   tripleInfoSegment_.reset();
}

// Said once per table and reason: the managers decide again on every resync.
void AgentHost::handleTableSkip(const ChipMbbShared::TableConfigMountKey& key,
                                const std::string& reason) {
   if (!skipsSaid_.insert(key.name() + "\n" + reason).second) return;
   ++numTablesSkipped_;
   log("not serving table " + key.name() + ": " + reason);
}

void AgentHost::handleSegmentDamage(const std::string& path, const std::string& reason) {
   if (!damagedPaths_.insert(path).second) return;
   ++numDamagedSegments_;
   log("segment of " + path + " not served (" + reason + "); stopping its table");
}

namespace {

bool entryUses(const ChipMbbShared::MatAdtSelTableConfigMountEntry& e, const std::string& path) {
   for (const std::string* p :
        {&e.matConfigPath(), &e.adtConfigPath(), &e.selGrpConfigPath(), &e.selMbrConfigPath(),
         &e.matStatusPath(), &e.adtStatusPath(), &e.selGrpStatusPath(), &e.selMbrStatusPath()}) {
      if (*p == path) return true;
   }
   return false;
}

bool entryUses(const ChipMbbShared::TableConfigMountEntry& e, const std::string& path) {
   return e.configPath() == path || e.statusPath() == path;
}

}  // namespace

// Out of the access that found the damage, which may be deep in an engine: the table goes as
// if withdrawn. A segment the publisher writes is served again once it is replaced; one the
// host writes itself was removed with the table and is made afresh at once.
void AgentHost::damagedTablesStop() {
   for (const std::string& path : damagedPaths_) {
      if (path == options_.countersPath) {
         entityManager_->unmount(path);
         countersTable_ =
             entityManager_->mount<HostCountersTable>(path, Atlas::MountMode::writer, 4);
         continue;
      }
      auto stop = [&](auto& mgr, bool triple, const std::string& configPath, const auto& key) {
         SegmentId config;
         if (configPath == path) config = segmentId(entityManager_->shmName(configPath));
         stoppedTables_.push_back({key, triple, configPath, config});
         mgr->tableStop(key);
      };
      if (tableMgr_) {
         for (const auto& [key, e] : std::map(tableMgr_->mountInfos())) {
            if (entryUses(e, path)) stop(tableMgr_, false, e.configPath(), key);
         }
      }
      if (tripleMgr_) {
         for (const auto& [key, e] : std::map(tripleMgr_->mountInfos())) {
            if (entryUses(e, path)) stop(tripleMgr_, true, e.matConfigPath(), key);
         }
      }
   }
   damagedPaths_.clear();
}

void AgentHost::damagedTablesRestart() {
   std::vector<StoppedTable> waiting;
   for (StoppedTable& t : stoppedTables_) {
      if (t.configSegment && segmentId(entityManager_->shmName(t.configPath)) == t.configSegment) {
         waiting.push_back(t);
      } else if (t.triple && tripleMgr_) {
         tripleMgr_->handleTableMount(t.key);
      } else if (!t.triple && tableMgr_) {
         tableMgr_->handleTableMount(t.key);
      }
   }
   stoppedTables_ = std::move(waiting);
}

void AgentHost::handlePublicationProbe() {
   if (testmode()) return;
   damagedTablesRestart();
   damagedTablesStop();
   triplePublicationProbe();
   SegmentId segment = segmentId(entityManager_->shmName(options_.tableInfoPath));
   if (tableMountInfo_ && segment == tableInfoSegment_) return;
   if (tableMountInfo_ && !segment) {
      if (!publisherGoneLogged_) {
         std::size_t running = tableMgr_ ? tableMgr_->mbbEngineSms().size() : 0;
         log("publication " + options_.tableInfoPath + " withdrawn; keeping " +
             std::to_string(running) + " tables as they are");
         publisherGoneLogged_ = true;
      }
      return;
   }
   if (!segment) return;
   if (tableMountInfo_) {
      log("publication " + options_.tableInfoPath + " replaced; restarting its tables");
      publicationRelease();
   }
   publicationMount(segment);
}

void AgentHost::publicationMount(const SegmentId& segment) {
   try {
      tableMountInfo_ = entityManager_->mount<ChipMbbShared::TableConfigMountInfo>(
          options_.tableInfoPath, Atlas::MountMode::reader);
   } catch (const Vault::MountException& e) {
      return;  // not all there yet, or another user's; the next probe tries again
   } catch (const Brio::CorruptionDetectedException& e) {
      return;  // said by the entity manager, once for this segment
   }
   // Replaced again while it was being mounted: start over at the next probe.
   if (segmentId(entityManager_->shmName(options_.tableInfoPath)) != segment) {
      entityManager_->unmount(options_.tableInfoPath);
      tableMountInfo_.reset();
      return;
   }
   tableInfoSegment_ = segment;
   publisherGoneLogged_ = false;
   log("serving publication " + options_.tableInfoPath + " (" +
       std::to_string(tableMountInfo_->size()) + " tables announced so far)");
   try {
      tableMgrNew();
   } catch (const std::exception& e) {
      // Served again only when a publisher replaces it.
      tableMgr_.reset();
      log("cannot serve publication " + options_.tableInfoPath + ": " + e.what());
   }
}

void AgentHost::publicationRelease() {
   std::set<std::string> paths;
   if (tableMgr_) {
      for (const auto& [key, entry] : tableMgr_->mountInfos()) {
         paths.insert(entry.configPath());
         if (entry.needStatus()) paths.insert(entry.statusPath());
      }
   }
   tableMgr_.reset();
   for (const std::string& path : paths) entityManager_->unmount(path);
   entityManager_->unmount(options_.tableInfoPath);
   tableMountInfo_.reset();
   tableInfoSegment_.reset();
}

HostCounters AgentHost::counters() const {
   HostCounters c;
   c.seq = seq_;
   c.pid = static_cast<std::uint32_t>(::getpid());
   c.publications = publications_;
   c.numHandlerFailures = numHandlerFailures_;
   c.numDamagedSegments = numDamagedSegments_;
   c.numTablesSkipped = numTablesSkipped_;
   c.numViolations = chip_.numViolations();
   if (tableMountInfo_) c.tablesPublished = static_cast<std::uint32_t>(tableMountInfo_->size());
   tripleCountersAdd(c);
   if (!tableMgr_) return c;
   std::set<std::pair<std::uint8_t, std::uint32_t>> chipTables;
   for (const auto& [key, engine] : tableMgr_->mbbEngineSms()) {
      ++c.tablesRunning;
      c.statuses += engine->tableStatus() ? engine->tableStatus()->size() : 0;
      c.pending += engine->mbbEngineImpl()->numPending();
      auto helper = std::dynamic_pointer_cast<ChipMbbSlice::ChipMbbEngineHelper>(
          engine->mbbEngineImpl()->helper());
      if (helper) countHelperOps(*helper, c);
      chipTables.insert({key.devTgt().devId, key.tableId()});
   }
   for (const auto& [devId, tableId] : chipTables) c.entries += chipEntries(chip_, devId, tableId);
   return c;
}

void AgentHost::tripleCountersAdd(HostCounters& c) const {
   if (tripleMountInfo_) {
      c.triplesPublished = static_cast<std::uint32_t>(tripleMountInfo_->size());
   }
   if (!tripleMgr_) return;
   for (const auto& [key, sm] : tripleMgr_->matAdtSelSliceSms()) {
      ++c.triplesRunning;
      for (const auto& status : {sm->tableStatus(), sm->adtTableStatus(), sm->selGrpTableStatus(),
                                 sm->selMbrTableStatus()}) {
         c.statuses += status ? status->size() : 0;
      }
      c.pending += sm->mbbEngineImpl()->numPending();
      const ChipMbbSlice::MatAdtSelMbbEngineImpl& impl = *sm->matAdtSelImpl();
      c.groups += impl.currentSelGrps().size();
      c.numDeadlockBreakOps += impl.numDeadlockBreakOps();
      if (const auto& helper = impl.chipHelper()) {
         countHelperOps(*helper, c);
         // Members in hardware: every sel_add is undone by one sel_del.
         c.members += helper->numSelAddOps() - helper->numSelDelOps();
      }
      c.entries += chipEntries(chip_, key.devTgt().devId, key.tableId());
   }
}

void AgentHost::countersWrite() {
   ++seq_;
   countersTable_->entryIs(hostCountersKey, counters());
}

void AgentHost::handlerFailure(const std::string& what) {
   ++numHandlerFailures_;
   log("handler failed: " + what);
}

void AgentHost::serve() {
   for (;;) {
      try {
         loop_.run();
         return;
      } catch (const Brio::CorruptionDetectedException&) {
         // Already reported by the damaged table's handler, and its table is being stopped.
      } catch (const std::exception& e) {
         handlerFailure(e.what());
      }
   }
}

}  // namespace SliceSystem
