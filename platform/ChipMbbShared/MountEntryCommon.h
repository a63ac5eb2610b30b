#pragma once

#include <cstddef>
#include <cstdint>

namespace ChipMbbShared {

// Longest collection path and publisher name that a published entry can carry.
inline constexpr std::size_t mountPathBound = 255;
inline constexpr std::size_t publisherNameBound = 63;

// What every published table says of itself, single or triple: whether this library mounts
// and writes its status, how big it is, and which publisher instance and generation of the
// data the announcement belongs to. Both mount entries are made of it and list its fields
// among their own.
class MountEntryCommon {
 public:
   bool needStatus() const { return needStatus_; }
   std::uint32_t tableSize() const { return tableSize_; }
   bool global() const { return global_; }
   double configGenTime() const { return configGenTime_; }
   double statusGenTime() const { return statusGenTime_; }
   std::uint16_t instanceId() const { return instanceId_; }

   void needStatusIs(bool v) { needStatus_ = v; }
   void tableSizeIs(std::uint32_t v) { tableSize_ = v; }
   void globalIs(bool v) { global_ = v; }
   void configGenTimeIs(double v) { configGenTime_ = v; }
   void statusGenTimeIs(double v) { statusGenTime_ = v; }
   void instanceIdIs(std::uint16_t v) { instanceId_ = v; }

   bool operator==(const MountEntryCommon&) const = default;

 protected:
   bool needStatus_ = false;
   std::uint32_t tableSize_ = 0;
   bool global_ = false;
   double configGenTime_ = 0;
   double statusGenTime_ = 0;
   std::uint16_t instanceId_ = 0;
};

}  // namespace ChipMbbShared
