#pragma once

#include <cstdint>
#include <memory>

#include "ChipMbbShared/TableConfigMountKey.h"
#include "HwPd/ChipDriver.h"
#include "HwPd/HwPdIntf.h"
#include "HwPd/HwPdTableIterator.h"
#include "MbbEngine/MbbEngineSm.h"
#include "Orb/Entity.h"
#include "Orb/Ptr.h"
#include "Orb/Time.h"
#include "TableAuditSm/AuditTypes.h"
#include "TableAuditSm/FailedAuditStatus.h"
#include "TableAuditSm/FlagSm.h"
#include "Vault/MbbEngine/EntryConfig.h"

namespace ChipMbbSlice {

// Audits one match table, one audit instance after the other, in two passes that each resume
// where the previous slice stopped: the vault pass checks every configured key against the
// engine, the status table and the SDK; the SDK pass checks that the engine owns every entry
// the SDK holds. Mismatches go to the table's FlagSm, one reason per key and audit.
//
// The engine is referred to, not kept: once its table has been replaced and the engine has gone,
// every pass counts as finished.
class TableAuditSm : public Orb::Entity<TableAuditSm> {
 public:
   TableAuditSm(Orb::WeakPtr<MbbEngine::MbbEngineSm> mbbEngineSm,
                Orb::Ptr<const AuditInstance> configInstance, std::uint32_t sessHdl,
                Orb::Ptr<FailedAuditStatus> failedAuditStatus,
                Orb::Ptr<const AuditPolicy> auditPolicy,
                std::shared_ptr<const HwPd::HwPdIntf> hwPdIntf,
                ChipMbbShared::TableConfigMountKey mountKey);
   ~TableAuditSm() override;

   Orb::Ptr<MbbEngine::MbbEngineSm> mbbEngineSm() const { return mbbEngineSm_.lock(); }
   const Orb::Ptr<const AuditInstance>& configInstance() const { return configInstance_; }
   std::uint32_t sessHdl() const { return sessHdl_; }
   const Orb::Ptr<FailedAuditStatus>& failedAuditStatus() const { return failedAuditStatus_; }
   const Orb::Ptr<const AuditPolicy>& auditPolicy() const { return auditPolicy_; }
   const std::shared_ptr<const HwPd::HwPdIntf>& hwPdIntf() const { return hwPdIntf_; }
   const ChipMbbShared::TableConfigMountKey& mountKey() const { return mountKey_; }
   std::uint32_t tblHdl() const { return mountKey_.tableId(); }
   const ChipDriver::ChipDevTgt& devTgt() const { return mountKey_.devTgt(); }
   const Orb::Ptr<AuditInstance>& vaultStatusInstance() const { return vaultStatusInstance_; }
   const Orb::Ptr<AuditInstance>& sdkStatusInstance() const { return sdkStatusInstance_; }
   Vault::MbbEngine::EntryKey vaultBookmark() const { return vaultBookmark_; }
   const HwPd::HwPdTableIterator* sdkBookmark() const { return sdkBookmark_.get(); }
   const Orb::Ptr<FlagSm>& matFlagSm() const { return matFlagSm_; }
   bool initialized() const { return initialized_; }

   // Every pass has finished for the current audit instance.
   virtual bool auditIsDone() const;
   // Audits as much as fits before the absolute time `deadline`; each unfinished pass handles at
   // least one key or handle.
   virtual void continueAudit(const Orb::Seconds& deadline);

   void continueMatVaultAudit(const Orb::Seconds& deadline);
   void continueMatSdkAudit(const Orb::Seconds& deadline);
   bool isMatInSdk(const Vault::MbbEngine::EntryConfig& config) const;
   bool isMatEqualToHw(const Vault::MbbEngine::EntryConfig& config) const;
   void handleInitialized();

 protected:
   std::uint32_t currentInstance() const { return configInstance_->instance(); }
   // The pipe an entry is read back from: a table of all pipes holds the same in every pipe,
   // and pipe 0 answers for it.
   std::uint16_t readPipe() const { return devTgt().allPipes() ? 0 : devTgt().pipeId; }
   static Orb::Seconds now() { return Orb::activityTimeSource()->now(); }

 private:
   void auditVaultKey(const MbbEngine::MbbEngineSm& engine,
                      const Vault::MbbEngine::EntryConfig& config);
   void vaultPassDone();
   void sdkPassDone();

   Orb::WeakPtr<MbbEngine::MbbEngineSm> mbbEngineSm_;
   Orb::Ptr<const AuditInstance> configInstance_;
   std::uint32_t sessHdl_;
   Orb::Ptr<FailedAuditStatus> failedAuditStatus_;
   Orb::Ptr<const AuditPolicy> auditPolicy_;
   std::shared_ptr<const HwPd::HwPdIntf> hwPdIntf_;
   ChipMbbShared::TableConfigMountKey mountKey_;
   Orb::Ptr<AuditInstance> vaultStatusInstance_;
   Orb::Ptr<AuditInstance> sdkStatusInstance_;
   Vault::MbbEngine::EntryKey vaultBookmark_;
   std::unique_ptr<HwPd::HwPdTableIterator> sdkBookmark_;
   Orb::Ptr<FlagSm> matFlagSm_;
   bool initialized_ = false;
};

Orb::Ptr<TableAuditSm> TableAuditSmIs(Orb::WeakPtr<MbbEngine::MbbEngineSm> mbbEngineSm,
                                      Orb::Ptr<const AuditInstance> configInstance,
                                      std::uint32_t sessHdl,
                                      Orb::Ptr<FailedAuditStatus> failedAuditStatus,
                                      Orb::Ptr<const AuditPolicy> auditPolicy,
                                      std::shared_ptr<const HwPd::HwPdIntf> hwPdIntf,
                                      const ChipMbbShared::TableConfigMountKey& mountKey);

}  // namespace ChipMbbSlice
