#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <queue>
#include <utility>
#include <vector>

#include "MbbEngine/detail/SlotIndex.h"
#include "Vault/MbbEngine/EntryConfig.h"
#include "Vault/MbbEngine/EntryKey.h"

namespace MbbEngine {

// Why a key's newest configuration is not in hardware yet.
enum class PendingReason : std::uint8_t {
   ready,       // nothing in the way any more: to be issued in transaction order
   index,       // its index is held by another key
   handle,      // its entry handle is held by another key
   dependants,  // the tables it depends on are not ready for it
   badConfig,   // the configuration cannot be honoured as it stands
};
const char* pendingReasonName(PendingReason reason);

// What a waiting key waits for: an index or an entry handle of the table.
inline std::uint64_t indexResource(std::uint32_t index) {
   return (std::uint64_t{1} << 32) | index;
}
inline std::uint64_t handleResource(std::uint32_t handle) {
   return (std::uint64_t{2} << 32) | handle;
}

struct PendingEntry {
   Vault::MbbEngine::EntryKey key;
   std::uint64_t ti = 0;                   // transaction index; 0 marks a free record
   Vault::MbbEngine::OpId opId;            // of the configuration that waits
   std::uint64_t resource = 0;             // what it waits for, 0 when not waiting for a resource
   Vault::MbbEngine::EntryKey holder;      // the key holding the resource
   std::uint32_t holderRecord = noRecord;  // where the holder was last found waiting itself
   std::uint32_t prevWaiter = noRecord;
   std::uint32_t nextWaiter = noRecord;
   PendingReason reason = PendingReason::ready;

   static constexpr std::uint32_t noRecord = ~std::uint32_t{0};
};

// The keys whose newest configuration waits, each with the transaction index of that change.
// Keys that wait for the same resource are linked together, so that freeing the resource
// readies exactly them; readied keys come out in transaction order.
class PendingEntries {
 public:
   PendingEntries();
   PendingEntries(const PendingEntries&) = delete;
   PendingEntries& operator=(const PendingEntries&) = delete;

   // Null when the key does not wait. A pointer is good until the next add.
   const PendingEntry* find(Vault::MbbEngine::EntryKey key) const {
      const std::uint32_t record = byKey_.find(key);
      return record == noRecord ? nullptr : &records_[record];
   }

   // Records that the key waits with `config`, as change `ti`; a key already waiting keeps its
   // place. Returns the key's record, which the calls below take, good until the next erase.
   std::uint32_t add(Vault::MbbEngine::EntryKey key, const Vault::MbbEngine::EntryConfig& config,
                     std::uint64_t ti);
   void erase(Vault::MbbEngine::EntryKey key);
   // The key waits for `resource` (reason index or handle) that `holder` holds.
   void waitFor(std::uint32_t record, std::uint64_t resource, PendingReason reason,
                Vault::MbbEngine::EntryKey holder);
   // The key waits for nothing in particular.
   void reasonIs(std::uint32_t record, PendingReason reason);
   // Whether following the holders of what each key waits for leads from `key` back to it.
   // The holder of a waited-for resource stays the same until the resource is released, which
   // readies the waiter, so the recorded holders are current.
   bool waitsOnItself(Vault::MbbEngine::EntryKey key);
   bool waitedFor(std::uint64_t resource) const { return headOf(resource) != noRecord; }
   // Readies every key that waits for `resource`.
   void release(std::uint64_t resource);
   // The readied key with the lowest transaction index and its configuration, taken off the
   // ready list; false when none is ready.
   bool readyPop(Vault::MbbEngine::EntryKey& key, Vault::MbbEngine::EntryConfig& config);

   // Waiters for indices below `limit` are found through a plain array from now on.
   void denseIndicesIs(std::uint32_t limit);

   std::size_t size() const { return byKey_.size(); }
   std::size_t memoryBytes() const;
   // Every waiting key, by transaction index.
   std::vector<PendingEntry> byTi() const;

 private:
   static constexpr std::uint32_t noRecord = PendingEntry::noRecord;
   using Records = std::vector<PendingEntry>;
   struct ByKey {
      const Records* records;
      Vault::MbbEngine::EntryKey operator()(std::uint32_t r) const { return (*records)[r].key; }
      static std::uint32_t hash(Vault::MbbEngine::EntryKey key) { return mixHash(key.value()); }
   };
   // Indexes the first key of each resource's list of waiters.
   struct ByResource {
      const Records* records;
      std::uint64_t operator()(std::uint32_t r) const { return (*records)[r].resource; }
      static std::uint32_t hash(std::uint64_t resource) { return mixHash(resource); }
   };
   using Ready = std::pair<std::uint64_t, std::uint32_t>;  // (ti, record)
   // What a walk along the waits reads of each record, kept apart from the records so that a
   // walk touches a small, dense array.
   struct WaitLink {
      Vault::MbbEngine::EntryKey key;
      Vault::MbbEngine::EntryKey holder;      // the key holding what the key waits for
      std::uint32_t holderRecord = noRecord;  // where the holder was last found waiting itself
      bool live = false;
      bool waiting = false;
   };

   bool dense(std::uint64_t resource) const {
      return (resource >> 32) == 1 && static_cast<std::uint32_t>(resource) < denseHeads_.size();
   }
   // The first waiter for a resource, or noRecord.
   std::uint32_t headOf(std::uint64_t resource) const {
      return dense(resource) ? denseHeads_[static_cast<std::uint32_t>(resource)] - 1
                             : waiters_.find(resource);
   }
   // Makes `record` (waiting for `resource`, or noRecord) the first waiter for it.
   void headIs(std::uint64_t resource, std::uint32_t record);
   void unlink(std::uint32_t record);
   void readyPush(std::uint32_t record);

   Records records_;
   std::vector<WaitLink> links_;
   // The configuration that waits, as the engine read it (a newer one comes with a
   // notification); apart from the records, which lookups touch far more often.
   std::vector<Vault::MbbEngine::EntryConfig> configs_;
   std::vector<std::uint32_t> freeRecords_;
   SlotIndex<ByKey> byKey_;
   SlotIndex<ByResource> waiters_;
   std::vector<std::uint32_t> denseHeads_;  // first waiter + 1 by index, 0 when none
   std::priority_queue<Ready, std::vector<Ready>, std::greater<Ready>> ready_;
};

}  // namespace MbbEngine
