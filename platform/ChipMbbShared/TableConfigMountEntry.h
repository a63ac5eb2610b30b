#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>

#include "Orb/Value.h"
#include "Vault/ShmCodec.h"

namespace ChipMbbShared {

// How a single match table is published: where its configuration and status collections
// are, how big it is, and which publisher instance and generation of its data it belongs to.
// The default entry (empty strings, zeros, false) stands for a table that is not published.
class TableConfigMountEntry : public Orb::ValueBase {
 public:
   static constexpr std::string_view orbTypeName = "ChipMbbShared::TableConfigMountEntry";

   const std::string& configPath() const { return configPath_; }
   const std::string& statusPath() const { return statusPath_; }
   bool needStatus() const { return needStatus_; }
   std::uint32_t tableSize() const { return tableSize_; }
   // ATCAM partitions; 0 for an ordinary table.
   std::uint32_t maxPartitions() const { return maxPartitions_; }
   // The feature agent that published the table, carried along for diagnostics.
   std::uint32_t publisherId() const { return publisherId_; }
   const std::string& publisherName() const { return publisherName_; }
   bool global() const { return global_; }
   double configGenTime() const { return configGenTime_; }
   double statusGenTime() const { return statusGenTime_; }
   std::uint16_t instanceId() const { return instanceId_; }

   void configPathIs(std::string v) { configPath_ = std::move(v); }
   void statusPathIs(std::string v) { statusPath_ = std::move(v); }
   void needStatusIs(bool v) { needStatus_ = v; }
   void tableSizeIs(std::uint32_t v) { tableSize_ = v; }
   void maxPartitionsIs(std::uint32_t v) { maxPartitions_ = v; }
   void publisherIdIs(std::uint32_t v) { publisherId_ = v; }
   void publisherNameIs(std::string v) { publisherName_ = std::move(v); }
   void globalIs(bool v) { global_ = v; }
   void configGenTimeIs(double v) { configGenTime_ = v; }
   void statusGenTimeIs(double v) { statusGenTime_ = v; }
   void instanceIdIs(std::uint16_t v) { instanceId_ = v; }

   bool empty() const { return *this == TableConfigMountEntry(); }
   bool operator==(const TableConfigMountEntry&) const = default;

   static constexpr auto orbFields() {
      using E = TableConfigMountEntry;
      return std::make_tuple(
          Orb::field("configPath", &E::configPath_), Orb::field("statusPath", &E::statusPath_),
          Orb::field("needStatus", &E::needStatus_), Orb::field("tableSize", &E::tableSize_),
          Orb::field("maxPartitions", &E::maxPartitions_),
          Orb::field("publisherId", &E::publisherId_),
          Orb::field("publisherName", &E::publisherName_), Orb::field("global", &E::global_),
          Orb::field("configGenTime", &E::configGenTime_),
          Orb::field("statusGenTime", &E::statusGenTime_),
          Orb::field("instanceId", &E::instanceId_));
   }

 private:
   friend struct Vault::ShmCodec<TableConfigMountEntry>;

   std::string configPath_;
   std::string statusPath_;
   bool needStatus_ = false;
   std::uint32_t tableSize_ = 0;
   std::uint32_t maxPartitions_ = 0;
   std::uint32_t publisherId_ = 0;
   std::string publisherName_;
   bool global_ = false;
   double configGenTime_ = 0;
   double statusGenTime_ = 0;
   std::uint16_t instanceId_ = 0;
};

}  // namespace ChipMbbShared

// In a segment: paths up to 255 characters, publisher names up to 63.
template <>
struct Vault::ShmCodec<ChipMbbShared::TableConfigMountEntry> {
   using Entry = ChipMbbShared::TableConfigMountEntry;
   struct Stored {
      double configGenTime;
      double statusGenTime;
      std::uint32_t tableSize;
      std::uint32_t maxPartitions;
      std::uint32_t publisherId;
      std::uint16_t instanceId;
      std::uint8_t needStatus;
      std::uint8_t global;
      BoundedString<256> configPath;
      BoundedString<256> statusPath;
      BoundedString<64> publisherName;
   };
   static void encode(const Entry& e, Stored& s) {
      s.configGenTime = e.configGenTime_;
      s.statusGenTime = e.statusGenTime_;
      s.tableSize = e.tableSize_;
      s.maxPartitions = e.maxPartitions_;
      s.publisherId = e.publisherId_;
      s.instanceId = e.instanceId_;
      s.needStatus = e.needStatus_;
      s.global = e.global_;
      s.configPath.assign(e.configPath_);
      s.statusPath.assign(e.statusPath_);
      s.publisherName.assign(e.publisherName_);
   }
   static Entry decode(const Stored& s) {
      Entry e;
      e.configGenTime_ = s.configGenTime;
      e.statusGenTime_ = s.statusGenTime;
      e.tableSize_ = s.tableSize;
      e.maxPartitions_ = s.maxPartitions;
      e.publisherId_ = s.publisherId;
      e.instanceId_ = s.instanceId;
      e.needStatus_ = s.needStatus != 0;
      e.global_ = s.global != 0;
      e.configPath_ = s.configPath.str();
      e.statusPath_ = s.statusPath.str();
      e.publisherName_ = s.publisherName.str();
      return e;
   }
};
