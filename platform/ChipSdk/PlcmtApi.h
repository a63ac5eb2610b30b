#ifndef CHIPSDK_PLCMTAPI_H
#define CHIPSDK_PLCMTAPI_H

/*
 * The chip SDK's placement interface.
 *
 * A caller records operations into a placement-info batch and commits the batch against one
 * table of one device. The record calls only check their own arguments and copy the data
 * block; everything that depends on the table's contents is decided at commit, in the order
 * the operations were recorded. A commit stops at the first operation the chip refuses,
 * leaves that operation without effect and reports how many operations it applied.
 *
 * Entry handles, ADT member handles and group handles are chosen by the caller; 0 is never a
 * valid entry or member handle. A pipe id of 0xFFFF addresses a table whose entry scope is all
 * pipes; a table of single-pipe scope is addressed pipe by pipe.
 *
 * The data pointer of a record call points at a placement data block (ChipSdk/PlcmtData.h);
 * the block is read only as far as its length header allows, never past 64 bytes.
 */

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef int32_t bf_status_t;

enum {
   BF_SUCCESS = 0,
   BF_INVALID_ARG = 1,      /* argument out of range, malformed data block, wrong table kind */
   BF_OBJECT_NOT_FOUND = 2, /* no entry, member or fallback with that handle or position */
   BF_ALREADY_EXISTS = 3,   /* duplicate handle, or the index or member slot is occupied */
   BF_NO_SPACE = 4,         /* the table is full */
   BF_IN_USE = 5,           /* still referenced, or the table is not empty */
   BF_TABLE_NOT_FOUND = 6,  /* no table with that handle on the chip */
   BF_NOT_SUPPORTED = 7,    /* unknown property */
   BF_NO_SYS_RESOURCES = 8  /* out of memory */
};

typedef uint32_t p4_pd_sess_hdl_t;
typedef uint32_t p4_pd_tbl_hdl_t;
typedef uint32_t p4_pd_entry_hdl_t;

/* Opaque batch of placement operations. */
typedef struct p4_pd_plcmt_info p4_pd_plcmt_info_t;

#define P4_PD_PIPE_ALL 0xFFFFu

/* pipe_mgr_tbl_set_property: the entry scope property and its values. */
#define PIPE_MGR_TBL_PROP_ENTRY_SCOPE 1u
#define PIPE_MGR_ENTRY_SCOPE_ALL_PIPELINES 0u
#define PIPE_MGR_ENTRY_SCOPE_SINGLE_PIPELINE 1u

p4_pd_plcmt_info_t* p4_pd_create_plcmt_info(void);
bf_status_t p4_pd_destroy_plcmt_info(p4_pd_plcmt_info_t* info);

bf_status_t p4_pd_set_one_plcmt_op_mat_add(p4_pd_plcmt_info_t* info, uint32_t entHdl, uint16_t pipe,
                                           uint32_t index, uint32_t selIndex, uint32_t adtIndex,
                                           const void* data);
bf_status_t p4_pd_set_one_plcmt_op_mat_mov(p4_pd_plcmt_info_t* info, uint32_t entHdl,
                                           uint32_t index, uint32_t selIndex, uint32_t adtIndex,
                                           const void* data);
bf_status_t p4_pd_set_one_plcmt_op_mat_mod(p4_pd_plcmt_info_t* info, uint32_t entHdl,
                                           uint32_t selIndex, uint32_t adtIndex, const void* data);
bf_status_t p4_pd_set_one_plcmt_op_mat_set_dflt(p4_pd_plcmt_info_t* info, uint32_t entHdl,
                                                uint16_t pipe, uint32_t selIndex, uint32_t adtIndex,
                                                const void* data);
bf_status_t p4_pd_set_one_plcmt_op_mat_clr_dflt(p4_pd_plcmt_info_t* info, uint32_t entHdl);
bf_status_t p4_pd_set_one_plcmt_op_mat_del(p4_pd_plcmt_info_t* info, uint32_t entHdl);

bf_status_t p4_pd_set_one_plcmt_op_adt_add(p4_pd_plcmt_info_t* info, uint32_t entHdl, uint16_t pipe,
                                           const void* data);
bf_status_t p4_pd_set_one_plcmt_op_adt_mod(p4_pd_plcmt_info_t* info, uint32_t entHdl,
                                           const void* data);
bf_status_t p4_pd_set_one_plcmt_op_adt_del(p4_pd_plcmt_info_t* info, uint32_t entHdl);

/* Selector operations address vector v of a group at selIndex = base index + v, and a member
 * slot of that vector by subIndex (0 .. 119). mbrHdl names the member's ADT entry. */
bf_status_t p4_pd_set_one_plcmt_op_sel_add(p4_pd_plcmt_info_t* info, uint32_t grpHdl,
                                           uint32_t mbrHdl, uint16_t pipe, uint32_t selIndex,
                                           uint32_t subIndex, const void* data);
bf_status_t p4_pd_set_one_plcmt_op_sel_del(p4_pd_plcmt_info_t* info, uint32_t grpHdl,
                                           uint32_t mbrHdl, uint16_t pipe, uint32_t selIndex,
                                           uint32_t subIndex);
bf_status_t p4_pd_set_one_plcmt_op_sel_set_fallback(p4_pd_plcmt_info_t* info, uint32_t mbrHdl,
                                                    uint16_t pipe, const void* data);
bf_status_t p4_pd_set_one_plcmt_op_sel_clr_fallback(p4_pd_plcmt_info_t* info, uint16_t pipe);
bf_status_t p4_pd_set_one_plcmt_op_sel_activate(p4_pd_plcmt_info_t* info, uint32_t grpHdl,
                                                uint32_t mbrHdl, uint16_t pipe, uint32_t selIndex,
                                                uint32_t subIndex);
bf_status_t p4_pd_set_one_plcmt_op_sel_deactivate(p4_pd_plcmt_info_t* info, uint32_t grpHdl,
                                                  uint32_t mbrHdl, uint16_t pipe, uint32_t selIndex,
                                                  uint32_t subIndex);

/* Applies the batch's operations to table tblHdl of device devId, in order. *processed is the
 * number of operations applied; on failure the status is that of the refused operation. The
 * batch keeps its operations and may be committed again or destroyed. */
bf_status_t p4_pd_process_plcmt_info(p4_pd_sess_hdl_t sessHdl, uint8_t devId,
                                     p4_pd_tbl_hdl_t tblHdl, p4_pd_plcmt_info_t* info,
                                     uint32_t flags, uint32_t* processed);

/* The length of a placement data block. A block whose header does not hold together is
 * reported with BF_INVALID_ARG and the maximum block size, so that a caller that copies the
 * block regardless hands the record calls something they can examine and refuse. */
bf_status_t p4_pd_plcmt_data_size(const void* data, uint32_t* size);

bf_status_t pipe_mgr_tbl_set_property(p4_pd_sess_hdl_t sessHdl, uint8_t devId,
                                      p4_pd_tbl_hdl_t tblHdl, uint32_t property, uint32_t value,
                                      uint32_t args);

#ifdef __cplusplus
}
#endif

#endif
