#include "ChipMbbSliceMatAdtSelSm/MatAdtSelMbbEngineImpl.h"

#include <algorithm>

#include "Brio/Brio.h"
#include "ChipMbbSlice/TraceSetup.h"
#include "ChipSdk/PlcmtData.h"

namespace ChipMbbSlice {

using ChipMbbShared::AdtEntryConfig;
using Vault::MbbEngine::EntryConfig;
using Vault::MbbEngine::EntryKey;

namespace {

constexpr const char* refCntZero = "tried to decrease refCnt, but it was 0";

bool absentOrDel(const EntryConfig& config) {
   return config == EntryConfig() || config.isDel();
}

}  // namespace

MatAdtSelMbbEngineImpl::MatAdtSelMbbEngineImpl(
    std::string name, Orb::Ptr<MbbEngine::DebugConfig> debugConfig,
    Orb::Ptr<MbbEngine::DebugStatus> debugStatus, Orb::Ptr<MbbEngine::MbbEngineHelper> helper,
    std::uint32_t qtId, Orb::Ptr<Vault::MbbEngine::TableConfig> matTableConfig,
    Orb::Ptr<ChipMbbShared::AdtTableConfig> adtTableConfig,
    Orb::Ptr<ChipMbbShared::SelGrpTableConfig> selGrpTableConfig,
    Orb::Ptr<ChipMbbShared::SelMbrTableConfig> selMbrTableConfig)
    : FastMbbEngineImpl(std::move(name), std::move(matTableConfig), std::move(debugConfig),
                        std::move(debugStatus), std::move(helper), qtId),
      adtTableConfig_(std::move(adtTableConfig)),
      selGrpTableConfig_(std::move(selGrpTableConfig)),
      selMbrTableConfig_(std::move(selMbrTableConfig)) {
   // A key that waits for its group costs a group lookup each time it is offered again; a
   // retry or re-offer batch of this size keeps the loop held for about a millisecond.
   retryDepsMaxCntIs(256);
}

MatAdtSelMbbEngineImpl::~MatAdtSelMbbEngineImpl() {
   if (chipHelper_ && chipHelper_->impl() == this) chipHelper_->implIs(nullptr);
}

void MatAdtSelMbbEngineImpl::handleInitialized2() {
   DUALLOG(sliceLog, 8, __PRETTY_FUNCTION__);
   FastMbbEngineImpl::handleInitialized();
   chipHelper_ = std::dynamic_pointer_cast<ChipMbbEngineHelper>(helper());
   BRIO_ASSERT(chipHelper());
   chipHelper_->implIs(this);
   initializedIs(true);
}

bool MatAdtSelMbbEngineImpl::processDependantTables(const EntryConfig& config,
                                                    const EntryKey& matKey) {
   releaseFutureRefs(matKey);
   if (absentOrDel(config)) {
      // A key that has no entry in hardware any more (its entry went to break a deadlock)
      // can give up what it issued at once.
      if (!currentEntry(matKey)) releaseIssuedRefsNow(matKey);
      return true;
   }
   if (const EntryKey grpKey = config.selGrpKey(); grpKey != EntryKey()) {
      const Orb::Ptr<SelGrpState> sgs = readySelGrp(grpKey);
      if (!sgs) {
         routesWaitingForGrp_[grpKey].insert(matKey);
         return false;
      }
      futureSelRef_[matKey] = SelGrpRef(matKey, grpKey);
      sgs->refCntInc(1);
      return true;
   }
   const ChipSdk::PlcmtDataView view = ChipSdk::plcmtDataParse(config.plcmtData());
   if (view.ok() && view.action == ChipSdk::PlcmtAction::adtMember) {
      return directAdtReady(matKey, view.adtMbrHdl);
   }
   return true;
}

bool MatAdtSelMbbEngineImpl::directAdtReady(EntryKey matKey, std::uint32_t mbrHdl) {
   const EntryKey adtKey = mbrHdlToKey(mbrHdl);
   const Orb::Ptr<AdtState> as = mbrHdlToKeyHas(mbrHdl) ? readyAdt(adtKey) : nullptr;
   if (!as) {
      routesWaitingForAdt_[mbrHdl].insert(matKey);
      return false;
   }
   futureAdtRef_[matKey] = adtKey;
   as->matRefCntInc(1);
   return true;
}

void MatAdtSelMbbEngineImpl::releaseFutureRefs(EntryKey matKey) {
   if (auto it = futureSelRef_.find(matKey); it != futureSelRef_.end()) {
      const Orb::Ptr<SelGrpState> sgs = currentSelGrp(it->second.selGrpKey());
      BRIO_ASSERT_MSG(sgs, "reference to non existing group");
      futureSelRef_.erase(it);
      decSelGrpRefCnt(sgs);
   }
   if (auto it = futureAdtRef_.find(matKey); it != futureAdtRef_.end()) {
      const Orb::Ptr<AdtState> as = currentAdt(it->second);
      BRIO_ASSERT_MSG(as, "reference to non existing adt entry");
      futureAdtRef_.erase(it);
      decAdtMatRefCnt(as);
   }
}

void MatAdtSelMbbEngineImpl::releaseIssuedRefsNow(EntryKey matKey) {
   if (auto it = issuedSelRef_.find(matKey); it != issuedSelRef_.end()) {
      const Orb::Ptr<SelGrpState> sgs = currentSelGrp(it->second.selGrpKey());
      BRIO_ASSERT_MSG(sgs, "reference to non existing group");
      issuedSelRef_.erase(it);
      decSelGrpRefCnt(sgs);
   }
   if (auto it = issuedAdtRef_.find(matKey); it != issuedAdtRef_.end()) {
      const Orb::Ptr<AdtState> as = currentAdt(it->second);
      BRIO_ASSERT_MSG(as, "reference to non existing adt entry");
      issuedAdtRef_.erase(it);
      decAdtMatRefCnt(as);
   }
}

Orb::Ptr<SelGrpState> MatAdtSelMbbEngineImpl::readySelGrp(EntryKey grpKey) {
   Orb::Ptr<SelGrpState> sgs = currentSelGrp(grpKey);
   if (!sgs) {
      handleSelGrpEntry(grpKey);
      sgs = currentSelGrp(grpKey);
      if (!sgs) return nullptr;
   }
   if (sgs->referable()) return sgs;
   for (VectorIndex vi; vi.value() < sgs->numVectors(); vi.valueInc(1)) {
      const VectorIndex checked(vi.value());
      if (sgs->activeMbrCnt(checked) > 0) continue;
      for (std::uint32_t sub = 0; sub < SelMbrEntryKey::numSubIndices; ++sub) {
         const SelMbrEntryKey key(grpKey, checked.value(), sub);
         ChipMbbShared::SelMbrEntryConfig config;
         if (!configRead(selMbrTableConfig_, key, config)) continue;
         if (config == ChipMbbShared::SelMbrEntryConfig()) continue;
         handleSelMbrEntry(key);
         sgs = currentSelGrp(grpKey);
         if (!sgs) return nullptr;
         if (sgs->issuedSelMbr(key)) break;
      }
      if (sgs->activeMbrCnt(checked) == 0) return nullptr;
   }
   if (chipHelper_->hasSelBatch()) {
      chipHelper_->processSelPlcmtInfo();
   } else {
      // Every operation is committed as it is placed: what the commit would re-evaluate, the
      // group is re-evaluated for here.
      referableCheck(sgs);
   }
   BRIO_ASSERT_MSG(sgs->referable(), "passed sel mbr scan but still not referable");
   return sgs;
}

Orb::Ptr<AdtState> MatAdtSelMbbEngineImpl::readyAdt(EntryKey adtKey) {
   Orb::Ptr<AdtState> as = currentAdt(adtKey);
   if (!as) {
      handleAdtEntry(adtKey);
      as = currentAdt(adtKey);
      if (!as) return nullptr;
   }
   if (chipHelper_->hasAdtBatch()) chipHelper_->processAdtPlcmtInfo();
   BRIO_ASSERT_MSG(as->referable(), "adt entry exist but isn't referable after flush");
   return as;
}

void MatAdtSelMbbEngineImpl::matInBatch(EntryKey matKey) {
   const SelGrpRef next = futureSelRef(matKey);
   const SelGrpRef old = issuedSelRef(matKey);
   if (next == SelGrpRef()) {
      issuedSelRef_.erase(matKey);
   } else {
      const Orb::Ptr<SelGrpState> futureSgs = currentSelGrp(next.selGrpKey());
      BRIO_ASSERT(futureSgs);
      if (old == SelGrpRef() || old.selGrpKey() != next.selGrpKey()) futureSgs->refCntInc(1);
      issuedSelRef_[matKey] = next;
   }
   if (old != SelGrpRef() && (next == SelGrpRef() || next.selGrpKey() != old.selGrpKey())) {
      deletedSelGrpRefEnq(old.selGrpKey());
   }

   const EntryKey nextAdt = futureAdtRef_.count(matKey) ? futureAdtRef_.at(matKey) : EntryKey();
   const EntryKey oldAdt = issuedAdtRef(matKey);
   if (nextAdt == EntryKey()) {
      issuedAdtRef_.erase(matKey);
   } else {
      const Orb::Ptr<AdtState> as = currentAdt(nextAdt);
      BRIO_ASSERT(as);
      if (oldAdt != nextAdt) as->matRefCntInc(1);
      issuedAdtRef_[matKey] = nextAdt;
   }
   if (oldAdt != EntryKey() && oldAdt != nextAdt) deletedAdtMatRef_.enq(oldAdt);
}

void MatAdtSelMbbEngineImpl::processedMat() {
   while (!deletedSelGrpRef_.empty()) {
      const Orb::Ptr<SelGrpState> sgs = currentSelGrp(deletedSelGrpRef_.deq());
      BRIO_ASSERT(sgs);
      decSelGrpRefCnt(sgs);
   }
   while (!deletedAdtMatRef_.empty()) {
      const Orb::Ptr<AdtState> as = currentAdt(deletedAdtMatRef_.deq());
      BRIO_ASSERT(as);
      decAdtMatRefCnt(as);
   }
}

void MatAdtSelMbbEngineImpl::processedAdt(EntryKey adtKey) {
   const Orb::Ptr<AdtState> as = currentAdt(adtKey);
   if (!as || as->referable()) return;
   as->referableIs(true);
   if (auto it = routesWaitingForAdt_.find(as->mbrHdl()); it != routesWaitingForAdt_.end()) {
      waitersDue(it->second);
      routesWaitingForAdt_.erase(it);
   }
}

void MatAdtSelMbbEngineImpl::processedSel() {
   while (!deletedAdtRef_.empty()) {
      const Orb::Ptr<AdtState> as = currentAdt(deletedAdtRef_.deq());
      BRIO_ASSERT(as);
      decAdtRefCnt(as);
   }
   SelGrpMap maybe;
   maybe.swap(maybeReferableSelGrp_);
   for (const auto& [key, sgs] : maybe) referableCheck(sgs);
}

void MatAdtSelMbbEngineImpl::referableCheck(const Orb::Ptr<SelGrpState>& sgs) {
   if (sgs->referable()) return;
   sgs->updateReferable();
   if (!sgs->referable()) return;
   if (auto it = routesWaitingForGrp_.find(sgs->key()); it != routesWaitingForGrp_.end()) {
      waitersDue(it->second);
      routesWaitingForGrp_.erase(it);
   }
}

void MatAdtSelMbbEngineImpl::waitersDue(std::unordered_set<EntryKey>& waiters) {
   const bool wasEmpty = reoffer_.empty();
   reoffer_.insert(reoffer_.end(), waiters.begin(), waiters.end());
   if (wasEmpty && !reoffer_.empty() && reofferHook_) reofferHook_();
}

std::vector<EntryKey> MatAdtSelMbbEngineImpl::reofferTake(std::size_t max) {
   const std::size_t n = std::min(max, reoffer_.size());
   std::vector<EntryKey> keys(reoffer_.begin(), reoffer_.begin() + static_cast<std::ptrdiff_t>(n));
   reoffer_.erase(reoffer_.begin(), reoffer_.begin() + static_cast<std::ptrdiff_t>(n));
   return keys;
}

void MatAdtSelMbbEngineImpl::decSelGrpRefCnt(const Orb::Ptr<SelGrpState>& sgs) {
   BRIO_ASSERT_MSG(sgs->refCnt() > 0, refCntZero);
   sgs->refCntInc(~0u);
   if (sgs->refCnt() == 0 && sgs->queueDelete()) handleSelGrpEntry(sgs->key());
}

void MatAdtSelMbbEngineImpl::decAdtRefCnt(const Orb::Ptr<AdtState>& as) {
   BRIO_ASSERT_MSG(as->refCnt() > 0, refCntZero);
   as->refCntInc(~0u);
   if (as->refCnt() == 0 && as->matRefCnt() == 0 && as->queueDelete()) adtRemove(as);
}

void MatAdtSelMbbEngineImpl::decAdtMatRefCnt(const Orb::Ptr<AdtState>& as) {
   BRIO_ASSERT_MSG(as->matRefCnt() > 0, refCntZero);
   as->matRefCntInc(~0u);
   if (as->refCnt() == 0 && as->matRefCnt() == 0 && as->queueDelete()) adtRemove(as);
}

void MatAdtSelMbbEngineImpl::adtRemove(const Orb::Ptr<AdtState>& as) {
   const Orb::Ptr<AdtState> keep = as;
   chipHelper_->delAdtEntry(AdtEntryConfig(keep->key(), keep->opId(), keep->mbrHdl()));
   currentAdt_.erase(keep->key());
   mbrHdlToKey_.erase(keep->mbrHdl());
}

void MatAdtSelMbbEngineImpl::doCleanup2() {
   DUALLOG(sliceLog, 8, __PRETTY_FUNCTION__);
   for (const EntryKey& key : currentKeys()) processDependantTables(EntryConfig(), key);
   FastMbbEngineImpl::doCleanup();
   handleToKeyDelAll();
   chipHelper_->flush();

   for (const auto& [grpKey, sgs] : SelGrpMap(currentSelGrp_)) {
      for (const auto& [key, sms] : SelGrpState::SelMbrMap(sgs->issuedSelMbrs())) {
         if (sms->active()) activeMbrCntDec(sgs, VectorIndex(key.vector()));
         deletedAdtRefEnq(sms->adtKey());
         sgs->issuedSelMbrDel(key);
         chipHelper_->delSelEntry(configOf(*sms), sgs->grpHdl(), sgs->baseIndex(), sms->mbrHdl(),
                                  false);
      }
      chipHelper_->selGrpDelStatus(grpKey);
   }
   if (const Orb::Ptr<SelMbrState> fallback = issuedFallback_) {
      // The fallback holds its action data like any member; it goes before the ADT.
      deletedAdtRefEnq(fallback->adtKey());
      issuedFallback_ = nullptr;
      chipHelper_->clrFallbackSelEntry(configOf(*fallback), fallback->mbrHdl());
   }
   currentSelGrp_.clear();
   maybeReferableSelGrp_.clear();
   chipHelper_->flush();

   for (const auto& [adtKey, as] : AdtMap(currentAdt_)) {
      chipHelper_->delAdtEntry(AdtEntryConfig(adtKey, as->opId(), as->mbrHdl()));
      chipHelper_->adtDelStatus(adtKey);
   }
   currentAdt_.clear();
   mbrHdlToKey_.clear();
   chipHelper_->flush();
   futureSelRef_.clear();
   issuedSelRef_.clear();
   futureAdtRef_.clear();
   issuedAdtRef_.clear();
   routesWaitingForGrp_.clear();
   routesWaitingForAdt_.clear();
   mbrsWaitingForAdt_.clear();
   mbrsWaitingForGrp_.clear();
   reoffer_.clear();
}

Orb::Ptr<AdtState> MatAdtSelMbbEngineImpl::currentAdt(EntryKey key) const {
   auto it = currentAdt_.find(key);
   return it == currentAdt_.end() ? nullptr : it->second;
}

Orb::Ptr<SelGrpState> MatAdtSelMbbEngineImpl::currentSelGrp(EntryKey key) const {
   auto it = currentSelGrp_.find(key);
   return it == currentSelGrp_.end() ? nullptr : it->second;
}

void MatAdtSelMbbEngineImpl::currentSelGrpIs(EntryKey key, Orb::Ptr<SelGrpState> sgs) {
   if (!sgs) {
      throw Brio::RangeException(
          "null _currentSelGrp parameter to mutator for "
          "ChipMbbSlice::MatAdtSelMbbEngineImpl::currentSelGrp not allowed");
   }
   currentSelGrp_[key] = std::move(sgs);
}

void MatAdtSelMbbEngineImpl::maybeReferableSelGrpIs(EntryKey key, Orb::Ptr<SelGrpState> sgs) {
   if (!sgs) {
      throw Brio::RangeException(
          "null _maybeReferableSelGrp parameter to mutator for "
          "ChipMbbSlice::MatAdtSelMbbEngineImpl::maybeReferableSelGrp not allowed");
   }
   maybeReferableSelGrp_[key] = std::move(sgs);
}

EntryKey MatAdtSelMbbEngineImpl::mbrHdlToKey(std::uint32_t mbrHdl) const {
   auto it = mbrHdlToKey_.find(mbrHdl);
   return it == mbrHdlToKey_.end() ? EntryKey() : it->second;
}

SelGrpRef MatAdtSelMbbEngineImpl::futureSelRef(EntryKey matKey) const {
   auto it = futureSelRef_.find(matKey);
   return it == futureSelRef_.end() ? SelGrpRef() : it->second;
}

SelGrpRef MatAdtSelMbbEngineImpl::issuedSelRef(EntryKey matKey) const {
   auto it = issuedSelRef_.find(matKey);
   return it == issuedSelRef_.end() ? SelGrpRef() : it->second;
}

EntryKey MatAdtSelMbbEngineImpl::issuedAdtRef(EntryKey matKey) const {
   auto it = issuedAdtRef_.find(matKey);
   return it == issuedAdtRef_.end() ? EntryKey() : it->second;
}

std::vector<Orb::Ptr<SelMbrState>> MatAdtSelMbbEngineImpl::issuedSelMbrs(EntryKey grpKey) const {
   std::vector<Orb::Ptr<SelMbrState>> members;
   if (const Orb::Ptr<SelGrpState> sgs = currentSelGrp(grpKey)) {
      members.reserve(sgs->issuedSelMbrs().size());
      for (const auto& [key, sms] : sgs->issuedSelMbrs()) members.push_back(sms);
   }
   return members;
}

void MatAdtSelMbbEngineImpl::dumpState(std::ostream& os) const {
   FastMbbEngineImpl::dumpState(os);
   os << "ADT entries (" << currentAdt_.size() << "):\n";
   for (const auto& [key, as] : currentAdt_) as->dump(os);
   os << "Selector groups (" << currentSelGrp_.size() << "):\n";
   for (const auto& [key, sgs] : currentSelGrp_) sgs->dump(os);
   if (issuedFallback_) {
      os << "Fallback member:\n";
      issuedFallback_->dump(os);
   }
}

namespace {

// What the allocator hands out for a request: a size word, rounded up to 16 bytes.
constexpr std::size_t allocated(std::size_t bytes) {
   return (bytes + sizeof(std::size_t) + 15) / 16 * 16;
}
// A tree node holds its value after three links and a colour word; a shared record is one
// allocation with its control block.
constexpr std::size_t treeNode = 4 * sizeof(void*);
constexpr std::size_t sharedBlock = 2 * sizeof(void*);

}  // namespace

std::size_t MatAdtSelMbbEngineImpl::selMbrRecordBytes() {
   return allocated(treeNode + sizeof(SelGrpState::SelMbrMap::value_type)) +
          allocated(sharedBlock + sizeof(SelMbrState));
}

std::size_t MatAdtSelMbbEngineImpl::selGrpRecordBytes() {
   return allocated(treeNode + sizeof(SelGrpMap::value_type)) +
          allocated(sharedBlock + sizeof(SelGrpState));
}

std::size_t MatAdtSelMbbEngineImpl::adtRecordBytes() {
   // The handle map is hashed: a node with its link and cached hash, and a bucket.
   return allocated(treeNode + sizeof(AdtMap::value_type)) +
          allocated(sharedBlock + sizeof(AdtState)) +
          allocated(2 * sizeof(void*) + sizeof(std::pair<const std::uint32_t, EntryKey>)) +
          sizeof(void*);
}

std::size_t MatAdtSelMbbEngineImpl::recordMemoryBytes() const {
   std::size_t members = 0;
   for (const auto& [key, sgs] : currentSelGrp_) members += sgs->issuedSelMbrs().size();
   return currentSelGrp_.size() * selGrpRecordBytes() + members * selMbrRecordBytes() +
          currentAdt_.size() * adtRecordBytes();
}

}  // namespace ChipMbbSlice
