#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "MbbEngine/detail/SlotIndex.h"
#include "Vault/MbbEngine/EntryKey.h"

namespace MbbEngine {

// What is in hardware for a key: the op id, entry handle and index of the configuration last
// issued for it, and the ATCAM partition it sits in.
struct CurrentEntry {
   Vault::MbbEngine::EntryKey key;
   Vault::MbbEngine::OpId opId;
   std::uint32_t handle = 0;  // 0 marks a free record: no entry has handle 0
   std::uint32_t index = 0;
   std::uint32_t partition = 0;
};

// The current entries of one table, found by key, by entry handle and by index. The hardware
// holds at most one entry per handle and per index, and so does this.
//
// Records sit in one vector and the lookups are hash indexes of record numbers, except that
// indices of a table of known size are found through a plain array: about eighty bytes a key
// all told, and one memory access to learn who holds an index.
class CurrentEntries {
 public:
   CurrentEntries();
   CurrentEntries(const CurrentEntries&) = delete;
   CurrentEntries& operator=(const CurrentEntries&) = delete;

   // Null when absent. A pointer is good until the next insert.
   const CurrentEntry* find(Vault::MbbEngine::EntryKey key) const { return at(byKey_.find(key)); }
   const CurrentEntry* byHandle(std::uint32_t handle) const { return at(byHandle_.find(handle)); }
   const CurrentEntry* byIndex(std::uint32_t index) const {
      return index < dense_.size() ? at(dense_[index] - 1) : at(byIndex_.find(index));
   }

   // Indices below `limit` go into the array from now on (0: every index is hashed).
   void denseIndicesIs(std::uint32_t limit);
   std::uint32_t denseIndices() const { return static_cast<std::uint32_t>(dense_.size()); }

   // The entry's key, handle and index must all be free.
   void insert(const CurrentEntry& entry);
   // Replaces the entry of `entry.key`; its new handle and index must be free or its own.
   void update(const CurrentEntry& entry);
   void erase(Vault::MbbEngine::EntryKey key);
   void clear();

   std::size_t size() const { return byKey_.size(); }
   std::size_t memoryBytes() const;

   template <class Fn>
   void forEach(Fn&& fn) const {
      byKey_.forEach([&](std::uint32_t record) { fn(records_[record]); });
   }

 private:
   using Records = std::vector<CurrentEntry>;
   struct ByKey {
      const Records* records;
      Vault::MbbEngine::EntryKey operator()(std::uint32_t r) const { return (*records)[r].key; }
      static std::uint32_t hash(Vault::MbbEngine::EntryKey key) { return mixHash(key.value()); }
   };
   struct ByHandle {
      const Records* records;
      std::uint32_t operator()(std::uint32_t r) const { return (*records)[r].handle; }
      static std::uint32_t hash(std::uint32_t handle) { return mixHash(handle); }
   };
   struct ByIndex {
      const Records* records;
      std::uint32_t operator()(std::uint32_t r) const { return (*records)[r].index; }
      static std::uint32_t hash(std::uint32_t index) { return mixHash(index); }
   };

   void indexInsert(std::uint32_t record);
   void indexErase(std::uint32_t index);
   const CurrentEntry* at(std::uint32_t record) const {
      return record == SlotIndex<ByKey>::none ? nullptr : &records_[record];
   }

   Records records_;
   std::vector<std::uint32_t> freeRecords_;
   SlotIndex<ByKey> byKey_;
   SlotIndex<ByHandle> byHandle_;
   SlotIndex<ByIndex> byIndex_;
   std::vector<std::uint32_t> dense_;  // record + 1 by index, 0 when free
};

}  // namespace MbbEngine
