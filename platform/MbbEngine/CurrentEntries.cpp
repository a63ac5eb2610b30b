#include "MbbEngine/CurrentEntries.h"

#include "Brio/Brio.h"

namespace MbbEngine {

CurrentEntries::CurrentEntries()
    : byKey_(ByKey{&records_}), byHandle_(ByHandle{&records_}), byIndex_(ByIndex{&records_}) {}

void CurrentEntries::insert(const CurrentEntry& entry) {
   BRIO_ASSERT(entry.handle != 0);
   std::uint32_t record;
   if (!freeRecords_.empty()) {
      record = freeRecords_.back();
      freeRecords_.pop_back();
      records_[record] = entry;
   } else {
      record = static_cast<std::uint32_t>(records_.size());
      records_.push_back(entry);
   }
   byKey_.insert(record);
   byHandle_.insert(record);
   byIndex_.insert(record);
}

void CurrentEntries::update(const CurrentEntry& entry) {
   const std::uint32_t record = byKey_.find(entry.key);
   BRIO_ASSERT(record != SlotIndex<ByKey>::none && entry.handle != 0);
   CurrentEntry& current = records_[record];
   const bool newHandle = current.handle != entry.handle;
   const bool newIndex = current.index != entry.index;
   if (newHandle) byHandle_.erase(current.handle);
   if (newIndex) byIndex_.erase(current.index);
   current = entry;
   if (newHandle) byHandle_.insert(record);
   if (newIndex) byIndex_.insert(record);
}

void CurrentEntries::erase(Vault::MbbEngine::EntryKey key) {
   const std::uint32_t record = byKey_.find(key);
   if (record == SlotIndex<ByKey>::none) return;
   byHandle_.erase(records_[record].handle);
   byIndex_.erase(records_[record].index);
   byKey_.erase(key);
   records_[record] = CurrentEntry{};
   freeRecords_.push_back(record);
}

void CurrentEntries::clear() {
   byKey_.clear();
   byHandle_.clear();
   byIndex_.clear();
   records_.clear();
   freeRecords_.clear();
}

std::size_t CurrentEntries::memoryBytes() const {
   return records_.capacity() * sizeof(CurrentEntry) +
          freeRecords_.capacity() * sizeof(std::uint32_t) + byKey_.memoryBytes() +
          byHandle_.memoryBytes() + byIndex_.memoryBytes();
}

}  // namespace MbbEngine
