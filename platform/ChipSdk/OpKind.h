#pragma once

// The kinds of placement operation and of table that the placement interface knows.

#include <cstddef>
#include <cstdint>

#include "ChipSdk/PlcmtApi.h"

namespace ChipSdk {

enum class OpKind : std::uint8_t {
   matAdd,
   matMov,
   matMod,
   matSetDflt,
   matClrDflt,
   matDel,
   adtAdd,
   adtMod,
   adtDel,
   selAdd,
   selDel,
   selSetFallback,
   selClrFallback,
   selActivate,
   selDeactivate,
};
constexpr std::size_t numOpKinds = 15;

// The SDK's own name of the operation ("mat_add"), as traces print it.
const char* opKindName(OpKind kind);
// Whether the operation's record call takes a placement data block.
bool opCarriesData(OpKind kind);

enum class TableKind : std::uint8_t { mat, adt, sel };
const char* tableKindName(TableKind kind);  // "MAT", "ADT", "SEL"
TableKind opTableKind(OpKind kind);

// "BF_SUCCESS", "BF_INVALID_ARG", ...
const char* statusName(bf_status_t status);

}  // namespace ChipSdk
