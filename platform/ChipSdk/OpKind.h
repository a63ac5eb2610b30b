#pragma once

// The kinds of placement operation and of hitless violation, as the model counts them.

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

enum class TableKind : std::uint8_t { mat, adt, sel };
const char* tableKindName(TableKind kind);  // "MAT", "ADT", "SEL"
TableKind opTableKind(OpKind kind);

enum class ViolationKind : std::uint8_t {
   // A match entry resolves to a group with a vector that has no active member, and its pipe
   // has no fallback member.
   matGroupVectorEmpty,
   // A match entry's direct action data is not in the ADT.
   matAdtMissing,
   // A selector member's (or the fallback's) action data is not in the ADT.
   mbrAdtMissing,
   // An ADT entry was to be deleted while something still uses it; the chip refuses it.
   adtDelInUse,
};
constexpr std::size_t numViolationKinds = 4;

const char* violationKindName(ViolationKind kind);

// "BF_SUCCESS", "BF_INVALID_ARG", ...
const char* statusName(bf_status_t status);

}  // namespace ChipSdk
