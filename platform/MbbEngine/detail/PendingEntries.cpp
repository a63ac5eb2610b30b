#include "MbbEngine/detail/PendingEntries.h"

#include <algorithm>

#include "Brio/Brio.h"

namespace MbbEngine {

const char* pendingReasonName(PendingReason reason) {
   switch (reason) {
      case PendingReason::ready:
         return "ready";
      case PendingReason::index:
         return "index";
      case PendingReason::handle:
         return "handle";
      case PendingReason::dependants:
         return "dependants";
      case PendingReason::badConfig:
         return "badConfig";
   }
   return "unknown";
}

PendingEntries::PendingEntries() : byKey_(ByKey{&records_}), waiters_(ByResource{&records_}) {}

std::uint32_t PendingEntries::add(Vault::MbbEngine::EntryKey key,
                                  const Vault::MbbEngine::EntryConfig& config, std::uint64_t ti) {
   BRIO_ASSERT(ti != 0);
   if (const std::uint32_t existing = byKey_.find(key); existing != noRecord) return existing;
   PendingEntry entry;
   entry.key = key;
   entry.ti = ti;
   entry.opId = config.opId();
   const std::uint32_t record = recordNew(records_, freeRecords_, entry);
   if (links_.size() < records_.size()) {
      links_.resize(records_.size());
      configs_.resize(records_.size());
   }
   configs_[record] = config;
   links_[record] = WaitLink{key, {}, noRecord, true, false};
   byKey_.insert(record);
   return record;
}

void PendingEntries::erase(Vault::MbbEngine::EntryKey key) {
   const std::uint32_t record = byKey_.erase(key);
   if (record == noRecord) return;
   unlink(record);
   records_[record] = PendingEntry{};
   links_[record] = WaitLink{};
   freeRecords_.push_back(record);
}

void PendingEntries::unlink(std::uint32_t record) {
   PendingEntry& entry = records_[record];
   if (entry.resource == 0) return;
   if (entry.prevWaiter != noRecord) {
      records_[entry.prevWaiter].nextWaiter = entry.nextWaiter;
   } else {
      headIs(entry.resource, entry.nextWaiter);
   }
   if (entry.nextWaiter != noRecord) records_[entry.nextWaiter].prevWaiter = entry.prevWaiter;
   entry.prevWaiter = entry.nextWaiter = noRecord;
   entry.resource = 0;
   links_[record].waiting = false;
}

void PendingEntries::headIs(std::uint64_t resource, std::uint32_t record) {
   if (dense(resource)) {
      denseHeads_[static_cast<std::uint32_t>(resource)] = record + 1;
      return;
   }
   waiters_.erase(resource);
   if (record != noRecord) waiters_.insert(record);
}

void PendingEntries::denseIndicesIs(std::uint32_t limit) {
   std::vector<std::uint32_t> heads;
   for (std::uint32_t head : denseHeads_) {
      if (head != 0) heads.push_back(head - 1);
   }
   waiters_.forEach([&](std::uint32_t record) { heads.push_back(record); });
   waiters_.clear();
   std::vector<std::uint32_t>(limit, 0).swap(denseHeads_);
   for (std::uint32_t head : heads) headIs(records_[head].resource, head);
}

void PendingEntries::waitFor(std::uint32_t record, std::uint64_t resource, PendingReason reason,
                             Vault::MbbEngine::EntryKey holder) {
   BRIO_ASSERT(record < records_.size() && records_[record].ti != 0 && resource != 0);
   unlink(record);
   const std::uint32_t head = headOf(resource);
   if (head != noRecord) records_[head].prevWaiter = record;
   PendingEntry& entry = records_[record];
   entry.nextWaiter = head;
   entry.resource = resource;
   entry.reason = reason;
   links_[record] = WaitLink{entry.key, holder, noRecord, true, true};
   headIs(resource, record);
}

bool PendingEntries::waitsOnItself(Vault::MbbEngine::EntryKey key) {
   std::uint32_t record = byKey_.find(key);
   // Bounded by the number of waiting keys: each wait is checked as it is made, so a cycle
   // that does not pass through `key` cannot be met here, but a bound costs nothing.
   for (std::size_t steps = 0; record != noRecord && steps <= size(); ++steps) {
      WaitLink& link = links_[record];
      if (!link.waiting) return false;
      if (link.holder == key) return true;
      std::uint32_t next = link.holderRecord;
      if (next == noRecord || !links_[next].live || links_[next].key != link.holder) {
         next = byKey_.find(link.holder);
         link.holderRecord = next;
      }
      record = next;
   }
   return false;
}

void PendingEntries::reasonIs(std::uint32_t record, PendingReason reason) {
   BRIO_ASSERT(record < records_.size() && records_[record].ti != 0);
   unlink(record);
   records_[record].reason = reason;
}

void PendingEntries::readyPush(std::uint32_t record) {
   records_[record].reason = PendingReason::ready;
   ready_.emplace(records_[record].ti, record);
}

void PendingEntries::release(std::uint64_t resource) {
   std::uint32_t record = headOf(resource);
   headIs(resource, noRecord);
   while (record != noRecord) {
      PendingEntry& entry = records_[record];
      const std::uint32_t next = entry.nextWaiter;
      entry.prevWaiter = entry.nextWaiter = noRecord;
      entry.resource = 0;
      links_[record].waiting = false;
      readyPush(record);
      record = next;
   }
}

bool PendingEntries::readyPop(Vault::MbbEngine::EntryKey& key,
                              Vault::MbbEngine::EntryConfig& config) {
   while (!ready_.empty()) {
      const auto [ti, record] = ready_.top();
      ready_.pop();
      // A key readied twice, or gone and its record reused, is passed over.
      const PendingEntry& entry = records_[record];
      if (entry.ti != ti || entry.reason != PendingReason::ready) continue;
      key = entry.key;
      config = configs_[record];
      return true;
   }
   return false;
}

std::size_t PendingEntries::memoryBytes() const {
   return records_.capacity() * sizeof(PendingEntry) + links_.capacity() * sizeof(WaitLink) +
          configs_.capacity() * sizeof(Vault::MbbEngine::EntryConfig) +
          freeRecords_.capacity() * sizeof(std::uint32_t) + byKey_.memoryBytes() +
          waiters_.memoryBytes() + denseHeads_.capacity() * sizeof(std::uint32_t) +
          ready_.size() * sizeof(Ready);
}

std::vector<PendingEntry> PendingEntries::byTi() const {
   std::vector<PendingEntry> entries;
   entries.reserve(size());
   byKey_.forEach([&](std::uint32_t record) { entries.push_back(records_[record]); });
   std::sort(entries.begin(), entries.end(),
             [](const PendingEntry& a, const PendingEntry& b) { return a.ti < b.ti; });
   return entries;
}

}  // namespace MbbEngine
