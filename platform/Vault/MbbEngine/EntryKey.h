#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>

#include "Orb/Value.h"

namespace Vault::MbbEngine {

// The key of a configuration entry (match, ADT or selector-group key). Printed in hexadecimal.
class EntryKey {
 public:
   constexpr EntryKey() = default;
   constexpr EntryKey(std::uint64_t value) : value_(value) {}

   constexpr std::uint64_t value() const { return value_; }
   // A mix of all 64 bits, so that keys that differ only in their high bits (selector member
   // keys, group keys shifted left) still spread over a hash table.
   constexpr std::size_t hash() const {
      std::uint64_t x = value_;
      x ^= x >> 33;
      x *= 0xff51afd7ed558ccdULL;
      x ^= x >> 33;
      x *= 0xc4ceb9fe1a85ec53ULL;
      x ^= x >> 33;
      return static_cast<std::size_t>(x);
   }
   constexpr auto operator<=>(const EntryKey&) const = default;

 private:
   std::uint64_t value_ = 0;
};

// The version of a configuration; a larger id is newer. Printed as 0x%016llx.
class OpId {
 public:
   constexpr OpId() = default;
   constexpr OpId(std::uint64_t value) : value_(value) {}

   constexpr std::uint64_t value() const { return value_; }
   constexpr auto operator<=>(const OpId&) const = default;

 private:
   std::uint64_t value_ = 0;
};

// The op id that delete acknowledgements carry.
inline constexpr OpId delAckOpId{0xFFFFFFFFFFFF0000ULL};

std::string toHex(EntryKey key);
std::string toHex(OpId opId);

inline std::ostream& operator<<(std::ostream& os, EntryKey key) {
   return os << toHex(key);
}
inline std::ostream& operator<<(std::ostream& os, OpId opId) {
   return os << toHex(opId);
}

}  // namespace Vault::MbbEngine

template <>
struct std::hash<Vault::MbbEngine::EntryKey> {
   std::size_t operator()(Vault::MbbEngine::EntryKey key) const { return key.hash(); }
};

template <>
struct std::hash<Vault::MbbEngine::OpId> {
   std::size_t operator()(Vault::MbbEngine::OpId opId) const {
      return Vault::MbbEngine::EntryKey(opId.value()).hash();
   }
};

template <>
struct Orb::ValueTraits<Vault::MbbEngine::EntryKey> {
   static void print(std::string& out, Vault::MbbEngine::EntryKey key) {
      out += Vault::MbbEngine::toHex(key);
   }
   static Vault::MbbEngine::EntryKey parse(Parser& p) { return p.unsignedNumber(); }
};

template <>
struct Orb::ValueTraits<Vault::MbbEngine::OpId> {
   static void print(std::string& out, Vault::MbbEngine::OpId opId) {
      out += Vault::MbbEngine::toHex(opId);
   }
   static Vault::MbbEngine::OpId parse(Parser& p) { return p.unsignedNumber(); }
};
