#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Brio/Brio.h"
#include "Orb/Ptr.h"
#include "Vault/MbbEngine/Tables.h"

namespace SliceSystem {

// The keys of one table whose status does not show their latest configuration yet. A key
// is expected before its configuration is written (a status can arrive while the write is
// still going on, in test mode) and leaves once its status carries the expected op id, or
// once the status is gone when the expected op id is 0 (a delete).
// Expected op ids by key in one flat array: a publisher of a million routes expects a million
// keys, and a node per key cost it more than writing them.
class ExpectedOpIds {
 public:
   std::size_t size() const { return size_; }
   void reserve(std::size_t n);
   void is(std::uint64_t key, std::uint64_t opId);
   // The key's expected op id, or null.
   const std::uint64_t* find(std::uint64_t key) const;
   // Fetches the key's home cell ahead of an is() or find().
   void prefetch(std::uint64_t key) const {
      if (!cells_.empty()) __builtin_prefetch(&cells_[home(key)]);
   }
   void erase(std::uint64_t key);
   // Keeps the keys for which `keep(key, opId)` holds.
   template <class Fn>
   void retain(Fn&& keep);

 private:
   struct Cell {
      std::uint64_t key = 0;
      std::uint64_t opId = 0;
      bool used = false;
   };
   std::size_t home(std::uint64_t key) const;
   std::size_t cellOf(std::uint64_t key) const;
   void grow(std::size_t cells);

   std::vector<Cell> cells_;
   std::size_t size_ = 0;
};

template <class Fn>
void ExpectedOpIds::retain(Fn&& keep) {
   std::vector<Cell> old(cells_.size());
   old.swap(cells_);
   size_ = 0;
   for (const Cell& cell : old) {
      if (cell.used && keep(cell.key, cell.opId)) is(cell.key, cell.opId);
   }
}

class StatusWatch : public Vault::MbbEngine::TableStatus::Notifiee {
 public:
   StatusWatch() = default;
   // Leaves the collection before the pointer that may be its last goes.
   ~StatusWatch() override { notifierIs(nullptr); }

   void expect(std::uint64_t key, std::uint64_t opId) { outstanding_.is(key, opId); }
   void expectPrefetch(std::uint64_t key) const { outstanding_.prefetch(key); }
   void expectReserve(std::size_t n) { outstanding_.reserve(outstanding_.size() + n); }
   std::size_t numOutstanding() const { return outstanding_.size(); }
   bool outstanding(std::uint64_t key) const { return outstanding_.find(key) != nullptr; }

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
   ExpectedOpIds outstanding_;
};

}  // namespace SliceSystem
