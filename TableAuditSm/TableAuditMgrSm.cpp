#include "TableAuditSm/TableAuditMgrSm.h"

#include <string>

#include "Brio/Brio.h"
#include "ChipSdk/SdkImpl.h"
#include "TableAuditSm/detail/AuditTrace.h"

namespace ChipMbbSlice {

using ChipMbbShared::TableConfigMountKey;

TableAuditMgrSm::TableAuditMgrSm(Keel::TimerWheel* timerWheel, std::uint32_t sessHdl,
                                 std::shared_ptr<const HwPd::HwPdIntf> hwPdIntf)
    : timerWheel_(timerWheel),
      sessHdl_(sessHdl),
      hwPdIntf_(std::move(hwPdIntf)),
      auditTimer_(this, timerWheel),
      continueTimer_(this, timerWheel) {
   handleInitialized();
}

TableAuditMgrSm::~TableAuditMgrSm() = default;

void TableAuditMgrSm::handleInitialized() {
   if (initialized_) return;
   initBt();
   AUDIT_TRACE(entryLevel, "void ChipMbbSlice::TableAuditMgrSm::handleInitialized()",
               "handleInitialized");
   configInstance_ = Orb::ptrNew<AuditInstance>();
   auditState_ = AuditState::idle;
   auditPolicy_ = Orb::ptrNew<AuditPolicy>();
   if (ChipSdk::inSimulation()) auditPolicy_->auditHardwareIs(false);
   // The hardware comparison stays off whoever drives the chip; an operator who wants it sets
   // the policy afterwards.
   auditPolicy_->auditHardwareIs(false);
   failedAuditStatus_ = Orb::ptrNew<FailedAuditStatus>();
   initialized_ = true;
   if (auditTimer_.timerWheel()) handleAuditTimer();
}

Orb::Ptr<TableAuditSm> TableAuditMgrSm::tableAuditSm(const TableConfigMountKey& key) const {
   auto it = tableAuditSm_.find(key);
   return it == tableAuditSm_.end() ? nullptr : it->second;
}

void TableAuditMgrSm::tableAuditSmIs(const TableConfigMountKey& key, Orb::Ptr<TableAuditSm> sm) {
   if (!sm) {
      throw Brio::RangeException(
          "null _tableAuditSm parameter to mutator for "
          "ChipMbbSlice::TableAuditMgrSm::tableAuditSm not allowed\\\"");
   }
   tableAuditSm_[key] = std::move(sm);
}

void TableAuditMgrSm::tableAuditSmDel(const TableConfigMountKey& key) {
   auto it = tableAuditSm_.find(key);
   if (it == tableAuditSm_.end()) return;
   // Out of the collection before it goes, so that nothing finds it half destroyed.
   Orb::Ptr<TableAuditSm> gone = std::move(it->second);
   tableAuditSm_.erase(it);
}

void TableAuditMgrSm::auditIntervalIs(Orb::Seconds v) {
   auditInterval_ = v;
   if (auditTimer_.armed()) auditTimer_.timeMinIs(timerWheel_->now() + auditInterval_);
}

void TableAuditMgrSm::addTable(const TableConfigMountKey& key,
                               const Orb::WeakPtr<MbbEngine::MbbEngineSm>& engine) {
   AUDIT_TRACE(entryLevel,
               "void ChipMbbSlice::TableAuditMgrSm::addTable(const "
               "ChipMbbShared::TableConfigMountKey&, const Ptr&) "
                   << key,
               "addTable tbl:", FlashLog::hex(key.tableId()));
   if (!initialized_) return;
   tableAuditSmIs(key, TableAuditSmIs(engine, configInstance_, sessHdl_, failedAuditStatus_,
                                      auditPolicy_, hwPdIntf_, key));
}

void TableAuditMgrSm::delTable(const TableConfigMountKey& key) {
   AUDIT_TRACE(entryLevel,
               "void ChipMbbSlice::TableAuditMgrSm::delTable(const "
               "ChipMbbShared::TableConfigMountKey&) "
                   << key,
               "delTable tbl:", FlashLog::hex(key.tableId()));
   if (!initialized_) return;
   tableAuditSmDel(key);
}

void TableAuditMgrSm::addMatAdtSelTable(const TableConfigMountKey& key,
                                        const Orb::WeakPtr<MatAdtSelSm>& sm) {
   AUDIT_TRACE(entryLevel,
               "void ChipMbbSlice::TableAuditMgrSm::addMatAdtSelTable(const "
               "ChipMbbShared::TableConfigMountKey&, const Ptr&) "
                   << key,
               "addMatAdtSelTable tbl:", FlashLog::hex(key.tableId()));
   if (!initialized_) return;
   tableAuditSmIs(key, MatAdtSelTableAuditSmIs(configInstance_, sessHdl_, failedAuditStatus_,
                                               auditPolicy_, hwPdIntf_, key, sm));
}

void TableAuditMgrSm::delMatAdtSelTable(const TableConfigMountKey& key) {
   AUDIT_TRACE(entryLevel,
               "void ChipMbbSlice::TableAuditMgrSm::delMatAdtSelTable(const "
               "ChipMbbShared::TableConfigMountKey&) "
                   << key,
               "delMatAdtSelTable tbl:", FlashLog::hex(key.tableId()));
   if (!initialized_) return;
   tableAuditSmDel(key);
}

void TableAuditMgrSm::handleAuditTimer() {
   AUDIT_TRACE(entryLevel, "void ChipMbbSlice::TableAuditMgrSm::handleAuditTimer()",
               "handleAuditTimer");
   // The period runs from this expiry, however long the audit takes.
   auditTimer_.timeMinIs(timerWheel_->now() + auditInterval_);
   if (auditState_ == AuditState::ongoing) {
      AUDIT_TRACE(auditLevel, "Previous audit is running instance: " << configInstance_->instance(),
                  "Previous audit is running instance: ", configInstance_->instance());
      ++overshotCnt_;
      return;
   }
   configInstance_->instanceInc(1);
   auditState_ = AuditState::ongoing;
   AUDIT_TRACE(auditLevel, "Starting table audit instance: " << configInstance_->instance(),
               "Starting table audit instance: ", configInstance_->instance());
   continueTimer_.timeMinIs(timerWheel_->now() + continueInterval_);
}

void TableAuditMgrSm::handleContinueTimer() {
   AUDIT_TRACE(detailLevel, "void ChipMbbSlice::TableAuditMgrSm::handleContinueTimer()",
               "handleContinueTimer");
   auto ongoing = [] { return AuditState::ongoing; };
   BRIO_ASSERT(auditState() == ongoing());
   const Orb::Seconds deadline = timerWheel_->now() + processTime_;
   // A bookmark whose table has gone resumes at the table that now holds its place.
   auto it = tableBookmark_ == TableConfigMountKey() ? tableAuditSm_.begin()
                                                     : tableAuditSm_.lower_bound(tableBookmark_);
   while (it != tableAuditSm_.end()) {
      // Held for the step: a table may be withdrawn from inside its own audit.
      Orb::Ptr<TableAuditSm> sm = it->second;
      const TableConfigMountKey key = it->first;
      sm->continueAudit(deadline);
      if (sm->auditIsDone())
         it = tableAuditSm_.upper_bound(key);
      else
         it = tableAuditSm_.lower_bound(key);
      if (timerWheel_->now() >= deadline && it != tableAuditSm_.end()) {
         bookmarkIs(it->first);
         return;
      }
   }
   auditState_ = AuditState::idle;
   AUDIT_TRACE(auditLevel, "Completed table audit",
               "Completed table audit instance: ", configInstance_->instance());
   tableBookmark_ = TableConfigMountKey();
}

void TableAuditMgrSm::bookmarkIs(const TableConfigMountKey& key) {
   AUDIT_TRACE(detailLevel,
               "Bookmarking dev: " << unsigned(key.devTgt().devId) << " pipe: 0x" << std::hex
                                   << key.devTgt().pipeId << " table: 0x" << key.tableId(),
               "Bookmarking dev: ", key.devTgt().devId,
               " pipe: ", FlashLog::hex(key.devTgt().pipeId),
               " table: ", FlashLog::hex(key.tableId()));
   tableBookmark_ = key;
   continueTimer_.timeMinIs(timerWheel_->now() + continueInterval_);
}

Orb::Ptr<TableAuditMgrSm> TableAuditMgrSmIs(Keel::TimerWheel* timerWheel, std::uint32_t sessHdl,
                                            std::shared_ptr<const HwPd::HwPdIntf> hwPdIntf) {
   return Orb::ptrNew<TableAuditMgrSm>(timerWheel, sessHdl, std::move(hwPdIntf));
}

}  // namespace ChipMbbSlice
