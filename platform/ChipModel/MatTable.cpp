#include "ChipModel/MatTable.h"

#include <algorithm>

#include "ChipModel/detail/OpContext.h"
#include "ChipModel/detail/PlcmtOp.h"

namespace ChipModel {

MatTable::MatTable(const TableProfile& profile, std::uint16_t numPipes, AdtTable* adt,
                   SelTable* sel)
    : TableModel(profile, numPipes), adt_(adt), sel_(sel) {
   instancesIs(numInstances());
}

void MatTable::instancesIs(std::uint16_t count) {
   instances_.clear();
   instances_.resize(count);
}

MatTable::Instance& MatTable::instanceFor(int instance) {
   Instance& inst = instances_[static_cast<std::size_t>(instance)];
   if (inst.indexToSlot.empty()) {
      inst.indexToSlot.assign(profile().size, 0);
      // Room for a full instance up front, so that the placement path never stops to grow and
      // copy: for the entries, address space only, pages arrive as entries do. The handle map
      // is written through when it is made, so a table larger than any chip's starts it at a
      // million handles and lets it grow.
      if (slotOf_.size() == 0) {
         slotOf_.reserve(std::min<std::uint32_t>(profile().size, 1u << 20));
         slots_.reserve(profile().size);
      }
   }
   return inst;
}

const MatEntry* MatTable::entry(std::uint32_t hdl) const {
   std::uint32_t slot = slotOf_.find(hdl);
   return slot == noSlot ? nullptr : &slots_[slot];
}

std::uint32_t MatTable::defaultHdl(std::uint16_t instance) const {
   std::uint32_t slot = instances_[instance].defaultSlot;
   return slot == noSlot ? 0 : slots_[slot].hdl;
}

std::size_t MatTable::numEntries(std::uint16_t instance) const {
   return instance < instances_.size() ? instances_[instance].handles.size() : 0;
}

void MatTable::nextHdls(std::uint16_t instance, std::uint32_t after, std::size_t count,
                        std::vector<std::uint32_t>& out) const {
   instances_[instance].handles.next(after, count, out);
}

std::uint32_t MatTable::partitionOf(std::uint32_t index) const {
   std::uint32_t partitions = profile().atcamPartitions;
   std::uint32_t perPartition = (profile().size + partitions - 1) / partitions;
   return index / perPartition;
}

bf_status_t MatTable::checkIndex(const PlcmtOp& op, OpContext& ctx) const {
   if (op.index < profile().size) return BF_SUCCESS;
   return ctx.refuse(BF_INVALID_ARG, "%s: index 0x%x out of range of %s (size %u)",
                     ChipSdk::opKindName(op.kind), op.index, profile().name.c_str(),
                     profile().size);
}

bf_status_t MatTable::checkIndexFree(const PlcmtOp& op, OpContext& ctx, const Instance& inst,
                                     std::uint32_t self) const {
   std::uint32_t holder = inst.indexToSlot[op.index];
   if (holder == 0 || holder == self + 1) return BF_SUCCESS;
   return ctx.refuse(BF_ALREADY_EXISTS, "%s: index 0x%x of %s is held by entry 0x%x",
                     ChipSdk::opKindName(op.kind), op.index, profile().name.c_str(),
                     slots_[holder - 1].hdl);
}

bf_status_t MatTable::checkAction(const PlcmtOp& op, OpContext& ctx) const {
   const char* name = ChipSdk::opKindName(op.kind);
   switch (op.action) {
      case ChipSdk::PlcmtAction::none:
         return BF_SUCCESS;
      case ChipSdk::PlcmtAction::adtMember:
         if (!adt_) {
            return ctx.refuse(BF_INVALID_ARG, "%s: %s has no action data table", name,
                              profile().name.c_str());
         }
         if (op.adtMbrHdl != 0) return BF_SUCCESS;
         return ctx.refuse(BF_INVALID_ARG, "%s: action names member handle 0", name);
      case ChipSdk::PlcmtAction::selGroup:
         if (!sel_) {
            return ctx.refuse(BF_INVALID_ARG, "%s: %s has no selector table", name,
                              profile().name.c_str());
         }
         if (sel_->groupInRange(op.selIndex, op.numVectors)) return BF_SUCCESS;
         return ctx.refuse(BF_INVALID_ARG,
                           "%s: group of %u vectors at selector index 0x%x out "
                           "of range of %s",
                           name, op.numVectors, op.selIndex, sel_->profile().name.c_str());
   }
   return ctx.refuse(BF_INVALID_ARG, "%s: unknown action", name);
}

bf_status_t MatTable::findEntry(const PlcmtOp& op, OpContext& ctx, std::uint32_t& slot) const {
   slot = slotOf_.find(op.hdl);
   if (slot == noSlot) {
      return ctx.refuse(BF_OBJECT_NOT_FOUND, "%s: no entry handle 0x%x in %s",
                        ChipSdk::opKindName(op.kind), op.hdl, profile().name.c_str());
   }
   bool wantDefault = op.kind == ChipSdk::OpKind::matClrDflt;
   bool anyKind = op.kind == ChipSdk::OpKind::matMod;
   if (!anyKind && slots_[slot].isDefault != wantDefault) {
      return ctx.refuse(BF_INVALID_ARG, "%s: entry handle 0x%x %s the default entry",
                        ChipSdk::opKindName(op.kind), op.hdl, wantDefault ? "is not" : "is");
   }
   return BF_SUCCESS;
}

void MatTable::actionAcquire(std::uint16_t instance, const PlcmtOp& op, OpContext& ctx) {
   if (op.action == ChipSdk::PlcmtAction::adtMember) {
      if (!adt_->refAcquire(instance, op.adtMbrHdl)) {
         ctx.violation(ViolationKind::matAdtMissing, "entry 0x%x uses member handle 0x%x not in %s",
                       op.hdl, op.adtMbrHdl, adt_->profile().name.c_str());
      }
   } else if (op.action == ChipSdk::PlcmtAction::selGroup) {
      sel_->groupRefAcquire(instance, op.selIndex, op.numVectors, op.hdl, ctx);
   }
}

void MatTable::actionRelease(const MatEntry& entry) {
   if (entry.action == ChipSdk::PlcmtAction::adtMember) {
      adt_->refRelease(entry.instance, entry.adtMbrHdl);
   } else if (entry.action == ChipSdk::PlcmtAction::selGroup) {
      sel_->groupRefRelease(entry.instance, entry.selIndex, entry.numVectors);
   }
}

void MatTable::actionReplace(MatEntry& entry, const PlcmtOp& op, OpContext& ctx) {
   actionAcquire(entry.instance, op, ctx);
   actionRelease(entry);
   entry.selIndex = op.selIndex;
   entry.adtIndex = op.adtIndex;
   entry.action = op.action;
   entry.numVectors = op.numVectors;
   entry.adtMbrHdl = op.adtMbrHdl;
   entry.selGrpKey = op.selGrpKey;
   entry.data = op.data;
}

std::uint32_t MatTable::slotNew(const PlcmtOp& op, std::uint16_t instance) {
   std::uint32_t slot = slots_.alloc();
   MatEntry& entry = slots_[slot];
   entry.hdl = op.hdl;
   entry.index = op.index;
   entry.selIndex = op.selIndex;
   entry.adtIndex = op.adtIndex;
   entry.instance = instance;
   entry.isDefault = op.kind == ChipSdk::OpKind::matSetDflt;
   entry.action = op.action;
   entry.numVectors = op.numVectors;
   entry.adtMbrHdl = op.adtMbrHdl;
   entry.selGrpKey = op.selGrpKey;
   entry.data = op.data;
   slotOf_.insert(op.hdl, slot);
   return slot;
}

void MatTable::slotDel(std::uint32_t slot) {
   MatEntry& entry = slots_[slot];
   actionRelease(entry);
   slotOf_.erase(entry.hdl);
   entry.hdl = 0;
   slots_.release(slot);
}

bf_status_t MatTable::apply(const PlcmtOp& op, OpContext& ctx) {
   switch (op.kind) {
      case ChipSdk::OpKind::matAdd:
         return add(op, ctx);
      case ChipSdk::OpKind::matMov:
         return mov(op, ctx);
      case ChipSdk::OpKind::matMod:
         return mod(op, ctx);
      case ChipSdk::OpKind::matSetDflt:
         return setDflt(op, ctx);
      case ChipSdk::OpKind::matClrDflt:
         return del(op, ctx, true);
      case ChipSdk::OpKind::matDel:
         return del(op, ctx, false);
      default:
         return ctx.refuse(BF_INVALID_ARG, "%s on MAT", ChipSdk::opKindName(op.kind));
   }
}

bf_status_t MatTable::add(const PlcmtOp& op, OpContext& ctx) {
   int instance = 0;
   if (bf_status_t status = checkPlacement(op, ctx, instance); status != BF_SUCCESS) return status;
   if (bf_status_t status = checkIndex(op, ctx); status != BF_SUCCESS) return status;
   if (slotOf_.find(op.hdl) != noSlot) {
      return ctx.refuse(BF_ALREADY_EXISTS, "mat_add: entry handle 0x%x exists in %s", op.hdl,
                        profile().name.c_str());
   }
   Instance& inst = instanceFor(instance);
   if (bf_status_t status = checkIndexFree(op, ctx, inst, noSlot); status != BF_SUCCESS) {
      return status;
   }
   if (bf_status_t status = checkAction(op, ctx); status != BF_SUCCESS) return status;
   auto inst16 = static_cast<std::uint16_t>(instance);
   inst.indexToSlot[op.index] = slotNew(op, inst16) + 1;
   inst.handles.insert(op.hdl);
   actionAcquire(inst16, op, ctx);
   return BF_SUCCESS;
}

bf_status_t MatTable::mov(const PlcmtOp& op, OpContext& ctx) {
   std::uint32_t slot = noSlot;
   if (bf_status_t status = findEntry(op, ctx, slot); status != BF_SUCCESS) return status;
   if (bf_status_t status = checkIndex(op, ctx); status != BF_SUCCESS) return status;
   MatEntry& entry = slots_[slot];
   Instance& inst = instances_[entry.instance];
   if (profile().atcamPartitions != 0 && partitionOf(op.index) != partitionOf(entry.index)) {
      return ctx.refuse(BF_INVALID_ARG,
                        "mat_mov: entry 0x%x cannot move from partition %u to partition %u", op.hdl,
                        partitionOf(entry.index), partitionOf(op.index));
   }
   if (bf_status_t status = checkIndexFree(op, ctx, inst, slot); status != BF_SUCCESS) {
      return status;
   }
   if (bf_status_t status = checkAction(op, ctx); status != BF_SUCCESS) return status;
   inst.indexToSlot[entry.index] = 0;
   inst.indexToSlot[op.index] = slot + 1;
   entry.index = op.index;
   actionReplace(entry, op, ctx);
   return BF_SUCCESS;
}

bf_status_t MatTable::mod(const PlcmtOp& op, OpContext& ctx) {
   std::uint32_t slot = noSlot;
   if (bf_status_t status = findEntry(op, ctx, slot); status != BF_SUCCESS) return status;
   if (bf_status_t status = checkAction(op, ctx); status != BF_SUCCESS) return status;
   actionReplace(slots_[slot], op, ctx);
   return BF_SUCCESS;
}

bf_status_t MatTable::setDflt(const PlcmtOp& op, OpContext& ctx) {
   int instance = 0;
   if (bf_status_t status = checkPlacement(op, ctx, instance); status != BF_SUCCESS) return status;
   Instance& inst = instances_[static_cast<std::size_t>(instance)];
   std::uint32_t slot = slotOf_.find(op.hdl);
   if (slot != noSlot && slot != inst.defaultSlot) {
      return ctx.refuse(BF_ALREADY_EXISTS, "mat_set_dflt: entry handle 0x%x exists in %s", op.hdl,
                        profile().name.c_str());
   }
   if (slot == noSlot && inst.defaultSlot != noSlot) {
      return ctx.refuse(BF_ALREADY_EXISTS, "mat_set_dflt: %s already has default entry 0x%x",
                        profile().name.c_str(), slots_[inst.defaultSlot].hdl);
   }
   if (bf_status_t status = checkAction(op, ctx); status != BF_SUCCESS) return status;
   if (slot != noSlot) {
      actionReplace(slots_[slot], op, ctx);
      return BF_SUCCESS;
   }
   auto inst16 = static_cast<std::uint16_t>(instance);
   inst.defaultSlot = slotNew(op, inst16);
   actionAcquire(inst16, op, ctx);
   return BF_SUCCESS;
}

bf_status_t MatTable::del(const PlcmtOp& op, OpContext& ctx, bool isDefault) {
   std::uint32_t slot = noSlot;
   if (bf_status_t status = findEntry(op, ctx, slot); status != BF_SUCCESS) return status;
   MatEntry& entry = slots_[slot];
   Instance& inst = instances_[entry.instance];
   if (isDefault) {
      inst.defaultSlot = noSlot;
   } else {
      inst.indexToSlot[entry.index] = 0;
      inst.handles.erase(entry.hdl);
   }
   slotDel(slot);
   return BF_SUCCESS;
}

}  // namespace ChipModel
