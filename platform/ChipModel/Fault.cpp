#include "ChipModel/Fault.h"

#include "ChipModel/Chip.h"
#include "ChipModel/detail/OpContext.h"
#include "ChipModel/detail/OpenMap.h"
#include "ChipModel/detail/PlcmtOp.h"

namespace ChipModel {

namespace {

constexpr std::uint32_t absent = OpenMap<std::uint32_t>::absent;

// What a stray entry or member holds: data that no publisher wrote.
PlcmtOp strayOp(ChipSdk::OpKind kind, const Fault& fault) {
   const std::uint8_t tag = 0xEE;
   PlcmtOp op;
   op.kind = kind;
   op.pipe = fault.pipe;
   op.hdl = fault.hdl;
   op.index = fault.index;
   op.subIndex = fault.subIndex;
   op.grpHdl = fault.grpHdl;
   op.data = ChipSdk::PlcmtDataBuilder().payload(&tag, 1).block();
   return op;
}

// Changes the block's last payload byte and seals it again, so that the block still reads as
// valid data; its action is left alone so that the chip's references stay true.
bf_status_t dataCorrupt(ChipSdk::PlcmtDataBlock& block, OpContext& ctx) {
   using namespace ChipSdk::PlcmtDataDetail;
   const ChipSdk::PlcmtDataView view = ChipSdk::plcmtDataParse(block.data(), block.bytes.size());
   if (!view.ok() || view.payloadSize == 0) {
      return ctx.refuse(BF_INVALID_ARG, "fault: the entry holds no payload to change");
   }
   const std::size_t at =
       static_cast<std::size_t>(view.payload - block.data()) + view.payloadSize - 1;
   block.bytes[at] ^= 0xFF;
   writeLe(block.data() + checksumAt, fletcher16(block.data(), view.length), 2);
   return BF_SUCCESS;
}

}  // namespace

const char* faultKindName(FaultKind kind) {
   switch (kind) {
      case FaultKind::drop:
         return "drop";
      case FaultKind::corrupt:
         return "corrupt";
      case FaultKind::stray:
         return "stray";
   }
   return "unknown";
}

bool faultKindFromName(const std::string& name, FaultKind& kind) {
   for (FaultKind k : {FaultKind::drop, FaultKind::corrupt, FaultKind::stray}) {
      if (name == faultKindName(k)) {
         kind = k;
         return true;
      }
   }
   return false;
}

bf_status_t MatTable::faultApply(const Fault& fault, OpContext& ctx) {
   const std::uint32_t slot = slotOf_.find(fault.hdl);
   if (fault.kind == FaultKind::stray) return add(strayOp(ChipSdk::OpKind::matAdd, fault), ctx);
   if (slot == noSlot) {
      return ctx.refuse(BF_OBJECT_NOT_FOUND, "fault: no entry handle 0x%x in %s", fault.hdl,
                        profile().name.c_str());
   }
   if (fault.kind == FaultKind::corrupt) return dataCorrupt(slots_[slot].data, ctx);
   const bool isDefault = slots_[slot].isDefault;
   PlcmtOp op;
   op.kind = isDefault ? ChipSdk::OpKind::matClrDflt : ChipSdk::OpKind::matDel;
   op.hdl = fault.hdl;
   return del(op, ctx, isDefault);
}

bf_status_t AdtTable::faultApply(const Fault& fault, OpContext& ctx) {
   if (fault.kind == FaultKind::stray) return add(strayOp(ChipSdk::OpKind::adtAdd, fault), ctx);
   PlcmtOp op;
   op.kind = ChipSdk::OpKind::adtDel;
   op.hdl = fault.hdl;
   std::uint32_t slot = absent;
   if (bf_status_t status = findOwned(op, ctx, slot); status != BF_SUCCESS) return status;
   if (fault.kind == FaultKind::corrupt) return dataCorrupt(slots_[slot].data, ctx);
   return del(op, ctx, true);
}

bf_status_t SelTable::faultApply(const Fault& fault, OpContext& ctx) {
   PlcmtOp op = strayOp(ChipSdk::OpKind::selAdd, fault);
   int instance = 0;
   std::uint32_t slot = absent;
   if (bf_status_t status = locate(op, ctx, instance, slot); status != BF_SUCCESS) return status;
   if (fault.kind == FaultKind::stray) {
      // Without a group named, a stray member joins the group its vector already serves.
      const auto& vectors = instanceFor(instance).vectors;
      if (op.grpHdl == 0 && op.index < vectors.size()) op.grpHdl = vectors[op.index].grpHdl;
      return add(op, ctx);
   }
   if (slot == absent) {
      return ctx.refuse(BF_OBJECT_NOT_FOUND, "fault: no member at selector index 0x%x sub-index %u",
                        fault.index, fault.subIndex);
   }
   if (fault.kind == FaultKind::corrupt) return dataCorrupt(slots_[slot].data, ctx);
   op.kind = ChipSdk::OpKind::selDel;
   op.grpHdl = slots_[slot].grpHdl;
   op.hdl = slots_[slot].mbrHdl;
   return del(op, ctx);
}

bf_status_t Chip::faultInject(const Fault& fault) {
   bf_status_t status = BF_SUCCESS;
   TableModel* table = tableFor(fault.devId, fault.tblHdl, status);
   if (!table) return status;
   OpContext ctx;
   status = table->faultApply(fault, ctx);
   if (status != BF_SUCCESS) {
      lastError_ = ctx.refusal();
      return status;
   }
   ++numFaults_;
   return BF_SUCCESS;
}

}  // namespace ChipModel
