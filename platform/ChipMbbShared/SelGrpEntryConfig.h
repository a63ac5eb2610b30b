#pragma once

#include <cstdint>
#include <string_view>
#include <tuple>

#include "Orb/Value.h"
#include "Vault/MbbEngine/EntryKey.h"
#include "Vault/MbbEngine/Tombstone.h"

namespace ChipMbbShared {

// The configuration of one selector group: its handle, how many vectors it has, where they
// start in the selector table (vector v lives at baseIndex + v), and how many members a
// vector may hold.
class SelGrpEntryConfig : public Orb::ValueBase {
 public:
   static constexpr std::string_view orbTypeName = "ChipMbbShared::SelGrpEntryConfig";

   SelGrpEntryConfig() = default;
   SelGrpEntryConfig(Vault::MbbEngine::EntryKey key, Vault::MbbEngine::OpId opId,
                     std::uint32_t grpHdl, std::uint32_t numVectors, std::uint32_t baseIndex,
                     std::uint32_t maxMbrsPerVector)
       : key_(key),
         opId_(opId),
         grpHdl_(grpHdl),
         numVectors_(numVectors),
         baseIndex_(baseIndex),
         maxMbrsPerVector_(maxMbrsPerVector) {}
   static SelGrpEntryConfig deletion(Vault::MbbEngine::EntryKey key, Vault::MbbEngine::OpId opId) {
      return SelGrpEntryConfig(key, opId, 0, 0, 0, 0);
   }

   Vault::MbbEngine::EntryKey key() const { return key_; }
   Vault::MbbEngine::OpId opId() const { return opId_; }
   std::uint32_t grpHdl() const { return grpHdl_; }
   std::uint32_t numVectors() const { return numVectors_; }
   std::uint32_t baseIndex() const { return baseIndex_; }
   std::uint32_t maxMbrsPerVector() const { return maxMbrsPerVector_; }
   void keyIs(Vault::MbbEngine::EntryKey v) { key_ = v; }
   void opIdIs(Vault::MbbEngine::OpId v) { opId_ = v; }
   void grpHdlIs(std::uint32_t v) { grpHdl_ = v; }
   void numVectorsIs(std::uint32_t v) { numVectors_ = v; }
   void baseIndexIs(std::uint32_t v) { baseIndex_ = v; }
   void maxMbrsPerVectorIs(std::uint32_t v) { maxMbrsPerVector_ = v; }

   bool isDel() const { return Vault::MbbEngine::isTombstone(*this); }
   bool operator==(const SelGrpEntryConfig&) const = default;

   static constexpr auto orbFields() {
      return std::make_tuple(Orb::field("key", &SelGrpEntryConfig::key_),
                             Orb::field("opId", &SelGrpEntryConfig::opId_),
                             Orb::field("grpHdl", &SelGrpEntryConfig::grpHdl_),
                             Orb::field("numVectors", &SelGrpEntryConfig::numVectors_),
                             Orb::field("baseIndex", &SelGrpEntryConfig::baseIndex_),
                             Orb::field("maxMbrsPerVector", &SelGrpEntryConfig::maxMbrsPerVector_));
   }

 private:
   Vault::MbbEngine::EntryKey key_;
   Vault::MbbEngine::OpId opId_;
   std::uint32_t grpHdl_ = 0;
   std::uint32_t numVectors_ = 0;
   std::uint32_t baseIndex_ = 0;
   std::uint32_t maxMbrsPerVector_ = 0;
};

}  // namespace ChipMbbShared
