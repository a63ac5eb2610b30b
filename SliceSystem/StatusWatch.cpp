#include "SliceSystem/StatusWatch.h"

#include <algorithm>

namespace SliceSystem {

std::size_t ExpectedOpIds::home(std::uint64_t key) const {
   return std::size_t(Vault::MbbEngine::EntryKey(key).hash()) & (cells_.size() - 1);
}

std::size_t ExpectedOpIds::cellOf(std::uint64_t key) const {
   const std::size_t mask = cells_.size() - 1;
   std::size_t at = home(key);
   while (cells_[at].used && cells_[at].key != key) at = (at + 1) & mask;
   return at;
}

void ExpectedOpIds::grow(std::size_t cells) {
   std::vector<Cell> old(cells);
   old.swap(cells_);
   size_ = 0;
   for (const Cell& cell : old) {
      if (cell.used) is(cell.key, cell.opId);
   }
}

void ExpectedOpIds::reserve(std::size_t n) {
   std::size_t cells = std::max<std::size_t>(cells_.size(), 16);
   while (cells < n * 2) cells *= 2;
   if (cells != cells_.size()) grow(cells);
}

void ExpectedOpIds::is(std::uint64_t key, std::uint64_t opId) {
   if ((size_ + 1) * 2 > cells_.size()) reserve(size_ + 1);
   Cell& cell = cells_[cellOf(key)];
   if (!cell.used) ++size_;
   cell = Cell{key, opId, true};
}

const std::uint64_t* ExpectedOpIds::find(std::uint64_t key) const {
   if (size_ == 0) return nullptr;
   const Cell& cell = cells_[cellOf(key)];
   return cell.used ? &cell.opId : nullptr;
}

// Shifts the cells after the removed one back, so that no lookup meets a hole early.
void ExpectedOpIds::erase(std::uint64_t key) {
   if (size_ == 0) return;
   const std::size_t mask = cells_.size() - 1;
   std::size_t hole = cellOf(key);
   if (!cells_[hole].used) return;
   for (std::size_t at = (hole + 1) & mask; cells_[at].used; at = (at + 1) & mask) {
      const std::size_t want = home(cells_[at].key);
      if (((at - want) & mask) >= ((at - hole) & mask)) {
         cells_[hole] = cells_[at];
         hole = at;
      }
   }
   cells_[hole] = Cell{};
   --size_;
}

void StatusWatch::statusIs(Orb::Ptr<Vault::MbbEngine::TableStatus> status) {
   if (status == status_) return;
   // Leave the old collection while it is still alive: this may have been its last holder.
   notifierIs(status.get());
   status_ = std::move(status);
   checkAll();
}

void StatusWatch::checkAll() {
   if (!status_) return;
   outstanding_.retain([this](std::uint64_t key, std::uint64_t opId) { return !done(key, opId); });
}

void StatusWatch::onEntry(const Vault::MbbEngine::EntryKey& key) {
   const std::uint64_t* opId = outstanding_.find(key.value());
   if (opId && done(key.value(), *opId)) outstanding_.erase(key.value());
}

}  // namespace SliceSystem
