#pragma once

// One recorded placement operation and the batch that holds them. The record calls check and
// parse the data block once and keep the parsed action beside a private copy of the block, so
// that a commit neither re-reads the caller's memory nor parses again.

#include <cstdint>
#include <vector>

#include "ChipSdk/OpKind.h"
#include "ChipSdk/PlcmtData.h"

namespace ChipModel {

struct PlcmtOp {
   ChipSdk::OpKind kind = ChipSdk::OpKind::matAdd;
   ChipSdk::PlcmtAction action = ChipSdk::PlcmtAction::none;
   std::uint8_t numVectors = 0;
   std::uint16_t pipe = 0;
   // The entry handle of MAT and ADT operations, the member (ADT entry) handle of selector
   // operations.
   std::uint32_t hdl = 0;
   std::uint32_t grpHdl = 0;
   // MAT index, or the selector index of a selector operation.
   std::uint32_t index = 0;
   std::uint32_t selIndex = 0;
   std::uint32_t adtIndex = 0;
   std::uint32_t subIndex = 0;
   // From the block: the ADT member or selector group that a match entry's action names.
   std::uint32_t adtMbrHdl = 0;
   std::uint64_t selGrpKey = 0;
   ChipSdk::PlcmtDataBlock data;
};

}  // namespace ChipModel

struct p4_pd_plcmt_info {
   std::vector<ChipModel::PlcmtOp> ops;
};
