#pragma once

#include <cstdint>
#include <map>
#include <string_view>
#include <tuple>

#include "Orb/Entity.h"
#include "Orb/Time.h"
#include "Orb/Value.h"
#include "TableAuditSm/AuditTypes.h"

namespace ChipMbbSlice {

// One key (its 64-bit value) or SDK handle that kept failing the audit, and when it was
// recorded.
class FailedAuditStatusEntry : public Orb::ValueBase {
 public:
   static constexpr std::string_view orbTypeName = "ChipMbbSlice::FailedAuditStatusEntry";

   FailedAuditStatusEntry() = default;
   FailedAuditStatusEntry(std::uint64_t identifier, Orb::Seconds time, AuditFailReason reason)
       : identifier_(identifier), time_(time), reason_(reason) {}

   std::uint64_t identifier() const { return identifier_; }
   Orb::Seconds time() const { return time_; }
   AuditFailReason reason() const { return reason_; }

   bool operator==(const FailedAuditStatusEntry&) const = default;

   static constexpr auto orbFields() {
      return std::make_tuple(Orb::field("identifier", &FailedAuditStatusEntry::identifier_),
                             Orb::field("time", &FailedAuditStatusEntry::time_),
                             Orb::field("reason", &FailedAuditStatusEntry::reason_));
   }

 private:
   std::uint64_t identifier_ = 0;
   Orb::Seconds time_ = 0;
   AuditFailReason reason_ = AuditFailReason::configAndMbbMismatch;
};

// The record of audit failures, shared by every table and watched by diagnostics. The audit
// only adds to it, so it keeps every failure for the life of the audit manager; entries are
// keyed by the time they were recorded.
class FailedAuditStatus : public Orb::Entity<FailedAuditStatus> {
 public:
   class Notifiee : public Orb::BaseNotifiee<FailedAuditStatus> {
    public:
      virtual void onFailedEntry(Orb::Seconds time) {}
   };
   using FailedEntryMap = std::map<Orb::Seconds, FailedAuditStatusEntry>;

   FailedAuditStatusEntry failedEntry(Orb::Seconds time) const {
      auto it = failedEntry_.find(time);
      return it == failedEntry_.end() ? FailedAuditStatusEntry() : it->second;
   }
   const FailedEntryMap& failedEntries() const { return failedEntry_; }
   std::size_t numFailedEntries() const { return failedEntry_.size(); }

   void failedEntryIs(const FailedAuditStatusEntry& entry) {
      failedEntry_[entry.time()] = entry;
      notifieeList().notify(&Notifiee::onFailedEntry, entry.time());
   }
   void failedEntryDel(Orb::Seconds time) {
      if (failedEntry_.erase(time) != 0) notifieeList().notify(&Notifiee::onFailedEntry, time);
   }
   void failedEntryDelAll() {
      while (!failedEntry_.empty()) failedEntryDel(failedEntry_.begin()->first);
   }

 private:
   FailedEntryMap failedEntry_;
};

}  // namespace ChipMbbSlice
