#pragma once

// One audited single table on the chip model, shared by the audit's tests and its benchmark:
// configuration and status tables, an engine that commits to the chip at once, the audit
// manager on a timer wheel, and a clock that moves only when asked or when read.

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ChipModel/ChipModel.h"
#include "ChipSdk/ChipSdk.h"
#include "FlashLog/CaptureSink.h"
#include "Keel/TimerWheel.h"
#include "MbbEngine/MbbEngine.h"
#include "MbbEngine/testing/ChipCommitHelper.h"
#include "TableAuditSm/TableAuditSm.h"

namespace TableAuditTesting {

// Manual time that can also move by `step` every time it is read, so that work "takes time"
// deterministically and the audit's deadlines are met after a known number of steps.
class StepTimeSource : public Orb::TimeSource {
 public:
   Orb::Seconds now() const override {
      now_ += step_;
      return now_;
   }
   void nowIs(Orb::Seconds t) { now_ = t; }
   void stepIs(Orb::Seconds step) { step_ = step; }
   Orb::Seconds peek() const { return now_; }

 private:
   mutable Orb::Seconds now_ = 0;
   Orb::Seconds step_ = 0;
};

// Runs the audit under way, if any, to its end; returns the slices it took.
inline unsigned auditFinish(ChipMbbSlice::TableAuditMgrSm& mgr, StepTimeSource& clock,
                            Keel::TimerWheel& wheel) {
   unsigned slices = 0;
   while (mgr.auditState() == ChipMbbSlice::AuditState::ongoing) {
      clock.nowIs(mgr.continueTimer().timeMin());
      wheel.runExpired(clock.peek());
      ++slices;
   }
   return slices;
}

// Completes the running audit, if any, then starts the next and runs it to its end; returns the
// number of slices the new audit took.
inline unsigned auditNext(ChipMbbSlice::TableAuditMgrSm& mgr, StepTimeSource& clock,
                          Keel::TimerWheel& wheel) {
   auditFinish(mgr, clock, wheel);
   clock.nowIs(mgr.auditTimer().timeMin());
   wheel.runExpired(clock.peek());
   return auditFinish(mgr, clock, wheel);
}

// The audit's flag traces among what `capture` holds.
inline std::vector<std::string> flagLines(const DualLog::CaptureSink& capture) {
   std::vector<std::string> lines;
   for (const auto& text : capture.texts()) {
      if (text.starts_with("Flagging")) lines.push_back(text);
   }
   return lines;
}

// The audited table, and beside it whatever else the caller serves on the same chip.
inline ChipModel::ChipProfile auditProfile(std::uint32_t tableSize,
                                           std::vector<ChipModel::TableProfile> moreTables = {}) {
   ChipModel::ChipProfile profile;
   profile.name = "audit";
   profile.numPipes = 2;
   profile.devices = {0};
   profile.tables = std::move(moreTables);
   profile.tables.push_back({"audited", 0x01000100, ChipSdk::TableKind::mat, tableSize, 0, 0, 0});
   return profile;
}

struct AuditWorld {
   static constexpr std::uint32_t tblHdl = 0x01000100;

   explicit AuditWorld(std::uint32_t tableSize = 64,
                       std::vector<ChipModel::TableProfile> moreTables = {})
       : clock(std::make_shared<StepTimeSource>()),
         previousClock(Orb::activityTimeSource()),
         wheel(clock, 1, 600000, true, 1024),
         chip(auditProfile(tableSize, std::move(moreTables))),
         mountKey({0, P4_PD_PIPE_ALL}, "audited", tblHdl) {
      Orb::activityTimeSourceIs(clock);
      chip.hitlessFatalIs(true);
      config = Vault::MbbEngine::tableConfigFactory("audited");
      status = Vault::MbbEngine::tableStatusFactory("audited-status");
      config->mountedIs(true);
      status->mountedIs(true);
      auto helper =
          Orb::ptrNew<MbbEngine::Test::ChipCommitHelper>("audited", status, 0, tblHdl, tableSize);
      auto impl =
          Orb::ptrNew<MbbEngine::FastMbbEngineImpl>("audited", config, nullptr, nullptr, helper, 1);
      engine = Orb::ptrNew<MbbEngine::MbbEngineSm>(config, status, nullptr, nullptr, impl, nullptr,
                                                   &wheel);
      mgr = ChipMbbSlice::TableAuditMgrSmIs(&wheel, 1, ChipModel::modelHwPdNew(chip));
      mgr->addTable(mountKey, engine);
   }
   // Leaves the chip as it is: after injected faults the engine's own clean-up would meet
   // entries that are no longer there.
   ~AuditWorld() {
      mgr.reset();
      if (engine) {
         static_cast<MbbEngine::FastMbbEngineImpl&>(*engine->mbbEngineImpl()).handleToKeyDelAll();
      }
      engine.reset();
      Orb::activityTimeSourceIs(previousClock);
   }

   // A match entry whose placement data depends on its op id.
   static Vault::MbbEngine::EntryConfig entry(std::uint64_t key, std::uint64_t opId,
                                              std::uint32_t hdl, std::uint32_t index) {
      const std::uint8_t payload[3] = {static_cast<std::uint8_t>(key),
                                       static_cast<std::uint8_t>(opId), 0x5A};
      return Vault::MbbEngine::EntryConfig(
          key, opId, hdl, 0, 0, 1, index, 0, 0,
          ChipSdk::PlcmtDataBuilder().payload(payload, sizeof payload).block());
   }
   void publish(std::uint64_t key, std::uint64_t opId, std::uint32_t hdl, std::uint32_t index) {
      config->entryIs(entry(key, opId, hdl, index));
   }

   unsigned audit() { return auditNext(*mgr, *clock, wheel); }
   unsigned finish() { return auditFinish(*mgr, *clock, wheel); }

   bf_status_t fault(ChipModel::FaultKind kind, std::uint32_t hdl, std::uint32_t index = 0) {
      ChipModel::Fault f;
      f.kind = kind;
      f.tblHdl = tblHdl;
      f.hdl = hdl;
      f.index = index;
      return chip.faultInject(f);
   }

   Orb::Ptr<StepTimeSource> clock;
   Orb::Ptr<Orb::TimeSource> previousClock;
   Keel::TimerWheel wheel;
   ChipModel::InstalledChip chip;
   ChipMbbShared::TableConfigMountKey mountKey;
   Orb::Ptr<Vault::MbbEngine::TableConfig> config;
   Orb::Ptr<Vault::MbbEngine::TableStatus> status;
   Orb::Ptr<MbbEngine::MbbEngineSm> engine;
   Orb::Ptr<ChipMbbSlice::TableAuditMgrSm> mgr;
};

}  // namespace TableAuditTesting
