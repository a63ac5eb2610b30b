#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>

#include "Orb/Value.h"
#include "Vault/Table.h"

namespace VaultTest {

// Fields that more than one record type carries.
struct Tracked {
   std::uint64_t version = 0;
   bool spare = false;
   bool operator==(const Tracked&) const = default;
};

// A record with a field of every kind the codec keeps: numbers, flags, a bounded string and
// fields of a shared base, listed out of their storage order.
struct Part : Orb::ValueBase, Tracked {
   static constexpr std::string_view orbTypeName = "VaultTest::Part";
   static constexpr std::size_t labelBound = 15;

   std::uint64_t id = 0;
   std::string label;
   std::uint16_t width = 0;
   double weight = 0;
   std::uint32_t depth = 0;

   std::uint64_t key() const { return id; }
   bool operator==(const Part&) const = default;

   static constexpr auto orbFields() {
      return std::make_tuple(Orb::field("id", &Part::id), Orb::field("spare", &Part::spare),
                             Orb::field<labelBound>("label", &Part::label),
                             Orb::field("width", &Part::width), Orb::field("weight", &Part::weight),
                             Orb::field("depth", &Part::depth),
                             Orb::field("version", &Part::version));
   }
};

// Every field follows from id and version, so a reader can tell a whole record from a torn one.
inline Part partOf(std::uint64_t id, std::uint64_t version) {
   Part part;
   part.id = id;
   part.spare = (id + version) % 2 == 0;
   part.label = "part-" + std::to_string(id % 100000);
   part.width = static_cast<std::uint16_t>(id);
   part.depth = static_cast<std::uint32_t>(version);
   part.weight = double(id) * 0.5;
   part.version = version;
   return part;
}

class PartTable : public Vault::Table<std::uint64_t, Part> {
 public:
   static constexpr std::string_view vaultTypeName = "VaultTest::PartTable";
   using Table::Table;
};

// Plain numbers: versions by id.
class VersionTable : public Vault::Table<std::uint64_t, std::uint64_t> {
 public:
   static constexpr std::string_view vaultTypeName = "VaultTest::VersionTable";
   using Table::Table;
};

}  // namespace VaultTest
