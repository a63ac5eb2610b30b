#include "ChipSdk/PlcmtApi.h"

#include <cstring>
#include <memory>
#include <vector>

#include "ChipSdk/ChipModel.h"
#include "ChipSdk/PlcmtOp.h"

using ChipSdk::OpKind;
using ChipSdk::PlcmtOp;

namespace {

// Destroyed batches are kept for reuse: a helper opens and destroys one per operation, and a
// reused batch keeps its operation storage.
constexpr std::size_t batchPoolMax = 64;
thread_local std::vector<std::unique_ptr<p4_pd_plcmt_info>> batchPool;

bf_status_t refuseRecord(OpKind kind, const char* why) {
   ChipSdk::chipModel().lastErrorIs(std::string(ChipSdk::opKindName(kind)) + ": " + why);
   return BF_INVALID_ARG;
}

// The arguments of a record call; each call fills what it has.
struct OpArgs {
   uint32_t hdl = 0;
   uint16_t pipe = 0;
   uint32_t grpHdl = 0;
   uint32_t index = 0;
   uint32_t selIndex = 0;
   uint32_t adtIndex = 0;
   uint32_t subIndex = 0;
};

// Appends an operation; for one with data, checks and copies the block first.
bf_status_t record(p4_pd_plcmt_info_t* info, OpKind kind, const OpArgs& args,
                   const void* data = nullptr, bool withData = false) {
   if (!info) return refuseRecord(kind, "null batch");
   ChipSdk::PlcmtDataView view;
   if (withData) {
      view = ChipSdk::plcmtDataParse(data, ChipSdk::plcmtDataMaxSize);
      if (!view.ok()) {
         return refuseRecord(kind,
                             data ? ChipSdk::plcmtDataStatusName(view.status) : "null data block");
      }
   }
   PlcmtOp& op = info->ops.emplace_back();
   op.kind = kind;
   op.hdl = args.hdl;
   op.pipe = args.pipe;
   op.grpHdl = args.grpHdl;
   op.index = args.index;
   op.selIndex = args.selIndex;
   op.adtIndex = args.adtIndex;
   op.subIndex = args.subIndex;
   if (withData) {
      std::memcpy(op.data.data(), data, view.length);
      op.action = view.action;
      op.numVectors = view.numVectors;
      op.adtMbrHdl = view.adtMbrHdl;
      op.selGrpKey = view.selGrpKey;
   }
   return BF_SUCCESS;
}

}  // namespace

extern "C" {

p4_pd_plcmt_info_t* p4_pd_create_plcmt_info(void) {
   if (batchPool.empty()) return new p4_pd_plcmt_info;
   p4_pd_plcmt_info_t* info = batchPool.back().release();
   batchPool.pop_back();
   return info;
}

bf_status_t p4_pd_destroy_plcmt_info(p4_pd_plcmt_info_t* info) {
   if (!info) return BF_INVALID_ARG;
   info->ops.clear();
   if (batchPool.size() < batchPoolMax) {
      batchPool.emplace_back(info);
   } else {
      delete info;
   }
   return BF_SUCCESS;
}

bf_status_t p4_pd_set_one_plcmt_op_mat_add(p4_pd_plcmt_info_t* info, uint32_t entHdl, uint16_t pipe,
                                           uint32_t index, uint32_t selIndex, uint32_t adtIndex,
                                           const void* data) {
   return record(
       info, OpKind::matAdd,
       {.hdl = entHdl, .pipe = pipe, .index = index, .selIndex = selIndex, .adtIndex = adtIndex},
       data, true);
}

bf_status_t p4_pd_set_one_plcmt_op_mat_mov(p4_pd_plcmt_info_t* info, uint32_t entHdl,
                                           uint32_t index, uint32_t selIndex, uint32_t adtIndex,
                                           const void* data) {
   return record(info, OpKind::matMov,
                 {.hdl = entHdl, .index = index, .selIndex = selIndex, .adtIndex = adtIndex}, data,
                 true);
}

bf_status_t p4_pd_set_one_plcmt_op_mat_mod(p4_pd_plcmt_info_t* info, uint32_t entHdl,
                                           uint32_t selIndex, uint32_t adtIndex, const void* data) {
   return record(info, OpKind::matMod, {.hdl = entHdl, .selIndex = selIndex, .adtIndex = adtIndex},
                 data, true);
}

bf_status_t p4_pd_set_one_plcmt_op_mat_set_dflt(p4_pd_plcmt_info_t* info, uint32_t entHdl,
                                                uint16_t pipe, uint32_t selIndex, uint32_t adtIndex,
                                                const void* data) {
   return record(info, OpKind::matSetDflt,
                 {.hdl = entHdl, .pipe = pipe, .selIndex = selIndex, .adtIndex = adtIndex}, data,
                 true);
}

bf_status_t p4_pd_set_one_plcmt_op_mat_clr_dflt(p4_pd_plcmt_info_t* info, uint32_t entHdl) {
   return record(info, OpKind::matClrDflt, {.hdl = entHdl});
}

bf_status_t p4_pd_set_one_plcmt_op_mat_del(p4_pd_plcmt_info_t* info, uint32_t entHdl) {
   return record(info, OpKind::matDel, {.hdl = entHdl});
}

bf_status_t p4_pd_set_one_plcmt_op_adt_add(p4_pd_plcmt_info_t* info, uint32_t entHdl, uint16_t pipe,
                                           const void* data) {
   return record(info, OpKind::adtAdd, {.hdl = entHdl, .pipe = pipe}, data, true);
}

bf_status_t p4_pd_set_one_plcmt_op_adt_mod(p4_pd_plcmt_info_t* info, uint32_t entHdl,
                                           const void* data) {
   return record(info, OpKind::adtMod, {.hdl = entHdl}, data, true);
}

bf_status_t p4_pd_set_one_plcmt_op_adt_del(p4_pd_plcmt_info_t* info, uint32_t entHdl) {
   return record(info, OpKind::adtDel, {.hdl = entHdl});
}

bf_status_t p4_pd_set_one_plcmt_op_sel_add(p4_pd_plcmt_info_t* info, uint32_t grpHdl,
                                           uint32_t mbrHdl, uint16_t pipe, uint32_t selIndex,
                                           uint32_t subIndex, const void* data) {
   return record(
       info, OpKind::selAdd,
       {.hdl = mbrHdl, .pipe = pipe, .grpHdl = grpHdl, .index = selIndex, .subIndex = subIndex},
       data, true);
}

bf_status_t p4_pd_set_one_plcmt_op_sel_del(p4_pd_plcmt_info_t* info, uint32_t grpHdl,
                                           uint32_t mbrHdl, uint16_t pipe, uint32_t selIndex,
                                           uint32_t subIndex) {
   return record(
       info, OpKind::selDel,
       {.hdl = mbrHdl, .pipe = pipe, .grpHdl = grpHdl, .index = selIndex, .subIndex = subIndex});
}

bf_status_t p4_pd_set_one_plcmt_op_sel_set_fallback(p4_pd_plcmt_info_t* info, uint32_t mbrHdl,
                                                    uint16_t pipe, const void* data) {
   return record(info, OpKind::selSetFallback, {.hdl = mbrHdl, .pipe = pipe}, data, true);
}

bf_status_t p4_pd_set_one_plcmt_op_sel_clr_fallback(p4_pd_plcmt_info_t* info, uint16_t pipe) {
   return record(info, OpKind::selClrFallback, {.pipe = pipe});
}

bf_status_t p4_pd_set_one_plcmt_op_sel_activate(p4_pd_plcmt_info_t* info, uint32_t grpHdl,
                                                uint32_t mbrHdl, uint16_t pipe, uint32_t selIndex,
                                                uint32_t subIndex) {
   return record(
       info, OpKind::selActivate,
       {.hdl = mbrHdl, .pipe = pipe, .grpHdl = grpHdl, .index = selIndex, .subIndex = subIndex});
}

bf_status_t p4_pd_set_one_plcmt_op_sel_deactivate(p4_pd_plcmt_info_t* info, uint32_t grpHdl,
                                                  uint32_t mbrHdl, uint16_t pipe, uint32_t selIndex,
                                                  uint32_t subIndex) {
   return record(
       info, OpKind::selDeactivate,
       {.hdl = mbrHdl, .pipe = pipe, .grpHdl = grpHdl, .index = selIndex, .subIndex = subIndex});
}

bf_status_t p4_pd_process_plcmt_info(p4_pd_sess_hdl_t sessHdl, uint8_t devId,
                                     p4_pd_tbl_hdl_t tblHdl, p4_pd_plcmt_info_t* info,
                                     uint32_t flags, uint32_t* processed) {
   ChipSdk::ChipModel& model = ChipSdk::chipModel();
   if (processed) *processed = 0;
   if (!info) {
      model.lastErrorIs("process: null batch");
      return BF_INVALID_ARG;
   }
   return model.process(devId, tblHdl, info->ops.data(), info->ops.size(), processed);
}

bf_status_t p4_pd_plcmt_data_size(const void* data, uint32_t* size) {
   if (!size) return BF_INVALID_ARG;
   if (!data) {
      *size = 0;
      return BF_INVALID_ARG;
   }
   // The size comes from the header alone, as a copy is taken before every recorded operation;
   // the contents are checked once, when the operation is recorded.
   std::size_t length = ChipSdk::plcmtDataHeaderLength(data);
   if (length == 0) {
      *size = ChipSdk::plcmtDataMaxSize;
      return BF_INVALID_ARG;
   }
   *size = static_cast<std::uint32_t>(length);
   return BF_SUCCESS;
}

bf_status_t pipe_mgr_tbl_set_property(p4_pd_sess_hdl_t sessHdl, uint8_t devId,
                                      p4_pd_tbl_hdl_t tblHdl, uint32_t property, uint32_t value,
                                      uint32_t args) {
   return ChipSdk::chipModel().tblPropertyIs(devId, tblHdl, property, value);
}

}  // extern "C"
