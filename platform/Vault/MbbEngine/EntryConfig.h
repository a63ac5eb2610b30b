#pragma once

#include <cstdint>
#include <string_view>
#include <tuple>

#include "ChipSdk/PlcmtData.h"
#include "Orb/Value.h"
#include "Vault/MbbEngine/EntryKey.h"
#include "Vault/MbbEngine/PlcmtDataValue.h"
#include "Vault/MbbEngine/Tombstone.h"

namespace Vault::MbbEngine {

// The configuration of one match entry, as a publisher writes it. The empty configuration
// (all zero) stands for an absent entry. A delete that the publisher wants acknowledged is
// written as a tombstone: key and op id set, everything else zero (see deletion()).
class EntryConfig : public Orb::ValueBase {
 public:
   static constexpr std::string_view orbTypeName = "Vault::MbbEngine::EntryConfig";
   // The index that addresses the table's default entry rather than a slot.
   static constexpr std::uint32_t defaultEntryIndex = 0x7FFFF;

   EntryConfig() = default;
   EntryConfig(EntryKey key, OpId opId, std::uint32_t entryHandle, std::uint32_t priorityGroup,
               std::uint32_t priority, std::uint32_t indexCount, std::uint32_t index,
               std::uint32_t selectorIndex, std::uint32_t adtIndex,
               const ChipSdk::PlcmtDataBlock& plcmtData)
       : key_(key),
         opId_(opId),
         entryHandle_(entryHandle),
         priorityGroup_(priorityGroup),
         priority_(priority),
         indexCount_(indexCount),
         index_(index),
         selectorIndex_(selectorIndex),
         adtIndex_(adtIndex),
         plcmtData_(plcmtData) {}

   static EntryConfig deletion(EntryKey key, OpId opId) {
      EntryConfig config;
      config.key_ = key;
      config.opId_ = opId;
      return config;
   }

   EntryKey key() const { return key_; }
   OpId opId() const { return opId_; }
   std::uint32_t entryHandle() const { return entryHandle_; }
   std::uint32_t priorityGroup() const { return priorityGroup_; }
   std::uint32_t priority() const { return priority_; }
   std::uint32_t indexCount() const { return indexCount_; }
   std::uint32_t index() const { return index_; }
   std::uint32_t selectorIndex() const { return selectorIndex_; }
   std::uint32_t adtIndex() const { return adtIndex_; }
   const ChipSdk::PlcmtDataBlock& plcmtData() const { return plcmtData_; }
   ChipSdk::PlcmtDataBlock& plcmtData() { return plcmtData_; }

   void keyIs(EntryKey v) { key_ = v; }
   void opIdIs(OpId v) { opId_ = v; }
   void entryHandleIs(std::uint32_t v) { entryHandle_ = v; }
   void priorityGroupIs(std::uint32_t v) { priorityGroup_ = v; }
   void priorityIs(std::uint32_t v) { priority_ = v; }
   void indexCountIs(std::uint32_t v) { indexCount_ = v; }
   void indexIs(std::uint32_t v) { index_ = v; }
   void selectorIndexIs(std::uint32_t v) { selectorIndex_ = v; }
   void adtIndexIs(std::uint32_t v) { adtIndex_ = v; }
   void plcmtDataIs(const ChipSdk::PlcmtDataBlock& v) { plcmtData_ = v; }

   // A tombstone: a version (op id) that carries nothing to place.
   bool isDel() const { return Vault::MbbEngine::isTombstone(*this); }
   bool isDefaultEntry() const { return index_ == defaultEntryIndex; }
   // The selector group that the entry's action points at; 0 when its action is direct
   // action data or its placement data is not a valid block.
   EntryKey selGrpKey() const { return ChipSdk::plcmtDataSelGrpKey(plcmtData_); }

   bool operator==(const EntryConfig&) const = default;

   static constexpr auto orbFields() {
      return std::make_tuple(Orb::field("key", &EntryConfig::key_),
                             Orb::field("opId", &EntryConfig::opId_),
                             Orb::field("entryHandle", &EntryConfig::entryHandle_),
                             Orb::field("priorityGroup", &EntryConfig::priorityGroup_),
                             Orb::field("priority", &EntryConfig::priority_),
                             Orb::field("indexCount", &EntryConfig::indexCount_),
                             Orb::field("index", &EntryConfig::index_),
                             Orb::field("selectorIndex", &EntryConfig::selectorIndex_),
                             Orb::field("adtIndex", &EntryConfig::adtIndex_),
                             Orb::field("plcmtData", &EntryConfig::plcmtData_));
   }

 private:
   EntryKey key_;
   OpId opId_;
   std::uint32_t entryHandle_ = 0;
   std::uint32_t priorityGroup_ = 0;
   std::uint32_t priority_ = 0;
   std::uint32_t indexCount_ = 0;
   std::uint32_t index_ = 0;
   std::uint32_t selectorIndex_ = 0;
   std::uint32_t adtIndex_ = 0;
   ChipSdk::PlcmtDataBlock plcmtData_;
};

}  // namespace Vault::MbbEngine
