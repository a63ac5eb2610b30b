#pragma once

// Shared by the chip model's tests, those of the layers above it and the model's benchmark: a
// small chip, data blocks, and one-batch commits through the placement interface.

#include <cstdint>
#include <memory>
#include <string>

#include "Brio/Brio.h"
#include "ChipModel/ChipProfile.h"
#include "ChipSdk/ChipSdk.h"

namespace ChipTestUtil {

constexpr std::uint32_t singleHdl = 0x100;
constexpr std::uint32_t atcamHdl = 0x200;
constexpr std::uint32_t routeHdl = 0x300;
constexpr std::uint32_t routeAdtHdl = 0x301;
constexpr std::uint32_t routeSelHdl = 0x302;
constexpr std::uint16_t allPipes = P4_PD_PIPE_ALL;

// Two pipes, devices 0 and 1, a single table, an ATCAM table of 4 partitions and a triple.
inline ChipModel::ChipProfile testProfile() {
   using ChipSdk::TableKind;
   ChipModel::ChipProfile profile;
   profile.name = "test";
   profile.numPipes = 2;
   profile.devices = {0, 1};
   profile.tables = {
       {"single", singleHdl, TableKind::mat, 16, 0, 0, 0},
       {"atcam", atcamHdl, TableKind::mat, 16, 4, 0, 0},
       {"route", routeHdl, TableKind::mat, 64, 0, routeAdtHdl, routeSelHdl},
       {"route_adt", routeAdtHdl, TableKind::adt, 8, 0, 0, 0},
       {"route_sel", routeSelHdl, TableKind::sel, 32, 0, 0, 0},
   };
   return profile;
}

inline ChipSdk::PlcmtDataBlock plainBlock(std::uint8_t tag = 0) {
   return ChipSdk::PlcmtDataBuilder().payload(&tag, 1).block();
}

inline ChipSdk::PlcmtDataBlock adtBlock(std::uint32_t mbrHdl) {
   return ChipSdk::PlcmtDataBuilder().adtMember(mbrHdl).block();
}

inline ChipSdk::PlcmtDataBlock grpBlock(std::uint64_t grpKey, std::uint8_t numVectors) {
   return ChipSdk::PlcmtDataBuilder().selGroup(grpKey, numVectors).block();
}

// Records with record(batch), which returns the status of its last record call, and commits
// the batch to a table of device 0; a failed record call is returned as is.
// The batch is destroyed also when a fatal hitless check throws out of the commit.
template <typename Record>
bf_status_t commit(std::uint32_t tblHdl, Record record, std::uint32_t* processed = nullptr) {
   std::unique_ptr<p4_pd_plcmt_info_t, bf_status_t (*)(p4_pd_plcmt_info_t*)> info(
       p4_pd_create_plcmt_info(), p4_pd_destroy_plcmt_info);
   std::uint32_t count = 0;
   bf_status_t status = record(info.get());
   if (status == BF_SUCCESS) {
      status = p4_pd_process_plcmt_info(1, 0, tblHdl, info.get(), 0, &count);
   }
   if (processed) *processed = count;
   return status;
}

inline bf_status_t matAdd(std::uint32_t tblHdl, std::uint32_t hdl, std::uint32_t index,
                          const ChipSdk::PlcmtDataBlock& data, std::uint16_t pipe = allPipes,
                          std::uint32_t selIndex = 0) {
   return commit(tblHdl, [&](p4_pd_plcmt_info_t* info) {
      return p4_pd_set_one_plcmt_op_mat_add(info, hdl, pipe, index, selIndex, 0, data.data());
   });
}

inline bf_status_t adtAdd(std::uint32_t mbrHdl, std::uint16_t pipe = allPipes) {
   ChipSdk::PlcmtDataBlock data = plainBlock(static_cast<std::uint8_t>(mbrHdl));
   return commit(routeAdtHdl, [&](p4_pd_plcmt_info_t* info) {
      return p4_pd_set_one_plcmt_op_adt_add(info, mbrHdl, pipe, data.data());
   });
}

inline bf_status_t selAdd(std::uint32_t grpHdl, std::uint32_t mbrHdl, std::uint32_t selIndex,
                          std::uint32_t subIndex, std::uint16_t pipe = allPipes) {
   ChipSdk::PlcmtDataBlock data = plainBlock();
   return commit(routeSelHdl, [&](p4_pd_plcmt_info_t* info) {
      return p4_pd_set_one_plcmt_op_sel_add(info, grpHdl, mbrHdl, pipe, selIndex, subIndex,
                                            data.data());
   });
}

// The expression text of the assertion that `fn` fails, or "" when it does not fail.
template <class Fn>
std::string assertionOf(Fn&& fn) {
   Brio::ScopedThrowingAsserts throwing;
   try {
      fn();
   } catch (const Brio::AssertionFailure& failure) {
      return failure.expression();
   }
   return "";
}

}  // namespace ChipTestUtil
