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

constexpr std::string_view mgrType = ChipSliceTableMgrSm::orbTypeName;

// Trace levels of the manager: 3 published entries that cannot be served, 5 decisions,
// 8 handler entry.
constexpr unsigned badEntryLevel = 3;
constexpr unsigned decisionLevel = 5;
constexpr unsigned handlerLevel = 8;

// Ring-buffer records carry the table's trace id (0 before it has one), then a label starting
// with ':', then the table name without its first 11 characters: published names share that
// prefix, and the record's string length is scarce.
std::string_view recordName(const std::string& name) {
   return std::string_view(name).substr(std::min<std::size_t>(11, name.size()));
}

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
    : Entity(tableMountInfoDir ? tableMountInfoDir->name() : std::string()),
      tableMountInfoDir_(std::move(tableMountInfoDir)),
      entityManager_(std::move(entityManager)),
      supportedDevices_(supportedDevices),
      sessHdl_(sessHdl),
      syncGenTime_(syncGenTime),
      timerWheel_(std::move(timerWheel)),
      flushStatus_(std::move(flushStatus)),
      mountConfig_(std::move(mountConfig)),
      resourceInfoIntf_(std::move(resourceInfoIntf)),
      mountInfoReactor_(this),
      mountConfigReactor_(this) {
   if (!tableMountInfoDir_) Orb::throwNullParameter("tableMountInfoDir", mgrType);
   if (!timerWheel_) Orb::throwNullParameter("timerWheel", mgrType);
   if (!flushStatus_) Orb::throwNullParameter("flushStatus", mgrType);
   if (!mountConfig_) Orb::throwNullParameter("mountConfig", mgrType);
   if (!resourceInfoIntf_) Orb::throwNullParameter("resourceInfoIntf", mgrType);
   mountInfoReactor_.notifierIs(tableMountInfoDir_.get());
   mountConfigReactor_.notifierIs(mountConfig_.get());
   handleInitialized();
}

// Tables are not unmounted here: whoever drops the manager drops the agent's state with it.
ChipSliceTableMgrSm::~ChipSliceTableMgrSm() = default;

Orb::Ptr<DebugIntf> ChipSliceTableMgrSm::debugIs(const Key& key) {
   if (!debug_.has(key)) debug_.is(key, Orb::ptrNew<DebugIntf>(key), notifier(&Notifiee::onDebug));
   return debug_(key);
}

void ChipSliceTableMgrSm::handleInitialized() {
   initQt();
   findMaxPublishedInstanceId();
   initializedIs(true);
   handleTableMount();
}

void ChipSliceTableMgrSm::findMaxPublishedInstanceId() {
   for (const auto& [key, entry] : *tableMountInfoDir_) {
      if (maxPublishedInstanceId() < entry.instanceId())
         maxPublishedInstanceIdIs(entry.instanceId());
   }
}

void ChipSliceTableMgrSm::handleTableMount() {
   DUALLOG(sliceLog, handlerLevel,
           "ChipSliceTableMgrSm::"
               << "handleTableMount");
   if (!initialized()) return;
   for (const auto& [key, entry] : *tableMountInfoDir_) handleTableMount(key);
}

void ChipSliceTableMgrSm::handleMountInfoResync() {
   handleTableMount();
   if (!initialized()) return;
   std::vector<Key> running;
   for (const auto& [key, engine] : mbbEngineSms()) running.push_back(key);
   for (const Key& key : running) {
      if (!tableMountInfoDir_->present(key)) handleTableMount(key);
   }
}

void ChipSliceTableMgrSm::handleMountConfig() {
   DUALLOG(sliceLog, handlerLevel,
           "handleMountConfig"
               << " mountConfig()->mode() = " << stringValue(mountConfig_->mode()));
   handleTableMount();
}

void ChipSliceTableMgrSm::handleTableAuditMgrSm() {
   if (!tableAuditMgrSm()) return;
   for (const auto& [key, engine] : mbbEngineSms()) tableAuditMgrSm()->addTable(key, engine);
}

void ChipSliceTableMgrSm::handleTableMount(const Key& key) {
   DUALLOG(sliceLog, handlerLevel,
           "ChipSliceTableMgrSm::"
               << "handleTableMount " << key);
   if (!initialized()) return;
   // The text operators know this failure by; the device target keeps its id as a field.
   if (key.devTgt().devId >= ChipId::numDevIds) {
      Brio::assertFailed("key.devTgt().devId() < 32", __FILE__, __LINE__);
   }
   if (!(supportedDevices_ & (std::uint32_t{1} << key.devTgt().devId))) {
      DUALLOG(sliceLog, decisionLevel, "unsupported devId: " << unsigned(key.devTgt().devId));
      return;
   }
   const MountEntry entry = tableMountInfoDir_->entry(key);
   if (entry == MountEntry()) {
      if (mbbEngineSm(key)) unmountTable(key);
      return;
   }
   if (!currentAnnouncement(key, entry)) return;
   if (!fitsChip(key, entry)) return;
   mountTable(key, entry);
}

// Whether a published entry is one to mount now: from the newest publisher instance, of the
// generation this agent synchronises to, not running yet and enabled by the mount mode. A
// newer instance retires every running engine first.
bool ChipSliceTableMgrSm::currentAnnouncement(const Key& key, const MountEntry& entry) {
   const std::string& name = key.name();
   if (maxPublishedInstanceId() > entry.instanceId()) {
      FLASHLOG(decisionLevel, 0u, ":skipping stale instanceId:", recordName(name),
               " id:", entry.instanceId(), " maxId:", maxPublishedInstanceId());
      return false;
   }
   if (maxPublishedInstanceId() < entry.instanceId()) {
      mbbEngineSmDelAll();
      maxPublishedInstanceIdIs(entry.instanceId());
   }
   if (syncGenTime_ != entry.statusGenTime()) {
      DUALLOG(sliceLog, decisionLevel,
              "ignoring " << name << " syncGenTime: " << syncGenTime_
                          << " statusGenTime: " << entry.statusGenTime());
      FLASHLOG(decisionLevel, 0u, ":skipping stale status:", recordName(name),
               " statusGenTime:", entry.statusGenTime(), " syncGenTime:", syncGenTime_);
      return false;
   }
   if (syncGenTime_ != entry.configGenTime()) {
      DUALLOG(sliceLog, decisionLevel,
              "ignoring " << name << " global: " << entry.global() << " syncGenTime: "
                          << syncGenTime_ << " configGenTime: " << entry.configGenTime());
      FLASHLOG(decisionLevel, 0u, ":skipping: ", recordName(name), " global: ", entry.global(),
               " configGenTime:", entry.configGenTime(), " syncGenTime:", syncGenTime_);
      return false;
   }
   if (mbbEngineSm(key)) {
      DUALLOG(sliceLog, decisionLevel,
              "handleTableMount"
                  << " ignoring existing " << name);
      FLASHLOG(decisionLevel, 0u, ":skipping existing:", recordName(name));
      return false;
   }
   if (!entry.needStatus() && mountConfig_->mode() == MountMode::mountStatusTablesOnly) {
      DUALLOG(sliceLog, decisionLevel,
              "handleTableMount"
                  << " ignoring disabled: " << name);
      FLASHLOG(decisionLevel, 0u, ":skipping disabled:", recordName(name));
      return false;
   }
   return true;
}

// A published size the chip cannot hold, or a handle that is no match table of the chip, is
// the publisher's mistake: the table is left out, the others go on.
bool ChipSliceTableMgrSm::fitsChip(const Key& key, const MountEntry& entry) const {
   const HwResourceInfo::HwResource table = resourceInfoIntf_->hwResourceByHandle(key.tableId());
   if (!table.known() || table.kind != ChipSdk::TableKind::mat) {
      DUALLOG(sliceLog, badEntryLevel,
              "skipping " << key.name() << ": no match table with hdl:0x" << std::hex
                          << key.tableId() << " on the chip");
      FLASHLOG(badEntryLevel, 0u, ":skipping unknown table:", recordName(key.name()),
               " hdl:", FlashLog::hex(key.tableId()));
      return false;
   }
   if (entry.tableSize() == 0 || entry.tableSize() > table.size) {
      DUALLOG(sliceLog, badEntryLevel,
              "skipping " << key.name() << ": tableSize " << entry.tableSize()
                          << " does not fit the chip's " << table.size);
      FLASHLOG(badEntryLevel, 0u, ":skipping bad size:", recordName(key.name()),
               " tableSize:", entry.tableSize(), " chipSize:", table.size);
      return false;
   }
   return true;
}

void ChipSliceTableMgrSm::mountTable(const Key& key, const MountEntry& entry) {
   const std::string& name = key.name();
   DUALLOG(sliceLog, decisionLevel, "mounting table for read " << name);
   const std::uint32_t qtId = getNextQtId();
   FLASHLOG(decisionLevel, qtId, ":mounting table:", recordName(name));

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

   if (tableAuditMgrSm()) {
      DUALLOG(sliceLog, decisionLevel,
              "adding table to audit manager for table hdl:0x" << std::hex << key.tableId());
      tableAuditMgrSm()->addTable(key, engine);
   } else {
      DUALLOG(
          sliceLog, decisionLevel,
          "no audit manager, skipping audit for table with hdl:0x" << std::hex << key.tableId());
   }
}

// Paths that are not published, or hold another kind of table, leave the table out.
bool ChipSliceTableMgrSm::mountColls(const Key& key, const MountEntry& entry, TableColls& colls) {
   if (testmode()) {
      colls = testmodeColls(entry);
      return true;
   }
   try {
      colls = mountedColls(entry);
      return true;
   } catch (const Vault::MountException& e) {
      DUALLOG(sliceLog, badEntryLevel, "skipping " << key.name() << ": " << e.what());
   } catch (const Brio::CorruptionDetectedException& e) {
      DUALLOG(sliceLog, badEntryLevel, "skipping " << key.name() << ": " << e.what());
   }
   FLASHLOG(badEntryLevel, 0u, ":skipping unmountable:", recordName(key.name()));
   return false;
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
   const std::string& name = key.name();
   DUALLOG(sliceLog, decisionLevel, "unmounting table " << name);
   FLASHLOG(decisionLevel, mbbEngineSm(key)->mbbEngineImpl()->qtId(), ":unmounting ",
            recordName(name));
   BRIO_ASSERT(allowUnmount() && "unmount is not supported");
   if (testmode()) {
      DUALLOG(sliceLog, decisionLevel, "No unmounting support in testmode");
      return;
   }
   const MountEntry entry = mountInfo(key);
   mbbEngineSmDel(key);
   entityManager_->unmount(entry.configPath());
   if (entry.needStatus()) entityManager_->unmount(entry.statusPath());
   tableScopeDel(key.tableId());
   mountInfoDel(key);
   debugDel(key);
   if (tableAuditMgrSm()) tableAuditMgrSm()->delTable(key);
}

}  // namespace ChipMbbSlice
