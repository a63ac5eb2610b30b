#pragma once

#include <cstdint>
#include <string_view>
#include <tuple>

#include "ChipSdk/PlcmtData.h"
#include "Orb/Value.h"
#include "Vault/MbbEngine/EntryKey.h"
#include "Vault/MbbEngine/PlcmtDataValue.h"
#include "Vault/MbbEngine/Tombstone.h"

namespace ChipMbbShared {

// The configuration of one action data entry. Like every configuration, the empty value is
// an absent entry and a tombstone (key and op id only) a delete.
class AdtEntryConfig : public Orb::ValueBase {
 public:
   static constexpr std::string_view orbTypeName = "ChipMbbShared::AdtEntryConfig";

   AdtEntryConfig() = default;
   AdtEntryConfig(Vault::MbbEngine::EntryKey key, Vault::MbbEngine::OpId opId, std::uint32_t mbrHdl,
                  const ChipSdk::PlcmtDataBlock& plcmtData = {})
       : key_(key), opId_(opId), mbrHdl_(mbrHdl), plcmtData_(plcmtData) {}
   static AdtEntryConfig deletion(Vault::MbbEngine::EntryKey key, Vault::MbbEngine::OpId opId) {
      return AdtEntryConfig(key, opId, 0);
   }

   Vault::MbbEngine::EntryKey key() const { return key_; }
   Vault::MbbEngine::OpId opId() const { return opId_; }
   // The member handle the entry is programmed with, which selector members refer to.
   std::uint32_t mbrHdl() const { return mbrHdl_; }
   const ChipSdk::PlcmtDataBlock& plcmtData() const { return plcmtData_; }
   void keyIs(Vault::MbbEngine::EntryKey v) { key_ = v; }
   void opIdIs(Vault::MbbEngine::OpId v) { opId_ = v; }
   void mbrHdlIs(std::uint32_t v) { mbrHdl_ = v; }
   void plcmtDataIs(const ChipSdk::PlcmtDataBlock& v) { plcmtData_ = v; }

   bool isDel() const { return Vault::MbbEngine::isTombstone(*this); }
   bool operator==(const AdtEntryConfig&) const = default;

   static constexpr auto orbFields() {
      return std::make_tuple(Orb::field("key", &AdtEntryConfig::key_),
                             Orb::field("opId", &AdtEntryConfig::opId_),
                             Orb::field("mbrHdl", &AdtEntryConfig::mbrHdl_),
                             Orb::field("plcmtData", &AdtEntryConfig::plcmtData_));
   }

 private:
   Vault::MbbEngine::EntryKey key_;
   Vault::MbbEngine::OpId opId_;
   std::uint32_t mbrHdl_ = 0;
   ChipSdk::PlcmtDataBlock plcmtData_;
};

}  // namespace ChipMbbShared
