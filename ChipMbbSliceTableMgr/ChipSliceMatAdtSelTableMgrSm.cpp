#include "ChipMbbSliceTableMgr/ChipSliceMatAdtSelTableMgrSm.h"

#include <algorithm>
#include <limits>

#include "Brio/Brio.h"
#include "ChipMbbShared/SelMbrEntryKey.h"
#include "ChipMbbSlice/ChipMbbEngineHelper.h"
#include "ChipMbbSlice/TraceSetup.h"
#include "ChipMbbSliceMatAdtSelSm/MatAdtSelMbbEngineImpl.h"
#include "ChipSdk/OpKind.h"
#include "Orb/TypeRegistry.h"

namespace ChipMbbSlice {

namespace {

using detail::badEntryLevel;
using detail::decisionLevel;
using detail::recordName;

using Vault::MbbEngine::TableStatus;

Orb::Ptr<TableStatus> testmodeStatus(const std::string& path, std::uint32_t capacity) {
   auto status = Vault::MbbEngine::tableStatusFactory(path, Vault::MapDescriptor{capacity});
   status->mountedIs(true);
   return status;
}

// Paths mounted for one triple, taken back again unless the mount of all eight completes.
class MountRollback {
 public:
   explicit MountRollback(Atlas::EntityManager& entityManager) : entityManager_(entityManager) {}
   ~MountRollback() {
      if (done_) return;
      for (auto path = paths_.rbegin(); path != paths_.rend(); ++path) {
         entityManager_.unmount(*path);
      }
   }
   // Paths mounted before belong to someone else and stay.
   void mounting(const std::string& path) {
      if (!entityManager_.entity(path)) paths_.push_back(path);
   }
   void done() { done_ = true; }

 private:
   Atlas::EntityManager& entityManager_;
   std::vector<std::string> paths_;
   bool done_ = false;
};

}  // namespace

ChipSliceMatAdtSelTableMgrSm::ChipSliceMatAdtSelTableMgrSm(
    Orb::Ptr<ChipMbbShared::MatAdtSelTableConfigMountInfo> tableMountInfoDir,
    Orb::Ptr<Atlas::EntityManager> entityManager, std::uint32_t supportedDevices,
    std::uint32_t sessHdl, Orb::Seconds syncGenTime, Orb::Ptr<Keel::TimerWheel> timerWheel,
    Orb::Ptr<MbbEngine::MbbEngineFlushStatus> flushStatus, Orb::Ptr<MountConfig> mountConfig,
    Orb::Ptr<const HwResourceInfo::HwResourceInfoIntf> resourceInfoIntf)
    : TableMgrBase(std::move(tableMountInfoDir), std::move(entityManager), supportedDevices,
                   sessHdl, syncGenTime, std::move(timerWheel), std::move(flushStatus),
                   std::move(mountConfig), std::move(resourceInfoIntf)) {
   handleInitialized();
}

ChipSliceMatAdtSelTableMgrSm::~ChipSliceMatAdtSelTableMgrSm() {
   tablesTakeDown();
}

std::vector<std::uint32_t> ChipSliceMatAdtSelTableMgrSm::chipTables(const Key& key,
                                                                    const MountEntry& entry) {
   return {key.tableId(), entry.adtTableId(), entry.selTableId()};
}

std::vector<std::string> ChipSliceMatAdtSelTableMgrSm::mountedPaths(const MountEntry& entry) {
   std::vector<std::string> paths = {entry.matConfigPath(),    entry.adtConfigPath(),
                                     entry.selGrpConfigPath(), entry.selMbrConfigPath(),
                                     entry.adtStatusPath(),    entry.selGrpStatusPath()};
   if (entry.needStatus())
      paths.insert(paths.end(), {entry.matStatusPath(), entry.selMbrStatusPath()});
   return paths;
}

void ChipSliceMatAdtSelTableMgrSm::auditRegisterAll() {
   for (const auto& [key, sm] : matAdtSelSliceSms()) tableAuditMgrSm()->addMatAdtSelTable(key, sm);
}

std::vector<ChipSliceMatAdtSelTableMgrSm::Key> ChipSliceMatAdtSelTableMgrSm::runningKeys() const {
   std::vector<Key> keys;
   for (const auto& [key, sm] : matAdtSelSliceSms()) keys.push_back(key);
   return keys;
}

// Besides the match table's own checks, the announced action data and selector tables must be
// the chip's parts of this triple, and the triple must be served in the one scope it keeps.
bool ChipSliceMatAdtSelTableMgrSm::fitsChip(const Key& key, const MountEntry& entry) const {
   if (!detail::matTableFits(*resourceInfoIntf_, key, entry.tableSize())) return false;
   const HwResourceInfo::HwResource mat = resourceInfoIntf_->hwResourceByHandle(key.tableId());
   if (mat.adtHandle != entry.adtTableId() || mat.selHandle != entry.selTableId() ||
       mat.adtHandle == 0 || mat.selHandle == 0) {
      DUALLOG(sliceLog, badEntryLevel,
              "skipping " << key.name() << ": adt hdl:0x" << std::hex << entry.adtTableId()
                          << " and sel hdl:0x" << entry.selTableId()
                          << " are not the chip's triple of hdl:0x" << key.tableId());
      FLASHLOG(badEntryLevel, 0u, ":skipping foreign triple:", recordName(key.name()),
               " adt:", FlashLog::hex(entry.adtTableId()),
               " sel:", FlashLog::hex(entry.selTableId()));
      return false;
   }
   if (!key.devTgt().allPipes()) {
      DUALLOG(sliceLog, badEntryLevel,
              "skipping " << key.name() << ": a triple is served on all pipes only, pipe:"
                          << key.devTgt().pipeId);
      FLASHLOG(badEntryLevel, 0u, ":skipping one-pipe triple:", recordName(key.name()),
               " pipe:", key.devTgt().pipeId);
      return false;
   }
   return true;
}

ChipSliceMatAdtSelTableMgrSm::StatusCapacities ChipSliceMatAdtSelTableMgrSm::statusCapacities(
    const Key& key, const MountEntry& entry) const {
   const std::uint32_t adtSize = resourceInfoIntf_->hwResourceByHandle(entry.adtTableId()).size;
   const std::uint32_t selVectors = resourceInfoIntf_->hwResourceByHandle(entry.selTableId()).size;
   const std::uint64_t members =
       std::uint64_t{selVectors} * ChipMbbShared::SelMbrEntryKey::numSubIndices;
   StatusCapacities capacity;
   capacity.mat = resourceInfoIntf_->hwResourceByHandle(key.tableId()).size;
   capacity.adt = adtSize;
   capacity.selGrp = selVectors;
   capacity.selMbr = static_cast<std::uint32_t>(
       std::min<std::uint64_t>(members, std::numeric_limits<std::uint32_t>::max()));
   DUALLOG(sliceLog, decisionLevel,
           "status capacities of " << key.name() << " mat:" << capacity.mat
                                   << " adt:" << capacity.adt << " selGrp:" << capacity.selGrp
                                   << " selMbr:" << capacity.selMbr);
   return capacity;
}

void ChipSliceMatAdtSelTableMgrSm::mountTable(const Key& key, const MountEntry& entry) {
   const std::string& name = key.name();
   const std::uint32_t qtId = detail::mountBegin(name);
   FLASHLOG(decisionLevel, qtId, ":mounting triple adt:", FlashLog::hex(entry.adtTableId()),
            " sel:", FlashLog::hex(entry.selTableId()));

   const StatusCapacities capacity = statusCapacities(key, entry);
   TripleColls colls;
   if (testmode()) {
      colls = testmodeColls(entry, capacity);
   } else if (!detail::mountedOrSkipped(
                  key,
                  [&] {
                     statusPathsCheck(key, entry, [](const MountEntry& e) {
                        std::vector<std::string> paths{e.adtStatusPath(), e.selGrpStatusPath()};
                        if (e.needStatus()) {
                           paths.insert(paths.end(), {e.matStatusPath(), e.selMbrStatusPath()});
                        }
                        return paths;
                     });
                     colls = mountedColls(entry, capacity);
                  },
                  [&](const std::string& reason) { tableSkipped(key, reason); })) {
      return;
   }

   auto helper = Orb::ptrNew<ChipMbbEngineHelper>(
       std::string(), colls.matStatus, colls.adtStatus, colls.selGrpStatus, colls.selMbrStatus,
       sessHdl_, key.tableId(), entry.adtTableId(), entry.selTableId(), entry.tableSize(), false,
       qtId);
   helper->devTgtIs(key.devTgt());

   Orb::Ptr<DebugIntf> debugIntf = debugIs(key);
   debugIntf->debugConfigIs(name);
   debugIntf->debugStatusIs(name);

   auto impl = Orb::ptrNew<MatAdtSelMbbEngineImpl>(
       name, debugIntf->debugConfig(), debugIntf->debugStatus(), helper, qtId, colls.matConfig,
       colls.adtConfig, colls.selGrpConfig, colls.selMbrConfig);

   DUALLOG(sliceLog, decisionLevel, "starting matAdtSliceSm for " << name);
   auto sm = matAdtSelSmFactory(
       debugIntf->debugConfig(), debugIntf->debugStatus(), flushStatus_, timerWheel_.get(),
       colls.matConfig, colls.matStatus, colls.adtConfig, colls.adtStatus, colls.selGrpConfig,
       colls.selGrpStatus, colls.selMbrConfig, colls.selMbrStatus, helper, impl);
   matAdtSelSliceSmIs(key, sm);
   mountInfoIs(key, entry);

   detail::auditTraced(key.tableId(), tableAuditMgrSm() != nullptr);
   if (tableAuditMgrSm()) tableAuditMgrSm()->addMatAdtSelTable(key, sm);
}

ChipSliceMatAdtSelTableMgrSm::TripleColls ChipSliceMatAdtSelTableMgrSm::testmodeColls(
    const MountEntry& entry, const StatusCapacities& capacity) const {
   DUALLOG(sliceLog, decisionLevel, "mounting vault in test mode");
   TripleColls colls;
   colls.matConfig = Vault::MbbEngine::tableConfigFactory(entry.matConfigPath());
   colls.adtConfig = ChipMbbShared::adtTableConfigFactory(entry.adtConfigPath());
   colls.selGrpConfig = ChipMbbShared::selGrpTableConfigFactory(entry.selGrpConfigPath());
   colls.selMbrConfig = ChipMbbShared::selMbrTableConfigFactory(entry.selMbrConfigPath());
   colls.matConfig->mountedIs(true);
   colls.adtConfig->mountedIs(true);
   colls.selGrpConfig->mountedIs(true);
   colls.selMbrConfig->mountedIs(true);
   if (entry.needStatus()) {
      colls.matStatus = testmodeStatus(entry.matStatusPath(), capacity.mat);
      colls.selMbrStatus = testmodeStatus(entry.selMbrStatusPath(), capacity.selMbr);
   }
   colls.adtStatus = testmodeStatus(entry.adtStatusPath(), capacity.adt);
   colls.selGrpStatus = testmodeStatus(entry.selGrpStatusPath(), capacity.selGrp);
   return colls;
}

ChipSliceMatAdtSelTableMgrSm::TripleColls ChipSliceMatAdtSelTableMgrSm::mountedColls(
    const MountEntry& entry, const StatusCapacities& capacity) {
   using ChipMbbShared::AdtTableConfig;
   using ChipMbbShared::SelGrpTableConfig;
   using ChipMbbShared::SelMbrTableConfig;
   using Vault::MbbEngine::TableConfig;
   const auto reader = Atlas::MountMode::reader;
   MountRollback rollback(*entityManager_);
   auto group = entityManager_->mountGroupNew();
   for (const auto& [path, type] :
        {std::pair{&entry.matConfigPath(), TableConfig::vaultTypeName},
         {&entry.adtConfigPath(), AdtTableConfig::vaultTypeName},
         {&entry.selGrpConfigPath(), SelGrpTableConfig::vaultTypeName},
         {&entry.selMbrConfigPath(), SelMbrTableConfig::vaultTypeName}}) {
      rollback.mounting(*path);
      group->mount(*path, std::string(type), reader);
   }
   group->close();
   TripleColls colls;
   colls.matConfig = entityManager_->entity<TableConfig>(entry.matConfigPath());
   colls.adtConfig = entityManager_->entity<AdtTableConfig>(entry.adtConfigPath());
   colls.selGrpConfig = entityManager_->entity<SelGrpTableConfig>(entry.selGrpConfigPath());
   colls.selMbrConfig = entityManager_->entity<SelMbrTableConfig>(entry.selMbrConfigPath());
   auto status = [&](const std::string& path, std::uint32_t cap) {
      rollback.mounting(path);
      return entityManager_->mount<TableStatus>(path, Atlas::MountMode::writer, cap);
   };
   if (entry.needStatus()) {
      colls.matStatus = status(entry.matStatusPath(), capacity.mat);
      colls.selMbrStatus = status(entry.selMbrStatusPath(), capacity.selMbr);
   }
   colls.adtStatus = status(entry.adtStatusPath(), capacity.adt);
   colls.selGrpStatus = status(entry.selGrpStatusPath(), capacity.selGrp);
   rollback.done();
   return colls;
}

void ChipSliceMatAdtSelTableMgrSm::unmountTable(const Key& key) {
   if (!unmountBegins(key, matAdtSelSliceSm(key)->mbbEngineImpl()->qtId())) return;
   tableTakeDown(key);
}

void ChipSliceMatAdtSelTableMgrSm::tableTakeDown(const Key& key) {
   const MountEntry entry = mountInfo(key);
   matAdtSelSliceSmDel(key);
   for (const std::string& path : mountedPaths(entry)) entityManager_->unmount(path);
   chipTablesRelease(key, entry);
   mountInfoDel(key);
   debugDel(key);
   if (tableAuditMgrSm()) tableAuditMgrSm()->delMatAdtSelTable(key);
}

}  // namespace ChipMbbSlice
