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

// Appends an operation; for those with data, checks and copies the block first.
PlcmtOp* opNew(p4_pd_plcmt_info_t* info, OpKind kind, const void* data, bf_status_t& status,
               bool withData = true) {
   status = BF_SUCCESS;
   if (!info) {
      status = refuseRecord(kind, "null batch");
      return nullptr;
   }
   ChipSdk::PlcmtDataView view;
   if (withData) {
      view = ChipSdk::plcmtDataParse(data, ChipSdk::plcmtDataMaxSize);
      if (!view.ok()) {
         status = refuseRecord(
             kind, data ? ChipSdk::plcmtDataStatusName(view.status) : "null data block");
         return nullptr;
      }
   }
   PlcmtOp& op = info->ops.emplace_back();
   op.kind = kind;
   if (withData) {
      std::memcpy(op.data.data(), data, view.length);
      op.action = view.action;
      op.numVectors = view.numVectors;
      op.adtMbrHdl = view.adtMbrHdl;
      op.selGrpKey = view.selGrpKey;
   }
   return &op;
}

bf_status_t selMemberOp(p4_pd_plcmt_info_t* info, OpKind kind, uint32_t grpHdl, uint32_t mbrHdl,
                        uint16_t pipe, uint32_t selIndex, uint32_t subIndex, const void* data,
                        bool withData) {
   bf_status_t status;
   PlcmtOp* op = opNew(info, kind, data, status, withData);
   if (!op) return status;
   op->grpHdl = grpHdl;
   op->hdl = mbrHdl;
   op->pipe = pipe;
   op->index = selIndex;
   op->subIndex = subIndex;
   return BF_SUCCESS;
}

bf_status_t handleOp(p4_pd_plcmt_info_t* info, OpKind kind, uint32_t hdl) {
   bf_status_t status;
   PlcmtOp* op = opNew(info, kind, nullptr, status, false);
   if (!op) return status;
   op->hdl = hdl;
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
   bf_status_t status;
   PlcmtOp* op = opNew(info, OpKind::matAdd, data, status);
   if (!op) return status;
   op->hdl = entHdl;
   op->pipe = pipe;
   op->index = index;
   op->selIndex = selIndex;
   op->adtIndex = adtIndex;
   return BF_SUCCESS;
}

bf_status_t p4_pd_set_one_plcmt_op_mat_mov(p4_pd_plcmt_info_t* info, uint32_t entHdl,
                                           uint32_t index, uint32_t selIndex, uint32_t adtIndex,
                                           const void* data) {
   bf_status_t status;
   PlcmtOp* op = opNew(info, OpKind::matMov, data, status);
   if (!op) return status;
   op->hdl = entHdl;
   op->index = index;
   op->selIndex = selIndex;
   op->adtIndex = adtIndex;
   return BF_SUCCESS;
}

bf_status_t p4_pd_set_one_plcmt_op_mat_mod(p4_pd_plcmt_info_t* info, uint32_t entHdl,
                                           uint32_t selIndex, uint32_t adtIndex, const void* data) {
   bf_status_t status;
   PlcmtOp* op = opNew(info, OpKind::matMod, data, status);
   if (!op) return status;
   op->hdl = entHdl;
   op->selIndex = selIndex;
   op->adtIndex = adtIndex;
   return BF_SUCCESS;
}

bf_status_t p4_pd_set_one_plcmt_op_mat_set_dflt(p4_pd_plcmt_info_t* info, uint32_t entHdl,
                                                uint16_t pipe, uint32_t selIndex, uint32_t adtIndex,
                                                const void* data) {
   bf_status_t status;
   PlcmtOp* op = opNew(info, OpKind::matSetDflt, data, status);
   if (!op) return status;
   op->hdl = entHdl;
   op->pipe = pipe;
   op->selIndex = selIndex;
   op->adtIndex = adtIndex;
   return BF_SUCCESS;
}

bf_status_t p4_pd_set_one_plcmt_op_mat_clr_dflt(p4_pd_plcmt_info_t* info, uint32_t entHdl) {
   return handleOp(info, OpKind::matClrDflt, entHdl);
}

bf_status_t p4_pd_set_one_plcmt_op_mat_del(p4_pd_plcmt_info_t* info, uint32_t entHdl) {
   return handleOp(info, OpKind::matDel, entHdl);
}

bf_status_t p4_pd_set_one_plcmt_op_adt_add(p4_pd_plcmt_info_t* info, uint32_t entHdl, uint16_t pipe,
                                           const void* data) {
   bf_status_t status;
   PlcmtOp* op = opNew(info, OpKind::adtAdd, data, status);
   if (!op) return status;
   op->hdl = entHdl;
   op->pipe = pipe;
   return BF_SUCCESS;
}

bf_status_t p4_pd_set_one_plcmt_op_adt_mod(p4_pd_plcmt_info_t* info, uint32_t entHdl,
                                           const void* data) {
   bf_status_t status;
   PlcmtOp* op = opNew(info, OpKind::adtMod, data, status);
   if (!op) return status;
   op->hdl = entHdl;
   return BF_SUCCESS;
}

bf_status_t p4_pd_set_one_plcmt_op_adt_del(p4_pd_plcmt_info_t* info, uint32_t entHdl) {
   return handleOp(info, OpKind::adtDel, entHdl);
}

bf_status_t p4_pd_set_one_plcmt_op_sel_add(p4_pd_plcmt_info_t* info, uint32_t grpHdl,
                                           uint32_t mbrHdl, uint16_t pipe, uint32_t selIndex,
                                           uint32_t subIndex, const void* data) {
   return selMemberOp(info, OpKind::selAdd, grpHdl, mbrHdl, pipe, selIndex, subIndex, data, true);
}

bf_status_t p4_pd_set_one_plcmt_op_sel_del(p4_pd_plcmt_info_t* info, uint32_t grpHdl,
                                           uint32_t mbrHdl, uint16_t pipe, uint32_t selIndex,
                                           uint32_t subIndex) {
   return selMemberOp(info, OpKind::selDel, grpHdl, mbrHdl, pipe, selIndex, subIndex, nullptr,
                      false);
}

bf_status_t p4_pd_set_one_plcmt_op_sel_set_fallback(p4_pd_plcmt_info_t* info, uint32_t mbrHdl,
                                                    uint16_t pipe, const void* data) {
   bf_status_t status;
   PlcmtOp* op = opNew(info, OpKind::selSetFallback, data, status);
   if (!op) return status;
   op->hdl = mbrHdl;
   op->pipe = pipe;
   return BF_SUCCESS;
}

bf_status_t p4_pd_set_one_plcmt_op_sel_clr_fallback(p4_pd_plcmt_info_t* info, uint16_t pipe) {
   bf_status_t status;
   PlcmtOp* op = opNew(info, OpKind::selClrFallback, nullptr, status, false);
   if (!op) return status;
   op->pipe = pipe;
   return BF_SUCCESS;
}

bf_status_t p4_pd_set_one_plcmt_op_sel_activate(p4_pd_plcmt_info_t* info, uint32_t grpHdl,
                                                uint32_t mbrHdl, uint16_t pipe, uint32_t selIndex,
                                                uint32_t subIndex) {
   return selMemberOp(info, OpKind::selActivate, grpHdl, mbrHdl, pipe, selIndex, subIndex, nullptr,
                      false);
}

bf_status_t p4_pd_set_one_plcmt_op_sel_deactivate(p4_pd_plcmt_info_t* info, uint32_t grpHdl,
                                                  uint32_t mbrHdl, uint16_t pipe, uint32_t selIndex,
                                                  uint32_t subIndex) {
   return selMemberOp(info, OpKind::selDeactivate, grpHdl, mbrHdl, pipe, selIndex, subIndex,
                      nullptr, false);
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
   ChipSdk::PlcmtDataView view = ChipSdk::plcmtDataParse(data, ChipSdk::plcmtDataMaxSize);
   if (!view.ok()) {
      *size = ChipSdk::plcmtDataMaxSize;
      return BF_INVALID_ARG;
   }
   *size = view.length;
   return BF_SUCCESS;
}

bf_status_t pipe_mgr_tbl_set_property(p4_pd_sess_hdl_t sessHdl, uint8_t devId,
                                      p4_pd_tbl_hdl_t tblHdl, uint32_t property, uint32_t value,
                                      uint32_t args) {
   return ChipSdk::chipModel().tblPropertyIs(devId, tblHdl, property, value);
}

}  // extern "C"
