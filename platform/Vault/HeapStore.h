#pragma once

#include <map>
#include <string>

#include "Vault/Errors.h"
#include "Vault/Store.h"

namespace Vault {

// Entries in this process's memory, for test mode and unit tests.
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

}  // namespace Vault
