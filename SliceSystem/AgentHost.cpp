#include "SliceSystem/AgentHost.h"

#include <unistd.h>

#include <cstdio>
#include <iostream>

#include "Brio/Brio.h"
#include "ChipMbbSlice/ChipMbbEngineHelper.h"
#include "ChipModel/ModelHwPd.h"
#include "ChipModel/ModelResourceInfo.h"
#include "Vault/Errors.h"
#include "Vault/ShmTable.h"

namespace SliceSystem {

namespace {

using ChipMbbSlice::ChipSliceMatAdtSelTableMgrSm;
using ChipMbbSlice::ChipSliceTableMgrSm;

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

void singlesCount(const ChipSliceTableMgrSm& mgr, const ChipModel::Chip& chip, HostCounters& c) {
   c.tablesPublished += static_cast<std::uint32_t>(mgr.tableMountInfoDir()->size());
   std::set<std::pair<std::uint8_t, std::uint32_t>> chipTables;
   for (const auto& [key, engine] : mgr.mbbEngineSms()) {
      ++c.tablesRunning;
      c.statuses += engine->tableStatus() ? engine->tableStatus()->size() : 0;
      c.pending += engine->mbbEngineImpl()->numPending();
      auto helper = std::dynamic_pointer_cast<ChipMbbSlice::ChipMbbEngineHelper>(
          engine->mbbEngineImpl()->helper());
      if (helper) countHelperOps(*helper, c);
      chipTables.insert({key.devTgt().devId, key.tableId()});
   }
   for (const auto& [devId, tableId] : chipTables) c.entries += chipEntries(chip, devId, tableId);
}

void triplesCount(const ChipSliceMatAdtSelTableMgrSm& mgr, const ChipModel::Chip& chip,
                  HostCounters& c) {
   c.triplesPublished += static_cast<std::uint32_t>(mgr.tableMountInfoDir()->size());
   for (const auto& [key, sm] : mgr.matAdtSelSliceSms()) {
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
      c.entries += chipEntries(chip, key.devTgt().devId, key.tableId());
   }
}

bool entryUses(const ChipMbbShared::MatAdtSelTableConfigMountEntry& e, const std::string& path) {
   for (const std::string& p : ChipSliceMatAdtSelTableMgrSm::mountedPaths(e)) {
      if (p == path) return true;
   }
   return false;
}

bool entryUses(const ChipMbbShared::TableConfigMountEntry& e, const std::string& path) {
   for (const std::string& p : ChipSliceTableMgrSm::mountedPaths(e)) {
      if (p == path) return true;
   }
   return false;
}

// A publisher's directory is `<prefix><name>`; its collections lie further down.
bool directoryPath(const std::string& path, const std::string& prefix) {
   return path.size() > prefix.size() && path.find('/', prefix.size()) == std::string::npos;
}

}  // namespace

AgentHost::AgentHost(Keel::EventLoop& loop, AgentHostOptions options)
    : loop_(loop),
      options_(std::move(options)),
      chip_(options_.profile),
      mountConfig_(Orb::ptrNew<ChipMbbSlice::MountConfig>(options_.mountMode)),
      flushStatus_(Orb::ptrNew<MbbEngine::MbbEngineFlushStatus>("flushStatus")),
      tableInfoDir_(Orb::ptrNew<Orb::Dir>("tableInfoDir")),
      countersTimer_(&loop_.timerWheel(), options_.countersPeriod, [this] { countersWrite(); }),
      probeTimer_(&loop_.timerWheel(), options_.probePeriod, [this] { handlePublicationProbe(); }) {
   if (!options_.root.empty()) {
      entityManager_ = Orb::ptrNew<Atlas::EntityManager>(options_.root, &loop_);
      if (std::size_t n = Vault::shmStaleSegmentsRemove(entityManager_->shmName(""))) {
         log("removed " + std::to_string(n) + " segments that dead processes left under the root");
      }
      // First, since another host on the root already has it; a refusal here is the host's
      // own failure to start, said by whoever made it, not a table's damage.
      countersTable_ = entityManager_->mount<HostCountersTable>(options_.countersPath,
                                                                Atlas::MountMode::writer, 4);
      entityManager_->corruptionHandlerIs(
          [this](const std::string& path, const std::string& reason) {
             handleSegmentDamage(path, reason);
          });
   }
   watcher_ = Orb::ptrNew<ChipMbbSlice::ChipSliceTableWatcherSm>(
       tableInfoDir_, entityManager_, options_.supportedDevices, options_.sessHdl,
       options_.syncGenTime, ChipModel::modelResourceInfoNew(chip_.profile()),
       ChipModel::modelHwPdNew(chip_), flushStatus_, mountConfig_);
   watcherReactor_.notifierIs(watcher_.get());
   loop_.timerWheelAdd(watcher_->timerWheel().get());
   auditMgr()->auditIntervalIs(options_.auditInterval);
   auditMgr()->auditPolicy()->auditHardwareIs(options_.auditHardware);
   if (testmode()) {
      countersTable_ = Vault::localTableNew<HostCountersTable>(options_.countersPath);
      countersTable_->mountedIs(true);
   } else {
      handlePublicationProbe();
      probeTimer_.start();
   }
   countersWrite();
   countersTimer_.start();
   cliServe();
}

AgentHost::~AgentHost() {
   cliServer_.reset();
   watcherReactor_.notifierIs(nullptr);
   publications_.clear();
   loop_.timerWheelDel(watcher_->timerWheel().get());
   watcher_.reset();
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

void AgentHost::cliServe() {
   std::string path = options_.cliSocketPath;
   if (path.empty() && !testmode()) path = Agent::socketPathFor(options_.root);
   if (path.empty()) return;
   Agent::CliServerOptions cli;
   cli.path = path;
   cli.commands = ChipMbbSlice::CliCallback::commandNames();
   cli.commands.push_back("host");
   commands_ = std::make_unique<HostCommands>(*this, *watcher_->cliCallback());
   cliServer_ = std::make_unique<Agent::CliServer>(loop_, commands_.get(), std::move(cli));
}

// A publisher may withdraw a table; the host then takes it down instead of stopping.
void AgentHost::handleTableMgr(const std::string& name) {
   const auto mgr = watcher_->tableMgr(name);
   if (!mgr) {
      log("tables of " + name + " withdrawn");
      return;
   }
   mgr->allowUnmountIs(true);
   mgr->skipHandlerIs([this](const ChipMbbShared::TableConfigMountKey& key,
                             const std::string& reason) { handleTableSkip(key, reason); });
   // The manager decided on what was announced already while it was made; what it could not
   // serve then is decided again, now that somebody hears of it.
   mgr->handleTableMount();
   ++numPublications_;
   log("serving tables of " + name + " (" + std::to_string(mgr->tableMountInfoDir()->size()) +
       " announced so far)");
}

void AgentHost::handleMatAdtSelTableMgr(const std::string& name) {
   const auto mgr = watcher_->matAdtSelTableMgr(name);
   mgr->allowUnmountIs(true);
   mgr->skipHandlerIs([this](const ChipMbbShared::TableConfigMountKey& key,
                             const std::string& reason) { handleTableSkip(key, reason); });
   mgr->handleTableMount();
   ++numPublications_;
   log("serving triples of " + name + " (" + std::to_string(mgr->tableMountInfoDir()->size()) +
       " announced so far)");
}

void AgentHost::handlePublicationProbe() {
   if (testmode()) return;
   damagedTablesRestart();
   damagedTablesStop();
   std::set<std::string> dirPaths;
   for (std::string& path : entityManager_->paths(options_.dirPrefix)) {
      if (directoryPath(path, options_.dirPrefix)) dirPaths.insert(std::move(path));
   }
   for (const auto& [path, publication] : publications_) dirPaths.insert(path);
   for (const std::string& path : dirPaths) publicationProbe(path);
}

void AgentHost::publicationProbe(const std::string& dirPath) {
   const SegmentId segment = segmentId(entityManager_->shmName(dirPath));
   auto it = publications_.find(dirPath);
   if (it != publications_.end() && !segment) {
      publicationGone(dirPath, it->second);
      return;
   }
   if (!segment || (it != publications_.end() && it->second.segment == segment)) return;
   if (it != publications_.end()) {
      log("publisher " + dirPath + " replaced; serving its successor from scratch");
      publications_.erase(it);
      // Names the old mirror held may have been refused to others meanwhile.
      for (auto& [path, other] : publications_) other.mirror->handleTableInfoDir();
   }
   publicationFollow(dirPath, segment);
}

void AgentHost::publicationFollow(const std::string& dirPath, const SegmentId& segment) {
   Publication publication;
   try {
      publication.mirror = std::make_unique<ChipMbbShared::TableInfoDirMirror>(
          *entityManager_, dirPath, tableInfoDir_,
          [this, dirPath](const std::string& name, const std::string& reason) {
             handleDirEntryRefusal(dirPath, name, reason);
          });
   } catch (const Vault::MountException& e) {
      return;  // not all there yet; the next probe tries again
   } catch (const Brio::CorruptionDetectedException& e) {
      return;  // said by the entity manager, once for this segment
   }
   // Replaced again while it was being mounted: start over at the next probe.
   if (segmentId(entityManager_->shmName(dirPath)) != segment) return;
   publication.segment = segment;
   log("following publisher " + dirPath + " (" + std::to_string(publication.mirror->size()) +
       " collections announced so far)");
   publications_[dirPath] = std::move(publication);
}

// Its segments are gone with it; what it published stays in hardware as it is.
void AgentHost::publicationGone(const std::string& dirPath, Publication& publication) {
   if (publication.goneLogged) return;
   publication.goneLogged = true;
   log("publisher " + dirPath + " gone; keeping its " +
       std::to_string(tablesServed(*publication.mirror)) + " tables as they are");
}

std::size_t AgentHost::tablesServed(const ChipMbbShared::TableInfoDirMirror& mirror) const {
   std::size_t n = 0;
   for (const auto& [name, entity] : tableInfoDir_->entities()) {
      if (!mirror.holds(name)) continue;
      if (const auto mgr = watcher_->tableMgr(name)) n += mgr->mbbEngineSms().size();
      if (const auto mgr = watcher_->matAdtSelTableMgr(name)) n += mgr->matAdtSelSliceSms().size();
   }
   return n;
}

// Said once per table and reason: the managers decide again on every resync.
void AgentHost::handleTableSkip(const ChipMbbShared::TableConfigMountKey& key,
                                const std::string& reason) {
   if (!skipsSaid_.insert(key.name() + "\n" + reason).second) return;
   ++numTablesSkipped_;
   log("not serving table " + key.name() + ": " + reason);
}

void AgentHost::handleDirEntryRefusal(const std::string& dirPath, const std::string& name,
                                      const std::string& reason) {
   if (!skipsSaid_.insert(dirPath + "\n" + name + "\n" + reason).second) return;
   ++numTablesSkipped_;
   log("publisher " + dirPath + ": not following " + name + ": " + reason);
}

void AgentHost::handleSegmentDamage(const std::string& path, const std::string& reason) {
   if (!damagedPaths_.insert(path).second) return;
   ++numDamagedSegments_;
   log("segment of " + path + " not served (" + reason + "); stopping its table");
}

// Out of the access that found the damage, which may be deep in an engine: the table goes as
// if withdrawn. A segment the publisher writes is served again once it is replaced; one the
// host writes itself was removed with the table and is made afresh at once. A damaged
// directory or mount-info collection is followed again once its publisher replaces it.
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
      for (const auto& [name, mgr] : watcher_->tableMgrs()) {
         for (const auto& [key, e] : std::map(mgr->mountInfos())) {
            if (entryUses(e, path)) stop(mgr, false, e.configPath(), key);
         }
      }
      for (const auto& [name, mgr] : watcher_->matAdtSelTableMgrs()) {
         for (const auto& [key, e] : std::map(mgr->mountInfos())) {
            if (entryUses(e, path)) stop(mgr, true, e.matConfigPath(), key);
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
         continue;
      }
      for (const auto& [name, mgr] : watcher_->tableMgrs()) {
         if (!t.triple && mgr->tableMountInfoDir()->present(t.key)) mgr->handleTableMount(t.key);
      }
      for (const auto& [name, mgr] : watcher_->matAdtSelTableMgrs()) {
         if (t.triple && mgr->tableMountInfoDir()->present(t.key)) mgr->handleTableMount(t.key);
      }
   }
   stoppedTables_ = std::move(waiting);
}

HostCounters AgentHost::counters() const {
   HostCounters c;
   c.seq = seq_;
   c.pid = static_cast<std::uint32_t>(::getpid());
   c.publications = numPublications_;
   c.numHandlerFailures = numHandlerFailures_;
   c.numDamagedSegments = numDamagedSegments_;
   c.numTablesSkipped = numTablesSkipped_;
   c.numViolations = chip_.numViolations();
   for (const auto& [name, mgr] : watcher_->tableMgrs()) singlesCount(*mgr, chip_, c);
   for (const auto& [name, mgr] : watcher_->matAdtSelTableMgrs()) triplesCount(*mgr, chip_, c);
   const ChipMbbSlice::TableAuditMgrSm& audit = *auditMgr();
   const bool ongoing = audit.auditState() == ChipMbbSlice::AuditState::ongoing;
   c.audits = audit.configInstance()->instance() - (ongoing ? 1 : 0);
   c.auditOvershoots = audit.overshotCnt();
   c.auditFailedKeys = audit.failedAuditStatus()->numFailedEntries();
   if (entityManager_) c.mounts = entityManager_->numMounts();
   if (cliServer_) {
      c.commands = cliServer_->numCommands();
      c.commandsRefused = cliServer_->numRefused();
   }
   return c;
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
