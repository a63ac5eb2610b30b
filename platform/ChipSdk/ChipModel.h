#pragma once

// The software chip behind the placement interface: the devices of a chip profile, each with
// every table of the profile, a commit that applies a batch's operations in order and refuses
// what the hardware would refuse, and the hitless checker that watches every applied operation.
//
// The checker is incremental: ADT entries count their users, selector vectors count their
// active members and the match entries that use them, and an instance counts its vectors that
// have users but no active member. An operation's violations follow from the counts it changes.

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "ChipSdk/AdtTable.h"
#include "ChipSdk/ChipProfile.h"
#include "ChipSdk/MatTable.h"
#include "ChipSdk/PlcmtOp.h"
#include "ChipSdk/SelTable.h"

namespace ChipSdk {

enum class LatencyMode : std::uint8_t { busyWait, sleep };

class ChipModel {
 public:
   // The profile must be valid (ChipProfile::validate).
   explicit ChipModel(ChipProfile profile = ChipProfile::defaultProfile());
   ChipModel(const ChipModel&) = delete;
   ChipModel& operator=(const ChipModel&) = delete;

   const ChipProfile& profile() const { return profile_; }

   // Applies ops in order to one table; stops at the first refused operation, which changes
   // nothing. *processed is the number applied.
   bf_status_t process(std::uint8_t devId, std::uint32_t tblHdl, const PlcmtOp* ops,
                       std::size_t numOps, std::uint32_t* processed);
   // Property PIPE_MGR_TBL_PROP_ENTRY_SCOPE of a table; it applies to the whole triple, and
   // only while the tables are empty.
   bf_status_t tblPropertyIs(std::uint8_t devId, std::uint32_t tblHdl, std::uint32_t property,
                             std::uint32_t value);

   // Reads. Null or an error status for an unknown device or table, or a table of another kind.
   const TableProfile* tableProfile(std::uint32_t tblHdl) const;
   const TableModel* table(std::uint8_t devId, std::uint32_t tblHdl) const;
   const MatTable* matTable(std::uint8_t devId, std::uint32_t tblHdl) const;
   const AdtTable* adtTable(std::uint8_t devId, std::uint32_t tblHdl) const;
   const SelTable* selTable(std::uint8_t devId, std::uint32_t tblHdl) const;
   // Entry handles (MAT), member handles (ADT) or used selector indices + 1 (SEL) of the
   // instance that `pipe` reads, after `after`, in order. BF_OBJECT_NOT_FOUND when none follow.
   bf_status_t nextHdls(std::uint8_t devId, std::uint16_t pipe, std::uint32_t tblHdl,
                        std::uint32_t after, std::uint32_t count,
                        std::vector<std::uint32_t>& out) const;
   bf_status_t defaultEntryHdl(std::uint8_t devId, std::uint16_t pipe, std::uint32_t tblHdl,
                               std::uint32_t& hdl) const;

   // The checker counts violations when on (the default); fatal makes the first violation an
   // assertion, so that a test stops where the order went wrong.
   bool hitlessCheck() const { return hitlessCheck_; }
   void hitlessCheckIs(bool on) { hitlessCheck_ = on; }
   bool hitlessFatal() const { return hitlessFatal_; }
   void hitlessFatalIs(bool on) { hitlessFatal_ = on; }

   // Time that each applied operation takes, as a device would; 0 by default.
   std::chrono::nanoseconds opLatency() const { return opLatency_; }
   LatencyMode opLatencyMode() const { return opLatencyMode_; }
   void opLatencyIs(std::chrono::nanoseconds latency, LatencyMode mode = LatencyMode::busyWait);

   // True for the model; a build that drives a real device says false.
   bool inSimulation() const { return inSimulation_; }
   void inSimulationIs(bool on) { inSimulation_ = on; }

   std::uint64_t numOps(OpKind kind) const { return numOps_[static_cast<std::size_t>(kind)]; }
   std::uint64_t numRefusedOps() const { return numRefusedOps_; }
   std::uint64_t numCommits() const { return numCommits_; }
   std::uint64_t numViolations(ViolationKind kind) const {
      return numViolations_[static_cast<std::size_t>(kind)];
   }
   std::uint64_t numViolations() const;
   void countersClear();

   // Why the last refusal happened, or what the last violation of an applied operation was.
   const std::string& lastError() const { return lastError_; }
   void lastErrorIs(std::string text) { lastError_ = std::move(text); }

 private:
   struct Device {
      std::vector<std::unique_ptr<TableModel>> tables;  // in profile order
   };

   TableModel* tableFor(std::uint8_t devId, std::uint32_t tblHdl, bf_status_t& status);
   void devicesIs();
   void handleViolations(const OpContext& ctx, const PlcmtOp& op, std::uint32_t tblHdl,
                         bool applied);
   void opDelay() const;

   const ChipProfile profile_;
   std::unordered_map<std::uint32_t, std::size_t> tableIndex_;
   // Indices of the tables that share a table's entry scope: the table, or its whole triple.
   std::vector<std::vector<std::size_t>> scopeGroup_;
   std::vector<std::unique_ptr<Device>> devices_;  // by device id; null when not present

   // The table of the last commit: commits come in runs against one table.
   std::uint8_t lastDevId_ = 0;
   std::uint32_t lastTblHdl_ = 0;
   TableModel* lastTable_ = nullptr;

   bool hitlessCheck_ = true;
   bool hitlessFatal_ = false;
   bool inSimulation_ = true;
   std::chrono::nanoseconds opLatency_{0};
   LatencyMode opLatencyMode_ = LatencyMode::busyWait;

   std::array<std::uint64_t, numOpKinds> numOps_{};
   std::array<std::uint64_t, numViolationKinds> numViolations_{};
   std::uint64_t numRefusedOps_ = 0;
   std::uint64_t numCommits_ = 0;
   std::string lastError_;
};

// The model behind the placement interface of this process. The first use creates one with
// the default profile; chipModelIs installs a fresh one (tests start each case with it).
ChipModel& chipModel();
ChipModel& chipModelIs(ChipProfile profile);
ChipModel& chipModelReset();

// Whether the chip is simulated (the model says so unless told otherwise).
bool inSimulation();

}  // namespace ChipSdk
