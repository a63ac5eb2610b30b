#pragma once

#include <cstdint>

#include "ChipMbbShared/ConfigTables.h"
#include "ChipMbbSlice/ChipMbbEngineHelper.h"
#include "ChipMbbSliceMatAdtSelSm/MatAdtSelMbbEngineImpl.h"
#include "Keel/TimerWheel.h"
#include "MbbEngine/MbbEngineSm.h"

namespace ChipMbbSlice {

// Drives one triple table: the base watches the match table; this adds the ADT, selector
// group and selector member tables, hands their key changes to the engine's handlers, makes a
// first pass over each (counted once in the flush status), and offers routes that waited for
// a group or an ADT entry again on the loop turn after it became referable.
class MatAdtSelSm : public MbbEngine::MbbEngineSm {
 public:
   MatAdtSelSm(Orb::Ptr<MbbEngine::DebugConfig> debugConfig,
               Orb::Ptr<MbbEngine::DebugStatus> debugStatus,
               Orb::Ptr<MbbEngine::MbbEngineFlushStatus> flushStatus, Keel::TimerWheel* timerWheel,
               Orb::Ptr<Vault::MbbEngine::TableConfig> matTableConfig,
               Orb::Ptr<Vault::MbbEngine::TableStatus> matTableStatus,
               Orb::Ptr<ChipMbbShared::AdtTableConfig> adtTableConfig,
               Orb::Ptr<Vault::MbbEngine::TableStatus> adtTableStatus,
               Orb::Ptr<ChipMbbShared::SelGrpTableConfig> selGrpTableConfig,
               Orb::Ptr<Vault::MbbEngine::TableStatus> selGrpTableStatus,
               Orb::Ptr<ChipMbbShared::SelMbrTableConfig> selMbrTableConfig,
               Orb::Ptr<Vault::MbbEngine::TableStatus> selMbrTableStatus,
               Orb::Ptr<ChipMbbEngineHelper> helper, Orb::Ptr<MatAdtSelMbbEngineImpl> impl);
   ~MatAdtSelSm() override;

   const Orb::Ptr<MatAdtSelMbbEngineImpl>& matAdtSelImpl() const { return impl_; }
   const Orb::Ptr<Vault::MbbEngine::TableConfig>& matTableConfig() const { return tableConfig(); }
   const Orb::Ptr<ChipMbbShared::AdtTableConfig>& adtTableConfig() const { return adtTableConfig_; }
   void adtTableConfigIs(Orb::Ptr<ChipMbbShared::AdtTableConfig> table);
   void adtTableConfigDel() { adtTableConfigIs(nullptr); }
   const Orb::Ptr<ChipMbbShared::SelGrpTableConfig>& selGrpTableConfig() const {
      return selGrpTableConfig_;
   }
   void selGrpTableConfigIs(Orb::Ptr<ChipMbbShared::SelGrpTableConfig> table);
   void selGrpTableConfigDel() { selGrpTableConfigIs(nullptr); }
   const Orb::Ptr<ChipMbbShared::SelMbrTableConfig>& selMbrTableConfig() const {
      return selMbrTableConfig_;
   }
   void selMbrTableConfigIs(Orb::Ptr<ChipMbbShared::SelMbrTableConfig> table);
   void selMbrTableConfigDel() { selMbrTableConfigIs(nullptr); }
   const Orb::Ptr<Vault::MbbEngine::TableStatus>& adtTableStatus() const { return adtTableStatus_; }
   const Orb::Ptr<Vault::MbbEngine::TableStatus>& selGrpTableStatus() const {
      return selGrpTableStatus_;
   }
   const Orb::Ptr<Vault::MbbEngine::TableStatus>& selMbrTableStatus() const {
      return selMbrTableStatus_;
   }

   bool initialAdtFlushed() const { return initialAdtFlushed_; }
   bool initialSelGrpFlushed() const { return initialSelGrpFlushed_; }
   bool initialSelMbrFlushed() const { return initialSelMbrFlushed_; }
   bool matAdtSelSmInitialized() const { return matAdtSelSmInitialized_; }

   void hasNotificationActiveIs(bool on) override;
   void handleAdtEntry(Vault::MbbEngine::EntryKey key);
   void handleSelGrpEntry(Vault::MbbEngine::EntryKey key);
   void handleSelMbrEntry(ChipMbbShared::SelMbrEntryKey key);
   // The first pass over a table, and every pass after a reader resync.
   void handleAdtEntry();
   void handleSelGrpEntry();
   void handleSelMbrEntry();
   // The whole-table work of all four tables, match table first.
   void handleMatAdtSelEntryCollNotify();
   void handleMatAdtSelSmInitialized();

   // Offers the routes whose dependency became referable, at most retryDepsMaxCnt of them and
   // for at most `reofferBudget` per turn; the rest on the turns after.
   void handleReoffer();
   std::uint64_t numReofferOps() const { return numReofferOps_; }
   Orb::Seconds reofferBudget() const { return reofferBudget_; }
   void reofferBudgetIs(Orb::Seconds budget) { reofferBudget_ = budget; }

 private:
   template <class Table>
   class TableReactor : public Table::Notifiee {
    public:
      TableReactor(MatAdtSelSm* sm, void (MatAdtSelSm::*onKey)(typename Table::Key),
                   void (MatAdtSelSm::*onAll)())
          : sm_(sm), onKey_(onKey), onAll_(onAll) {}
      void onEntry(const typename Table::Key& key) override {
         if (sm_->initialized() && sm_->hasNotificationActive()) (sm_->*onKey_)(key);
      }
      void onEntry() override {
         if (sm_->hasNotificationActive()) (sm_->*onAll_)();
      }

    private:
      MatAdtSelSm* sm_;
      void (MatAdtSelSm::*onKey_)(typename Table::Key);
      void (MatAdtSelSm::*onAll_)();
   };
   class ReofferTimer : public Keel::TimerWheel::Timer {
    public:
      ReofferTimer(MatAdtSelSm* sm, Keel::TimerWheel* wheel) : Timer(wheel), sm_(sm) {}
      void onTime() override { sm_->handleReoffer(); }

    private:
      MatAdtSelSm* sm_;
   };

   // Runs a pass over `table`, then sweeps what the engine holds against it; the first
   // complete pass counts in the flush status.
   template <class Table, class Handler, class Sweep>
   void initialPass(const Orb::Ptr<Table>& table, bool& flushed, Handler handler, Sweep sweep);
   void reofferArm();

   Orb::Ptr<MatAdtSelMbbEngineImpl> impl_;
   Orb::Ptr<ChipMbbShared::AdtTableConfig> adtTableConfig_;
   Orb::Ptr<ChipMbbShared::SelGrpTableConfig> selGrpTableConfig_;
   Orb::Ptr<ChipMbbShared::SelMbrTableConfig> selMbrTableConfig_;
   Orb::Ptr<Vault::MbbEngine::TableStatus> adtTableStatus_;
   Orb::Ptr<Vault::MbbEngine::TableStatus> selGrpTableStatus_;
   Orb::Ptr<Vault::MbbEngine::TableStatus> selMbrTableStatus_;
   bool initialAdtFlushed_ = false;
   bool initialSelGrpFlushed_ = false;
   bool initialSelMbrFlushed_ = false;
   bool matAdtSelSmInitialized_ = false;
   std::uint64_t numReofferOps_ = 0;
   Orb::Seconds reofferBudget_ = 0.001;
   TableReactor<ChipMbbShared::AdtTableConfig> adtReactor_;
   TableReactor<ChipMbbShared::SelGrpTableConfig> selGrpReactor_;
   TableReactor<ChipMbbShared::SelMbrTableConfig> selMbrReactor_;
   ReofferTimer reofferTimer_;
};

// Builds the state machine of a triple table with its notifications on; the debug
// configuration, the wheel and the match configuration are only read.
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
    Orb::Ptr<MatAdtSelMbbEngineImpl> impl);

}  // namespace ChipMbbSlice
