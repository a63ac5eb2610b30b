#pragma once

#include <cstdint>
#include <map>
#include <string_view>
#include <tuple>

#include "MbbEngine/MbbEngineSm.h"
#include "Orb/Entity.h"
#include "Orb/Ptr.h"
#include "Orb/Value.h"
#include "TableAuditSm/AuditTypes.h"
#include "TableAuditSm/FailedAuditStatus.h"
#include "Vault/MbbEngine/EntryKey.h"

namespace ChipMbbSlice {

// A configuration key that failed the audit, how many audits in a row it failed with this op id,
// and the audit that flagged it last.
class FlaggedVaultKey : public Orb::ValueBase {
 public:
   static constexpr std::string_view orbTypeName = "ChipMbbSlice::FlaggedVaultKey";

   FlaggedVaultKey() = default;
   FlaggedVaultKey(Vault::MbbEngine::EntryKey vaultKey, std::uint32_t flagCount,
                   Vault::MbbEngine::OpId opId, std::uint32_t flaggedInstance)
       : vaultKey_(vaultKey),
         flagCount_(flagCount),
         opId_(opId),
         flaggedInstance_(flaggedInstance) {}

   Vault::MbbEngine::EntryKey vaultKey() const { return vaultKey_; }
   std::uint32_t flagCount() const { return flagCount_; }
   Vault::MbbEngine::OpId opId() const { return opId_; }
   std::uint32_t flaggedInstance() const { return flaggedInstance_; }

   bool operator==(const FlaggedVaultKey&) const = default;

   static constexpr auto orbFields() {
      return std::make_tuple(Orb::field("vaultKey", &FlaggedVaultKey::vaultKey_),
                             Orb::field("flagCount", &FlaggedVaultKey::flagCount_),
                             Orb::field("opId", &FlaggedVaultKey::opId_),
                             Orb::field("flaggedInstance", &FlaggedVaultKey::flaggedInstance_));
   }

 private:
   Vault::MbbEngine::EntryKey vaultKey_;
   std::uint32_t flagCount_ = 0;
   Vault::MbbEngine::OpId opId_;
   std::uint32_t flaggedInstance_ = 0;
};

// An SDK entry handle that no key of the engine owns.
class FlaggedEntryHdl : public Orb::ValueBase {
 public:
   static constexpr std::string_view orbTypeName = "ChipMbbSlice::FlaggedEntryHdl";

   FlaggedEntryHdl() = default;
   FlaggedEntryHdl(std::uint32_t entryHdl, std::uint32_t flagCount, std::uint32_t flaggedInstance)
       : entryHdl_(entryHdl), flagCount_(flagCount), flaggedInstance_(flaggedInstance) {}

   std::uint32_t entryHdl() const { return entryHdl_; }
   std::uint32_t flagCount() const { return flagCount_; }
   std::uint32_t flaggedInstance() const { return flaggedInstance_; }

   bool operator==(const FlaggedEntryHdl&) const = default;

   static constexpr auto orbFields() {
      return std::make_tuple(Orb::field("entryHdl", &FlaggedEntryHdl::entryHdl_),
                             Orb::field("flagCount", &FlaggedEntryHdl::flagCount_),
                             Orb::field("flaggedInstance", &FlaggedEntryHdl::flaggedInstance_));
   }

 private:
   std::uint32_t entryHdl_ = 0;
   std::uint32_t flagCount_ = 0;
   std::uint32_t flaggedInstance_ = 0;
};

// Asks a table's engine to take a key that makes no progress up again. The engine is referred
// to, not kept: one that has gone is told nothing.
class MbbNotifier : public Orb::Entity<MbbNotifier> {
 public:
   MbbNotifier(Orb::WeakPtr<MbbEngine::MbbEngineSm> mbbEngineSm, TableType tableType)
       : mbbEngineSm_(std::move(mbbEngineSm)), tableType_(tableType) {}

   Orb::Ptr<MbbEngine::MbbEngineSm> mbbEngineSm() const { return mbbEngineSm_.lock(); }
   TableType tableType() const { return tableType_; }
   std::uint32_t notificationCount() const { return notificationCount_; }

   void notifyOnKey(Vault::MbbEngine::EntryKey key);

 private:
   void notifyDependencyEngine(MbbEngine::MbbEngineSm& engine, Vault::MbbEngine::EntryKey key);

   Orb::WeakPtr<MbbEngine::MbbEngineSm> mbbEngineSm_;
   TableType tableType_;
   std::uint32_t notificationCount_ = 0;
};

// Counts, per table, the audits in a row in which a key or handle failed, and acts on the
// policy's thresholds: the engine is notified at `notifyMbbLimit`, the failure recorded from
// `failAuditLimit` on. A key that passes an audit loses its flag when its pass ends.
class FlagSm : public Orb::Entity<FlagSm> {
 public:
   using FlaggedVaultKeyMap = std::map<Vault::MbbEngine::EntryKey, FlaggedVaultKey>;
   using FlaggedEntryHdlMap = std::map<std::uint32_t, FlaggedEntryHdl>;

   FlagSm(Orb::Ptr<const AuditInstance> configInstance,
          Orb::Ptr<FailedAuditStatus> failedAuditStatus, Orb::Ptr<const AuditPolicy> auditPolicy,
          std::uint32_t tblHdl, Orb::Ptr<MbbNotifier> mbbNotifier);

   const Orb::Ptr<const AuditInstance>& configInstance() const { return configInstance_; }
   const Orb::Ptr<FailedAuditStatus>& failedAuditStatus() const { return failedAuditStatus_; }
   const Orb::Ptr<const AuditPolicy>& auditPolicy() const { return auditPolicy_; }
   std::uint32_t tblHdl() const { return tblHdl_; }
   const Orb::Ptr<MbbNotifier>& mbbNotifier() const { return mbbNotifier_; }

   FlaggedVaultKey flaggedVaultKey(Vault::MbbEngine::EntryKey key) const;
   const FlaggedVaultKeyMap& flaggedVaultKeys() const { return flaggedVaultKey_; }
   FlaggedEntryHdl flaggedEntryHdl(std::uint32_t hdl) const;
   const FlaggedEntryHdlMap& flaggedEntryHdls() const { return flaggedEntryHdl_; }

   void flagVaultKey(Vault::MbbEngine::EntryKey key, Vault::MbbEngine::OpId opId,
                     AuditFailReason reason);
   void flagEntryHdl(std::uint32_t hdl, AuditFailReason reason);
   // Drops the flags that the audit which has just finished did not renew.
   void cleanFlaggedVaultKeys();
   void cleanFlaggedEntryHdls();

 private:
   void failureRecord(std::uint64_t identifier, AuditFailReason reason);

   Orb::Ptr<const AuditInstance> configInstance_;
   Orb::Ptr<FailedAuditStatus> failedAuditStatus_;
   Orb::Ptr<const AuditPolicy> auditPolicy_;
   std::uint32_t tblHdl_;
   Orb::Ptr<MbbNotifier> mbbNotifier_;
   FlaggedVaultKeyMap flaggedVaultKey_;
   FlaggedEntryHdlMap flaggedEntryHdl_;
};

}  // namespace ChipMbbSlice
