#include "ChipModel/AdtTable.h"

#include "ChipModel/detail/OpContext.h"
#include "ChipModel/detail/PlcmtOp.h"

namespace ChipModel {

namespace {
constexpr std::uint32_t absent = OpenMap<std::uint32_t>::absent;
}

AdtTable::AdtTable(const TableProfile& profile, std::uint16_t numPipes)
    : TableModel(profile, numPipes) {
   instancesIs(numInstances());
}

void AdtTable::instancesIs(std::uint16_t count) {
   instances_.clear();
   instances_.resize(count);
}

bool AdtTable::empty() const {
   return slots_.empty();
}

std::uint32_t AdtTable::slotFor(std::uint16_t instance, std::uint32_t hdl) {
   std::uint64_t key = refKey(instance, hdl);
   std::uint32_t slot = slotOf_.find(key);
   if (slot != absent) return slot;
   slot = slots_.alloc();
   slots_[slot].hdl = hdl;
   slots_[slot].instance = instance;
   slotOf_.insert(key, slot);
   return slot;
}

void AdtTable::slotRelease(std::uint32_t slot) {
   AdtEntry& entry = slots_[slot];
   if (entry.exists || entry.refCount != 0) return;
   slotOf_.erase(refKey(entry.instance, entry.hdl));
   entry.hdl = 0;
   slots_.release(slot);
}

bool AdtTable::refAcquire(std::uint16_t instance, std::uint32_t hdl) {
   AdtEntry& entry = slots_[slotFor(instance, hdl)];
   ++entry.refCount;
   return entry.exists;
}

void AdtTable::refRelease(std::uint16_t instance, std::uint32_t hdl) {
   std::uint32_t slot = slotOf_.find(refKey(instance, hdl));
   BRIO_ASSERT(slot != absent && slots_[slot].refCount > 0);
   --slots_[slot].refCount;
   slotRelease(slot);
}

bool AdtTable::installed(std::uint16_t instance, std::uint32_t hdl) const {
   std::uint32_t slot = slotOf_.find(refKey(instance, hdl));
   return slot != absent && slots_[slot].exists;
}

const AdtEntry* AdtTable::entry(std::uint32_t hdl) const {
   std::uint32_t slot = ownerOf_.find(hdl);
   return slot == absent ? nullptr : &slots_[slot];
}

std::uint32_t AdtTable::numEntries(std::uint16_t instance) const {
   return instance < instances_.size() ? instances_[instance].numEntries : 0;
}

void AdtTable::nextHdls(std::uint16_t instance, std::uint32_t after, std::size_t count,
                        std::vector<std::uint32_t>& out) const {
   instances_[instance].handles.next(after, count, out);
}

bf_status_t AdtTable::apply(const PlcmtOp& op, OpContext& ctx) {
   switch (op.kind) {
      case ChipSdk::OpKind::adtAdd:
         return add(op, ctx);
      case ChipSdk::OpKind::adtMod:
         return mod(op, ctx);
      case ChipSdk::OpKind::adtDel:
         return del(op, ctx);
      default:
         return ctx.refuse(BF_INVALID_ARG, "%s on ADT", ChipSdk::opKindName(op.kind));
   }
}

bf_status_t AdtTable::add(const PlcmtOp& op, OpContext& ctx) {
   int instance = 0;
   if (bf_status_t status = checkPlacement(op, ctx, instance); status != BF_SUCCESS) return status;
   if (ownerOf_.find(op.hdl) != absent) {
      return ctx.refuse(BF_ALREADY_EXISTS, "adt_add: member handle 0x%x exists in %s", op.hdl,
                        profile().name.c_str());
   }
   Instance& inst = instances_[instance];
   if (inst.numEntries >= profile().size) {
      return ctx.refuse(BF_NO_SPACE, "adt_add: %s is full (%u entries)", profile().name.c_str(),
                        profile().size);
   }
   if (ownerOf_.size() == 0) ownerOf_.reserve(profile().size);
   std::uint32_t slot = slotFor(static_cast<std::uint16_t>(instance), op.hdl);
   AdtEntry& entry = slots_[slot];
   entry.exists = true;
   entry.data = op.data;
   ownerOf_.insert(op.hdl, slot);
   inst.handles.insert(op.hdl);
   ++inst.numEntries;
   return BF_SUCCESS;
}

bf_status_t AdtTable::findOwned(const PlcmtOp& op, OpContext& ctx, std::uint32_t& slot) const {
   slot = ownerOf_.find(op.hdl);
   if (slot != absent) return BF_SUCCESS;
   return ctx.refuse(BF_OBJECT_NOT_FOUND, "%s: no member handle 0x%x in %s",
                     ChipSdk::opKindName(op.kind), op.hdl, profile().name.c_str());
}

bf_status_t AdtTable::mod(const PlcmtOp& op, OpContext& ctx) {
   std::uint32_t slot = absent;
   if (bf_status_t status = findOwned(op, ctx, slot); status != BF_SUCCESS) return status;
   slots_[slot].data = op.data;
   return BF_SUCCESS;
}

bf_status_t AdtTable::del(const PlcmtOp& op, OpContext& ctx, bool forced) {
   std::uint32_t slot = absent;
   if (bf_status_t status = findOwned(op, ctx, slot); status != BF_SUCCESS) return status;
   AdtEntry& entry = slots_[slot];
   if (entry.refCount != 0 && !forced) {
      ctx.violation(ViolationKind::adtDelInUse, "member handle 0x%x of %s still has %u users",
                    op.hdl, profile().name.c_str(), entry.refCount);
      return ctx.refuse(BF_IN_USE, "adt_del: member handle 0x%x of %s still has %u users", op.hdl,
                        profile().name.c_str(), entry.refCount);
   }
   Instance& inst = instances_[entry.instance];
   inst.handles.erase(op.hdl);
   --inst.numEntries;
   ownerOf_.erase(op.hdl);
   entry.exists = false;
   slotRelease(slot);
   return BF_SUCCESS;
}

}  // namespace ChipModel
