#pragma once

#include <algorithm>
#include <concepts>
#include <cstdint>
#include <functional>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Vault/Errors.h"
#include "Vault/Store.h"

namespace Vault {

template <class K>
concept HeapHashable = requires(const K& key) {
   { std::hash<K>()(key) } -> std::convertible_to<std::size_t>;
};

// Entries in this process's memory, for test mode and unit tests. Keys without a hash are
// kept in a tree.
template <class K, class V>
class HeapStore : public Store<K, V> {
 public:
   // 0: no limit.
   explicit HeapStore(std::size_t capacity = 0) : capacity_(capacity) {}

   bool find(const K& key, V& value) const override {
      auto it = entries_.find(key);
      if (it == entries_.end()) return false;
      value = it->second;
      return true;
   }
   bool put(const K& key, const V& value) override {
      auto it = entries_.lower_bound(key);
      if (it != entries_.end() && !(key < it->first)) {
         if (it->second == value) return false;
         it->second = value;
         return true;
      }
      if (capacity_ != 0 && entries_.size() >= capacity_) {
         throw TableFullException("table full: all " + std::to_string(capacity_) +
                                  " entries in use");
      }
      entries_.emplace_hint(it, key, value);
      return true;
   }
   bool erase(const K& key) override { return entries_.erase(key) != 0; }

   std::optional<std::pair<K, V>> next(const K* from, bool inclusive) const override {
      auto it = !from       ? entries_.begin()
                : inclusive ? entries_.lower_bound(*from)
                            : entries_.upper_bound(*from);
      if (it == entries_.end()) return std::nullopt;
      return *it;
   }

   std::size_t size() const override { return entries_.size(); }
   std::size_t capacity() const override { return capacity_; }
   bool writable() const override { return true; }

 private:
   std::map<K, V> entries_;
   std::size_t capacity_;
};

// Hashable keys: lookups and writes in a flat hash index over a vector of entries, since a
// table in test mode takes every write of a converging publisher (a tree costs a cache miss
// per level at a million entries). The key order is kept only once somebody walks, and then
// brought up to date lazily (see ordered()).
template <class K, class V>
requires HeapHashable<K>
class HeapStore<K, V> : public Store<K, V> {
 public:
   // 0: no limit.
   explicit HeapStore(std::size_t capacity = 0) : capacity_(capacity) {}

   bool find(const K& key, V& value) const override {
      const std::uint32_t slot = slotOf(key, hashOf(key)).slot;
      if (slot == noSlot) return false;
      value = entries_[slot].value;
      return true;
   }

   bool put(const K& key, const V& value) override {
      const std::uint32_t hash = hashOf(key);
      const Probe probe = slotOf(key, hash);
      if (probe.slot != noSlot) {
         V& stored = entries_[probe.slot].value;
         if (stored == value) return false;
         stored = value;
         return true;
      }
      if (capacity_ != 0 && count_ >= capacity_) {
         throw TableFullException("table full: all " + std::to_string(capacity_) +
                                  " entries in use");
      }
      std::uint32_t slot;
      if (!free_.empty()) {
         slot = free_.back();
         free_.pop_back();
         entries_[slot] = Entry{key, value};
      } else {
         slot = static_cast<std::uint32_t>(entries_.size());
         entries_.push_back(Entry{key, value});
      }
      ++count_;
      if ((count_ + 1) * 2 > cells_.size()) {
         grow();
         cellPlace(hash, slot);
      } else {
         cells_[probe.cell] = cellOf(hash, slot);
      }
      if (orderedValid_) {
         added_.push_back(key);
         // Nobody walked for a whole table's worth of new keys: sorting afresh is cheaper.
         if (added_.size() > std::max<std::size_t>(1024, count_)) orderedDrop();
      }
      return true;
   }

   void prefetch(const K& key) const override {
      if (!cells_.empty()) __builtin_prefetch(&cells_[hashOf(key) & (cells_.size() - 1)]);
   }

   bool erase(const K& key) override {
      const Probe probe = slotOf(key, hashOf(key));
      if (probe.slot == noSlot) return false;
      cellRemove(probe.cell);
      entries_[probe.slot] = Entry{};
      free_.push_back(probe.slot);
      --count_;
      // The ordered keys keep it; walks skip keys that are gone.
      if (orderedValid_ && ++stale_ > std::max<std::size_t>(1024, count_)) orderedDrop();
      return true;
   }

   std::optional<std::pair<K, V>> next(const K* from, bool inclusive) const override {
      ordered();
      auto after = [&](const auto& keys) {
         return !from       ? keys.begin()
                : inclusive ? std::lower_bound(keys.begin(), keys.end(), *from)
                            : std::upper_bound(keys.begin(), keys.end(), *from);
      };
      auto sorted = after(sorted_);
      auto recent = !from       ? recent_.begin()
                    : inclusive ? recent_.lower_bound(*from)
                                : recent_.upper_bound(*from);
      V value;
      for (;;) {
         const bool haveSorted = sorted != sorted_.end();
         const bool haveRecent = recent != recent_.end();
         if (!haveSorted && !haveRecent) return std::nullopt;
         const bool takeSorted = haveSorted && (!haveRecent || !(*recent < *sorted));
         const K key = takeSorted ? *sorted : *recent;
         if (takeSorted) {
            ++sorted;
         } else {
            ++recent;
         }
         if (find(key, value)) return std::make_pair(key, value);
      }
   }

   std::size_t size() const override { return count_; }
   std::size_t capacity() const override { return capacity_; }
   bool writable() const override { return true; }

 private:
   static constexpr std::uint32_t noSlot = 0xFFFFFFFFu;

   struct Entry {
      K key{};
      V value{};
   };
   struct Probe {
      std::uint32_t slot;
      std::size_t cell;  // the key's cell, or the empty one where it would go
   };

   // A cell holds the key's 32-bit hash above its entry's slot plus one (0: empty); the home
   // cell comes from the hash, so that the index grows and shifts without reading entries.
   static std::uint32_t hashOf(const K& key) {
      std::uint64_t h = std::hash<K>()(key);
      h ^= h >> 31;
      h *= 0x9E3779B97F4A7C15ULL;
      return static_cast<std::uint32_t>(h >> 32);
   }
   static std::uint64_t cellOf(std::uint32_t hash, std::uint32_t slot) {
      return (std::uint64_t(hash) << 32) | (std::uint64_t(slot) + 1);
   }
   static std::uint32_t cellHash(std::uint64_t cell) { return std::uint32_t(cell >> 32); }
   static std::uint32_t cellSlot(std::uint64_t cell) { return std::uint32_t(cell) - 1; }

   Probe slotOf(const K& key, std::uint32_t hash) const {
      if (cells_.empty()) return {noSlot, 0};
      const std::size_t mask = cells_.size() - 1;
      for (std::size_t at = hash & mask;; at = (at + 1) & mask) {
         const std::uint64_t cell = cells_[at];
         if (cell == 0) return {noSlot, at};
         if (cellHash(cell) == hash && entries_[cellSlot(cell)].key == key) {
            return {cellSlot(cell), at};
         }
      }
   }

   void cellPlace(std::uint32_t hash, std::uint32_t slot) {
      const std::size_t mask = cells_.size() - 1;
      std::size_t at = hash & mask;
      while (cells_[at] != 0) at = (at + 1) & mask;
      cells_[at] = cellOf(hash, slot);
   }

   void grow() {
      std::vector<std::uint64_t> old(std::max<std::size_t>(16, cells_.size() * 2), 0);
      old.swap(cells_);
      for (std::uint64_t cell : old) {
         if (cell != 0) cellPlace(cellHash(cell), cellSlot(cell));
      }
   }

   // Shifts the cells after a removed one back, so that no probe meets a hole early.
   void cellRemove(std::size_t hole) {
      const std::size_t mask = cells_.size() - 1;
      for (std::size_t at = (hole + 1) & mask; cells_[at] != 0; at = (at + 1) & mask) {
         const std::size_t home = cellHash(cells_[at]) & mask;
         if (((at - home) & mask) >= ((at - hole) & mask)) {
            cells_[hole] = cells_[at];
            hole = at;
         }
      }
      cells_[hole] = 0;
   }

   void orderedDrop() {
      orderedValid_ = false;
      sorted_.clear();
      sorted_.shrink_to_fit();
      recent_.clear();
      added_.clear();
      stale_ = 0;
   }

   // The key order: a sorted vector that may still hold keys since erased, and the keys added
   // since it was sorted, few in a tree, many merged into the vector. A walk between every two
   // changes thus costs a tree insert per change and a merge per eighth of the table changed.
   void ordered() const {
      if (!orderedValid_) {
         sorted_.clear();
         sorted_.reserve(count_);
         for (std::uint64_t cell : cells_) {
            if (cell != 0) sorted_.push_back(entries_[cellSlot(cell)].key);
         }
         std::sort(sorted_.begin(), sorted_.end());
         orderedValid_ = true;
         return;
      }
      if (added_.empty()) return;
      if (recent_.size() + added_.size() <= std::max<std::size_t>(64, sorted_.size() / 8)) {
         recent_.insert(added_.begin(), added_.end());
         added_.clear();
         return;
      }
      std::sort(added_.begin(), added_.end());
      std::vector<K> merged;
      merged.reserve(sorted_.size() + recent_.size() + added_.size());
      std::vector<K> fresh;
      fresh.reserve(recent_.size() + added_.size());
      std::merge(recent_.begin(), recent_.end(), added_.begin(), added_.end(),
                 std::back_inserter(fresh));
      V value;
      auto live = [&](const K& key) { return find(key, value); };
      std::merge(sorted_.begin(), sorted_.end(), fresh.begin(), fresh.end(),
                 std::back_inserter(merged));
      merged.erase(std::unique(merged.begin(), merged.end()), merged.end());
      std::erase_if(merged, [&](const K& key) { return !live(key); });
      sorted_.swap(merged);
      recent_.clear();
      added_.clear();
      stale_ = 0;
   }

   std::vector<Entry> entries_;
   std::vector<std::uint32_t> free_;
   std::vector<std::uint64_t> cells_;
   std::size_t count_ = 0;
   std::size_t capacity_;
   mutable bool orderedValid_ = false;
   mutable std::vector<K> sorted_;
   mutable std::set<K> recent_;
   mutable std::vector<K> added_;
   mutable std::size_t stale_ = 0;
};

}  // namespace Vault
