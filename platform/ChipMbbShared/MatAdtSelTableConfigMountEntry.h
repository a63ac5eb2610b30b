#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>

#include "ChipMbbShared/MountEntryCommon.h"
#include "Orb/Value.h"

namespace ChipMbbShared {

// How a triple (match, action data and selector tables) is published: its four configuration
// and four status collections, in the order match, ADT, selector group, selector member, the
// ADT and selector table handles, and what every published table says of itself.
// `needStatus` governs the match and selector-member statuses only.
class MatAdtSelTableConfigMountEntry : public Orb::ValueBase, public MountEntryCommon {
 public:
   static constexpr std::string_view orbTypeName = "ChipMbbShared::MatAdtSelTableConfigMountEntry";

   const std::string& matConfigPath() const { return matConfigPath_; }
   const std::string& adtConfigPath() const { return adtConfigPath_; }
   const std::string& selGrpConfigPath() const { return selGrpConfigPath_; }
   const std::string& selMbrConfigPath() const { return selMbrConfigPath_; }
   const std::string& matStatusPath() const { return matStatusPath_; }
   const std::string& adtStatusPath() const { return adtStatusPath_; }
   const std::string& selGrpStatusPath() const { return selGrpStatusPath_; }
   const std::string& selMbrStatusPath() const { return selMbrStatusPath_; }
   std::uint32_t adtTableId() const { return adtTableId_; }
   std::uint32_t selTableId() const { return selTableId_; }

   void matConfigPathIs(std::string v) { matConfigPath_ = std::move(v); }
   void adtConfigPathIs(std::string v) { adtConfigPath_ = std::move(v); }
   void selGrpConfigPathIs(std::string v) { selGrpConfigPath_ = std::move(v); }
   void selMbrConfigPathIs(std::string v) { selMbrConfigPath_ = std::move(v); }
   void matStatusPathIs(std::string v) { matStatusPath_ = std::move(v); }
   void adtStatusPathIs(std::string v) { adtStatusPath_ = std::move(v); }
   void selGrpStatusPathIs(std::string v) { selGrpStatusPath_ = std::move(v); }
   void selMbrStatusPathIs(std::string v) { selMbrStatusPath_ = std::move(v); }
   void adtTableIdIs(std::uint32_t v) { adtTableId_ = v; }
   void selTableIdIs(std::uint32_t v) { selTableId_ = v; }

   bool empty() const { return *this == MatAdtSelTableConfigMountEntry(); }
   bool operator==(const MatAdtSelTableConfigMountEntry&) const = default;

   static constexpr auto orbFields() {
      using E = MatAdtSelTableConfigMountEntry;
      constexpr std::size_t b = mountPathBound;
      return std::make_tuple(
          Orb::field<b>("matConfigPath", &E::matConfigPath_),
          Orb::field<b>("adtConfigPath", &E::adtConfigPath_),
          Orb::field<b>("selGrpConfigPath", &E::selGrpConfigPath_),
          Orb::field<b>("selMbrConfigPath", &E::selMbrConfigPath_),
          Orb::field<b>("matStatusPath", &E::matStatusPath_),
          Orb::field<b>("adtStatusPath", &E::adtStatusPath_),
          Orb::field<b>("selGrpStatusPath", &E::selGrpStatusPath_),
          Orb::field<b>("selMbrStatusPath", &E::selMbrStatusPath_),
          Orb::field("needStatus", &E::needStatus_), Orb::field("adtTableId", &E::adtTableId_),
          Orb::field("selTableId", &E::selTableId_), Orb::field("tableSize", &E::tableSize_),
          Orb::field("global", &E::global_), Orb::field("configGenTime", &E::configGenTime_),
          Orb::field("statusGenTime", &E::statusGenTime_),
          Orb::field("instanceId", &E::instanceId_));
   }

 private:
   std::string matConfigPath_;
   std::string adtConfigPath_;
   std::string selGrpConfigPath_;
   std::string selMbrConfigPath_;
   std::string matStatusPath_;
   std::string adtStatusPath_;
   std::string selGrpStatusPath_;
   std::string selMbrStatusPath_;
   std::uint32_t adtTableId_ = 0;
   std::uint32_t selTableId_ = 0;
};

}  // namespace ChipMbbShared
