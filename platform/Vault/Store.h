#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <utility>

namespace Vault {

// Where a table keeps its entries. The table above it owns the notifications and the checks
// common to every backing; a store only stores. Reads of a shared segment may throw
// StoreCorruption; the table turns that into its corruption handling.
template <class K>
class ChangeSink {
 public:
   virtual void keyChanged(const K& key) = 0;
   virtual void allChanged() = 0;

 protected:
   ~ChangeSink() = default;
};

template <class K, class V>
class Store {
 public:
   virtual ~Store() = default;

   // Copies the entry into `value` and returns true when present.
   virtual bool find(const K& key, V& value) const = 0;
   // Stores the entry; returns false (and changes nothing) when the value is already there.
   // A store at its capacity throws TableFullException for a new key.
   virtual bool put(const K& key, const V& value) = 0;
   // Returns false when the key was absent.
   virtual bool erase(const K& key) = 0;
   // `key` is about to be written: a store whose index is likely out of the caches starts
   // fetching the key's place now, so that the write does not wait for memory. A hint only.
   virtual void prefetch(const K& key) const {}

   // The first present entry whose key is above `from` (at or above with `inclusive`), or
   // the first entry of all when `from` is null.
   virtual std::optional<std::pair<K, V>> next(const K* from, bool inclusive) const = 0;
   // Every present entry to `fn`, in whatever order the store keeps them, for a pass that needs
   // no order: a shared segment then reads its slots one after the other instead of sorting
   // its keys and looking each one up. A key changed meanwhile may be met twice or missed; a
   // reader hears of such a change anyway (changesDrain()). By default, the ordered walk.
   virtual void visit(const std::function<void(const K&, const V&)>& fn) const {
      for (auto entry = next(nullptr, true); entry; entry = next(&entry->first, false)) {
         fn(entry->first, entry->second);
      }
   }

   virtual std::size_t size() const = 0;
   // 0 means unbounded.
   virtual std::size_t capacity() const = 0;
   virtual bool writable() const = 0;

   // Readers of a shared table learn of other processes' writes here: each key changed since
   // the last call goes to `keyChanged`; a reader that fell too far behind to know which keys
   // changed calls `allChanged` once instead. Stores that only change through this process
   // have nothing to report.
   virtual void changesDrain(ChangeSink<K>& sink) {}
   // A descriptor that becomes readable when changes may be waiting, or -1 when the store
   // offers none.
   virtual int changeFd() const { return -1; }

   // A writer of a shared table rings its sleeping readers after a change. Given `schedule`,
   // it rings them once per burst instead: after the first change not yet announced it calls
   // `schedule`, whose owner then calls changesAnnounce() soon (an event loop, at the end of
   // its turn); a long burst is announced every so many changes on the way. Null: after
   // every change again, the changes so far announced at once.
   virtual void announceDeferIs(std::function<void()> schedule) {}
   virtual void changesAnnounce() {}

   // The table is unmounted: a writer removes its segment from the system. Those who still
   // hold the table keep what it held.
   virtual void retire() {}
};

}  // namespace Vault
