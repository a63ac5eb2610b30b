#pragma once

#include <string_view>
#include <tuple>

#include "Orb/Value.h"
#include "Vault/MbbEngine/EntryStatus.h"

namespace ChipMbbSlice {

// One status write that waits for its batch to reach the hardware. The all-zero value is what
// an empty status queue hands out.
class ChipEntryStatus : public Orb::ValueBase {
 public:
   static constexpr std::string_view orbTypeName = "ChipMbbSlice::ChipEntryStatus";

   ChipEntryStatus() = default;
   ChipEntryStatus(const Vault::MbbEngine::EntryStatus& entryStatus, bool removeFromStatus)
       : entryStatus_(entryStatus), removeFromStatus_(removeFromStatus) {}

   const Vault::MbbEngine::EntryStatus& entryStatus() const { return entryStatus_; }
   // True: the key leaves the status table instead of being written to it.
   bool removeFromStatus() const { return removeFromStatus_; }
   void entryStatusIs(const Vault::MbbEngine::EntryStatus& v) { entryStatus_ = v; }
   void removeFromStatusIs(bool v) { removeFromStatus_ = v; }

   bool operator==(const ChipEntryStatus&) const = default;

   static constexpr auto orbFields() {
      return std::make_tuple(Orb::field("entryStatus", &ChipEntryStatus::entryStatus_),
                             Orb::field("removeFromStatus", &ChipEntryStatus::removeFromStatus_));
   }

 private:
   Vault::MbbEngine::EntryStatus entryStatus_;
   bool removeFromStatus_ = false;
};

}  // namespace ChipMbbSlice
