#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <tuple>

#include "ChipMbbShared/DevTgtValue.h"
#include "HwPd/ChipDriver.h"
#include "Orb/Value.h"

namespace ChipMbbShared {

// The key of a published table: where it lives (device and pipe, 0xFFFF for all pipes), its
// name and its SDK table handle (the match table's, for a triple).
class TableConfigMountKey : public Orb::ValueBase {
 public:
   static constexpr std::string_view orbTypeName = "ChipMbbShared::TableConfigMountKey";
   // Longest name a published table can have.
   static constexpr std::size_t nameBound = 127;

   TableConfigMountKey() = default;
   TableConfigMountKey(ChipDriver::ChipDevTgt devTgt, std::string name, std::uint32_t tableId)
       : devTgt_(devTgt), name_(std::move(name)), tableId_(tableId) {}

   const ChipDriver::ChipDevTgt& devTgt() const { return devTgt_; }
   const std::string& name() const { return name_; }
   std::uint32_t tableId() const { return tableId_; }
   void devTgtIs(ChipDriver::ChipDevTgt v) { devTgt_ = v; }
   void nameIs(std::string v) { name_ = std::move(v); }
   void tableIdIs(std::uint32_t v) { tableId_ = v; }

   bool operator==(const TableConfigMountKey&) const = default;
   auto operator<=>(const TableConfigMountKey& other) const {
      return std::tie(devTgt_, name_, tableId_) <=>
             std::tie(other.devTgt_, other.name_, other.tableId_);
   }
   std::size_t hash() const {
      std::size_t h = std::hash<std::string>()(name_);
      h ^= std::hash<ChipDriver::ChipDevTgt>()(devTgt_) + 0x9e3779b97f4a7c15ULL + (h << 6);
      return h ^ (std::size_t(tableId_) * 0xff51afd7ed558ccdULL);
   }

   static constexpr auto orbFields() {
      return std::make_tuple(Orb::field("devTgt", &TableConfigMountKey::devTgt_),
                             Orb::field<nameBound>("name", &TableConfigMountKey::name_),
                             Orb::field("tableId", &TableConfigMountKey::tableId_));
   }

 private:
   ChipDriver::ChipDevTgt devTgt_;
   std::string name_;
   std::uint32_t tableId_ = 0;
};

// Short form for traces: "<name> dev:<devId> pipe:0x<pipeId> id:0x<tableId>".
std::ostream& operator<<(std::ostream& os, const TableConfigMountKey& key);

}  // namespace ChipMbbShared

template <>
struct std::hash<ChipMbbShared::TableConfigMountKey> {
   std::size_t operator()(const ChipMbbShared::TableConfigMountKey& key) const {
      return key.hash();
   }
};
