#pragma once

// The part of a modelled table that every kind shares: its profile, its entry scope, and the
// instances that the scope makes of it (one for a table of all pipes, one per pipe otherwise).

#include <cstdint>
#include <vector>

#include "ChipModel/ChipProfile.h"
#include "ChipModel/Fault.h"
#include "ChipSdk/PlcmtApi.h"
#include "ChipSdk/PlcmtData.h"

namespace ChipModel {

class OpContext;
struct PlcmtOp;

class TableModel {
 public:
   TableModel(const TableProfile& profile, std::uint16_t numPipes);
   virtual ~TableModel() = default;
   TableModel(const TableModel&) = delete;
   TableModel& operator=(const TableModel&) = delete;

   const TableProfile& profile() const { return profile_; }
   ChipSdk::TableKind kind() const { return profile_.kind; }
   std::uint32_t entryScope() const { return entryScope_; }
   // Only an empty table changes scope; the caller checks.
   void entryScopeIs(std::uint32_t scope);
   std::uint16_t numInstances() const {
      return entryScope_ == PIPE_MGR_ENTRY_SCOPE_ALL_PIPELINES ? 1 : numPipes_;
   }

   // The instance that a write for `pipe` changes, or -1: a table of all pipes is written
   // with pipe 0xFFFF only, a single-pipe table pipe by pipe.
   int writeInstance(std::uint16_t pipe) const;
   // The instance that a read of `pipe` sees: any pipe of the chip reads a table of all
   // pipes, since every pipe holds the same contents.
   int readInstance(std::uint16_t pipe) const;
   // The pipe id that addresses an instance.
   std::uint16_t instancePipe(std::uint16_t instance) const;

   virtual bool empty() const = 0;
   virtual bf_status_t apply(const PlcmtOp& op, OpContext& ctx) = 0;
   // Appends up to `count` handles greater than `after` of one instance, in order.
   virtual void nextHdls(std::uint16_t instance, std::uint32_t after, std::size_t count,
                         std::vector<std::uint32_t>& out) const = 0;
   // Makes the fault happen to this table, keeping its own bookkeeping whole; a fault that
   // names nothing here is refused as an operation would be.
   virtual bf_status_t faultApply(const Fault& fault, OpContext& ctx) = 0;

 protected:
   virtual void instancesIs(std::uint16_t count) = 0;
   bf_status_t refusePipe(OpContext& ctx, const PlcmtOp& op) const;
   // An operation that installs something: its handle must not be 0 and its pipe must fit
   // the scope; sets the instance it writes.
   bf_status_t checkPlacement(const PlcmtOp& op, OpContext& ctx, int& instance) const;

 private:
   const TableProfile& profile_;
   std::uint16_t numPipes_;
   std::uint32_t entryScope_ = PIPE_MGR_ENTRY_SCOPE_ALL_PIPELINES;
};

}  // namespace ChipModel
