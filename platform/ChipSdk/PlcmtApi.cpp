#include "ChipSdk/PlcmtApi.h"

#include "Brio/Brio.h"
#include "ChipSdk/PlcmtData.h"
#include "ChipSdk/SdkImpl.h"

using ChipSdk::OpKind;
using ChipSdk::PlcmtOpArgs;

namespace {

// Not owned: whoever installs an implementation keeps it alive until it removes it.
ChipSdk::SdkImpl* installedImpl = nullptr;

ChipSdk::SdkImpl& impl() {
   BRIO_ASSERT(installedImpl && "no chip SDK implementation installed");
   return *installedImpl;
}

bf_status_t record(p4_pd_plcmt_info_t* info, OpKind kind, const PlcmtOpArgs& args,
                   const void* data = nullptr) {
   return impl().plcmtOpRecord(info, kind, args, data);
}

}  // namespace

namespace ChipSdk {

SdkImpl* sdkImpl() {
   return installedImpl;
}

void sdkImplIs(SdkImpl& impl) {
   BRIO_ASSERT(!installedImpl && "another chip SDK implementation is installed");
   installedImpl = &impl;
}

void sdkImplDel(SdkImpl& impl) {
   BRIO_ASSERT(installedImpl == &impl && "not the installed chip SDK implementation");
   installedImpl = nullptr;
}

bool inSimulation() {
   return impl().inSimulation();
}

}  // namespace ChipSdk

extern "C" {

p4_pd_plcmt_info_t* p4_pd_create_plcmt_info(void) {
   return impl().plcmtInfoNew();
}

bf_status_t p4_pd_destroy_plcmt_info(p4_pd_plcmt_info_t* info) {
   return impl().plcmtInfoDel(info);
}

bf_status_t p4_pd_set_one_plcmt_op_mat_add(p4_pd_plcmt_info_t* info, uint32_t entHdl, uint16_t pipe,
                                           uint32_t index, uint32_t selIndex, uint32_t adtIndex,
                                           const void* data) {
   return record(
       info, OpKind::matAdd,
       {.hdl = entHdl, .pipe = pipe, .index = index, .selIndex = selIndex, .adtIndex = adtIndex},
       data);
}

bf_status_t p4_pd_set_one_plcmt_op_mat_mov(p4_pd_plcmt_info_t* info, uint32_t entHdl,
                                           uint32_t index, uint32_t selIndex, uint32_t adtIndex,
                                           const void* data) {
   return record(info, OpKind::matMov,
                 {.hdl = entHdl, .index = index, .selIndex = selIndex, .adtIndex = adtIndex}, data);
}

bf_status_t p4_pd_set_one_plcmt_op_mat_mod(p4_pd_plcmt_info_t* info, uint32_t entHdl,
                                           uint32_t selIndex, uint32_t adtIndex, const void* data) {
   return record(info, OpKind::matMod, {.hdl = entHdl, .selIndex = selIndex, .adtIndex = adtIndex},
                 data);
}

bf_status_t p4_pd_set_one_plcmt_op_mat_set_dflt(p4_pd_plcmt_info_t* info, uint32_t entHdl,
                                                uint16_t pipe, uint32_t selIndex, uint32_t adtIndex,
                                                const void* data) {
   return record(info, OpKind::matSetDflt,
                 {.hdl = entHdl, .pipe = pipe, .selIndex = selIndex, .adtIndex = adtIndex}, data);
}

bf_status_t p4_pd_set_one_plcmt_op_mat_clr_dflt(p4_pd_plcmt_info_t* info, uint32_t entHdl) {
   return record(info, OpKind::matClrDflt, {.hdl = entHdl});
}

bf_status_t p4_pd_set_one_plcmt_op_mat_del(p4_pd_plcmt_info_t* info, uint32_t entHdl) {
   return record(info, OpKind::matDel, {.hdl = entHdl});
}

bf_status_t p4_pd_set_one_plcmt_op_adt_add(p4_pd_plcmt_info_t* info, uint32_t entHdl, uint16_t pipe,
                                           const void* data) {
   return record(info, OpKind::adtAdd, {.hdl = entHdl, .pipe = pipe}, data);
}

bf_status_t p4_pd_set_one_plcmt_op_adt_mod(p4_pd_plcmt_info_t* info, uint32_t entHdl,
                                           const void* data) {
   return record(info, OpKind::adtMod, {.hdl = entHdl}, data);
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
       data);
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
   return record(info, OpKind::selSetFallback, {.hdl = mbrHdl, .pipe = pipe}, data);
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
   return impl().plcmtInfoProcess(sessHdl, devId, tblHdl, info, flags, processed);
}

// Read from the block's header alone, which is the face's own format: a copy is taken before
// every recorded operation, and the contents are checked once, when the operation is recorded.
bf_status_t p4_pd_plcmt_data_size(const void* data, uint32_t* size) {
   if (!size) return BF_INVALID_ARG;
   if (!data) {
      *size = 0;
      return BF_INVALID_ARG;
   }
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
   return impl().tblPropertyIs(sessHdl, devId, tblHdl, property, value, args);
}

}  // extern "C"
