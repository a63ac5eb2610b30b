#include "TableAuditSm/MatAdtSelTableAudit.h"

#include <algorithm>
#include <vector>

#include "TableAuditSm/detail/AuditTrace.h"

namespace ChipMbbSlice {

using ChipMbbShared::AdtEntryConfig;
using ChipMbbShared::SelGrpEntryConfig;
using ChipMbbShared::SelMbrEntryConfig;
using ChipMbbShared::SelMbrEntryKey;
using Vault::MbbEngine::EntryKey;
using Vault::MbbEngine::OpId;
using Vault::MbbEngine::TableStatus;

namespace {

// A delete agrees with a status that carries its op id, with the acknowledgement op id of a
// delete that found nothing to take out, and with no status at all: the dependency engine takes
// the status of an entry out together with the entry.
bool statusAgrees(const TableStatus* status, EntryKey key, OpId opId, bool isDel) {
   if (!status) return true;
   const OpId statusOpId = status->entry(key).opId();
   if (statusOpId == opId) return true;
   return isDel && (statusOpId == Vault::MbbEngine::delAckOpId || statusOpId == OpId());
}

// An engine entry agrees with a configuration that it carries, or with a delete when the entry
// is already gone.
template <class State>
bool engineAgrees(const State* state, OpId opId, bool isDel) {
   return state ? state->opId() == opId : isDel;
}

}  // namespace

MatAdtSelTableAuditSm::MatAdtSelTableAuditSm(Orb::Ptr<const AuditInstance> configInstance,
                                             std::uint32_t sessHdl,
                                             Orb::Ptr<FailedAuditStatus> failedAuditStatus,
                                             Orb::Ptr<const AuditPolicy> auditPolicy,
                                             std::shared_ptr<const HwPd::HwPdIntf> hwPdIntf,
                                             ChipMbbShared::TableConfigMountKey mountKey,
                                             Orb::WeakPtr<MatAdtSelSm> matAdtSelSm)
    : TableAuditSm(matAdtSelSm, std::move(configInstance), sessHdl, std::move(failedAuditStatus),
                   std::move(auditPolicy), std::move(hwPdIntf), std::move(mountKey)),
      matAdtSelSm_(std::move(matAdtSelSm)) {
   handleInitialized2();
}

void MatAdtSelTableAuditSm::handleInitialized2() {
   if (initialized2_) return;
   for (auto* instance :
        {&adtVaultStatusInstance_, &selGrpVaultStatusInstance_, &selMbrVaultStatusInstance_,
         &adtSdkStatusInstance_, &selGrpSdkStatusInstance_, &selMbrSdkStatusInstance_}) {
      *instance = Orb::ptrNew<AuditInstance>();
   }
   if (const Orb::Ptr<MatAdtSelSm> sm = matAdtSelSm_.lock()) {
      adtTblHdl_ = sm->matAdtSelImpl()->adtTableHandle();
      selTblHdl_ = sm->matAdtSelImpl()->selTableHandle();
   }
   const auto flagSmNew = [&](TableType type, std::uint32_t tblHdl) {
      auto notifier = Orb::ptrNew<MbbNotifier>(matAdtSelSm_, type);
      return Orb::ptrNew<FlagSm>(configInstance(), failedAuditStatus(), auditPolicy(), tblHdl,
                                 notifier);
   };
   adtFlagSm_ = flagSmNew(TableType::adt, adtTblHdl_);
   selGrpFlagSm_ = flagSmNew(TableType::selGrp, selTblHdl_);
   selMbrFlagSm_ = flagSmNew(TableType::selMbr, selTblHdl_);
   initialized2_ = true;
}

bool MatAdtSelTableAuditSm::auditIsDone() const {
   if (!TableAuditSm::auditIsDone()) return false;
   for (const auto* instance :
        {&adtVaultStatusInstance_, &selGrpVaultStatusInstance_, &selMbrVaultStatusInstance_,
         &adtSdkStatusInstance_, &selGrpSdkStatusInstance_, &selMbrSdkStatusInstance_}) {
      if ((*instance)->instance() != currentInstance()) return false;
   }
   return true;
}

void MatAdtSelTableAuditSm::continueAudit(const Orb::Seconds& deadline) {
   AUDIT_TRACE(detailLevel,
               "virtual void ChipMbbSlice::MatAdtSelTableAuditSm::continueAudit(const Seconds&)",
               "continueAudit triple tbl:", FlashLog::hex(tblHdl()));
   TableAuditSm::continueAudit(deadline);
   continueAdtVaultAudit(deadline);
   continueSelGrpVaultAudit(deadline);
   continueSelMbrVaultAudit(deadline);
   continueAdtSdkAudit(deadline);
   continueSelGrpSdkAudit(deadline);
   continueSelMbrSdkAudit(deadline);
}

template <class Table, class Audit>
bool MatAdtSelTableAuditSm::vaultWalk(const Table* table, typename Table::Key& bookmark,
                                      const Orb::Seconds& deadline, Audit audit) {
   // A sub-table that is not mounted has nothing to audit.
   if (!table) return true;
   auto it = bookmark == typename Table::Key() ? table->begin() : table->iter(bookmark);
   while (it != table->end()) {
      audit(it->second);
      ++it;
      if (it != table->end() && now() > deadline) {
         AUDIT_TRACE(detailLevel, "Yielding", "Yielding tbl:", FlashLog::hex(tblHdl()));
         AUDIT_TRACE(detailLevel, "Bookmarking key:0x" << std::hex << it->first.value(),
                     "Bookmarking key:", FlashLog::hex(it->first.value()));
         bookmark = it->first;
         return false;
      }
   }
   bookmark = typename Table::Key();
   return true;
}

void MatAdtSelTableAuditSm::continueAdtVaultAudit(const Orb::Seconds& deadline) {
   AUDIT_TRACE(detailLevel,
               "void ChipMbbSlice::MatAdtSelTableAuditSm::continueAdtVaultAudit(const Seconds&)",
               "continueAdtVaultAudit tbl:", FlashLog::hex(adtTblHdl_));
   if (adtVaultStatusInstance_->instance() == currentInstance()) return;
   const Orb::Ptr<MatAdtSelSm> sm = matAdtSelSm_.lock();
   if (sm && !vaultWalk(sm->adtTableConfig().get(), adtVaultBookmark_, deadline,
                        [&](const AdtEntryConfig& config) {
                           auditAdtKey(*sm->matAdtSelImpl(), sm->adtTableStatus().get(), config);
                        })) {
      return;
   }
   adtVaultPassDone();
}

void MatAdtSelTableAuditSm::auditAdtKey(const MatAdtSelMbbEngineImpl& impl,
                                        const TableStatus* status, const AdtEntryConfig& config) {
   const EntryKey key = config.key();
   AUDIT_TRACE(detailLevel, "Auditing adt vault key:0x" << std::hex << key.value(),
               "Auditing adt vault key:", FlashLog::hex(key.value()));
   if (!engineAgrees(impl.currentAdt(key).get(), config.opId(), config.isDel())) {
      adtFlagSm_->flagVaultKey(key, config.opId(), AuditFailReason::adtConfigAndMbbMismatch);
   } else if (!statusAgrees(status, key, config.opId(), config.isDel())) {
      adtFlagSm_->flagVaultKey(key, config.opId(), AuditFailReason::adtConfigAndStatusMismatch);
   } else if (config.isDel()) {
      return;
   } else if (!isAdtInSdk(config)) {
      adtFlagSm_->flagVaultKey(key, config.opId(), AuditFailReason::adtEntryNotInSdk);
   } else if (auditPolicy()->auditHardware() && !isAdtEqualToHw(config)) {
      adtFlagSm_->flagVaultKey(key, config.opId(), AuditFailReason::adtEntryAndHwNotEqual);
   }
}

void MatAdtSelTableAuditSm::adtVaultPassDone() {
   adtVaultBookmark_ = EntryKey();
   adtVaultStatusInstance_->instanceIs(currentInstance());
   AUDIT_TRACE(auditLevel,
               "Adt vault audit done for instance:" << std::dec << currentInstance()
                                                    << " for table:0x" << std::hex << adtTblHdl_,
               "Adt vault audit done for instance:", currentInstance(),
               " for table:", FlashLog::hex(adtTblHdl_));
   adtFlagSm_->cleanFlaggedVaultKeys();
}

void MatAdtSelTableAuditSm::continueSelGrpVaultAudit(const Orb::Seconds& deadline) {
   AUDIT_TRACE(detailLevel,
               "void ChipMbbSlice::MatAdtSelTableAuditSm::continueSelGrpVaultAudit(const Seconds&)",
               "continueSelGrpVaultAudit tbl:", FlashLog::hex(selTblHdl_));
   if (selGrpVaultStatusInstance_->instance() == currentInstance()) return;
   const Orb::Ptr<MatAdtSelSm> sm = matAdtSelSm_.lock();
   if (sm && !vaultWalk(sm->selGrpTableConfig().get(), selGrpVaultBookmark_, deadline,
                        [&](const SelGrpEntryConfig& config) {
                           auditSelGrpKey(*sm->matAdtSelImpl(), sm->selGrpTableStatus().get(),
                                          config);
                        })) {
      return;
   }
   selGrpVaultPassDone();
}

void MatAdtSelTableAuditSm::auditSelGrpKey(const MatAdtSelMbbEngineImpl& impl,
                                           const TableStatus* status,
                                           const SelGrpEntryConfig& config) {
   const EntryKey key = config.key();
   AUDIT_TRACE(detailLevel, "Auditing selGrp vault key:0x" << std::hex << key.value(),
               "Auditing selGrp vault key:", FlashLog::hex(key.value()));
   if (!engineAgrees(impl.currentSelGrp(key).get(), config.opId(), config.isDel())) {
      selGrpFlagSm_->flagVaultKey(key, config.opId(), AuditFailReason::selGrpConfigAndMbbMismatch);
   } else if (!statusAgrees(status, key, config.opId(), config.isDel())) {
      selGrpFlagSm_->flagVaultKey(key, config.opId(),
                                  AuditFailReason::selGrpConfigAndStatusMismatch);
   }
}

void MatAdtSelTableAuditSm::selGrpVaultPassDone() {
   selGrpVaultBookmark_ = EntryKey();
   selGrpVaultStatusInstance_->instanceIs(currentInstance());
   AUDIT_TRACE(auditLevel,
               "SelGrp vault audit done for instance:" << std::dec << currentInstance()
                                                       << " for table:0x" << std::hex << selTblHdl_,
               "SelGrp vault audit done for instance:", currentInstance(),
               " for table:", FlashLog::hex(selTblHdl_));
   selGrpFlagSm_->cleanFlaggedVaultKeys();
}

void MatAdtSelTableAuditSm::continueSelMbrVaultAudit(const Orb::Seconds& deadline) {
   AUDIT_TRACE(detailLevel,
               "void ChipMbbSlice::MatAdtSelTableAuditSm::continueSelMbrVaultAudit(const Seconds&)",
               "continueSelMbrVaultAudit tbl:", FlashLog::hex(selTblHdl_));
   if (selMbrVaultStatusInstance_->instance() == currentInstance()) return;
   const Orb::Ptr<MatAdtSelSm> sm = matAdtSelSm_.lock();
   if (sm && !vaultWalk(sm->selMbrTableConfig().get(), selMbrVaultBookmark_, deadline,
                        [&](const SelMbrEntryConfig& config) {
                           auditSelMbrKey(*sm->matAdtSelImpl(), sm->selMbrTableStatus().get(),
                                          config);
                        })) {
      return;
   }
   selMbrVaultPassDone();
}

void MatAdtSelTableAuditSm::auditSelMbrKey(const MatAdtSelMbbEngineImpl& impl,
                                           const TableStatus* status,
                                           const SelMbrEntryConfig& config) {
   const SelMbrEntryKey mbrKey = config.key();
   // Flags and notifications carry the member key's 64-bit value.
   const EntryKey key(mbrKey.value());
   AUDIT_TRACE(detailLevel, "Auditing selMbr vault key:0x" << std::hex << key.value(),
               "Auditing selMbr vault key:", FlashLog::hex(key.value()));
   const EntryKey grpKey = mbrKey.selGrp();
   Orb::Ptr<SelGrpState> sgs;
   Orb::Ptr<SelMbrState> issued;
   if (grpKey.value() == MatAdtSelMbbEngineImpl::fallbackGrpKey) {
      // The fallback member belongs to no group; the engine keeps it on its own.
      if (impl.issuedFallback() && impl.issuedFallback()->selMbrKey() == mbrKey) {
         issued = impl.issuedFallback();
      }
   } else if ((sgs = impl.currentSelGrp(grpKey))) {
      issued = sgs->issuedSelMbr(mbrKey);
   } else if (!config.isDel()) {
      // A deleted member of a group that has gone is as it should be; only its status is left
      // to compare.
      selMbrFlagSm_->flagVaultKey(key, config.opId(), AuditFailReason::selMbrGroupNotInMbb);
      return;
   }
   if (!engineAgrees(issued.get(), config.opId(), config.isDel())) {
      selMbrFlagSm_->flagVaultKey(key, config.opId(), AuditFailReason::selMbrConfigAndMbbMismatch);
   } else if (!statusAgrees(status, key, config.opId(), config.isDel())) {
      selMbrFlagSm_->flagVaultKey(key, config.opId(),
                                  AuditFailReason::selMbrConfigAndStatusMismatch);
   } else if (sgs && issued && !config.isDel() && auditPolicy()->auditHardware()) {
      if (const auto reason = selMbrHwMismatch(*sgs, *issued, config)) {
         selMbrFlagSm_->flagVaultKey(key, config.opId(), *reason);
      }
   }
}

// The engine's view is what hardware must hold: a member that the engine keeps active while
// its configuration asks otherwise (the last active member of a vector) is active in hardware
// too. Its data must be the configuration's. The engine places a member's data only when it
// adds the member, so a configuration that changes the data but keeps the action data member
// is found here: the chip still holds the data first placed.
std::optional<AuditFailReason> MatAdtSelTableAuditSm::selMbrHwMismatch(
    const SelGrpState& sgs, const SelMbrState& issued, const SelMbrEntryConfig& config) const {
   const std::uint32_t selIndex = sgs.baseIndex() + issued.selMbrKey().vector();
   const std::uint32_t subIndex = issued.selMbrKey().subIndex();
   HwPd::SelMbrValue hw;
   if (hwPdIntf()->selMbr(sessHdl(), devTgt().devId, readPipe(), selTblHdl_, selIndex, subIndex,
                          hw) != BF_SUCCESS) {
      return AuditFailReason::selMbrNotInSdk;
   }
   const bool same = hw.grpHdl == sgs.grpHdl() && hw.mbrHdl == issued.mbrHdl() &&
                     hw.active == issued.active() &&
                     hwPdIntf()->selMbrIsEqual(sessHdl(), devTgt().devId, readPipe(), selTblHdl_,
                                               selIndex, subIndex, config.plcmtData().data());
   if (same) return std::nullopt;
   return AuditFailReason::selMbrAndHwNotEqual;
}

void MatAdtSelTableAuditSm::selMbrVaultPassDone() {
   selMbrVaultBookmark_ = SelMbrEntryKey();
   selMbrVaultStatusInstance_->instanceIs(currentInstance());
   AUDIT_TRACE(auditLevel,
               "SelMbr vault audit done for instance:" << std::dec << currentInstance()
                                                       << " for table:0x" << std::hex << selTblHdl_,
               "SelMbr vault audit done for instance:", currentInstance(),
               " for table:", FlashLog::hex(selTblHdl_));
   selMbrFlagSm_->cleanFlaggedVaultKeys();
}

void MatAdtSelTableAuditSm::continueAdtSdkAudit(const Orb::Seconds& deadline) {
   AUDIT_TRACE(detailLevel,
               "void ChipMbbSlice::MatAdtSelTableAuditSm::continueAdtSdkAudit(const Seconds&)",
               "continueAdtSdkAudit tbl:", FlashLog::hex(adtTblHdl_));
   if (adtSdkStatusInstance_->instance() == currentInstance()) return;
   const Orb::Ptr<MatAdtSelSm> sm = matAdtSelSm_.lock();
   std::uint32_t hdl = 0;
   // The bookmarked handle itself may have gone since the last slice: resume at the first
   // handle the SDK holds from it on.
   const std::uint32_t after = adtSdkBookmark_ == 0 ? 0 : adtSdkBookmark_ - 1;
   if (!sm || !adtMbrHdlNext(after, hdl)) {
      adtSdkPassDone();
      return;
   }
   const MatAdtSelMbbEngineImpl& impl = *sm->matAdtSelImpl();
   for (;;) {
      AUDIT_TRACE(detailLevel, "Auditing member hdl:0x" << std::hex << hdl,
                  "Auditing member hdl:", FlashLog::hex(hdl));
      if (!impl.mbrHdlToKeyHas(hdl)) {
         adtFlagSm_->flagEntryHdl(hdl, AuditFailReason::adtSdkHandleNotInMbb);
      }
      std::uint32_t next = 0;
      if (!adtMbrHdlNext(hdl, next)) break;
      if (now() > deadline) {
         AUDIT_TRACE(detailLevel, "Bookmarking hdl:0x" << std::hex << next,
                     "Bookmarking hdl:", FlashLog::hex(next));
         adtSdkBookmark_ = next;
         return;
      }
      hdl = next;
   }
   adtSdkPassDone();
}

void MatAdtSelTableAuditSm::adtSdkPassDone() {
   adtSdkBookmark_ = 0;
   adtSdkStatusInstance_->instanceIs(currentInstance());
   AUDIT_TRACE(auditLevel,
               "Adt SDK audit done for instance:" << std::dec << currentInstance()
                                                  << " for table:0x" << std::hex << adtTblHdl_,
               "Adt SDK audit done for instance:", currentInstance(),
               " for table:", FlashLog::hex(adtTblHdl_));
   adtFlagSm_->cleanFlaggedEntryHdls();
}

void MatAdtSelTableAuditSm::continueSelGrpSdkAudit(const Orb::Seconds&) {
   AUDIT_TRACE(detailLevel,
               "void ChipMbbSlice::MatAdtSelTableAuditSm::continueSelGrpSdkAudit(const Seconds&)",
               "continueSelGrpSdkAudit tbl:", FlashLog::hex(selTblHdl_));
   if (selGrpSdkStatusInstance_->instance() == currentInstance()) return;
   selGrpSdkStatusInstance_->instanceIs(currentInstance());
   AUDIT_TRACE(auditLevel,
               "SelGrp SDK audit done for instance:" << std::dec << currentInstance()
                                                     << " for table:0x" << std::hex << selTblHdl_,
               "SelGrp SDK audit done for instance:", currentInstance(),
               " for table:", FlashLog::hex(selTblHdl_));
}

void MatAdtSelTableAuditSm::continueSelMbrSdkAudit(const Orb::Seconds& deadline) {
   AUDIT_TRACE(detailLevel,
               "void ChipMbbSlice::MatAdtSelTableAuditSm::continueSelMbrSdkAudit(const Seconds&)",
               "continueSelMbrSdkAudit tbl:", FlashLog::hex(selTblHdl_));
   if (selMbrSdkStatusInstance_->instance() == currentInstance()) return;
   const Orb::Ptr<MatAdtSelSm> sm = matAdtSelSm_.lock();
   if (sm && auditPolicy()->auditHardware() && !selMbrHwWalk(*sm->matAdtSelImpl(), deadline)) {
      return;
   }
   selMbrSdkPassDone();
}

// First the vectors of the engine's groups, each read once, whatever members the chip holds
// there checked against the group's; then every used vector that no group covers, whose
// members nobody placed. Unit of work: one group, then one vector.
bool MatAdtSelTableAuditSm::selMbrHwWalk(const MatAdtSelMbbEngineImpl& impl,
                                         const Orb::Seconds& deadline) {
   if (!selMbrSdkGrpsDone_) {
      const auto& groups = impl.currentSelGrps();
      auto it = groups.lower_bound(selMbrSdkGrpBookmark_);
      while (it != groups.end()) {
         selGrpVectorsAudit(*it->second);
         ++it;
         if (it != groups.end() && now() > deadline) {
            AUDIT_TRACE(detailLevel, "Bookmarking key:0x" << std::hex << it->first.value(),
                        "Bookmarking key:", FlashLog::hex(it->first.value()));
            selMbrSdkGrpBookmark_ = it->first;
            return false;
         }
      }
      selMbrSdkGrpsDone_ = true;
   }
   std::uint32_t hdl = 0;
   if (!selVectorHdlNext(selMbrSdkBookmark_ == 0 ? 0 : selMbrSdkBookmark_ - 1, hdl)) return true;
   for (;;) {
      const std::uint32_t selIndex = hdl - 1;
      AUDIT_TRACE(detailLevel, "Auditing sel vector idx:0x" << std::hex << selIndex,
                  "Auditing sel vector idx:", FlashLog::hex(selIndex));
      if (!selVectorSeen(selIndex) &&
          hwPdIntf()->selVectorMbrs(sessHdl(), devTgt().devId, readPipe(), selTblHdl_, selIndex,
                                    selHwMbrs_) == BF_SUCCESS) {
         for (const HwPd::SelMbrValue& mbr : selHwMbrs_) selStrayMbrFlag(selIndex, mbr.subIndex);
      }
      std::uint32_t next = 0;
      if (!selVectorHdlNext(hdl, next)) return true;
      if (now() > deadline) {
         AUDIT_TRACE(detailLevel, "Bookmarking hdl:0x" << std::hex << next,
                     "Bookmarking hdl:", FlashLog::hex(next));
         selMbrSdkBookmark_ = next;
         return false;
      }
      hdl = next;
   }
}

void MatAdtSelTableAuditSm::selGrpVectorsAudit(const SelGrpState& sgs) {
   AUDIT_TRACE(detailLevel, "Auditing selGrp vectors key:0x" << std::hex << sgs.key().value(),
               "Auditing selGrp vectors key:", FlashLog::hex(sgs.key().value()));
   const std::uint32_t numVectors = std::min(sgs.numVectors(), SelMbrEntryKey::numVectors);
   for (std::uint32_t v = 0; v < numVectors; ++v) {
      const std::uint32_t selIndex = sgs.baseIndex() + v;
      // Groups that overlap share a vector; it is read once.
      if (selIndex < sgs.baseIndex() || selVectorSeen(selIndex)) continue;
      const bool held = hwPdIntf()->selVectorMbrs(sessHdl(), devTgt().devId, readPipe(), selTblHdl_,
                                                  selIndex, selHwMbrs_) == BF_SUCCESS;
      if (held && selIndex >= selVectorSeen_.size()) selVectorSeen_.resize(selIndex + 1);
      if (selIndex < selVectorSeen_.size()) selVectorSeen_[selIndex] = currentInstance();
      if (!held) continue;
      for (const HwPd::SelMbrValue& mbr : selHwMbrs_) {
         const bool placed = mbr.grpHdl == sgs.grpHdl() &&
                             mbr.subIndex < SelMbrEntryKey::numSubIndices &&
                             sgs.issuedSelMbr(SelMbrEntryKey(sgs.key(), v, mbr.subIndex));
         if (!placed) selStrayMbrFlag(selIndex, mbr.subIndex);
      }
   }
}

bool MatAdtSelTableAuditSm::selVectorSeen(std::uint32_t selIndex) const {
   return selIndex < selVectorSeen_.size() && selVectorSeen_[selIndex] == currentInstance();
}

void MatAdtSelTableAuditSm::selStrayMbrFlag(std::uint32_t selIndex, std::uint32_t subIndex) {
   selMbrFlagSm_->flagEntryHdl(selIndex << 7 | subIndex, AuditFailReason::selSdkMbrNotInMbb);
}

bool MatAdtSelTableAuditSm::selVectorHdlNext(std::uint32_t after, std::uint32_t& hdl) const {
   // A reused vector keeps its capacity, so asking for one handle allocates at most once.
   thread_local std::vector<std::uint32_t> hdls;
   if (hwPdIntf()->entryHdlsNext(sessHdl(), devTgt().devId, readPipe(), selTblHdl_, after, 1,
                                 hdls) != BF_SUCCESS ||
       hdls.empty()) {
      return false;
   }
   hdl = hdls.front();
   return true;
}

void MatAdtSelTableAuditSm::selMbrSdkPassDone() {
   selMbrSdkBookmark_ = 0;
   selMbrSdkGrpBookmark_ = EntryKey();
   selMbrSdkGrpsDone_ = false;
   selMbrSdkStatusInstance_->instanceIs(currentInstance());
   AUDIT_TRACE(auditLevel,
               "SelMbr SDK audit done for instance:" << std::dec << currentInstance()
                                                     << " for table:0x" << std::hex << selTblHdl_,
               "SelMbr SDK audit done for instance:", currentInstance(),
               " for table:", FlashLog::hex(selTblHdl_));
   // Also without the comparison: flags of one made before the policy changed go.
   selMbrFlagSm_->cleanFlaggedEntryHdls();
}

bool MatAdtSelTableAuditSm::adtMbrHdlNext(std::uint32_t after, std::uint32_t& hdl) const {
   // A reused vector keeps its capacity, so asking for one handle allocates at most once.
   thread_local std::vector<std::uint32_t> hdls;
   if (hwPdIntf()->adtMbrHdlsNext(sessHdl(), devTgt().devId, devTgt().pipeId, adtTblHdl_, after, 1,
                                  hdls) != BF_SUCCESS ||
       hdls.empty()) {
      return false;
   }
   hdl = hdls.front();
   return true;
}

bool MatAdtSelTableAuditSm::isAdtInSdk(const AdtEntryConfig& config) const {
   std::uint32_t hdl = 0;
   return adtMbrHdlNext(config.mbrHdl() - 1, hdl) && hdl == config.mbrHdl();
}

bool MatAdtSelTableAuditSm::isAdtEqualToHw(const AdtEntryConfig& config) const {
   return hwPdIntf()->entryIsEqual(sessHdl(), devTgt().devId, readPipe(), adtTblHdl_,
                                   config.mbrHdl(), config.plcmtData().data());
}

Orb::Ptr<MatAdtSelTableAuditSm> MatAdtSelTableAuditSmIs(
    Orb::Ptr<const AuditInstance> configInstance, std::uint32_t sessHdl,
    Orb::Ptr<FailedAuditStatus> failedAuditStatus, Orb::Ptr<const AuditPolicy> auditPolicy,
    std::shared_ptr<const HwPd::HwPdIntf> hwPdIntf,
    const ChipMbbShared::TableConfigMountKey& mountKey, Orb::WeakPtr<MatAdtSelSm> matAdtSelSm) {
   return Orb::ptrNew<MatAdtSelTableAuditSm>(std::move(configInstance), sessHdl,
                                             std::move(failedAuditStatus), std::move(auditPolicy),
                                             std::move(hwPdIntf), mountKey, std::move(matAdtSelSm));
}

}  // namespace ChipMbbSlice
