#include "TableAuditSm/FlagSm.h"

#include "Brio/Brio.h"
#include "ChipMbbSliceMatAdtSelSm/MatAdtSelSm.h"
#include "Orb/Enum.h"
#include "TableAuditSm/detail/AuditTrace.h"

namespace ChipMbbSlice {

using Vault::MbbEngine::EntryKey;
using Vault::MbbEngine::OpId;

void MbbNotifier::notifyOnKey(EntryKey key) {
   AUDIT_TRACE(detailLevel, "void ChipMbbSlice::MbbNotifier::notifyOnKey(EntryKey)",
               "notifyOnKey key:", FlashLog::hex(key.value()));
   ++notificationCount_;
   Orb::Ptr<MbbEngine::MbbEngineSm> engine = mbbEngineSm_.lock();
   if (!engine) {
      AUDIT_TRACE(detailLevel, "No mbbEngineSm", "No mbbEngineSm");
      return;
   }
   switch (tableType_) {
      case TableType::mat:
         // Taken up exactly as a change of the key's configuration would be.
         engine->handleEntry(key);
         return;
      case TableType::adt:
      case TableType::selGrp:
      case TableType::selMbr:
         notifyDependencyEngine(*engine, key);
         return;
   }
   BRIO_ASSERT(false && "invalid table type");
}

// A key of an ADT, selector group or selector member is taken up by the triple's dependency
// engine; only a triple's notifier is given these table types.
void MbbNotifier::notifyDependencyEngine(MbbEngine::MbbEngineSm& engine, EntryKey key) {
   auto* matAdtSelSm = dynamic_cast<MatAdtSelSm*>(&engine);
   BRIO_ASSERT(matAdtSelSm && "dynamic cast failed");
   switch (tableType_) {
      case TableType::adt:
         matAdtSelSm->handleAdtEntry(key);
         return;
      case TableType::selGrp:
         matAdtSelSm->handleSelGrpEntry(key);
         return;
      case TableType::selMbr:
         matAdtSelSm->handleSelMbrEntry(ChipMbbShared::SelMbrEntryKey(key.value()));
         return;
      case TableType::mat:
         break;
   }
   BRIO_ASSERT(false && "invalid table type");
}

FlagSm::FlagSm(Orb::Ptr<const AuditInstance> configInstance,
               Orb::Ptr<FailedAuditStatus> failedAuditStatus,
               Orb::Ptr<const AuditPolicy> auditPolicy, std::uint32_t tblHdl,
               Orb::Ptr<MbbNotifier> mbbNotifier)
    : configInstance_(std::move(configInstance)),
      failedAuditStatus_(std::move(failedAuditStatus)),
      auditPolicy_(std::move(auditPolicy)),
      tblHdl_(tblHdl),
      mbbNotifier_(std::move(mbbNotifier)) {}

FlaggedVaultKey FlagSm::flaggedVaultKey(EntryKey key) const {
   auto it = flaggedVaultKey_.find(key);
   return it == flaggedVaultKey_.end() ? FlaggedVaultKey() : it->second;
}

FlaggedEntryHdl FlagSm::flaggedEntryHdl(std::uint32_t hdl) const {
   auto it = flaggedEntryHdl_.find(hdl);
   return it == flaggedEntryHdl_.end() ? FlaggedEntryHdl() : it->second;
}

void FlagSm::failureRecord(std::uint64_t identifier, AuditFailReason reason) {
   failedAuditStatus_->failedEntryIs(
       FailedAuditStatusEntry(identifier, Orb::activityTimeSource()->now(), reason));
}

void FlagSm::flagVaultKey(EntryKey key, OpId opId, AuditFailReason reason) {
   AUDIT_TRACE(detailLevel,
               "void ChipMbbSlice::FlagSm::flagVaultKey(EntryKey, OpId, AuditFailReason)",
               "flagVaultKey key:", FlashLog::hex(key.value()));
   const std::uint32_t instance = configInstance_->instance();
   std::uint32_t count = 1;
   auto it = flaggedVaultKey_.find(key);
   if (it != flaggedVaultKey_.end()) {
      const FlaggedVaultKey& flaggedKey = it->second;
      BRIO_ASSERT(flaggedKey.flaggedInstance() == configInstance()->instance() - 1);
      if (flaggedKey.opId() == opId) count = flaggedKey.flagCount() + 1;
   }
   if (count < auditPolicy_->failAuditLimit()) {
      if (count >= auditPolicy_->notifyMbbLimit()) {
         AUDIT_TRACE(notifyLevel,
                     "Notifying mbb on non-progressing key:0x" << std::hex << key.value()
                                                               << " tbl:0x" << tblHdl_,
                     "notify key:", FlashLog::hex(key.value()), " tbl:", FlashLog::hex(tblHdl_));
         mbbNotifier_->notifyOnKey(key);
      }
   } else {
      AUDIT_TRACE(failureLevel,
                  "Failed audit for key:0x" << std::hex << key.value() << " tbl:0x" << tblHdl_
                                            << " reason:" << Orb::enumName(reason),
                  "failed key:", FlashLog::hex(key.value()), " tbl:", FlashLog::hex(tblHdl_),
                  " reason:", reason);
      failureRecord(key.value(), reason);
   }
   AUDIT_TRACE(entryLevel,
               "Flagging key:0x" << std::hex << key.value() << " tbl:0x" << tblHdl_
                                 << " reason:" << Orb::enumName(reason),
               "flag key:", FlashLog::hex(key.value()), " tbl:", FlashLog::hex(tblHdl_),
               " reason:", reason);
   flaggedVaultKey_[key] = FlaggedVaultKey(key, count, opId, instance);
}

void FlagSm::flagEntryHdl(std::uint32_t hdl, AuditFailReason reason) {
   AUDIT_TRACE(detailLevel, "void ChipMbbSlice::FlagSm::flagEntryHdl(uint32_t, AuditFailReason)",
               "flagEntryHdl hdl:", FlashLog::hex(hdl));
   const std::uint32_t instance = configInstance_->instance();
   std::uint32_t count = 1;
   auto it = flaggedEntryHdl_.find(hdl);
   if (it != flaggedEntryHdl_.end()) {
      const FlaggedEntryHdl& flaggedHdl = it->second;
      BRIO_ASSERT(flaggedHdl.flaggedInstance() == configInstance()->instance() - 1);
      count = flaggedHdl.flagCount() + 1;
   }
   if (count >= auditPolicy_->failAuditLimit()) {
      AUDIT_TRACE(failureLevel,
                  "Failed audit for hdl:0x" << std::hex << hdl << " tbl:0x" << tblHdl_,
                  "failed hdl:", FlashLog::hex(hdl), " tbl:", FlashLog::hex(tblHdl_));
      failureRecord(hdl, reason);
   }
   AUDIT_TRACE(entryLevel,
               "Flagging hdl:0x" << std::hex << hdl << " tbl:0x" << tblHdl_
                                 << " reason:" << Orb::enumName(reason),
               "flag hdl:", FlashLog::hex(hdl), " tbl:", FlashLog::hex(tblHdl_),
               " reason:", reason);
   flaggedEntryHdl_[hdl] = FlaggedEntryHdl(hdl, count, instance);
}

void FlagSm::cleanFlaggedVaultKeys() {
   AUDIT_TRACE(detailLevel, "void ChipMbbSlice::FlagSm::cleanFlaggedVaultKeys()",
               "cleanFlaggedVaultKeys tbl:", FlashLog::hex(tblHdl_));
   const std::uint32_t instance = configInstance_->instance();
   std::erase_if(flaggedVaultKey_,
                 [&](const auto& flag) { return flag.second.flaggedInstance() < instance; });
}

void FlagSm::cleanFlaggedEntryHdls() {
   AUDIT_TRACE(detailLevel, "void ChipMbbSlice::FlagSm::cleanFlaggedEntryHdls()",
               "cleanFlaggedEntryHdls tbl:", FlashLog::hex(tblHdl_));
   const std::uint32_t instance = configInstance_->instance();
   std::erase_if(flaggedEntryHdl_,
                 [&](const auto& flag) { return flag.second.flaggedInstance() < instance; });
}

}  // namespace ChipMbbSlice
