// The ADT, selector group and selector member handlers of the triple engine.

#include <cinttypes>
#include <cstdio>

#include "Brio/Brio.h"
#include "ChipMbbSlice/TraceSetup.h"
#include "ChipMbbSliceMatAdtSelSm/MatAdtSelMbbEngineImpl.h"

namespace ChipMbbSlice {

using ChipMbbShared::AdtEntryConfig;
using ChipMbbShared::SelGrpEntryConfig;
using ChipMbbShared::SelMbrEntryConfig;
using ChipMbbShared::SelMbrEntryKey;
using Vault::MbbEngine::EntryKey;

namespace {

template <class Config>
bool absentOrDel(const Config& config) {
   return config == Config() || config.isDel();
}

}  // namespace

template <class Table, class Key, class Value>
bool MatAdtSelMbbEngineImpl::configRead(const Table& table, const Key& key, Value& out) const {
   if (!table) {
      out = Value();
      return true;
   }
   try {
      out = table->entry(key);
   } catch (const Brio::CorruptionDetectedException& e) {
      // The table has run its corruption handling; the key keeps what it has until a good
      // record comes.
      DUALLOG(sliceLog, 0, name() << ": key " << key << " skipped: " << e.what());
      return false;
   }
   return true;
}

SelMbrEntryConfig MatAdtSelMbbEngineImpl::configOf(const SelMbrState& sms) {
   return SelMbrEntryConfig(sms.selMbrKey(), sms.opId(), sms.adtKey(), sms.active());
}

void MatAdtSelMbbEngineImpl::handleAdtEntry(EntryKey adtKey) {
   DUALLOG(sliceLog, 8, __PRETTY_FUNCTION__ << " key:" << adtKey);
   AdtEntryConfig config;
   if (!configRead(adtTableConfig_, adtKey, config)) return;
   const Orb::Ptr<AdtState> as = currentAdt(adtKey);
   if (!absentOrDel(config)) {
      if (!as) {
         adtAdd(config);
      } else if (as->opId() < config.opId()) {
         // Configured again after a delete that still waits for its users: it stays.
         as->queueDeleteIs(false);
         as->opIdIs(config.opId());
         chipHelper_->updateAdtEntry(config);
      }
      return;
   }
   if (!as) {
      if (config.isDel()) {
         chipHelper_->adtDelAck(adtKey);
      } else {
         chipHelper_->adtDelStatus(adtKey);
      }
      return;
   }
   if (as->refCnt() > 0 || as->matRefCnt() > 0) {
      as->queueDeleteIs(true);
      if (config.isDel()) as->opIdIs(config.opId());
      return;
   }
   adtRemove(as);
}

void MatAdtSelMbbEngineImpl::adtAdd(const AdtEntryConfig& adtEntry) {
   currentAdt_[adtEntry.key()] =
       Orb::ptrNew<AdtState>(adtEntry.key(), adtEntry.mbrHdl(), adtEntry.opId());
   if (mbrHdlToKeyHas(adtEntry.mbrHdl())) {
      std::fprintf(stderr,
                   "Failed("
                   "!mbrHdlToKeyHas( adtEntry.mbrHdl() )"
                   ") "
                   "mbrHdl=%u\n",
                   adtEntry.mbrHdl());
      // clang-format off
      BRIO_ASSERT(!mbrHdlToKeyHas( adtEntry.mbrHdl() ));
      // clang-format on
   }
   mbrHdlToKey_[adtEntry.mbrHdl()] = adtEntry.key();
   chipHelper_->addAdtEntry(adtEntry);
   mbrWaitersRun(mbrsWaitingForAdt_, adtEntry.key());
}

void MatAdtSelMbbEngineImpl::mbrWaitersRun(
    std::unordered_map<EntryKey, std::vector<SelMbrEntryKey>>& waiting, EntryKey key) {
   auto it = waiting.find(key);
   if (it == waiting.end()) return;
   const std::vector<SelMbrEntryKey> members = std::move(it->second);
   waiting.erase(it);
   for (const SelMbrEntryKey member : members) handleSelMbrEntry(member);
}

void MatAdtSelMbbEngineImpl::handleSelGrpEntry(EntryKey grpKey) {
   DUALLOG(sliceLog, 8, __PRETTY_FUNCTION__ << " key:" << grpKey);
   SelGrpEntryConfig config;
   if (!configRead(selGrpTableConfig_, grpKey, config)) return;
   const Orb::Ptr<SelGrpState> sgs = currentSelGrp(grpKey);
   if (!absentOrDel(config)) {
      // A group's handle, vectors and base index never change in place.
      if (sgs) return;
      DUALLOG(sliceLog, 7, "Group added key=" << grpKey);
      currentSelGrpIs(grpKey, Orb::ptrNew<SelGrpState>(grpKey, config.opId(), config.grpHdl(),
                                                       config.numVectors(), config.baseIndex()));
      chipHelper_->selGrpSetStatus(grpKey, config.opId());
      mbrWaitersRun(mbrsWaitingForGrp_, grpKey);
      return;
   }
   DUALLOG(sliceLog, 7, "Group deleted key=" << grpKey);
   if (sgs && sgs->refCnt() > 0) {
      DUALLOG(sliceLog, 7, "  queueing group delete");
      sgs->queueDeleteIs(true);
      return;
   }
   if (sgs) selGrpRemove(sgs, config);
   if (config.isDel()) {
      if (!sgs) DUALLOG(sliceLog, 7, "  delAck group");
      chipHelper_->selGrpDelAck(grpKey);
   } else {
      if (!sgs) DUALLOG(sliceLog, 7, "  delete status");
      chipHelper_->selGrpDelStatus(grpKey);
   }
}

void MatAdtSelMbbEngineImpl::selGrpRemove(const Orb::Ptr<SelGrpState>& sgs,
                                          const SelGrpEntryConfig& config) {
   DUALLOG(sliceLog, 7, "  deleting members");
   std::vector<SelMbrEntryKey> deleted;
   for (const auto& [key, sms] : SelGrpState::SelMbrMap(sgs->issuedSelMbrs())) {
      if (sms->active()) activeMbrCntDec(sgs, VectorIndex(key.vector()));
      deletedAdtRefEnq(sms->adtKey());
      sgs->issuedSelMbrDel(key);
      // Every member loses its status; one whose own configuration is a delete is then
      // acknowledged, the others wait for the group to come back.
      SelMbrEntryConfig own;
      configRead(selMbrTableConfig_, key, own);
      if (own.isDel()) {
         deleted.push_back(key);
      } else if (own != SelMbrEntryConfig()) {
         mbrsWaitingForGrp_[sgs->key()].push_back(key);
      }
      chipHelper_->delSelEntry(configOf(*sms), sgs->grpHdl(), sgs->baseIndex(), sms->mbrHdl(),
                               false);
   }
   selBatchCommit();
   for (const SelMbrEntryKey key : deleted) chipHelper_->selMbrDelAck(key);
   for (std::uint32_t i = 0; i < sgs->numVectors() && i < VectorIndex::numVectors; ++i) {
      // clang-format off
      BRIO_ASSERT(sgs->activeMbrCnt( VectorIndex( i ) ) == 0);
      // clang-format on
   }
   currentSelGrp_.erase(sgs->key());
   maybeReferableSelGrp_.erase(sgs->key());
}

void MatAdtSelMbbEngineImpl::selBatchCommit() {
   if (chipHelper_->hasSelBatch()) chipHelper_->processSelPlcmtInfo();
}

void MatAdtSelMbbEngineImpl::handleSelMbrEntry(SelMbrEntryKey key) {
   DUALLOG(sliceLog, 8, __PRETTY_FUNCTION__ << " key:" << key);
   SelMbrEntryConfig config;
   if (!configRead(selMbrTableConfig_, key, config)) return;
   if (key.selGrp() == EntryKey(fallbackGrpKey)) {
      fallbackEntry(key, config);
      return;
   }
   Orb::Ptr<SelGrpState> sgs = currentSelGrp(key.selGrp());
   if (!sgs) {
      handleSelGrpEntry(key.selGrp());
      sgs = currentSelGrp(key.selGrp());
      if (!sgs) {
         if (!absentOrDel(config)) mbrsWaitingForGrp_[key.selGrp()].push_back(key);
         chipHelper_->selMbrDelStatus(key);
         return;
      }
   }
   if (absentOrDel(config)) {
      selMbrDelete(sgs, key, config);
      return;
   }
   const Orb::Ptr<AdtState> as = readyAdt(config.adtKey());
   if (!as) {
      mbrsWaitingForAdt_[config.adtKey()].push_back(key);
      return;
   }
   // readyAdt may have run other handlers.
   sgs = currentSelGrp(key.selGrp());
   if (!sgs) return;
   const VectorIndex vi(key.vector());
   const Orb::Ptr<SelMbrState> sms = sgs->issuedSelMbr(key);
   SelMbrEntryConfig deadlockBreaker;
   if (sms && sms->mbrHdl() == as->mbrHdl()) {
      selMbrChange(sgs, sms, config);
   } else {
      if (sms && sms->active() && sgs->activeMbrCnt(vi) == 1) {
         BRIO_ASSERT_MSG(!deadlockBreakerPending_, "unexpected deadlock breaker");
         deadlockBreakerPending_ = true;
         deadlockBreaker = deadlockAddSelMbr(sgs, config);
         deadlockBreakerPending_ = false;
      }
      // The breaker may have run other handlers, this key's own among them.
      const Orb::Ptr<SelMbrState> old = sgs->issuedSelMbr(key);
      if (old == sms) {
         if (old) {
            BRIO_ASSERT_MSG(currentAdt(old->adtKey()),
                            "tried deleting reference to non-existing AdtState");
            selMbrRemove(sgs, old, false);
         }
         selMbrAdd(sgs, config, as);
      }
   }
   if (!sgs->referable()) maybeReferableSelGrpIs(sgs->key(), sgs);
   if (deadlockBreaker != SelMbrEntryConfig()) {
      // The copy in the target slot has done its work now that the new configuration is
      // active; the target's own configuration decides what stays there.
      handleSelMbrEntry(deadlockBreaker.key());
   }
   if (sgs->activeMbrCnt(vi) == 2 && sgs->deferredOp(vi) != SelMbrEntryKey()) {
      const SelMbrEntryKey deferred = sgs->deferredOp(vi);
      sgs->deferredOpDel(vi);
      handleSelMbrEntry(deferred);
   }
}

void MatAdtSelMbbEngineImpl::selMbrChange(const Orb::Ptr<SelGrpState>& sgs,
                                          const Orb::Ptr<SelMbrState>& sms,
                                          const SelMbrEntryConfig& config) {
   const VectorIndex vi(config.key().vector());
   bool active = sms->active();
   bool placed = false;
   bool deferred = false;
   if (!active && config.active()) {
      active = true;
      activeMbrCntInc(sgs, vi);
      placed = true;
   } else if (active && !config.active()) {
      if (sgs->activeMbrCnt(vi) >= 2) {
         active = false;
         activeMbrCntDec(sgs, vi);
         placed = true;
      } else {
         // The vector's last active member stays until another one is there.
         sgs->deferredOpIs(vi, config.key());
         deferred = true;
      }
   }
   const bool newer = sms->opId() < config.opId();
   sgs->issuedSelMbrIs(
       config.key(),
       Orb::ptrNew<SelMbrState>(config.key(), config.opId(), sms->adtKey(), sms->mbrHdl(), active));
   if (placed && active) {
      chipHelper_->activateSelEntry(config, sgs->grpHdl(), sgs->baseIndex(), sms->mbrHdl());
   } else if (placed) {
      chipHelper_->deactivateSelEntry(config, sgs->grpHdl(), sgs->baseIndex(), sms->mbrHdl());
   } else if (!newer || !deferred) {
      // Nothing to place: hardware already holds what this configuration asks for.
      chipHelper_->selMbrSetStatus(config.key(), config.opId());
   }
}

void MatAdtSelMbbEngineImpl::selMbrAdd(const Orb::Ptr<SelGrpState>& sgs,
                                       const SelMbrEntryConfig& config,
                                       const Orb::Ptr<AdtState>& as) {
   const VectorIndex vi(config.key().vector());
   sgs->issuedSelMbrIs(config.key(), Orb::ptrNew<SelMbrState>(config.key(), config.opId(),
                                                              config.adtKey(), as->mbrHdl(), true));
   as->refCntInc(1);
   // A member always comes in active, so that a vector never has to do without it.
   activeMbrCntInc(sgs, vi);
   chipHelper_->addSelEntry(config, sgs->grpHdl(), sgs->baseIndex(), as->mbrHdl(), false);
   if (config.active()) return;
   if (sgs->activeMbrCnt(vi) >= 2) {
      sgs->issuedSelMbr(config.key())->activeIs(false);
      activeMbrCntDec(sgs, vi);
      chipHelper_->deactivateSelEntry(config, sgs->grpHdl(), sgs->baseIndex(), as->mbrHdl());
   } else {
      sgs->deferredOpIs(vi, config.key());
   }
}

void MatAdtSelMbbEngineImpl::selMbrRemove(const Orb::Ptr<SelGrpState>& sgs,
                                          const Orb::Ptr<SelMbrState>& sms, bool isDeadlock) {
   const Orb::Ptr<SelMbrState> keep = sms;
   deletedAdtRefEnq(keep->adtKey());
   sgs->issuedSelMbrDel(keep->selMbrKey());
   if (keep->active()) activeMbrCntDec(sgs, VectorIndex(keep->selMbrKey().vector()));
   chipHelper_->delSelEntry(configOf(*keep), sgs->grpHdl(), sgs->baseIndex(), keep->mbrHdl(),
                            isDeadlock);
}

void MatAdtSelMbbEngineImpl::selMbrDelete(const Orb::Ptr<SelGrpState>& sgs, SelMbrEntryKey key,
                                          const SelMbrEntryConfig& config) {
   const VectorIndex vi(key.vector());
   if (const Orb::Ptr<SelMbrState> sms = sgs->issuedSelMbr(key)) {
      if (sms->active() && sgs->activeMbrCnt(vi) == 1) {
         sgs->deferredOpIs(vi, key);
         return;
      }
      selMbrRemove(sgs, sms, false);
   }
   selBatchCommit();
   selMbrStatusDone(key, config);
}

void MatAdtSelMbbEngineImpl::selMbrStatusDone(SelMbrEntryKey key, const SelMbrEntryConfig& config) {
   if (config.isDel()) {
      chipHelper_->selMbrDelAck(key);
   } else {
      chipHelper_->selMbrDelStatus(key);
   }
}

void MatAdtSelMbbEngineImpl::fallbackEntry(SelMbrEntryKey key, const SelMbrEntryConfig& config) {
   if (absentOrDel(config)) {
      if (const Orb::Ptr<SelMbrState> old = issuedFallback_) {
         deletedAdtRefEnq(old->adtKey());
         issuedFallback_ = nullptr;
         chipHelper_->clrFallbackSelEntry(config.isDel() ? config : configOf(*old), old->mbrHdl());
      }
      selBatchCommit();
      selMbrStatusDone(key, config);
      return;
   }
   if (issuedFallback_ && issuedFallback_->selMbrKey() == key &&
       issuedFallback_->opId() >= config.opId()) {
      chipHelper_->selMbrSetStatus(key, issuedFallback_->opId());
      return;
   }
   const Orb::Ptr<AdtState> as = readyAdt(config.adtKey());
   if (!as) {
      mbrsWaitingForAdt_[config.adtKey()].push_back(key);
      return;
   }
   if (const Orb::Ptr<SelMbrState> old = issuedFallback_) {
      BRIO_ASSERT_MSG(currentAdt(old->adtKey()),
                      "tried deleting reference to non-existing AdtState");
      deletedAdtRefEnq(old->adtKey());
   }
   issuedFallback_ =
       Orb::ptrNew<SelMbrState>(key, config.opId(), config.adtKey(), as->mbrHdl(), true);
   as->refCntInc(1);
   chipHelper_->setFallbackSelEntry(config, as->mbrHdl());
}

SelMbrEntryConfig MatAdtSelMbbEngineImpl::deadlockAddSelMbr(const Orb::Ptr<SelGrpState>& sgsIn,
                                                            const SelMbrEntryConfig& config) {
   const SelMbrEntryKey key = config.key();
   const VectorIndex vi(key.vector());
   const SelMbrEntryKey targetKey(key.selGrp(), key.vector(), key.subIndex() == 0 ? 1 : 0);
   SelMbrEntryConfig targetConfig;
   configRead(selMbrTableConfig_, targetKey, targetConfig);
   Orb::Ptr<SelGrpState> sgs = sgsIn;
   if (!absentOrDel(targetConfig) && targetConfig.active()) {
      handleSelMbrEntry(targetKey);
      sgs = currentSelGrp(key.selGrp());
      BRIO_ASSERT(sgs);
      if (sgs->activeMbrCnt(vi) > 1) return {};
   }
   if (const Orb::Ptr<SelMbrState> sms = sgs->issuedSelMbr(targetKey)) {
      BRIO_ASSERT_MSG(!sms->active(), "target is expected to be deactivated");
      selMbrRemove(sgs, sms, true);
   }
   const Orb::Ptr<AdtState> targetAs = currentAdt(config.adtKey());
   BRIO_ASSERT(targetAs);
   targetAs->refCntInc(1);
   SelMbrEntryConfig issued = config;
   issued.keyIs(targetKey);
   issued.activeIs(true);
   sgs->issuedSelMbrIs(targetKey,
                       Orb::ptrNew<SelMbrState>(targetKey, config.opId(), config.adtKey(),
                                                targetAs->mbrHdl(), true));
   activeMbrCntInc(sgs, vi);
   chipHelper_->addSelEntry(issued, sgs->grpHdl(), sgs->baseIndex(), targetAs->mbrHdl(), true);
   ++numDeadlockBreakOps_;
   DUALLOG(sliceLog, 5, name() << ": deadlock break, member " << key << " via slot " << targetKey);
   return issued;
}

void MatAdtSelMbbEngineImpl::activeMbrCntInc(const Orb::Ptr<SelGrpState>& sgs, VectorIndex vi) {
   sgs->activeMbrCntIs(vi, sgs->activeMbrCnt(vi) + 1);
   if (!sgs->referable()) maybeReferableSelGrpIs(sgs->key(), sgs);
}

void MatAdtSelMbbEngineImpl::activeMbrCntDec(const Orb::Ptr<SelGrpState>& sgs, VectorIndex vi) {
   // clang-format off
   BRIO_ASSERT(sgs->activeMbrCnt( vi ) > 0);
   // clang-format on
   sgs->activeMbrCntIs(vi, sgs->activeMbrCnt(vi) - 1);
}

void MatAdtSelMbbEngineImpl::sweepAdt() {
   if (!adtTableConfig_) return;
   std::vector<EntryKey> gone;
   for (const auto& [key, as] : currentAdt_) {
      if (!adtTableConfig_->present(key)) gone.push_back(key);
   }
   for (const EntryKey key : gone) handleAdtEntry(key);
}

void MatAdtSelMbbEngineImpl::sweepSelGrp() {
   if (!selGrpTableConfig_) return;
   std::vector<EntryKey> gone;
   for (const auto& [key, sgs] : currentSelGrp_) {
      if (!selGrpTableConfig_->present(key)) gone.push_back(key);
   }
   for (const EntryKey key : gone) handleSelGrpEntry(key);
}

void MatAdtSelMbbEngineImpl::sweepSelMbr() {
   if (!selMbrTableConfig_) return;
   std::vector<SelMbrEntryKey> gone;
   for (const auto& [grpKey, sgs] : currentSelGrp_) {
      for (const auto& [key, sms] : sgs->issuedSelMbrs()) {
         if (!selMbrTableConfig_->present(key)) gone.push_back(key);
      }
   }
   if (issuedFallback_ && !selMbrTableConfig_->present(issuedFallback_->selMbrKey())) {
      gone.push_back(issuedFallback_->selMbrKey());
   }
   for (const SelMbrEntryKey key : gone) handleSelMbrEntry(key);
}

}  // namespace ChipMbbSlice
