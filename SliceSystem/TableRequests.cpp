#include "SliceSystem/TableRequests.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace SliceSystem {

namespace {

const ChipModel::TableProfile* singleTable(const ChipModel::ChipProfile& profile,
                                           const std::string& name) {
   for (const ChipModel::TableProfile& table : profile.tables) {
      if (table.name == name && table.kind == ChipSdk::TableKind::mat && !table.isTriple()) {
         return &table;
      }
   }
   return nullptr;
}

TableSpec specOf(const ChipModel::TableProfile& table, std::uint32_t entries) {
   return TableSpec{table.name, table.handle, table.size, table.atcamPartitions, entries};
}

}  // namespace

bool tableSpecsFor(const ChipModel::ChipProfile& profile, const std::vector<std::string>& requests,
                   std::uint32_t defaultEntries, std::vector<TableSpec>& specs,
                   std::string& error) {
   auto defaultFor = [&](const ChipModel::TableProfile& table) {
      return std::min<std::uint32_t>(defaultEntries, table.size / 4 * 3);
   };
   specs.clear();
   if (requests.empty()) {
      for (const ChipModel::TableProfile& table : profile.tables) {
         if (table.kind == ChipSdk::TableKind::mat && !table.isTriple()) {
            specs.push_back(specOf(table, defaultFor(table)));
         }
      }
      return true;
   }
   for (const std::string& request : requests) {
      std::string name = request.substr(0, request.find(':'));
      const ChipModel::TableProfile* table = singleTable(profile, name);
      if (!table) {
         error = "no single match table '" + name + "' in chip profile '" + profile.name + "'";
         return false;
      }
      std::uint32_t entries = defaultFor(*table);
      if (name.size() < request.size()) {
         const char* text = request.c_str() + name.size() + 1;
         char* end = nullptr;
         errno = 0;
         const unsigned long long count = std::strtoull(text, &end, 0);
         if (*text == '-' || *end != '\0' || end == text || errno != 0 || count > table->size) {
            error = "bad entry count in '" + request + "' (table size " +
                    std::to_string(table->size) + ")";
            return false;
         }
         entries = static_cast<std::uint32_t>(count);
      }
      specs.push_back(specOf(*table, entries));
   }
   return true;
}

bool ecmpSpecFor(const ChipModel::ChipProfile& profile, const std::string& name,
                 const std::string& preset, EcmpTableSpec& spec, std::string& error) {
   auto find = [&](std::uint32_t handle) -> const ChipModel::TableProfile* {
      for (const ChipModel::TableProfile& table : profile.tables) {
         if (table.handle == handle) return &table;
      }
      return nullptr;
   };
   const ChipModel::TableProfile* mat = nullptr;
   for (const ChipModel::TableProfile& table : profile.tables) {
      if (table.name == name && table.isTriple()) mat = &table;
   }
   const ChipModel::TableProfile* adt = mat ? find(mat->adtHandle) : nullptr;
   const ChipModel::TableProfile* sel = mat ? find(mat->selHandle) : nullptr;
   if (!adt || !sel) {
      error = "no triple '" + name + "' in chip profile '" + profile.name + "'";
      return false;
   }
   if (preset != "default" && preset != "large") {
      error = "unknown ECMP sizes '" + preset + "' (default or large)";
      return false;
   }
   spec = EcmpTableSpec{mat->name, mat->handle, adt->handle, sel->handle, mat->size, {}};
   EcmpSizes& sizes = spec.workload.sizes;
   if (preset == "large") sizes = EcmpSizes::largeRouter();
   sizes.routeIndices = mat->size;
   sizes.selectorIndices = sel->size;
   // Room for the next hops that replace retired ones before those go.
   sizes.numNextHops = std::min(sizes.numNextHops, adt->size / 2);
   return true;
}

}  // namespace SliceSystem
