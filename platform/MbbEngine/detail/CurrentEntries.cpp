#include "MbbEngine/detail/CurrentEntries.h"

#include <algorithm>

#include "Brio/Brio.h"

namespace MbbEngine {

CurrentEntries::CurrentEntries()
    : byKey_(ByKey{&records_}), byHandle_(ByHandle{&records_}), byIndex_(ByIndex{&records_}) {}

void CurrentEntries::insert(const CurrentEntry& entry) {
   BRIO_ASSERT(entry.handle != 0);
   const std::uint32_t record = recordNew(records_, freeRecords_, entry);
   byKey_.insert(record);
   byHandle_.insert(record);
   indexInsert(record);
}

void CurrentEntries::indexInsert(std::uint32_t record) {
   const std::uint32_t index = records_[record].index;
   if (index < dense_.size()) {
      dense_[index] = record + 1;
   } else {
      byIndex_.insert(record);
   }
}

void CurrentEntries::indexErase(std::uint32_t index) {
   if (index < dense_.size()) {
      dense_[index] = 0;
   } else {
      byIndex_.erase(index);
   }
}

void CurrentEntries::denseIndicesIs(std::uint32_t limit) {
   if (limit == dense_.size()) return;
   for (std::uint32_t index = 0; index < dense_.size(); ++index) {
      if (dense_[index] != 0) byIndex_.insert(dense_[index] - 1);
   }
   std::vector<std::uint32_t>(limit, 0).swap(dense_);
   std::vector<std::uint32_t> moved;
   byIndex_.forEach([&](std::uint32_t record) {
      if (records_[record].index < limit) moved.push_back(record);
   });
   for (std::uint32_t record : moved) {
      byIndex_.erase(records_[record].index);
      dense_[records_[record].index] = record + 1;
   }
}

void CurrentEntries::update(const CurrentEntry& entry) {
   const std::uint32_t record = byKey_.find(entry.key);
   BRIO_ASSERT(record != SlotIndex<ByKey>::none && entry.handle != 0);
   CurrentEntry& current = records_[record];
   const bool newHandle = current.handle != entry.handle;
   const bool newIndex = current.index != entry.index;
   if (newHandle) byHandle_.erase(current.handle);
   if (newIndex) indexErase(current.index);
   current = entry;
   if (newHandle) byHandle_.insert(record);
   if (newIndex) indexInsert(record);
}

void CurrentEntries::erase(Vault::MbbEngine::EntryKey key) {
   const std::uint32_t record = byKey_.erase(key);
   if (record == SlotIndex<ByKey>::none) return;
   byHandle_.erase(records_[record].handle);
   indexErase(records_[record].index);
   records_[record] = CurrentEntry{};
   freeRecords_.push_back(record);
}

void CurrentEntries::clear() {
   byKey_.clear();
   byHandle_.clear();
   byIndex_.clear();
   std::fill(dense_.begin(), dense_.end(), 0);
   records_.clear();
   freeRecords_.clear();
}

std::size_t CurrentEntries::memoryBytes() const {
   return records_.capacity() * sizeof(CurrentEntry) +
          freeRecords_.capacity() * sizeof(std::uint32_t) + byKey_.memoryBytes() +
          byHandle_.memoryBytes() + byIndex_.memoryBytes() +
          dense_.capacity() * sizeof(std::uint32_t);
}

}  // namespace MbbEngine
