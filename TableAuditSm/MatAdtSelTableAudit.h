#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

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
// With the policy's hardware comparison off (the manager's setting) selector groups and members
// are not compared with the SDK: their SDK passes exist so that every sub-table has the same
// pass slots, and finish at once. An ADT entry's data and a selector member are then never read
// back, so a fault that changes them in the chip goes unseen.
//
// With the comparison on, the chip is read back for every part of the triple, as for a single
// table's match entries: the ADT vault pass compares each entry's data with hardware
// (adtEntryAndHwNotEqual); the member vault pass reads each member at its place in its group's
// vectors and compares its group, the ADT member it selects, its active state (as the engine
// holds them) and its data (selMbrNotInSdk, selMbrAndHwNotEqual); and the member SDK pass walks
// the members the chip holds, first in the vectors of the engine's groups, then in every other
// used vector, and flags each that the engine did not place (selSdkMbrNotInMbb). A member found
// in hardware has no key; it is flagged by its place, selector index shifted left by 7 or its
// sub-index. The selector's fallback member is not read back: the SDK access layer offers no read
// of it. The group SDK pass stays empty: a group has nothing in hardware but its members.
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
   bool isAdtEqualToHw(const ChipMbbShared::AdtEntryConfig& config) const;
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
   // What a member the engine placed disagrees with in hardware, if anything.
   std::optional<AuditFailReason> selMbrHwMismatch(
       const SelGrpState& sgs, const SelMbrState& issued,
       const ChipMbbShared::SelMbrEntryConfig& config) const;
   // The member SDK pass with the hardware comparison on; true when it has finished.
   bool selMbrHwWalk(const MatAdtSelMbbEngineImpl& impl, const Orb::Seconds& deadline);
   // Flags the members of the group's vectors that the engine did not place there.
   void selGrpVectorsAudit(const SelGrpState& sgs);
   bool selVectorSeen(std::uint32_t selIndex) const;
   void selStrayMbrFlag(std::uint32_t selIndex, std::uint32_t subIndex);
   // The first used selector vector handle (selector index + 1) following `after`.
   bool selVectorHdlNext(std::uint32_t after, std::uint32_t& hdl) const;
   // The first ADT member handle following `after`; false when none does.
   bool adtMbrHdlNext(std::uint32_t after, std::uint32_t& hdl) const;
   void adtVaultPassDone();
   void selGrpVaultPassDone();
   void selMbrVaultPassDone();
   void adtSdkPassDone();
   void selMbrSdkPassDone();

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
   // With the hardware comparison on: the used vector handle at which the walk of the vectors
   // outside every group resumes, 0 from the first.
   std::uint32_t selMbrSdkBookmark_ = 0;
   // The group at which the walk of the groups' vectors resumes, until it has been through all.
   Vault::MbbEngine::EntryKey selMbrSdkGrpBookmark_;
   bool selMbrSdkGrpsDone_ = false;
   // Per selector index, the audit instance in which a group's vector there was read; grown
   // only to indices the chip holds members at, and kept, so that an audit allocates nothing.
   std::vector<std::uint32_t> selVectorSeen_;
   std::vector<HwPd::SelMbrValue> selHwMbrs_;
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
