#pragma once

#include <string_view>
#include <tuple>

#include "ChipMbbShared/SelMbrEntryKey.h"
#include "ChipSdk/PlcmtData.h"
#include "Orb/Value.h"
#include "Vault/MbbEngine/EntryKey.h"
#include "Vault/MbbEngine/PlcmtDataValue.h"
#include "Vault/MbbEngine/Tombstone.h"

namespace ChipMbbShared {

// The configuration of one selector member: which ADT entry is its action data and whether
// it is active in its vector.
class SelMbrEntryConfig : public Orb::ValueBase {
 public:
   static constexpr std::string_view orbTypeName = "ChipMbbShared::SelMbrEntryConfig";

   SelMbrEntryConfig() = default;
   SelMbrEntryConfig(SelMbrEntryKey key, Vault::MbbEngine::OpId opId,
                     Vault::MbbEngine::EntryKey adtKey, bool active,
                     const ChipSdk::PlcmtDataBlock& plcmtData = {})
       : key_(key), opId_(opId), adtKey_(adtKey), active_(active), plcmtData_(plcmtData) {}
   static SelMbrEntryConfig deletion(SelMbrEntryKey key, Vault::MbbEngine::OpId opId) {
      return SelMbrEntryConfig(key, opId, 0, false);
   }

   SelMbrEntryKey key() const { return key_; }
   Vault::MbbEngine::OpId opId() const { return opId_; }
   Vault::MbbEngine::EntryKey adtKey() const { return adtKey_; }
   bool active() const { return active_; }
   const ChipSdk::PlcmtDataBlock& plcmtData() const { return plcmtData_; }
   void keyIs(SelMbrEntryKey v) { key_ = v; }
   void opIdIs(Vault::MbbEngine::OpId v) { opId_ = v; }
   void adtKeyIs(Vault::MbbEngine::EntryKey v) { adtKey_ = v; }
   void activeIs(bool v) { active_ = v; }
   void plcmtDataIs(const ChipSdk::PlcmtDataBlock& v) { plcmtData_ = v; }

   bool isDel() const { return Vault::MbbEngine::isTombstone(*this); }
   bool operator==(const SelMbrEntryConfig&) const = default;

   static constexpr auto orbFields() {
      return std::make_tuple(Orb::field("key", &SelMbrEntryConfig::key_),
                             Orb::field("opId", &SelMbrEntryConfig::opId_),
                             Orb::field("adtKey", &SelMbrEntryConfig::adtKey_),
                             Orb::field("active", &SelMbrEntryConfig::active_),
                             Orb::field("plcmtData", &SelMbrEntryConfig::plcmtData_));
   }

 private:
   SelMbrEntryKey key_;
   Vault::MbbEngine::OpId opId_;
   Vault::MbbEngine::EntryKey adtKey_;
   bool active_ = false;
   ChipSdk::PlcmtDataBlock plcmtData_;
};

}  // namespace ChipMbbShared
