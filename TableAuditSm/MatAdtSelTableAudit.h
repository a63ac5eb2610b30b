#pragma once

#include <cstdint>
#include <memory>

#include "ChipMbbShared/ConfigTables.h"
#include "ChipMbbShared/SelMbrEntryKey.h"
#include "ChipMbbSliceMatAdtSelSm/MatAdtSelSm.h"
#include "TableAuditSm/TableAudit.h"

namespace ChipMbbSlice {

// Audits a triple: the match table as a single table is audited, against the dependency engine,
// and beside it the ADT, selector-group and selector-member configuration against the engine
// and their statuses, and the ADT's member handles in the SDK against the engine. Each pass has
// its own bookmark and status instance and resumes where the previous slice stopped.
//
// Selector groups and members are not compared with the SDK; their SDK passes exist so that
// every sub-table has the same pass slots, and finish at once.
class MatAdtSelTableAuditSm : public TableAuditSm {
 public:
   MatAdtSelTableAuditSm(Orb::Ptr<const AuditInstance> configInstance, std::uint32_t sessHdl,
                         Orb::Ptr<FailedAuditStatus> failedAuditStatus,
                         Orb::Ptr<const AuditPolicy> auditPolicy,
                         std::shared_ptr<const HwPd::HwPdIntf> hwPdIntf,
                         ChipMbbShared::TableConfigMountKey mountKey,
                         Orb::WeakPtr<MatAdtSelSm> matAdtSelSm);

   Orb::Ptr<MatAdtSelSm> matAdtSelSm() const { return matAdtSelSm_.lock(); }
   const Orb::Ptr<AuditInstance>& adtVaultStatusInstance() const { return adtVaultStatusInstance_; }
   const Orb::Ptr<AuditInstance>& selGrpVaultStatusInstance() const {
      return selGrpVaultStatusInstance_;
   }
   const Orb::Ptr<AuditInstance>& selMbrVaultStatusInstance() const {
      return selMbrVaultStatusInstance_;
   }
   const Orb::Ptr<AuditInstance>& adtSdkStatusInstance() const { return adtSdkStatusInstance_; }
   const Orb::Ptr<AuditInstance>& selGrpSdkStatusInstance() const {
      return selGrpSdkStatusInstance_;
   }
   const Orb::Ptr<AuditInstance>& selMbrSdkStatusInstance() const {
      return selMbrSdkStatusInstance_;
   }
   Vault::MbbEngine::EntryKey adtVaultBookmark() const { return adtVaultBookmark_; }
   Vault::MbbEngine::EntryKey selGrpVaultBookmark() const { return selGrpVaultBookmark_; }
   ChipMbbShared::SelMbrEntryKey selMbrVaultBookmark() const { return selMbrVaultBookmark_; }
   std::uint32_t adtSdkBookmark() const { return adtSdkBookmark_; }
   std::uint32_t selGrpSdkBookmark() const { return selGrpSdkBookmark_; }
   std::uint32_t selMbrSdkBookmark() const { return selMbrSdkBookmark_; }
   const Orb::Ptr<FlagSm>& adtFlagSm() const { return adtFlagSm_; }
   const Orb::Ptr<FlagSm>& selGrpFlagSm() const { return selGrpFlagSm_; }
   const Orb::Ptr<FlagSm>& selMbrFlagSm() const { return selMbrFlagSm_; }
   std::uint32_t adtTblHdl() const { return adtTblHdl_; }
   std::uint32_t selTblHdl() const { return selTblHdl_; }
   bool initialized2() const { return initialized2_; }

   bool auditIsDone() const override;
   void continueAudit(const Orb::Seconds& deadline) override;

   void continueAdtVaultAudit(const Orb::Seconds& deadline);
   void continueSelGrpVaultAudit(const Orb::Seconds& deadline);
   void continueSelMbrVaultAudit(const Orb::Seconds& deadline);
   void continueAdtSdkAudit(const Orb::Seconds& deadline);
   void continueSelGrpSdkAudit(const Orb::Seconds& deadline);
   void continueSelMbrSdkAudit(const Orb::Seconds& deadline);
   bool isAdtInSdk(const ChipMbbShared::AdtEntryConfig& config) const;
   void handleInitialized2();

 private:
   // Walks `table` from `bookmark`, auditing each entry, until its end (true) or until the
   // deadline has passed with entries left (false, `bookmark` naming the next one).
   template <class Table, class Audit>
   bool vaultWalk(const Table* table, typename Table::Key& bookmark, const Orb::Seconds& deadline,
                  Audit audit);
   void auditAdtKey(const MatAdtSelMbbEngineImpl& impl, const Vault::MbbEngine::TableStatus* status,
                    const ChipMbbShared::AdtEntryConfig& config);
   void auditSelGrpKey(const MatAdtSelMbbEngineImpl& impl,
                       const Vault::MbbEngine::TableStatus* status,
                       const ChipMbbShared::SelGrpEntryConfig& config);
   void auditSelMbrKey(const MatAdtSelMbbEngineImpl& impl,
                       const Vault::MbbEngine::TableStatus* status,
                       const ChipMbbShared::SelMbrEntryConfig& config);
   // The first ADT member handle following `after`; false when none does.
   bool adtMbrHdlNext(std::uint32_t after, std::uint32_t& hdl) const;
   void adtVaultPassDone();
   void selGrpVaultPassDone();
   void selMbrVaultPassDone();
   void adtSdkPassDone();

   Orb::WeakPtr<MatAdtSelSm> matAdtSelSm_;
   Orb::Ptr<AuditInstance> adtVaultStatusInstance_;
   Orb::Ptr<AuditInstance> selGrpVaultStatusInstance_;
   Orb::Ptr<AuditInstance> selMbrVaultStatusInstance_;
   Orb::Ptr<AuditInstance> adtSdkStatusInstance_;
   Orb::Ptr<AuditInstance> selGrpSdkStatusInstance_;
   Orb::Ptr<AuditInstance> selMbrSdkStatusInstance_;
   Vault::MbbEngine::EntryKey adtVaultBookmark_;
   Vault::MbbEngine::EntryKey selGrpVaultBookmark_;
   ChipMbbShared::SelMbrEntryKey selMbrVaultBookmark_;
   std::uint32_t adtSdkBookmark_ = 0;
   std::uint32_t selGrpSdkBookmark_ = 0;
   std::uint32_t selMbrSdkBookmark_ = 0;
   Orb::Ptr<FlagSm> adtFlagSm_;
   Orb::Ptr<FlagSm> selGrpFlagSm_;
   Orb::Ptr<FlagSm> selMbrFlagSm_;
   std::uint32_t adtTblHdl_ = 0;
   std::uint32_t selTblHdl_ = 0;
   bool initialized2_ = false;
};

Orb::Ptr<MatAdtSelTableAuditSm> MatAdtSelTableAuditSmIs(
    Orb::Ptr<const AuditInstance> configInstance, std::uint32_t sessHdl,
    Orb::Ptr<FailedAuditStatus> failedAuditStatus, Orb::Ptr<const AuditPolicy> auditPolicy,
    std::shared_ptr<const HwPd::HwPdIntf> hwPdIntf,
    const ChipMbbShared::TableConfigMountKey& mountKey, Orb::WeakPtr<MatAdtSelSm> matAdtSelSm);

}  // namespace ChipMbbSlice
