#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <ostream>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "ChipMbbShared/ConfigTables.h"
#include "ChipMbbSlice/ChipMbbEngineHelper.h"
#include "ChipMbbSlice/DependencyEngineIntf.h"
#include "ChipMbbSliceMatAdtSelSm/DependencyRecords.h"
#include "MbbEngine/FastMbbEngineImpl.h"
#include "Orb/LinkQueue.h"

namespace ChipMbbSlice {

// The engine of a triple table. The match table is sequenced make-before-break by the base;
// this class holds a match entry back until what its action points at (a selector group, or an
// ADT entry directly) is in hardware and usable, places ADT entries, groups and members itself,
// and takes nothing out of hardware while anything in hardware still points at it.
//
// References move from future (the dependency was found ready for a pending configuration) to
// issued (the configuration went into a placement batch), and an issued reference that is
// replaced is released only once the batch that replaced it is committed.
class MatAdtSelMbbEngineImpl : public MbbEngine::FastMbbEngineImpl, public DependencyEngineIntf {
 public:
   using EntryKey = Vault::MbbEngine::EntryKey;
   using SelMbrEntryKey = ChipMbbShared::SelMbrEntryKey;
   using AdtMap = std::map<EntryKey, Orb::Ptr<AdtState>>;
   using SelGrpMap = std::map<EntryKey, Orb::Ptr<SelGrpState>>;

   static constexpr std::string_view orbTypeName = "ChipMbbSlice::MatAdtSelMbbEngineImpl";
   // Members of this group are the table's fallback member, not members of a group.
   static constexpr std::uint64_t fallbackGrpKey = 0x1FFFFFA11BACCull;

   MatAdtSelMbbEngineImpl(std::string name, Orb::Ptr<MbbEngine::DebugConfig> debugConfig,
                          Orb::Ptr<MbbEngine::DebugStatus> debugStatus,
                          Orb::Ptr<MbbEngine::MbbEngineHelper> helper, std::uint32_t qtId,
                          Orb::Ptr<Vault::MbbEngine::TableConfig> matTableConfig,
                          Orb::Ptr<ChipMbbShared::AdtTableConfig> adtTableConfig,
                          Orb::Ptr<ChipMbbShared::SelGrpTableConfig> selGrpTableConfig,
                          Orb::Ptr<ChipMbbShared::SelMbrTableConfig> selMbrTableConfig);
   ~MatAdtSelMbbEngineImpl() override;

   virtual std::string_view fwkType() const { return orbTypeName; }
   bool hasBackupSupport() const override { return false; }
   bool processDependantTables(const Vault::MbbEngine::EntryConfig& config,
                               const EntryKey& matKey) override;
   void handleInitialized2() override;
   void doCleanup2() override;
   void dumpState(std::ostream& os) const override;

   void matInBatch(EntryKey matKey) override;
   void processedMat() override;
   void processedAdt(EntryKey adtKey) override;
   void processedSel() override;

   // The group or ADT entry, in hardware and referable, doing now whatever pending work makes
   // it so; null when its configuration does not allow it yet.
   Orb::Ptr<SelGrpState> readySelGrp(EntryKey grpKey);
   Orb::Ptr<AdtState> readyAdt(EntryKey adtKey);
   void decAdtRefCnt(const Orb::Ptr<AdtState>& as);
   void decAdtMatRefCnt(const Orb::Ptr<AdtState>& as);
   void decSelGrpRefCnt(const Orb::Ptr<SelGrpState>& sgs);
   void deletedAdtRefEnq(EntryKey adtKey) { deletedAdtRef_.enq(adtKey); }
   void deletedSelGrpRefEnq(EntryKey grpKey) { deletedSelGrpRef_.enq(grpKey); }

   void handleAdtEntry(EntryKey adtKey);
   void handleSelGrpEntry(EntryKey grpKey);
   void handleSelMbrEntry(SelMbrEntryKey selMbrKey);
   void activeMbrCntInc(const Orb::Ptr<SelGrpState>& sgs, VectorIndex vi);
   void activeMbrCntDec(const Orb::Ptr<SelGrpState>& sgs, VectorIndex vi);
   // Adds the new configuration of a vector's only active member in another slot of the
   // vector; returns what it issued there (empty when the vector turned out to have another
   // active member).
   ChipMbbShared::SelMbrEntryConfig deadlockAddSelMbr(
       const Orb::Ptr<SelGrpState>& sgs, const ChipMbbShared::SelMbrEntryConfig& config);

   // Runs the handler of every key the engine holds that the table no longer configures: a
   // reader that fell behind may have missed their deletes.
   void sweepAdt();
   void sweepSelGrp();
   void sweepSelMbr();

   // Match keys whose dependency became referable, to be offered again outside any commit;
   // `reofferHook` is told whenever the list stops being empty.
   std::vector<EntryKey> reofferTake(std::size_t max);
   std::size_t numReofferDue() const { return reoffer_.size(); }
   void reofferHookIs(std::function<void()> hook) { reofferHook_ = std::move(hook); }

   const Orb::Ptr<ChipMbbEngineHelper>& chipHelper() const { return chipHelper_; }
   const Orb::Ptr<Vault::MbbEngine::TableConfig>& matTableConfig() const { return tableConfig(); }
   const Orb::Ptr<ChipMbbShared::AdtTableConfig>& adtTableConfig() const { return adtTableConfig_; }
   void adtTableConfigIs(Orb::Ptr<ChipMbbShared::AdtTableConfig> t) {
      adtTableConfig_ = std::move(t);
   }
   const Orb::Ptr<ChipMbbShared::SelGrpTableConfig>& selGrpTableConfig() const {
      return selGrpTableConfig_;
   }
   void selGrpTableConfigIs(Orb::Ptr<ChipMbbShared::SelGrpTableConfig> t) {
      selGrpTableConfig_ = std::move(t);
   }
   const Orb::Ptr<ChipMbbShared::SelMbrTableConfig>& selMbrTableConfig() const {
      return selMbrTableConfig_;
   }
   void selMbrTableConfigIs(Orb::Ptr<ChipMbbShared::SelMbrTableConfig> t) {
      selMbrTableConfig_ = std::move(t);
   }
   // The table handles of the triple's ADT and selector, as the helper places them.
   std::uint32_t adtTableHandle() const { return chipHelper_ ? chipHelper_->adtTableHandle() : 0; }
   std::uint32_t selTableHandle() const { return chipHelper_ ? chipHelper_->selTableHandle() : 0; }

   Orb::Ptr<AdtState> currentAdt(EntryKey key) const;
   const AdtMap& currentAdts() const { return currentAdt_; }
   Orb::Ptr<SelGrpState> currentSelGrp(EntryKey key) const;
   const SelGrpMap& currentSelGrps() const { return currentSelGrp_; }
   void currentSelGrpIs(EntryKey key, Orb::Ptr<SelGrpState> sgs);
   void maybeReferableSelGrpIs(EntryKey key, Orb::Ptr<SelGrpState> sgs);
   // The ADT key owning a member handle; the empty key when none does.
   EntryKey mbrHdlToKey(std::uint32_t mbrHdl) const;
   bool mbrHdlToKeyHas(std::uint32_t mbrHdl) const { return mbrHdlToKey_.count(mbrHdl) != 0; }
   SelGrpRef futureSelRef(EntryKey matKey) const;
   SelGrpRef issuedSelRef(EntryKey matKey) const;
   // The ADT entry that an issued match entry's action names directly; empty when none.
   EntryKey issuedAdtRef(EntryKey matKey) const;
   // The members issued into a group, in key order; empty when the group is not issued.
   std::vector<Orb::Ptr<SelMbrState>> issuedSelMbrs(EntryKey grpKey) const;
   const Orb::Ptr<SelMbrState>& issuedFallback() const { return issuedFallback_; }
   Orb::LinkQueueMetadata deletedAdtRefMetadata() const { return deletedAdtRef_.metadata(); }
   Orb::LinkQueueMetadata deletedSelGrpRefMetadata() const { return deletedSelGrpRef_.metadata(); }

   std::uint64_t numDeadlockBreakOps() const { return numDeadlockBreakOps_; }
   // Bytes held in the ADT, group and member records and their maps, allocator rounding and map
   // nodes included; and what one record of each kind costs.
   std::size_t recordMemoryBytes() const;
   static std::size_t selMbrRecordBytes();
   static std::size_t selGrpRecordBytes();
   static std::size_t adtRecordBytes();

 private:
   template <class Table, class Key, class Value>
   bool configRead(const Table& table, const Key& key, Value& out) const;
   void adtAdd(const ChipMbbShared::AdtEntryConfig& config);
   void adtRemove(const Orb::Ptr<AdtState>& as);
   void selGrpRemove(const Orb::Ptr<SelGrpState>& sgs,
                     const ChipMbbShared::SelGrpEntryConfig& config);
   void selMbrAdd(const Orb::Ptr<SelGrpState>& sgs, const ChipMbbShared::SelMbrEntryConfig& config,
                  const Orb::Ptr<AdtState>& as);
   void selMbrChange(const Orb::Ptr<SelGrpState>& sgs, const Orb::Ptr<SelMbrState>& sms,
                     const ChipMbbShared::SelMbrEntryConfig& config);
   void selMbrRemove(const Orb::Ptr<SelGrpState>& sgs, const Orb::Ptr<SelMbrState>& sms,
                     bool isDeadlock);
   void selMbrDelete(const Orb::Ptr<SelGrpState>& sgs, SelMbrEntryKey key,
                     const ChipMbbShared::SelMbrEntryConfig& config);
   void fallbackEntry(SelMbrEntryKey key, const ChipMbbShared::SelMbrEntryConfig& config);
   void selBatchCommit();
   void selMbrStatusDone(SelMbrEntryKey key, const ChipMbbShared::SelMbrEntryConfig& config);
   bool directAdtReady(EntryKey matKey, std::uint32_t mbrHdl);
   void releaseFutureRefs(EntryKey matKey);
   void releaseIssuedRefsNow(EntryKey matKey);
   void referableCheck(const Orb::Ptr<SelGrpState>& sgs);
   void waitersDue(std::unordered_set<EntryKey>& waiters);
   void mbrWaitersRun(std::unordered_map<EntryKey, std::vector<SelMbrEntryKey>>& waiting,
                      EntryKey key);
   static ChipMbbShared::SelMbrEntryConfig configOf(const SelMbrState& sms);

   Orb::Ptr<ChipMbbEngineHelper> chipHelper_;
   Orb::Ptr<ChipMbbShared::AdtTableConfig> adtTableConfig_;
   Orb::Ptr<ChipMbbShared::SelGrpTableConfig> selGrpTableConfig_;
   Orb::Ptr<ChipMbbShared::SelMbrTableConfig> selMbrTableConfig_;
   AdtMap currentAdt_;
   std::unordered_map<std::uint32_t, EntryKey> mbrHdlToKey_;
   SelGrpMap currentSelGrp_;
   std::unordered_map<EntryKey, SelGrpRef> futureSelRef_;
   std::unordered_map<EntryKey, SelGrpRef> issuedSelRef_;
   std::unordered_map<EntryKey, EntryKey> futureAdtRef_;
   std::unordered_map<EntryKey, EntryKey> issuedAdtRef_;
   SelGrpMap maybeReferableSelGrp_;
   Orb::LinkQueue<EntryKey> deletedAdtRef_;
   Orb::LinkQueue<EntryKey> deletedSelGrpRef_;
   // ADT entries that match entries stopped naming directly, released after the match commit.
   Orb::LinkQueue<EntryKey> deletedAdtMatRef_;
   Orb::Ptr<SelMbrState> issuedFallback_;
   bool deadlockBreakerPending_ = false;
   std::uint64_t numDeadlockBreakOps_ = 0;

   // Match keys waiting for a group, or for an ADT member handle, to become referable.
   std::unordered_map<EntryKey, std::unordered_set<EntryKey>> routesWaitingForGrp_;
   std::unordered_map<std::uint32_t, std::unordered_set<EntryKey>> routesWaitingForAdt_;
   // Members waiting for their ADT entry, or for their group, to be issued.
   std::unordered_map<EntryKey, std::vector<SelMbrEntryKey>> mbrsWaitingForAdt_;
   std::unordered_map<EntryKey, std::vector<SelMbrEntryKey>> mbrsWaitingForGrp_;
   std::deque<EntryKey> reoffer_;
   std::function<void()> reofferHook_;
};

}  // namespace ChipMbbSlice
