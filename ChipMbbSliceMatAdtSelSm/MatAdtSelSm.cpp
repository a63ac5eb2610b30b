#include "ChipMbbSliceMatAdtSelSm/MatAdtSelSm.h"

#include <algorithm>
#include <chrono>

#include "Brio/Brio.h"
#include "ChipMbbSlice/TraceSetup.h"

namespace ChipMbbSlice {

using Vault::MbbEngine::EntryKey;

MatAdtSelSm::MatAdtSelSm(Orb::Ptr<MbbEngine::DebugConfig> debugConfig,
                         Orb::Ptr<MbbEngine::DebugStatus> debugStatus,
                         Orb::Ptr<MbbEngine::MbbEngineFlushStatus> flushStatus,
                         Keel::TimerWheel* timerWheel,
                         Orb::Ptr<Vault::MbbEngine::TableConfig> matTableConfig,
                         Orb::Ptr<Vault::MbbEngine::TableStatus> matTableStatus,
                         Orb::Ptr<ChipMbbShared::AdtTableConfig> adtTableConfig,
                         Orb::Ptr<Vault::MbbEngine::TableStatus> adtTableStatus,
                         Orb::Ptr<ChipMbbShared::SelGrpTableConfig> selGrpTableConfig,
                         Orb::Ptr<Vault::MbbEngine::TableStatus> selGrpTableStatus,
                         Orb::Ptr<ChipMbbShared::SelMbrTableConfig> selMbrTableConfig,
                         Orb::Ptr<Vault::MbbEngine::TableStatus> selMbrTableStatus,
                         Orb::Ptr<ChipMbbEngineHelper> helper,
                         Orb::Ptr<MatAdtSelMbbEngineImpl> impl)
    : MbbEngineSm(std::move(matTableConfig), std::move(matTableStatus), std::move(debugConfig),
                  std::move(debugStatus), impl, std::move(flushStatus), timerWheel, false),
      impl_(std::move(impl)),
      adtTableStatus_(std::move(adtTableStatus)),
      selGrpTableStatus_(std::move(selGrpTableStatus)),
      selMbrTableStatus_(std::move(selMbrTableStatus)),
      adtReactor_(this, &MatAdtSelSm::handleAdtEntry, &MatAdtSelSm::handleAdtEntry),
      selGrpReactor_(this, &MatAdtSelSm::handleSelGrpEntry, &MatAdtSelSm::handleSelGrpEntry),
      selMbrReactor_(this, &MatAdtSelSm::handleSelMbrEntry, &MatAdtSelSm::handleSelMbrEntry),
      reofferTimer_(this, timerWheel) {
   BRIO_ASSERT(helper && impl_->chipHelper() == helper);
   adtTableConfigIs(std::move(adtTableConfig));
   selGrpTableConfigIs(std::move(selGrpTableConfig));
   selMbrTableConfigIs(std::move(selMbrTableConfig));
   impl_->reofferHookIs([this] { reofferArm(); });
   handleMatAdtSelSmInitialized();
}

MatAdtSelSm::~MatAdtSelSm() {
   adtReactor_.notifierIs(nullptr);
   selGrpReactor_.notifierIs(nullptr);
   selMbrReactor_.notifierIs(nullptr);
   impl_->reofferHookIs(nullptr);
}

void MatAdtSelSm::adtTableConfigIs(Orb::Ptr<ChipMbbShared::AdtTableConfig> table) {
   adtTableConfig_ = std::move(table);
   adtReactor_.notifierIs(adtTableConfig_.get());
   impl_->adtTableConfigIs(adtTableConfig_);
}

void MatAdtSelSm::selGrpTableConfigIs(Orb::Ptr<ChipMbbShared::SelGrpTableConfig> table) {
   selGrpTableConfig_ = std::move(table);
   selGrpReactor_.notifierIs(selGrpTableConfig_.get());
   impl_->selGrpTableConfigIs(selGrpTableConfig_);
}

void MatAdtSelSm::selMbrTableConfigIs(Orb::Ptr<ChipMbbShared::SelMbrTableConfig> table) {
   selMbrTableConfig_ = std::move(table);
   selMbrReactor_.notifierIs(selMbrTableConfig_.get());
   impl_->selMbrTableConfigIs(selMbrTableConfig_);
}

void MatAdtSelSm::hasNotificationActiveIs(bool on) {
   if (on == hasNotificationActive()) return;
   // The base makes the match table's pass when switched on; the other three follow.
   MbbEngineSm::hasNotificationActiveIs(on);
   if (!on) return;
   handleAdtEntry();
   handleSelGrpEntry();
   handleSelMbrEntry();
}

void MatAdtSelSm::handleMatAdtSelEntryCollNotify() {
   handleEntryCollNotify();
   handleAdtEntry();
   handleSelGrpEntry();
   handleSelMbrEntry();
}

void MatAdtSelSm::handleMatAdtSelSmInitialized() {
   if (!matAdtSelSmInitialized_ && flushStatus()) flushStatus()->tableCounterInc(3);
   matAdtSelSmInitialized_ = true;
}

void MatAdtSelSm::handleAdtEntry(EntryKey key) {
   DUALLOG(sliceLog, 7, "MatAdtSelSm::handleAdtEntry key:" << key);
   impl_->handleAdtEntry(key);
}

void MatAdtSelSm::handleSelGrpEntry(EntryKey key) {
   DUALLOG(sliceLog, 7, "MatAdtSelSm::handleSelGrpEntry key:" << key);
   impl_->handleSelGrpEntry(key);
}

void MatAdtSelSm::handleSelMbrEntry(ChipMbbShared::SelMbrEntryKey key) {
   DUALLOG(sliceLog, 7, "MatAdtSelSm::handleSelMbrEntry key:" << key);
   impl_->handleSelMbrEntry(key);
}

template <class Table, class Handler, class Sweep>
void MatAdtSelSm::initialPass(const Orb::Ptr<Table>& table, bool& flushed, Handler handler,
                              Sweep sweep) {
   if (!initialized() || !table || !table->mounted()) return;
   bool complete = true;
   try {
      // In no order: a triple announced while its publisher writes is mounted with much of
      // it written already, and a shared table walked in key order sorts its keys and looks
      // each one up.
      table->entriesVisit([&](const auto& key, const auto&) { handler(key); });
      sweep();
   } catch (const Brio::CorruptionDetectedException& e) {
      // The table announces itself again once it has recovered; until then nothing is taken
      // out for not having been read.
      complete = false;
      DUALLOG(sliceLog, 0, "MatAdtSelSm pass over " << table->name() << " cut short: " << e.what());
   }
   impl_->helper()->flush();
   if (complete && !flushed) {
      if (flushStatus()) flushStatus()->flushCounterInc(1);
      flushed = true;
   }
}

void MatAdtSelSm::handleAdtEntry() {
   initialPass(
       adtTableConfig_, initialAdtFlushed_, [&](EntryKey key) { impl_->handleAdtEntry(key); },
       [&] { impl_->sweepAdt(); });
}

void MatAdtSelSm::handleSelGrpEntry() {
   initialPass(
       selGrpTableConfig_, initialSelGrpFlushed_,
       [&](EntryKey key) { impl_->handleSelGrpEntry(key); }, [&] { impl_->sweepSelGrp(); });
}

void MatAdtSelSm::handleSelMbrEntry() {
   initialPass(
       selMbrTableConfig_, initialSelMbrFlushed_,
       [&](ChipMbbShared::SelMbrEntryKey key) { impl_->handleSelMbrEntry(key); },
       [&] { impl_->sweepSelMbr(); });
}

void MatAdtSelSm::reofferArm() {
   // Never from inside the commit that made the dependency referable: the timer fires on the
   // loop's next turn.
   if (!reofferTimer_.armed()) reofferTimer_.timeMinIs(timerWheel()->now());
}

void MatAdtSelSm::handleReoffer() {
   // The loop is held by the wall clock, whatever the clock of the wheel says.
   const auto start = std::chrono::steady_clock::now();
   const auto budget = std::chrono::duration<double>(reofferBudget_);
   const std::size_t limit = std::max<std::uint32_t>(impl_->retryDepsMaxCnt(), 1);
   constexpr std::size_t step = 16;
   ++numReofferOps_;
   for (std::size_t done = 0; done < limit && impl_->numReofferDue() != 0; done += step) {
      for (const EntryKey& key : impl_->reofferTake(std::min(step, limit - done))) handleEntry(key);
      if (std::chrono::steady_clock::now() - start >= budget) break;
   }
   DUALLOG(sliceLog, 7, "MatAdtSelSm::handleReoffer left:" << impl_->numReofferDue());
   impl_->helper()->flush();
   if (impl_->numReofferDue() != 0) reofferArm();
}

Orb::Ptr<MatAdtSelSm> matAdtSelSmFactory(
    Orb::Ptr<MbbEngine::DebugConfig> debugConfig, Orb::Ptr<MbbEngine::DebugStatus> debugStatus,
    Orb::Ptr<MbbEngine::MbbEngineFlushStatus> flushStatus, Keel::TimerWheel* timerWheel,
    Orb::Ptr<Vault::MbbEngine::TableConfig> matTableConfig,
    Orb::Ptr<Vault::MbbEngine::TableStatus> matTableStatus,
    Orb::Ptr<ChipMbbShared::AdtTableConfig> adtTableConfig,
    Orb::Ptr<Vault::MbbEngine::TableStatus> adtTableStatus,
    Orb::Ptr<ChipMbbShared::SelGrpTableConfig> selGrpTableConfig,
    Orb::Ptr<Vault::MbbEngine::TableStatus> selGrpTableStatus,
    Orb::Ptr<ChipMbbShared::SelMbrTableConfig> selMbrTableConfig,
    Orb::Ptr<Vault::MbbEngine::TableStatus> selMbrTableStatus, Orb::Ptr<ChipMbbEngineHelper> helper,
    Orb::Ptr<MatAdtSelMbbEngineImpl> impl) {
   auto sm = Orb::ptrNew<MatAdtSelSm>(
       std::move(debugConfig), std::move(debugStatus), std::move(flushStatus), timerWheel,
       std::move(matTableConfig), std::move(matTableStatus), std::move(adtTableConfig),
       std::move(adtTableStatus), std::move(selGrpTableConfig), std::move(selGrpTableStatus),
       std::move(selMbrTableConfig), std::move(selMbrTableStatus), std::move(helper),
       std::move(impl));
   sm->hasNotificationActiveIs(true);
   return sm;
}

}  // namespace ChipMbbSlice
