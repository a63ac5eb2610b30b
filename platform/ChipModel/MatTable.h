#pragma once

// The match table: entries by handle at an index of an instance, one entry per index, and a
// default entry per instance. Handles are unique in the whole table, since moves, modifies and
// deletes name only the handle. A match entry of a triple holds references to what its action
// names, so that the ADT and the selector know who depends on them.

#include <cstdint>
#include <vector>

#include "ChipModel/AdtTable.h"
#include "ChipModel/SelTable.h"
#include "ChipModel/TableModel.h"
#include "ChipModel/detail/HandleSet.h"
#include "ChipModel/detail/OpenMap.h"
#include "ChipModel/detail/SlotPool.h"

namespace ChipModel {

struct MatEntry {
   std::uint32_t hdl = 0;
   std::uint32_t index = 0;  // meaningless for the default entry
   std::uint32_t selIndex = 0;
   std::uint32_t adtIndex = 0;
   std::uint16_t instance = 0;
   bool isDefault = false;
   ChipSdk::PlcmtAction action = ChipSdk::PlcmtAction::none;
   std::uint8_t numVectors = 0;
   std::uint32_t adtMbrHdl = 0;
   std::uint64_t selGrpKey = 0;
   ChipSdk::PlcmtDataBlock data;
};

class MatTable : public TableModel {
 public:
   // adt and sel are those of the triple, or null for a single table.
   MatTable(const TableProfile& profile, std::uint16_t numPipes, AdtTable* adt, SelTable* sel);

   const MatEntry* entry(std::uint32_t hdl) const;
   // The default entry's handle, 0 when the instance has none.
   std::uint32_t defaultHdl(std::uint16_t instance) const;
   std::size_t numEntries(std::uint16_t instance) const;

   bool empty() const override { return slotOf_.size() == 0; }
   bf_status_t apply(const PlcmtOp& op, OpContext& ctx) override;
   // Default entries are not among them: they are asked for by defaultHdl.
   void nextHdls(std::uint16_t instance, std::uint32_t after, std::size_t count,
                 std::vector<std::uint32_t>& out) const override;
   bf_status_t faultApply(const Fault& fault, OpContext& ctx) override;

 protected:
   void instancesIs(std::uint16_t count) override;

 private:
   static constexpr std::uint32_t noSlot = OpenMap<std::uint32_t>::absent;

   struct Instance {
      std::vector<std::uint32_t> indexToSlot;  // slot + 1, 0 when free; allocated on first use
      HandleSet handles;
      std::uint32_t defaultSlot = noSlot;
   };

   Instance& instanceFor(int instance);
   std::uint32_t partitionOf(std::uint32_t index) const;
   bf_status_t checkIndex(const PlcmtOp& op, OpContext& ctx) const;
   // The op's index must be free, or held by the entry in `self`.
   bf_status_t checkIndexFree(const PlcmtOp& op, OpContext& ctx, const Instance& inst,
                              std::uint32_t self) const;
   bf_status_t checkAction(const PlcmtOp& op, OpContext& ctx) const;
   bf_status_t findEntry(const PlcmtOp& op, OpContext& ctx, std::uint32_t& slot) const;
   void actionAcquire(std::uint16_t instance, const PlcmtOp& op, OpContext& ctx);
   void actionRelease(const MatEntry& entry);
   // Points the entry at the op's action and data, the new action taken before the old one is
   // let go so that nothing the entry still needs is seen unused in between.
   void actionReplace(MatEntry& entry, const PlcmtOp& op, OpContext& ctx);
   std::uint32_t slotNew(const PlcmtOp& op, std::uint16_t instance);
   void slotDel(std::uint32_t slot);

   bf_status_t add(const PlcmtOp& op, OpContext& ctx);
   bf_status_t mov(const PlcmtOp& op, OpContext& ctx);
   bf_status_t mod(const PlcmtOp& op, OpContext& ctx);
   bf_status_t setDflt(const PlcmtOp& op, OpContext& ctx);
   bf_status_t del(const PlcmtOp& op, OpContext& ctx, bool isDefault);

   AdtTable* adt_;
   SelTable* sel_;
   std::vector<Instance> instances_;
   SlotPool<MatEntry> slots_;
   OpenMap<std::uint32_t> slotOf_;
};

}  // namespace ChipModel
