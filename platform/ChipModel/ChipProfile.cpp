#include "ChipModel/ChipProfile.h"

#include <algorithm>
#include <set>

namespace ChipModel {

ChipProfile ChipProfile::defaultProfile() {
   ChipProfile profile;
   profile.name = "default";
   profile.numPipes = 4;
   profile.tables = {
       {"ipv4_host", 0x01000001, ChipSdk::TableKind::mat, 65536, 0, 0, 0},
       {"ipv4_lpm", 0x01000002, ChipSdk::TableKind::mat, 16384, 16, 0, 0},
       {"acl_ingress", 0x01000003, ChipSdk::TableKind::mat, 2048, 0, 0, 0},
       {"nexthop_ecmp", 0x01000010, ChipSdk::TableKind::mat, 16384, 0, 0x02000010, 0x03000010},
       {"nexthop_ecmp_adt", 0x02000010, ChipSdk::TableKind::adt, 65536, 0, 0, 0},
       {"nexthop_ecmp_sel", 0x03000010, ChipSdk::TableKind::sel, 8192, 0, 0, 0},
   };
   return profile;
}

bool ChipProfile::hasDevice(std::uint8_t devId) const {
   if (devId >= maxDevices) return false;
   return devices.empty() || std::find(devices.begin(), devices.end(), devId) != devices.end();
}

namespace {

const TableProfile* findTable(const ChipProfile& profile, std::uint32_t handle) {
   for (const TableProfile& table : profile.tables) {
      if (table.handle == handle) return &table;
   }
   return nullptr;
}

std::string checkTable(const ChipProfile& profile, const TableProfile& table) {
   if (table.name.empty()) return "a table has no name";
   if (table.name.size() > maxTableNameSize) {
      return "a table name is longer than " + std::to_string(maxTableNameSize) + " characters";
   }
   std::string where = "table '" + table.name + "': ";
   if (table.handle == 0) return where + "handle 0";
   if (table.size == 0) return where + "size 0";
   if (table.size > maxTableSize) {
      return where + "size " + std::to_string(table.size) + " is above the limit of " +
             std::to_string(maxTableSize);
   }
   if (table.atcamPartitions != 0 &&
       (table.kind != ChipSdk::TableKind::mat || table.atcamPartitions > table.size)) {
      return where + "atcamPartitions only on a MAT, at most its size";
   }
   if ((table.adtHandle == 0) != (table.selHandle == 0))
      return where + "a triple needs adt and sel";
   if (table.adtHandle == 0) return "";
   if (table.kind != ChipSdk::TableKind::mat) return where + "only a MAT heads a triple";
   const TableProfile* adt = findTable(profile, table.adtHandle);
   const TableProfile* sel = findTable(profile, table.selHandle);
   if (!adt || adt->kind != ChipSdk::TableKind::adt)
      return where + "adt is not an ADT of the profile";
   if (!sel || sel->kind != ChipSdk::TableKind::sel)
      return where + "sel is not a SEL of the profile";
   return "";
}

}  // namespace

std::string ChipProfile::validate() const {
   if (numPipes == 0 || numPipes > maxPipes)
      return "numPipes must be 1.." + std::to_string(maxPipes);
   if (tables.size() > maxTables) return "more than " + std::to_string(maxTables) + " tables";
   for (std::uint8_t devId : devices) {
      if (devId >= maxDevices) return "device " + std::to_string(devId) + " out of range";
   }
   std::set<std::string> names;
   std::set<std::uint32_t> handles;
   std::set<std::uint32_t> owned;
   for (const TableProfile& table : tables) {
      if (std::string why = checkTable(*this, table); !why.empty()) return why;
      if (!names.insert(table.name).second) return "duplicate table name '" + table.name + "'";
      if (!handles.insert(table.handle).second) {
         return "duplicate table handle of '" + table.name + "'";
      }
      if (table.isTriple() &&
          (!owned.insert(table.adtHandle).second || !owned.insert(table.selHandle).second)) {
         return "table '" + table.name + "': its adt or sel belongs to another triple";
      }
   }
   for (const TableProfile& table : tables) {
      if (table.kind != ChipSdk::TableKind::mat && !owned.count(table.handle)) {
         return "table '" + table.name + "': an ADT or SEL must belong to a triple";
      }
   }
   return "";
}

}  // namespace ChipModel
