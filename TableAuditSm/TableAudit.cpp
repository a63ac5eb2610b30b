#include "TableAuditSm/TableAudit.h"

#include "Brio/Brio.h"
#include "HwPd/ChipId.h"
#include "TableAuditSm/detail/AuditTrace.h"

namespace ChipMbbSlice {

using Vault::MbbEngine::EntryConfig;
using Vault::MbbEngine::EntryKey;
using Vault::MbbEngine::OpId;

TableAuditSm::TableAuditSm(Orb::WeakPtr<MbbEngine::MbbEngineSm> mbbEngineSm,
                           Orb::Ptr<const AuditInstance> configInstance, std::uint32_t sessHdl,
                           Orb::Ptr<FailedAuditStatus> failedAuditStatus,
                           Orb::Ptr<const AuditPolicy> auditPolicy,
                           std::shared_ptr<const HwPd::HwPdIntf> hwPdIntf,
                           ChipMbbShared::TableConfigMountKey mountKey)
    : mbbEngineSm_(std::move(mbbEngineSm)),
      configInstance_(std::move(configInstance)),
      sessHdl_(sessHdl),
      failedAuditStatus_(std::move(failedAuditStatus)),
      auditPolicy_(std::move(auditPolicy)),
      hwPdIntf_(std::move(hwPdIntf)),
      mountKey_(std::move(mountKey)) {
   handleInitialized();
}

TableAuditSm::~TableAuditSm() = default;

void TableAuditSm::handleInitialized() {
   if (initialized_) return;
   vaultStatusInstance_ = Orb::ptrNew<AuditInstance>();
   sdkStatusInstance_ = Orb::ptrNew<AuditInstance>();
   auto notifier = Orb::ptrNew<MbbNotifier>(mbbEngineSm_, TableType::mat);
   matFlagSm_ =
       Orb::ptrNew<FlagSm>(configInstance_, failedAuditStatus_, auditPolicy_, tblHdl(), notifier);
   initialized_ = true;
}

bool TableAuditSm::auditIsDone() const {
   AUDIT_TRACE(detailLevel, "virtual bool ChipMbbSlice::TableAuditSm::auditIsDone() const",
               "auditIsDone tbl:", FlashLog::hex(tblHdl()));
   return vaultStatusInstance_->instance() == currentInstance() &&
          sdkStatusInstance_->instance() == currentInstance();
}

void TableAuditSm::continueAudit(const Orb::Seconds& deadline) {
   AUDIT_TRACE(detailLevel,
               "virtual void ChipMbbSlice::TableAuditSm::continueAudit(const Seconds&)",
               "continueAudit tbl:", FlashLog::hex(tblHdl()));
   continueMatVaultAudit(deadline);
   continueMatSdkAudit(deadline);
}

void TableAuditSm::continueMatVaultAudit(const Orb::Seconds& deadline) {
   AUDIT_TRACE(detailLevel,
               "void ChipMbbSlice::TableAuditSm::continueMatVaultAudit(const Seconds&)",
               "continueMatVaultAudit tbl:", FlashLog::hex(tblHdl()));
   if (vaultStatusInstance_->instance() == currentInstance()) return;
   Orb::Ptr<MbbEngine::MbbEngineSm> engine = mbbEngineSm_.lock();
   if (!engine) {
      vaultPassDone();
      return;
   }
   const auto& tblConfig = engine->tableConfig();
   BRIO_ASSERT(tblConfig);
   auto it = vaultBookmark_ == EntryKey() ? tblConfig->begin() : tblConfig->iter(vaultBookmark_);
   while (it != tblConfig->end()) {
      auditVaultKey(*engine, it->second);
      ++it;
      if (it != tblConfig->end() && now() > deadline) {
         AUDIT_TRACE(detailLevel, "Yielding", "Yielding tbl:", FlashLog::hex(tblHdl()));
         AUDIT_TRACE(detailLevel, "Bookmarking key:0x" << std::hex << it->first.value(),
                     "Bookmarking key:", FlashLog::hex(it->first.value()));
         vaultBookmark_ = it->first;
         return;
      }
   }
   vaultPassDone();
}

void TableAuditSm::auditVaultKey(const MbbEngine::MbbEngineSm& engine, const EntryConfig& config) {
   const EntryKey key = config.key();
   AUDIT_TRACE(detailLevel, "Auditing vault key:0x" << std::hex << key.value(),
               "Auditing vault key:", FlashLog::hex(key.value()));
   const OpId mbbOpId = engine.mbbEngineImpl()->currentOpId(key);
   if (mbbOpId != config.opId()) {
      if (!(mbbOpId == OpId() && config.isDel())) {
         matFlagSm_->flagVaultKey(key, config.opId(), AuditFailReason::configAndMbbMismatch);
      }
      return;
   }
   if (const auto& status = engine.tableStatus()) {
      const OpId statusOpId = status->entry(key).opId();
      // A delete of a key that had nothing in hardware is acknowledged with the acknowledgement
      // op id rather than its own.
      const bool delAcked = config.isDel() && statusOpId == Vault::MbbEngine::delAckOpId;
      if (statusOpId != config.opId() && !delAcked) {
         matFlagSm_->flagVaultKey(key, config.opId(), AuditFailReason::configAndStatusMismatch);
         return;
      }
   }
   if (config.isDel()) return;
   if (!isMatInSdk(config)) {
      matFlagSm_->flagVaultKey(key, config.opId(), AuditFailReason::matEntryNotInSdk);
   } else if (auditPolicy_->auditHardware() && !isMatEqualToHw(config)) {
      matFlagSm_->flagVaultKey(key, config.opId(), AuditFailReason::entryAndHwNotEqual);
   }
}

void TableAuditSm::vaultPassDone() {
   vaultBookmark_ = EntryKey();
   vaultStatusInstance_->instanceIs(currentInstance());
   AUDIT_TRACE(auditLevel,
               "Mat vault audit done for instance:" << std::dec << currentInstance()
                                                    << " for table:0x" << std::hex << tblHdl(),
               "Mat vault audit done for instance:", currentInstance(),
               " for table:", FlashLog::hex(tblHdl()));
   matFlagSm_->cleanFlaggedVaultKeys();
}

void TableAuditSm::continueMatSdkAudit(const Orb::Seconds& deadline) {
   AUDIT_TRACE(detailLevel, "void ChipMbbSlice::TableAuditSm::continueMatSdkAudit(const Seconds&)",
               "continueMatSdkAudit tbl:", FlashLog::hex(tblHdl()));
   if (sdkStatusInstance_->instance() == currentInstance()) return;
   Orb::Ptr<MbbEngine::MbbEngineSm> engine = mbbEngineSm_.lock();
   if (!engine) {
      sdkPassDone();
      return;
   }
   if (sdkBookmark_) {
      sdkBookmark_->flushCache();
   } else {
      sdkBookmark_ = std::make_unique<HwPd::HwPdTableIterator>(hwPdIntf_, sessHdl_, devTgt().devId,
                                                               devTgt().pipeId, tblHdl());
   }
   const MbbEngine::MbbEngineImpl& impl = *engine->mbbEngineImpl();
   HwPd::HwPdTableIterator& it = *sdkBookmark_;
   while (!it.end()) {
      const std::uint32_t hdl = it.entryHdl();
      AUDIT_TRACE(detailLevel, "Auditing entry hdl:0x" << std::hex << hdl,
                  "Auditing entry hdl:", FlashLog::hex(hdl));
      if (!impl.handleToKeyHas(hdl)) {
         matFlagSm_->flagEntryHdl(hdl, AuditFailReason::matSdkHandleNotInMbb);
      }
      it.next();
      if (!it.end() && now() > deadline) {
         AUDIT_TRACE(detailLevel, "Yielding", "Yielding tbl:", FlashLog::hex(tblHdl()));
         AUDIT_TRACE(detailLevel, "Bookmarking hdl:0x" << std::hex << it.entryHdl(),
                     "Bookmarking hdl:", FlashLog::hex(it.entryHdl()));
         return;
      }
   }
   sdkPassDone();
}

void TableAuditSm::sdkPassDone() {
   sdkBookmark_.reset();
   sdkStatusInstance_->instanceIs(currentInstance());
   AUDIT_TRACE(auditLevel,
               "Mat SDK audit done for instance:" << std::dec << currentInstance()
                                                  << " for table:0x" << std::hex << tblHdl(),
               "Mat SDK audit done for instance:", currentInstance(),
               " for table:", FlashLog::hex(tblHdl()));
   matFlagSm_->cleanFlaggedEntryHdls();
}

bool TableAuditSm::isMatInSdk(const EntryConfig& config) const {
   const std::uint8_t dev = devTgt().devId;
   const std::uint16_t pipe = devTgt().pipeId;
   if (config.isDefaultEntry()) {
      std::uint32_t hdl = 0;
      if (hwPdIntf_->defaultEntryHdl(sessHdl_, dev, pipe, tblHdl(), hdl) != BF_SUCCESS) {
         return false;
      }
      return hdl == config.entryHandle();
   }
   // A reused vector keeps its capacity, so asking for one handle allocates at most once.
   thread_local std::vector<std::uint32_t> hdls;
   if (hwPdIntf_->entryHdlsNext(sessHdl_, dev, pipe, tblHdl(), config.entryHandle() - 1, 1, hdls) !=
           BF_SUCCESS ||
       hdls.empty()) {
      return false;
   }
   return hdls.front() == config.entryHandle();
}

bool TableAuditSm::isMatEqualToHw(const EntryConfig& config) const {
   return hwPdIntf_->entryIsEqual(sessHdl_, devTgt().devId, readPipe(), tblHdl(),
                                  config.entryHandle(), config.plcmtData().data());
}

Orb::Ptr<TableAuditSm> TableAuditSmIs(Orb::WeakPtr<MbbEngine::MbbEngineSm> mbbEngineSm,
                                      Orb::Ptr<const AuditInstance> configInstance,
                                      std::uint32_t sessHdl,
                                      Orb::Ptr<FailedAuditStatus> failedAuditStatus,
                                      Orb::Ptr<const AuditPolicy> auditPolicy,
                                      std::shared_ptr<const HwPd::HwPdIntf> hwPdIntf,
                                      const ChipMbbShared::TableConfigMountKey& mountKey) {
   return Orb::ptrNew<TableAuditSm>(std::move(mbbEngineSm), std::move(configInstance), sessHdl,
                                    std::move(failedAuditStatus), std::move(auditPolicy),
                                    std::move(hwPdIntf), mountKey);
}

}  // namespace ChipMbbSlice
