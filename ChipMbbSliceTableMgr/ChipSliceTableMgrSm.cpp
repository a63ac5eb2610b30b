#include "ChipMbbSliceTableMgr/ChipSliceTableMgrSm.h"

#include <algorithm>
#include <bit>
#include <exception>
#include <vector>

#include "Brio/Brio.h"
#include "ChipMbbSlice/ChipMbbEngineHelper.h"
#include "ChipMbbSlice/TraceSetup.h"
#include "ChipSdk/OpKind.h"
#include "ChipSdk/PlcmtApi.h"
#include "HwPd/ChipId.h"
#include "MbbEngine/FastMbbEngineAtcamImpl.h"
#include "MbbEngine/FastMbbEngineImpl.h"
#include "Orb/TypeRegistry.h"
#include "Vault/Errors.h"

namespace ChipMbbSlice {

namespace {

using detail::decisionLevel;

// The value of the SDK's entry-scope property for a table on `devTgt`.
struct TblPropertyValue {
   std::uint32_t property = PIPE_MGR_TBL_PROP_ENTRY_SCOPE;
   std::uint8_t scope = PIPE_MGR_ENTRY_SCOPE_ALL_PIPELINES;
};

TblPropertyValue entryScopeOf(const ChipDriver::ChipDevTgt& devTgt) {
   TblPropertyValue propVal;
   if (!devTgt.allPipes()) propVal.scope = PIPE_MGR_ENTRY_SCOPE_SINGLE_PIPELINE;
   return propVal;
}

}  // namespace

ChipSliceTableMgrSm::ChipSliceTableMgrSm(
    Orb::Ptr<ChipMbbShared::TableConfigMountInfo> tableMountInfoDir,
    Orb::Ptr<Atlas::EntityManager> entityManager, std::uint32_t supportedDevices,
    std::uint32_t sessHdl, Orb::Seconds syncGenTime, Orb::Ptr<Keel::TimerWheel> timerWheel,
    Orb::Ptr<MbbEngine::MbbEngineFlushStatus> flushStatus, Orb::Ptr<MountConfig> mountConfig,
    Orb::Ptr<const HwResourceInfo::HwResourceInfoIntf> resourceInfoIntf)
    : TableMgrBase(std::move(tableMountInfoDir), std::move(entityManager), supportedDevices,
                   sessHdl, syncGenTime, std::move(timerWheel), std::move(flushStatus),
                   std::move(mountConfig), std::move(resourceInfoIntf)) {
   handleInitialized();
}

ChipSliceTableMgrSm::~ChipSliceTableMgrSm() {
   tablesTakeDown();
}

std::vector<std::uint32_t> ChipSliceTableMgrSm::chipTables(const Key& key, const MountEntry&) {
   return {key.tableId()};
}

std::vector<std::string> ChipSliceTableMgrSm::mountedPaths(const MountEntry& entry) {
   if (!entry.needStatus()) return {entry.configPath()};
   return {entry.configPath(), entry.statusPath()};
}

std::vector<ChipSliceTableMgrSm::Key> ChipSliceTableMgrSm::runningKeys() const {
   std::vector<Key> keys;
   for (const auto& [key, engine] : mbbEngineSms()) keys.push_back(key);
   return keys;
}

void ChipSliceTableMgrSm::auditRegisterAll() {
   for (const auto& [key, engine] : mbbEngineSms()) tableAuditMgrSm()->addTable(key, engine);
}

bool ChipSliceTableMgrSm::fitsChip(const Key& key, const MountEntry& entry) const {
   return detail::matTableFits(*resourceInfoIntf_, key, entry.tableSize());
}

void ChipSliceTableMgrSm::mountTable(const Key& key, const MountEntry& entry) {
   const std::string& name = key.name();
   const std::uint32_t qtId = detail::mountBegin(name);

   TableColls colls;
   if (!mountColls(key, entry, colls)) return;
   entryScopeIs(key);

   auto helper = Orb::ptrNew<ChipMbbEngineHelper>(std::string(), colls.status, nullptr, nullptr,
                                                  nullptr, sessHdl_, key.tableId(), 0, 0,
                                                  entry.tableSize(), false, qtId);
   helper->devTgtIs(key.devTgt());

   Orb::Ptr<DebugIntf> debugIntf = debugIs(key);
   debugIntf->debugConfigIs(name);
   debugIntf->debugStatusIs(name);

   Orb::Ptr<MbbEngine::MbbEngineImpl> impl =
       mbbEngineImplNew(key, entry, colls, debugIntf, helper, qtId);

   DUALLOG(sliceLog, decisionLevel, "starting mbbenginesm for " << name);
   auto engine = Orb::ptrNew<MbbEngine::MbbEngineSm>(
       colls.config, colls.status, debugIntf->debugConfig(), debugIntf->debugStatus(), impl,
       flushStatus_, timerWheel_.get());
   mbbEngineSmIs(key, engine);
   mountInfoIs(key, entry);

   detail::auditTraced(key.tableId(), tableAuditMgrSm() != nullptr);
   if (tableAuditMgrSm()) tableAuditMgrSm()->addTable(key, engine);
}

bool ChipSliceTableMgrSm::mountColls(const Key& key, const MountEntry& entry, TableColls& colls) {
   if (testmode()) {
      colls = testmodeColls(entry);
      return true;
   }
   return detail::mountedOrSkipped(
       key,
       [&] {
          statusPathsCheck(key, entry, [](const MountEntry& e) {
             return e.needStatus() ? std::vector{e.statusPath()} : std::vector<std::string>();
          });
          colls = mountedColls(entry);
       },
       [&](const std::string& reason) { tableSkipped(key, reason); });
}

ChipSliceTableMgrSm::TableColls ChipSliceTableMgrSm::testmodeColls(const MountEntry& entry) const {
   DUALLOG(sliceLog, decisionLevel, "mounting vault in test mode");
   TableColls colls;
   colls.config = Vault::MbbEngine::tableConfigFactory(entry.configPath());
   colls.config->mountedIs(true);
   if (entry.needStatus()) {
      colls.status = Vault::MbbEngine::tableStatusFactory(entry.statusPath(),
                                                          Vault::MapDescriptor{entry.tableSize()});
      colls.status->mountedIs(true);
   }
   return colls;
}

ChipSliceTableMgrSm::TableColls ChipSliceTableMgrSm::mountedColls(const MountEntry& entry) {
   using Vault::MbbEngine::TableConfig;
   using Vault::MbbEngine::TableStatus;
   const bool configWasMounted = entityManager_->entity(entry.configPath()) != nullptr;
   auto group = entityManager_->mountGroupNew();
   group->mount(entry.configPath(), std::string(TableConfig::vaultTypeName),
                Atlas::MountMode::reader);
   group->close();
   TableColls colls;
   colls.config = entityManager_->entity<TableConfig>(entry.configPath());
   // Entries beyond the table's size could never be placed; they would wait for ever.
   if (colls.config->capacity() > entry.tableSize()) {
      if (!configWasMounted) entityManager_->unmount(entry.configPath());
      throw Vault::MountException(
          entry.configPath() + " has room for " + std::to_string(colls.config->capacity()) +
          " entries, more than the " + std::to_string(entry.tableSize()) + " of the table");
   }
   if (!entry.needStatus()) return colls;
   try {
      colls.status = entityManager_->mount<TableStatus>(
          entry.statusPath(), Atlas::MountMode::writer, entry.tableSize());
   } catch (...) {
      if (!configWasMounted) entityManager_->unmount(entry.configPath());
      throw;
   }
   return colls;
}

// The scope is a property of the table id, set once before its first entry; every key that
// shares the id must agree with it.
void ChipSliceTableMgrSm::entryScopeIs(const Key& key) {
   const TblPropertyValue propVal = entryScopeOf(key.devTgt());
   if (tableScopeHas(key.tableId())) {
      // clang-format off
      BRIO_ASSERT(tableScope( key.tableId() ) == propVal.scope);
      // clang-format on
      return;
   }
   const bf_status_t ps = pipe_mgr_tbl_set_property(sessHdl_, key.devTgt().devId, key.tableId(),
                                                    propVal.property, propVal.scope, 0);
   BRIO_ASSERT(ps == 0);
   tableScopeIs(key.tableId(), propVal.scope);
}

Orb::Ptr<MbbEngine::MbbEngineImpl> ChipSliceTableMgrSm::mbbEngineImplNew(
    const Key& key, const MountEntry& entry, const TableColls& colls,
    const Orb::Ptr<DebugIntf>& debugIntf, const Orb::Ptr<MbbEngine::MbbEngineHelper>& helper,
    std::uint32_t qtId) {
   if (entry.maxPartitions() == 0) {
      return Orb::ptrNew<MbbEngine::FastMbbEngineImpl>(key.name(), colls.config,
                                                       debugIntf->debugConfig(),
                                                       debugIntf->debugStatus(), helper, qtId);
   }
   const int partitionBits = std::bit_width(entry.maxPartitions() - 1);
   BRIO_ASSERT(partitionBits <= 16);
   DUALLOG(sliceLog, decisionLevel,
           "starting atcam partitionBits:" << partitionBits
                                           << " maxPartitions:" << entry.maxPartitions());
   return Orb::ptrNew<MbbEngine::FastMbbEngineAtcamImpl>(
       key.name(), colls.config, debugIntf->debugConfig(), debugIntf->debugStatus(), helper, qtId,
       entry.maxPartitions());
}

void ChipSliceTableMgrSm::unmountTable(const Key& key) {
   if (!unmountBegins(key, mbbEngineSm(key)->mbbEngineImpl()->qtId())) return;
   tableTakeDown(key);
}

void ChipSliceTableMgrSm::tableTakeDown(const Key& key) {
   const MountEntry entry = mountInfo(key);
   mbbEngineSmDel(key);
   for (const std::string& path : mountedPaths(entry)) entityManager_->unmount(path);
   chipTablesRelease(key, entry);
   tableScopeDel(key.tableId());
   mountInfoDel(key);
   debugDel(key);
   if (tableAuditMgrSm()) tableAuditMgrSm()->delTable(key);
}

}  // namespace ChipMbbSlice
