#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>

#include "ChipMbbShared/MountEntryCommon.h"
#include "Orb/Value.h"

namespace ChipMbbShared {

// How a single match table is published: where its configuration and status collections
// are, how big it is, and which publisher instance and generation of its data it belongs to.
// The default entry (empty strings, zeros, false) stands for a table that is not published.
class TableConfigMountEntry : public Orb::ValueBase, public MountEntryCommon {
 public:
   static constexpr std::string_view orbTypeName = "ChipMbbShared::TableConfigMountEntry";

   const std::string& configPath() const { return configPath_; }
   const std::string& statusPath() const { return statusPath_; }
   // ATCAM partitions; 0 for an ordinary table.
   std::uint32_t maxPartitions() const { return maxPartitions_; }
   // The feature agent that published the table, carried along for diagnostics.
   std::uint32_t publisherId() const { return publisherId_; }
   const std::string& publisherName() const { return publisherName_; }

   void configPathIs(std::string v) { configPath_ = std::move(v); }
   void statusPathIs(std::string v) { statusPath_ = std::move(v); }
   void maxPartitionsIs(std::uint32_t v) { maxPartitions_ = v; }
   void publisherIdIs(std::uint32_t v) { publisherId_ = v; }
   void publisherNameIs(std::string v) { publisherName_ = std::move(v); }

   bool empty() const { return *this == TableConfigMountEntry(); }
   bool operator==(const TableConfigMountEntry&) const = default;

   static constexpr auto orbFields() {
      using E = TableConfigMountEntry;
      return std::make_tuple(
          Orb::field<mountPathBound>("configPath", &E::configPath_),
          Orb::field<mountPathBound>("statusPath", &E::statusPath_),
          Orb::field("needStatus", &E::needStatus_), Orb::field("tableSize", &E::tableSize_),
          Orb::field("maxPartitions", &E::maxPartitions_),
          Orb::field("publisherId", &E::publisherId_),
          Orb::field<publisherNameBound>("publisherName", &E::publisherName_),
          Orb::field("global", &E::global_), Orb::field("configGenTime", &E::configGenTime_),
          Orb::field("statusGenTime", &E::statusGenTime_),
          Orb::field("instanceId", &E::instanceId_));
   }

 private:
   std::string configPath_;
   std::string statusPath_;
   std::uint32_t maxPartitions_ = 0;
   std::uint32_t publisherId_ = 0;
   std::string publisherName_;
};

}  // namespace ChipMbbShared
