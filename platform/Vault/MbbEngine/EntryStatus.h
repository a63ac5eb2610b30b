#pragma once

#include <string_view>
#include <tuple>

#include "Orb/Value.h"
#include "Vault/MbbEngine/EntryKey.h"

namespace Vault::MbbEngine {

// What is in hardware for a key: the op id of the configuration last programmed.
class EntryStatus : public Orb::ValueBase {
 public:
   static constexpr std::string_view orbTypeName = "Vault::MbbEngine::EntryStatus";

   EntryStatus() = default;
   EntryStatus(EntryKey key, OpId opId) : key_(key), opId_(opId) {}

   EntryKey key() const { return key_; }
   OpId opId() const { return opId_; }
   void keyIs(EntryKey v) { key_ = v; }
   void opIdIs(OpId v) { opId_ = v; }

   bool operator==(const EntryStatus&) const = default;

   static constexpr auto orbFields() {
      return std::make_tuple(Orb::field("key", &EntryStatus::key_),
                             Orb::field("opId", &EntryStatus::opId_));
   }

 private:
   EntryKey key_;
   OpId opId_;
};

}  // namespace Vault::MbbEngine
