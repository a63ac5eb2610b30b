#include "ChipMbbSliceTableMgr/ChipSliceTableWatcherSm.h"

#include "Brio/Brio.h"
#include "ChipMbbSlice/TraceSetup.h"
#include "ChipMbbSliceTableMgr/detail/MgrTrace.h"
#include "Orb/TypeRegistry.h"

namespace ChipMbbSlice {

namespace {

constexpr std::string_view watcherType = ChipSliceTableWatcherSm::orbTypeName;

using detail::decisionLevel;
using detail::handlerLevel;

}  // namespace

ChipSliceTableWatcherSm::ChipSliceTableWatcherSm(
    Orb::Ptr<Orb::Dir> tableInfoDir, Orb::Ptr<Atlas::EntityManager> entityManager,
    std::uint32_t supportedDevices, std::uint32_t sessHdl, Orb::Seconds syncGenTime,
    Orb::Ptr<const HwResourceInfo::HwResourceInfoIntf> resourceInfoIntf,
    std::shared_ptr<const HwPd::HwPdIntf> hwPdIntf,
    Orb::Ptr<MbbEngine::MbbEngineFlushStatus> flushStatus, Orb::Ptr<MountConfig> mountConfig)
    : Entity(tableInfoDir ? tableInfoDir->name() : std::string()),
      tableInfoDir_(std::move(tableInfoDir)),
      entityManager_(std::move(entityManager)),
      supportedDevices_(supportedDevices),
      sessHdl_(sessHdl),
      syncGenTime_(syncGenTime),
      resourceInfoIntf_(std::move(resourceInfoIntf)),
      hwPdIntf_(std::move(hwPdIntf)),
      flushStatus_(std::move(flushStatus)),
      mountConfig_(std::move(mountConfig)),
      dirReactor_(this) {
   if (!tableInfoDir_) Orb::throwNullParameter("tableInfoDir", watcherType);
   if (!resourceInfoIntf_) Orb::throwNullParameter("resourceInfoIntf", watcherType);
   if (!hwPdIntf_) Orb::throwNullParameter("hwPdIntf", watcherType);
   if (!flushStatus_) Orb::throwNullParameter("flushStatus", watcherType);
   if (!mountConfig_) Orb::throwNullParameter("mountConfig", watcherType);
   dirReactor_.notifierIs(tableInfoDir_.get());
   handleInitialized();
}

// The managers go before the audit and the wheel they use, in reverse order of declaration.
ChipSliceTableWatcherSm::~ChipSliceTableWatcherSm() = default;

void ChipSliceTableWatcherSm::cliCallbackIs(
    const std::string& name, const std::string& agentName, const CliTableDir* watcher,
    Orb::Ptr<const HwResourceInfo::HwResourceInfoIntf> resourceInfoIntf,
    std::shared_ptr<const HwPd::HwPdIntf> hwPdIntf) {
   cliCallback_ = Orb::ptrNew<CliCallback>(name, agentName, watcher, std::move(resourceInfoIntf),
                                           std::move(hwPdIntf), sessHdl_, nullptr);
   notify(&Notifiee::onCliCallback);
}

void ChipSliceTableWatcherSm::timerWheelIs(Orb::Ptr<Orb::TimeSource> clock, unsigned tickMsecs,
                                           std::size_t initialMaxTicks, bool preserveOrder,
                                           std::size_t defaultBucketSize) {
   timerWheel_ = Orb::ptrNew<Keel::TimerWheel>(std::move(clock), tickMsecs, initialMaxTicks,
                                               preserveOrder, defaultBucketSize);
   if (cliCallback_) {
      cliClock_ = Orb::ptrNew<Keel::WheelClock>(timerWheel_.get());
      cliCallback_->cliYieldSmIs(cliClock_, cliCallback_.get());
   }
   notify(&Notifiee::onTimerWheel);
}

void ChipSliceTableWatcherSm::tableAuditMgrSmIs(Keel::TimerWheel* timerWheel, std::uint32_t sessHdl,
                                                std::shared_ptr<const HwPd::HwPdIntf> hwPdIntf) {
   tableAuditMgrSm_ = TableAuditMgrSmIs(timerWheel, sessHdl, std::move(hwPdIntf));
   notify(&Notifiee::onTableAuditMgrSm);
}

void ChipSliceTableWatcherSm::initializedIs(bool initialized) {
   if (initialized == initialized_) return;
   initialized_ = initialized;
   notify(&Notifiee::onInitialized);
}

Orb::Ptr<ChipSliceTableMgrSm> ChipSliceTableWatcherSm::tableMgr(const std::string& name) const {
   auto it = tableMgr_.find(name);
   return it == tableMgr_.end() ? nullptr : it->second;
}

Orb::Ptr<ChipSliceMatAdtSelTableMgrSm> ChipSliceTableWatcherSm::matAdtSelTableMgr(
    const std::string& name) const {
   auto it = matAdtSelTableMgr_.find(name);
   return it == matAdtSelTableMgr_.end() ? nullptr : it->second;
}

void ChipSliceTableWatcherSm::handleInitialized() {
   initQt();
   DUALLOG(sliceLog, handlerLevel,
           "handleInitialized"
               << " syncGenTime: " << syncGenTime_);
   FLASHLOG(handlerLevel, 0u, ":syncGenTime:", syncGenTime_);
   cliCallbackIs("ChipMbbSlice", "ChipMbbSliceCli", this, resourceInfoIntf_, hwPdIntf_);
   timerWheelIs(Orb::activityTimeSource(), 1, 600000, true, 1024);
   tableAuditMgrSmIs(timerWheel_.get(), sessHdl_, hwPdIntf_);
   initializedIs(true);
   handleTableInfoDir();
}

void ChipSliceTableWatcherSm::handleTableInfoDir() {
   DUALLOG(sliceLog, handlerLevel, "handleTableInfoDir");
   if (!initialized_) return;
   for (const auto& [name, entity] : tableInfoDir_->entities()) handleTableInfoDir(name);
}

void ChipSliceTableWatcherSm::handleTableInfoDir(const std::string& name) {
   DUALLOG(sliceLog, handlerLevel,
           "handleTableInfoDir"
               << " " << name);
   if (!initialized_) return;
   const Orb::Ptr<Orb::Object> entity = tableInfoDir_->entity(name);
   if (!entity) {
      if (tableMgr_.contains(name)) tableMgrDel(name);
      return;
   }
   DUALLOG(sliceLog, decisionLevel,
           "handleTableInfoDir"
               << " adding " << name);
   if (auto info = std::dynamic_pointer_cast<ChipMbbShared::TableConfigMountInfo>(entity)) {
      tableMgrIs(name, std::move(info));
   } else if (auto triples =
                  std::dynamic_pointer_cast<ChipMbbShared::MatAdtSelTableConfigMountInfo>(entity)) {
      matAdtSelTableMgrIs(name, std::move(triples));
   } else {
      Brio::assertFailed("false && \"Unexpected type in dir\"", __FILE__, __LINE__);
   }
}

// A manager being replaced goes first: its engines take their entries out of hardware, and
// its successor, which may mount the very same collections, must not find them still in use.
void ChipSliceTableWatcherSm::tableMgrIs(const std::string& name,
                                         Orb::Ptr<ChipMbbShared::TableConfigMountInfo> info) {
   tableMgr_.erase(name);
   auto mgr = Orb::ptrNew<ChipSliceTableMgrSm>(std::move(info), entityManager_, supportedDevices_,
                                               sessHdl_, syncGenTime_, timerWheel_, flushStatus_,
                                               mountConfig_, resourceInfoIntf_);
   tableMgr_[name] = mgr;
   mgr->tableAuditMgrSmIs(tableAuditMgrSm_);
   notify(&Notifiee::onTableMgr, name);
}

void ChipSliceTableWatcherSm::matAdtSelTableMgrIs(
    const std::string& name, Orb::Ptr<ChipMbbShared::MatAdtSelTableConfigMountInfo> info) {
   matAdtSelTableMgr_.erase(name);
   auto mgr = Orb::ptrNew<ChipSliceMatAdtSelTableMgrSm>(
       std::move(info), entityManager_, supportedDevices_, sessHdl_, syncGenTime_, timerWheel_,
       flushStatus_, mountConfig_, resourceInfoIntf_);
   matAdtSelTableMgr_[name] = mgr;
   mgr->tableAuditMgrSmIs(tableAuditMgrSm_);
   notify(&Notifiee::onMatAdtSelTableMgr, name);
}

void ChipSliceTableWatcherSm::tableMgrDel(const std::string& name) {
   DUALLOG(sliceLog, decisionLevel,
           "handleTableInfoDir"
               << " removing " << name);
   tableMgr_.erase(name);
   notify(&Notifiee::onTableMgr, name);
}

}  // namespace ChipMbbSlice
