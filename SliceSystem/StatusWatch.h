#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>

#include "Brio/Brio.h"
#include "Orb/Ptr.h"
#include "Vault/MbbEngine/Tables.h"

namespace SliceSystem {

// The keys of one table whose status does not show their latest configuration yet. A key
// is expected before its configuration is written (a status can arrive while the write is
// still going on, in test mode) and leaves once its status carries the expected op id, or
// once the status is gone when the expected op id is 0 (a delete).
class StatusWatch : public Vault::MbbEngine::TableStatus::Notifiee {
 public:
   StatusWatch() = default;
   // Leaves the collection before the pointer that may be its last goes.
   ~StatusWatch() override { notifierIs(nullptr); }

   void expect(std::uint64_t key, std::uint64_t opId) { outstanding_[key] = opId; }
   void expectReserve(std::size_t n) { outstanding_.reserve(outstanding_.size() + n); }
   std::size_t numOutstanding() const { return outstanding_.size(); }
   const std::unordered_map<std::uint64_t, std::uint64_t>& outstanding() const {
      return outstanding_;
   }

   const Orb::Ptr<Vault::MbbEngine::TableStatus>& status() const { return status_; }
   // Watches `status` (which may be a newly made collection of the same table) and checks
   // every outstanding key against it.
   void statusIs(Orb::Ptr<Vault::MbbEngine::TableStatus> status);
   void checkAll();

   void onEntry(const Vault::MbbEngine::EntryKey& key) override;
   void onEntry() override { checkAll(); }

 private:
   // A status collection found damaged answers nothing until the host makes it afresh.
   bool done(std::uint64_t key, std::uint64_t opId) const {
      try {
         return status_->entry(key).opId().value() == opId;
      } catch (const Brio::CorruptionDetectedException&) {
         return false;
      }
   }

   Orb::Ptr<Vault::MbbEngine::TableStatus> status_;
   std::unordered_map<std::uint64_t, std::uint64_t> outstanding_;
};

}  // namespace SliceSystem
