#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>

#include "Orb/Value.h"
#include "Vault/ShmCodec.h"

namespace ChipMbbShared {

// How a triple (match, action data and selector tables) is published: its four configuration
// and four status collections, in the order match, ADT, selector group, selector member, the
// ADT and selector table handles, and the generation fields of TableConfigMountEntry.
// `needStatus` governs the match and selector-member statuses only.
class MatAdtSelTableConfigMountEntry : public Orb::ValueBase {
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
   bool needStatus() const { return needStatus_; }
   std::uint32_t adtTableId() const { return adtTableId_; }
   std::uint32_t selTableId() const { return selTableId_; }
   std::uint32_t tableSize() const { return tableSize_; }
   bool global() const { return global_; }
   double configGenTime() const { return configGenTime_; }
   double statusGenTime() const { return statusGenTime_; }
   std::uint16_t instanceId() const { return instanceId_; }

   void matConfigPathIs(std::string v) { matConfigPath_ = std::move(v); }
   void adtConfigPathIs(std::string v) { adtConfigPath_ = std::move(v); }
   void selGrpConfigPathIs(std::string v) { selGrpConfigPath_ = std::move(v); }
   void selMbrConfigPathIs(std::string v) { selMbrConfigPath_ = std::move(v); }
   void matStatusPathIs(std::string v) { matStatusPath_ = std::move(v); }
   void adtStatusPathIs(std::string v) { adtStatusPath_ = std::move(v); }
   void selGrpStatusPathIs(std::string v) { selGrpStatusPath_ = std::move(v); }
   void selMbrStatusPathIs(std::string v) { selMbrStatusPath_ = std::move(v); }
   void needStatusIs(bool v) { needStatus_ = v; }
   void adtTableIdIs(std::uint32_t v) { adtTableId_ = v; }
   void selTableIdIs(std::uint32_t v) { selTableId_ = v; }
   void tableSizeIs(std::uint32_t v) { tableSize_ = v; }
   void globalIs(bool v) { global_ = v; }
   void configGenTimeIs(double v) { configGenTime_ = v; }
   void statusGenTimeIs(double v) { statusGenTime_ = v; }
   void instanceIdIs(std::uint16_t v) { instanceId_ = v; }

   bool empty() const { return *this == MatAdtSelTableConfigMountEntry(); }
   bool operator==(const MatAdtSelTableConfigMountEntry&) const = default;

   static constexpr auto orbFields() {
      using E = MatAdtSelTableConfigMountEntry;
      return std::make_tuple(
          Orb::field("matConfigPath", &E::matConfigPath_),
          Orb::field("adtConfigPath", &E::adtConfigPath_),
          Orb::field("selGrpConfigPath", &E::selGrpConfigPath_),
          Orb::field("selMbrConfigPath", &E::selMbrConfigPath_),
          Orb::field("matStatusPath", &E::matStatusPath_),
          Orb::field("adtStatusPath", &E::adtStatusPath_),
          Orb::field("selGrpStatusPath", &E::selGrpStatusPath_),
          Orb::field("selMbrStatusPath", &E::selMbrStatusPath_),
          Orb::field("needStatus", &E::needStatus_), Orb::field("adtTableId", &E::adtTableId_),
          Orb::field("selTableId", &E::selTableId_), Orb::field("tableSize", &E::tableSize_),
          Orb::field("global", &E::global_), Orb::field("configGenTime", &E::configGenTime_),
          Orb::field("statusGenTime", &E::statusGenTime_),
          Orb::field("instanceId", &E::instanceId_));
   }

 private:
   friend struct Vault::ShmCodec<MatAdtSelTableConfigMountEntry>;

   std::string matConfigPath_;
   std::string adtConfigPath_;
   std::string selGrpConfigPath_;
   std::string selMbrConfigPath_;
   std::string matStatusPath_;
   std::string adtStatusPath_;
   std::string selGrpStatusPath_;
   std::string selMbrStatusPath_;
   bool needStatus_ = false;
   std::uint32_t adtTableId_ = 0;
   std::uint32_t selTableId_ = 0;
   std::uint32_t tableSize_ = 0;
   bool global_ = false;
   double configGenTime_ = 0;
   double statusGenTime_ = 0;
   std::uint16_t instanceId_ = 0;
};

}  // namespace ChipMbbShared

// In a segment: paths up to 255 characters.
template <>
struct Vault::ShmCodec<ChipMbbShared::MatAdtSelTableConfigMountEntry> {
   using Entry = ChipMbbShared::MatAdtSelTableConfigMountEntry;
   static constexpr std::string Entry::*paths[] = {
       &Entry::matConfigPath_,    &Entry::adtConfigPath_,   &Entry::selGrpConfigPath_,
       &Entry::selMbrConfigPath_, &Entry::matStatusPath_,   &Entry::adtStatusPath_,
       &Entry::selGrpStatusPath_, &Entry::selMbrStatusPath_};
   struct Stored {
      double configGenTime;
      double statusGenTime;
      std::uint32_t adtTableId;
      std::uint32_t selTableId;
      std::uint32_t tableSize;
      std::uint16_t instanceId;
      std::uint8_t needStatus;
      std::uint8_t global;
      BoundedString<256> paths[8];
   };
   static void encode(const Entry& e, Stored& s) {
      s.configGenTime = e.configGenTime_;
      s.statusGenTime = e.statusGenTime_;
      s.adtTableId = e.adtTableId_;
      s.selTableId = e.selTableId_;
      s.tableSize = e.tableSize_;
      s.instanceId = e.instanceId_;
      s.needStatus = e.needStatus_;
      s.global = e.global_;
      for (std::size_t i = 0; i < 8; ++i) s.paths[i].assign(e.*paths[i]);
   }
   static Entry decode(const Stored& s) {
      Entry e;
      e.configGenTime_ = s.configGenTime;
      e.statusGenTime_ = s.statusGenTime;
      e.adtTableId_ = s.adtTableId;
      e.selTableId_ = s.selTableId;
      e.tableSize_ = s.tableSize;
      e.instanceId_ = s.instanceId;
      e.needStatus_ = s.needStatus != 0;
      e.global_ = s.global != 0;
      for (std::size_t i = 0; i < 8; ++i) e.*paths[i] = s.paths[i].str();
      return e;
   }
};
