#include "ChipModel/SelTable.h"

#include "ChipModel/detail/OpContext.h"
#include "ChipModel/detail/PlcmtOp.h"

namespace ChipModel {

namespace {
constexpr std::uint32_t absent = OpenMap<std::uint64_t>::absent;
}

SelTable::SelTable(const TableProfile& profile, std::uint16_t numPipes, AdtTable& adt)
    : TableModel(profile, numPipes), adt_(adt) {
   instancesIs(numInstances());
}

void SelTable::instancesIs(std::uint16_t count) {
   instances_.clear();
   instances_.resize(count);
}

bool SelTable::empty() const {
   if (!slots_.empty()) return false;
   for (const Instance& inst : instances_) {
      if (inst.fallback.set) return false;
   }
   return true;
}

SelTable::Instance& SelTable::instanceFor(int instance) {
   Instance& inst = instances_[static_cast<std::size_t>(instance)];
   if (inst.vectors.empty()) inst.vectors.resize(profile().size);
   return inst;
}

bool SelTable::groupInRange(std::uint32_t base, std::uint32_t numVectors) const {
   return std::uint64_t{base} + numVectors <= profile().size;
}

void SelTable::groupRefAcquire(std::uint16_t instance, std::uint32_t base, std::uint32_t numVectors,
                               std::uint32_t entHdl, OpContext& ctx) {
   if (numVectors == 0) return;
   Instance& inst = instanceFor(instance);
   std::uint32_t empty = 0;
   for (std::uint32_t v = 0; v < numVectors; ++v) {
      SelVector& vec = inst.vectors[base + v];
      if (vec.activeCount != 0) {
         ++vec.matRefs;
         continue;
      }
      if (vec.matRefs++ == 0) ++inst.brokenVectors;
      ++empty;
   }
   if (empty != 0 && !inst.fallback.set) {
      ctx.violation(ViolationKind::matGroupVectorEmpty,
                    "entry 0x%x uses group at selector index 0x%x with %u of %u vectors empty",
                    entHdl, base, empty, numVectors);
   }
}

void SelTable::groupRefRelease(std::uint16_t instance, std::uint32_t base,
                               std::uint32_t numVectors) {
   if (numVectors == 0) return;
   Instance& inst = instances_[instance];
   for (std::uint32_t v = 0; v < numVectors; ++v) {
      SelVector& vec = inst.vectors[base + v];
      BRIO_ASSERT(vec.matRefs > 0);
      if (--vec.matRefs == 0 && vec.activeCount == 0) --inst.brokenVectors;
   }
}

const SelVector* SelTable::vector(std::uint16_t instance, std::uint32_t selIndex) const {
   if (instance >= instances_.size()) return nullptr;
   const Instance& inst = instances_[instance];
   if (selIndex >= inst.vectors.size()) return nullptr;
   return &inst.vectors[selIndex];
}

const SelMember* SelTable::member(std::uint16_t instance, std::uint32_t selIndex,
                                  std::uint32_t subIndex) const {
   if (subIndex >= selVectorMembers) return nullptr;
   std::uint32_t slot = slotOf_.find(memberKey(instance, selIndex, subIndex));
   return slot == absent ? nullptr : &slots_[slot];
}

const SelFallback& SelTable::fallback(std::uint16_t instance) const {
   return instances_[instance].fallback;
}

std::uint32_t SelTable::numBrokenVectors(std::uint16_t instance) const {
   return instance < instances_.size() ? instances_[instance].brokenVectors : 0;
}

void SelTable::nextHdls(std::uint16_t instance, std::uint32_t after, std::size_t count,
                        std::vector<std::uint32_t>& out) const {
   instances_[instance].usedVectors.next(after, count, out);
}

void SelTable::activeInc(Instance& inst, SelVector& vec) {
   if (vec.activeCount++ == 0 && vec.matRefs != 0) --inst.brokenVectors;
}

void SelTable::activeDec(Instance& inst, SelVector& vec, const PlcmtOp& op, OpContext& ctx) {
   if (--vec.activeCount != 0 || vec.matRefs == 0) return;
   ++inst.brokenVectors;
   if (!inst.fallback.set) {
      ctx.violation(ViolationKind::matGroupVectorEmpty,
                    "%s leaves selector index 0x%x of group 0x%x, used by %u entries, without "
                    "an active member",
                    ChipSdk::opKindName(op.kind), op.index, vec.grpHdl, vec.matRefs);
   }
}

void SelTable::adtRefAcquire(std::uint16_t instance, std::uint32_t mbrHdl, const char* who,
                             OpContext& ctx) {
   if (!adt_.refAcquire(instance, mbrHdl)) {
      ctx.violation(ViolationKind::mbrAdtMissing, "%s uses member handle 0x%x not in %s", who,
                    mbrHdl, adt_.profile().name.c_str());
   }
}

bf_status_t SelTable::apply(const PlcmtOp& op, OpContext& ctx) {
   switch (op.kind) {
      case ChipSdk::OpKind::selAdd:
         return add(op, ctx);
      case ChipSdk::OpKind::selDel:
         return del(op, ctx);
      case ChipSdk::OpKind::selActivate:
         return activate(op, ctx, true);
      case ChipSdk::OpKind::selDeactivate:
         return activate(op, ctx, false);
      case ChipSdk::OpKind::selSetFallback:
         return setFallback(op, ctx);
      case ChipSdk::OpKind::selClrFallback:
         return clrFallback(op, ctx);
      default:
         return ctx.refuse(BF_INVALID_ARG, "%s on SEL", ChipSdk::opKindName(op.kind));
   }
}

bf_status_t SelTable::locate(const PlcmtOp& op, OpContext& ctx, int& instance,
                             std::uint32_t& slot) {
   const char* name = ChipSdk::opKindName(op.kind);
   if (bf_status_t status = checkPlacement(op, ctx, instance); status != BF_SUCCESS) return status;
   if (op.index >= profile().size || op.subIndex >= selVectorMembers) {
      return ctx.refuse(BF_INVALID_ARG, "%s: selector index 0x%x sub-index %u out of range of %s",
                        name, op.index, op.subIndex, profile().name.c_str());
   }
   slot = slotOf_.find(memberKey(static_cast<std::uint16_t>(instance), op.index, op.subIndex));
   return BF_SUCCESS;
}

bf_status_t SelTable::checkMember(const PlcmtOp& op, OpContext& ctx, int& instance,
                                  std::uint32_t& slot) {
   if (bf_status_t status = locate(op, ctx, instance, slot); status != BF_SUCCESS) return status;
   const char* name = ChipSdk::opKindName(op.kind);
   if (slot == absent) {
      return ctx.refuse(BF_OBJECT_NOT_FOUND, "%s: no member at selector index 0x%x sub-index %u",
                        name, op.index, op.subIndex);
   }
   const SelMember& mbr = slots_[slot];
   if (mbr.grpHdl != op.grpHdl || mbr.mbrHdl != op.hdl) {
      return ctx.refuse(BF_INVALID_ARG,
                        "%s: selector index 0x%x sub-index %u holds group 0x%x member 0x%x, "
                        "not group 0x%x member 0x%x",
                        name, op.index, op.subIndex, mbr.grpHdl, mbr.mbrHdl, op.grpHdl, op.hdl);
   }
   return BF_SUCCESS;
}

bf_status_t SelTable::add(const PlcmtOp& op, OpContext& ctx) {
   int instance = 0;
   std::uint32_t slot = absent;
   if (bf_status_t status = locate(op, ctx, instance, slot); status != BF_SUCCESS) return status;
   if (slot != absent) {
      return ctx.refuse(BF_ALREADY_EXISTS, "sel_add: selector index 0x%x sub-index %u is taken",
                        op.index, op.subIndex);
   }
   Instance& inst = instanceFor(instance);
   SelVector& vec = inst.vectors[op.index];
   if (vec.numMembers != 0 && vec.grpHdl != op.grpHdl) {
      return ctx.refuse(BF_IN_USE, "sel_add: selector index 0x%x belongs to group 0x%x, not 0x%x",
                        op.index, vec.grpHdl, op.grpHdl);
   }
   auto inst16 = static_cast<std::uint16_t>(instance);
   slot = slots_.alloc();
   slots_[slot] = SelMember{
       op.hdl, op.grpHdl, op.index, inst16, static_cast<std::uint8_t>(op.subIndex), true, op.data};
   slotOf_.insert(memberKey(inst16, op.index, op.subIndex), slot);
   if (vec.numMembers++ == 0) {
      vec.grpHdl = op.grpHdl;
      inst.usedVectors.insert(op.index + 1);
   }
   activeInc(inst, vec);
   adtRefAcquire(inst16, op.hdl, "sel_add", ctx);
   return BF_SUCCESS;
}

bf_status_t SelTable::del(const PlcmtOp& op, OpContext& ctx) {
   int instance = 0;
   std::uint32_t slot = absent;
   if (bf_status_t status = checkMember(op, ctx, instance, slot); status != BF_SUCCESS) {
      return status;
   }
   Instance& inst = instances_[instance];
   SelVector& vec = inst.vectors[op.index];
   auto inst16 = static_cast<std::uint16_t>(instance);
   bool wasActive = slots_[slot].active;
   slotOf_.erase(memberKey(inst16, op.index, op.subIndex));
   slots_.release(slot);
   if (--vec.numMembers == 0) {
      vec.grpHdl = 0;
      inst.usedVectors.erase(op.index + 1);
   }
   if (wasActive) activeDec(inst, vec, op, ctx);
   adt_.refRelease(inst16, op.hdl);
   return BF_SUCCESS;
}

bf_status_t SelTable::activate(const PlcmtOp& op, OpContext& ctx, bool active) {
   int instance = 0;
   std::uint32_t slot = absent;
   if (bf_status_t status = checkMember(op, ctx, instance, slot); status != BF_SUCCESS) {
      return status;
   }
   SelMember& mbr = slots_[slot];
   if (mbr.active == active) return BF_SUCCESS;
   mbr.active = active;
   Instance& inst = instances_[instance];
   SelVector& vec = inst.vectors[op.index];
   if (active) {
      activeInc(inst, vec);
   } else {
      activeDec(inst, vec, op, ctx);
   }
   return BF_SUCCESS;
}

bf_status_t SelTable::setFallback(const PlcmtOp& op, OpContext& ctx) {
   int instance = 0;
   if (bf_status_t status = checkPlacement(op, ctx, instance); status != BF_SUCCESS) return status;
   auto inst16 = static_cast<std::uint16_t>(instance);
   SelFallback& fallback = instances_[instance].fallback;
   // The new member takes over before the old one lets go of its action data.
   adtRefAcquire(inst16, op.hdl, "sel_set_fallback", ctx);
   if (fallback.set) adt_.refRelease(inst16, fallback.mbrHdl);
   fallback = SelFallback{true, op.hdl, op.data};
   return BF_SUCCESS;
}

bf_status_t SelTable::clrFallback(const PlcmtOp& op, OpContext& ctx) {
   int instance = writeInstance(op.pipe);
   if (instance < 0) return refusePipe(ctx, op);
   Instance& inst = instances_[instance];
   // Clearing a fallback that is not there leaves the chip as it is.
   if (!inst.fallback.set) return BF_SUCCESS;
   adt_.refRelease(static_cast<std::uint16_t>(instance), inst.fallback.mbrHdl);
   inst.fallback = SelFallback{};
   if (inst.brokenVectors != 0) {
      ctx.violation(ViolationKind::matGroupVectorEmpty,
                    "sel_clr_fallback on pipe 0x%x while %u used vectors have no active member",
                    op.pipe, inst.brokenVectors);
   }
   return BF_SUCCESS;
}

}  // namespace ChipModel
