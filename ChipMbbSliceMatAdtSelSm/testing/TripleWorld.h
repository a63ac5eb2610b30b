#pragma once

// One triple table in this process against the chip model: configuration and status tables,
// the placement helper, the engine and its state machine on a manual clock. For the tests and
// the benchmark of the dependency engine.

#include <stdlib.h>

#include <cstdint>
#include <memory>

#include "ChipMbbShared/ConfigTables.h"
#include "ChipMbbSlice/ChipMbbSlice.h"
#include "ChipMbbSliceMatAdtSelSm/ChipMbbSliceMatAdtSelSm.h"
#include "ChipModel/ChipModel.h"
#include "ChipSdk/ChipSdk.h"
#include "Keel/TimerWheel.h"
#include "Orb/Time.h"
#include "Vault/MbbEngine/Tables.h"

namespace ChipMbbSlice::Testing {

struct TripleSizes {
   std::uint32_t routes = 256;
   std::uint32_t nextHops = 256;
   std::uint32_t vectors = 256;
};

class TripleWorld {
 public:
   using EntryKey = Vault::MbbEngine::EntryKey;
   using OpId = Vault::MbbEngine::OpId;
   using SelMbrEntryKey = ChipMbbShared::SelMbrEntryKey;

   static constexpr std::uint32_t matHdl = 0x300;
   static constexpr std::uint32_t adtHdl = 0x301;
   static constexpr std::uint32_t selHdl = 0x302;

   explicit TripleWorld(TripleSizes sizes = {}) : chip(profileOf(sizes)) {
      // The helper opens the slice's trace file when it is created; these runs keep none.
      setenv("FLASHLOG_DISABLE", "", 1);
      chip.hitlessFatalIs(true);
      for (auto* table : {matStatus.get(), adtStatus.get(), grpStatus.get(), mbrStatus.get()}) {
         table->mountedIs(true);
      }
      matConfig->mountedIs(true);
      adtConfig->mountedIs(true);
      grpConfig->mountedIs(true);
      mbrConfig->mountedIs(true);
      helper = Orb::ptrNew<ChipMbbEngineHelper>("route", matStatus, adtStatus, grpStatus, mbrStatus,
                                                1, matHdl, adtHdl, selHdl, sizes.routes, false, 1);
      helper->devTgtIs({0, P4_PD_PIPE_ALL});
      impl = Orb::ptrNew<MatAdtSelMbbEngineImpl>("route", nullptr, nullptr, helper, 1, matConfig,
                                                 adtConfig, grpConfig, mbrConfig);
   }
   ~TripleWorld() {
      sm.reset();
      impl.reset();
      helper.reset();
   }

   void start() {
      sm =
          matAdtSelSmFactory(nullptr, nullptr, flushStatus, &wheel, matConfig, matStatus, adtConfig,
                             adtStatus, grpConfig, grpStatus, mbrConfig, mbrStatus, helper, impl);
   }
   // One turn of the event loop: whatever is due now fires.
   void turn() { wheel.runExpired(clock->now()); }
   // The retry period passes.
   void retryTurn() {
      clock->advance(MbbEngine::MbbEngineSm::defaultRetryPeriod + 0.002);
      turn();
   }

   void adtIs(EntryKey key, OpId opId, std::uint32_t mbrHdl) {
      adtConfig->entryIs(ChipMbbShared::AdtEntryConfig(
          key, opId, mbrHdl, ChipSdk::PlcmtDataBuilder().payload(&mbrHdl, sizeof mbrHdl).block()));
   }
   void grpIs(EntryKey key, OpId opId, std::uint32_t grpHdl, std::uint32_t numVectors,
              std::uint32_t base) {
      grpConfig->entryIs(ChipMbbShared::SelGrpEntryConfig(key, opId, grpHdl, numVectors, base, 64));
   }
   void mbrIs(SelMbrEntryKey key, OpId opId, EntryKey adtKey, bool active) {
      mbrConfig->entryIs(ChipMbbShared::SelMbrEntryConfig(key, opId, adtKey, active,
                                                          ChipSdk::PlcmtDataBuilder().block()));
   }
   // A route whose action is a selector group of `numVectors` starting at `base`.
   void routeIs(EntryKey key, OpId opId, std::uint32_t hdl, std::uint32_t index, EntryKey grpKey,
                std::uint8_t numVectors, std::uint32_t base) {
      matConfig->entryIs(Vault::MbbEngine::EntryConfig(
          key, opId, hdl, 0, 0, 1, index, base, 0,
          ChipSdk::PlcmtDataBuilder().selGroup(grpKey.value(), numVectors).block()));
   }
   // A route whose action is the ADT entry of member handle `mbrHdl`.
   void routeDirectIs(EntryKey key, OpId opId, std::uint32_t hdl, std::uint32_t index,
                      std::uint32_t mbrHdl) {
      matConfig->entryIs(
          Vault::MbbEngine::EntryConfig(key, opId, hdl, 0, 0, 1, index, 0, 0,
                                        ChipSdk::PlcmtDataBuilder().adtMember(mbrHdl).block()));
   }

   const ChipModel::MatTable& matTable() const { return *chip.matTable(0, matHdl); }
   const ChipModel::AdtTable& adtTable() const { return *chip.adtTable(0, adtHdl); }
   const ChipModel::SelTable& selTable() const { return *chip.selTable(0, selHdl); }
   bool chipEmpty() const { return matTable().empty() && selTable().empty() && adtTable().empty(); }

   static ChipModel::ChipProfile profileOf(TripleSizes sizes) {
      ChipModel::ChipProfile profile;
      profile.name = "triple";
      profile.numPipes = 2;
      profile.devices = {0};
      profile.tables = {
          {"route", matHdl, ChipSdk::TableKind::mat, sizes.routes, 0, adtHdl, selHdl},
          {"route_adt", adtHdl, ChipSdk::TableKind::adt, sizes.nextHops, 0, 0, 0},
          {"route_sel", selHdl, ChipSdk::TableKind::sel, sizes.vectors, 0, 0, 0},
      };
      return profile;
   }

   ChipModel::InstalledChip chip;
   std::shared_ptr<Orb::ManualTimeSource> clock = std::make_shared<Orb::ManualTimeSource>();
   Keel::TimerWheel wheel{clock, 1, 1000, true, 64};
   Orb::Ptr<MbbEngine::MbbEngineFlushStatus> flushStatus =
       Orb::ptrNew<MbbEngine::MbbEngineFlushStatus>();
   Orb::Ptr<Vault::MbbEngine::TableConfig> matConfig =
       Vault::MbbEngine::tableConfigFactory("route");
   Orb::Ptr<ChipMbbShared::AdtTableConfig> adtConfig =
       ChipMbbShared::adtTableConfigFactory("route_adt");
   Orb::Ptr<ChipMbbShared::SelGrpTableConfig> grpConfig =
       ChipMbbShared::selGrpTableConfigFactory("route_grp");
   Orb::Ptr<ChipMbbShared::SelMbrTableConfig> mbrConfig =
       ChipMbbShared::selMbrTableConfigFactory("route_mbr");
   Orb::Ptr<Vault::MbbEngine::TableStatus> matStatus =
       Vault::MbbEngine::tableStatusFactory("route-status");
   Orb::Ptr<Vault::MbbEngine::TableStatus> adtStatus =
       Vault::MbbEngine::tableStatusFactory("adt-status");
   Orb::Ptr<Vault::MbbEngine::TableStatus> grpStatus =
       Vault::MbbEngine::tableStatusFactory("grp-status");
   Orb::Ptr<Vault::MbbEngine::TableStatus> mbrStatus =
       Vault::MbbEngine::tableStatusFactory("mbr-status");
   Orb::Ptr<ChipMbbEngineHelper> helper;
   Orb::Ptr<MatAdtSelMbbEngineImpl> impl;
   Orb::Ptr<MatAdtSelSm> sm;
};

}  // namespace ChipMbbSlice::Testing
