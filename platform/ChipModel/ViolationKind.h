#pragma once

// The ways an applied operation can leave the chip unable to forward what it was forwarding,
// as the hitless checker counts them.

#include <cstddef>
#include <cstdint>

namespace ChipModel {

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

inline const char* violationKindName(ViolationKind kind) {
   switch (kind) {
      case ViolationKind::matGroupVectorEmpty:
         return "matGroupVectorEmpty";
      case ViolationKind::matAdtMissing:
         return "matAdtMissing";
      case ViolationKind::mbrAdtMissing:
         return "mbrAdtMissing";
      case ViolationKind::adtDelInUse:
         return "adtDelInUse";
   }
   return "unknown";
}

}  // namespace ChipModel
