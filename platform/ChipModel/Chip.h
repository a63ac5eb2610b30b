#pragma once

// The software chip behind the placement interface: the devices of a chip profile, each with
// every table of the profile, a commit that applies a batch's operations in order and refuses
// what the hardware would refuse, and the hitless checker that watches every applied operation.
//
// A chip carries out the placement calls of the process while it is installed
// (ChipSdk::sdkImplIs, or an InstalledChip); everything it holds is its own, so that two chips
// in one process never share a table, a counter or a batch.
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

#include "ChipModel/AdtTable.h"
#include "ChipModel/ChipProfile.h"
#include "ChipModel/Fault.h"
#include "ChipModel/MatTable.h"
#include "ChipModel/SelTable.h"
#include "ChipModel/ViolationKind.h"
#include "ChipSdk/SdkImpl.h"

namespace ChipModel {

enum class LatencyMode : std::uint8_t { busyWait, sleep };

class Chip : public ChipSdk::SdkImpl {
 public:
   // The profile must be valid (ChipProfile::validate).
   explicit Chip(ChipProfile profile = ChipProfile::defaultProfile());
   // Asserts that the chip is no longer installed.
   ~Chip() override;
   Chip(const Chip&) = delete;
   Chip& operator=(const Chip&) = delete;

   const ChipProfile& profile() const { return profile_; }

   // The placement interface. A batch records its operations with their blocks checked and
   // copied; a commit applies them in order to one table and stops at the first refused
   // operation, which changes nothing. The entry scope property applies to a whole triple, and
   // only while its tables are empty.
   p4_pd_plcmt_info_t* plcmtInfoNew() override;
   bf_status_t plcmtInfoDel(p4_pd_plcmt_info_t* info) override;
   bf_status_t plcmtOpRecord(p4_pd_plcmt_info_t* info, ChipSdk::OpKind kind,
                             const ChipSdk::PlcmtOpArgs& args, const void* data) override;
   bf_status_t plcmtInfoProcess(std::uint32_t sessHdl, std::uint8_t devId, std::uint32_t tblHdl,
                                p4_pd_plcmt_info_t* info, std::uint32_t flags,
                                std::uint32_t* processed) override;
   bf_status_t tblPropertyIs(std::uint32_t sessHdl, std::uint8_t devId, std::uint32_t tblHdl,
                             std::uint32_t property, std::uint32_t value,
                             std::uint32_t args) override;
   // How many operations a batch holds, for a test that watches a batch fill.
   std::size_t plcmtInfoSize(const p4_pd_plcmt_info_t* info) const;

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

   // Makes an out-of-band fault happen (see Fault.h): not an operation, so it is neither counted
   // as one nor seen by the hitless checker. A fault that names nothing on the chip is refused
   // with an error status and lastError says why.
   bf_status_t faultInject(const Fault& fault);
   std::uint64_t numFaults() const { return numFaults_; }

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
   bool inSimulation() const override { return inSimulation_; }
   void inSimulationIs(bool on) { inSimulation_ = on; }

   std::uint64_t numOps(ChipSdk::OpKind kind) const {
      return numOps_[static_cast<std::size_t>(kind)];
   }
   std::uint64_t numRefusedOps() const { return numRefusedOps_; }
   std::uint64_t numCommits() const { return numCommits_; }
   std::uint64_t numViolations(ViolationKind kind) const {
      return numViolations_[static_cast<std::size_t>(kind)];
   }
   std::uint64_t numViolations() const;
   void countersClear();

   // Why the last refusal happened, or what the last violation of an applied operation was.
   const std::string& lastError() const { return lastError_; }

 private:
   struct Device {
      std::vector<std::unique_ptr<TableModel>> tables;  // in profile order
   };

   TableModel* tableFor(std::uint8_t devId, std::uint32_t tblHdl, bf_status_t& status);
   bf_status_t refuseRecord(ChipSdk::OpKind kind, const char* why);
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

   std::array<std::uint64_t, ChipSdk::numOpKinds> numOps_{};
   std::array<std::uint64_t, numViolationKinds> numViolations_{};
   std::uint64_t numRefusedOps_ = 0;
   std::uint64_t numCommits_ = 0;
   std::uint64_t numFaults_ = 0;
   std::string lastError_;

   // Destroyed batches, kept for reuse: a helper opens and destroys one per operation, and a
   // reused batch keeps its operation storage.
   std::vector<std::unique_ptr<p4_pd_plcmt_info_t>> batchPool_;
};

// A chip installed behind the placement interface for as long as it lives: the way tests and
// tools bring up the chip of the process.
class InstalledChip : public Chip {
 public:
   explicit InstalledChip(ChipProfile profile = ChipProfile::defaultProfile());
   ~InstalledChip() override;
};

}  // namespace ChipModel
