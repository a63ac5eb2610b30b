#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>

#include "Brio/Brio.h"
#include "Orb/Value.h"
#include "Vault/MbbEngine/EntryKey.h"

namespace ChipMbbShared {

// The key of a selector member: its group's key, the vector within the group and the
// member's place in the vector, packed as (group << 15) | (vector << 7) | subIndex. It also
// keys the member's status, as an EntryKey.
class SelMbrEntryKey {
 public:
   static constexpr std::uint32_t numVectors = 16;
   static constexpr std::uint32_t numSubIndices = 120;

   constexpr SelMbrEntryKey() = default;
   constexpr explicit SelMbrEntryKey(std::uint64_t value) : value_(value) {}
   // A vector or sub-index out of range is refused with Brio::RangeException.
   SelMbrEntryKey(Vault::MbbEngine::EntryKey selGrp, std::uint32_t vector, std::uint32_t subIndex)
       : value_(selGrp.value() << 15 | std::uint64_t(vector) << 7 | subIndex) {
      if (vector >= numVectors || subIndex >= numSubIndices) {
         throw Brio::RangeException("selector member vector " + std::to_string(vector) +
                                    " sub-index " + std::to_string(subIndex) + " out of range");
      }
   }

   constexpr std::uint64_t value() const { return value_; }
   constexpr Vault::MbbEngine::EntryKey selGrp() const { return value_ >> 15; }
   constexpr std::uint32_t vector() const { return (value_ >> 7) & 0xF; }
   constexpr std::uint32_t subIndex() const { return value_ & 0x7F; }
   constexpr Vault::MbbEngine::EntryKey entryKey() const { return value_; }
   constexpr operator Vault::MbbEngine::EntryKey() const { return value_; }

   constexpr auto operator<=>(const SelMbrEntryKey&) const = default;

 private:
   std::uint64_t value_ = 0;
};

inline std::ostream& operator<<(std::ostream& os, SelMbrEntryKey key) {
   return os << key.entryKey();
}

}  // namespace ChipMbbShared

template <>
struct std::hash<ChipMbbShared::SelMbrEntryKey> {
   std::size_t operator()(ChipMbbShared::SelMbrEntryKey key) const { return key.entryKey().hash(); }
};

template <>
struct Orb::ValueTraits<ChipMbbShared::SelMbrEntryKey> {
   static void print(std::string& out, ChipMbbShared::SelMbrEntryKey key) {
      out += Vault::MbbEngine::toHex(key.entryKey());
   }
   static ChipMbbShared::SelMbrEntryKey parse(Parser& p) {
      return ChipMbbShared::SelMbrEntryKey(p.unsignedNumber());
   }
};
