#include "SliceSystem/TablePlan.h"

#include <algorithm>
#include <bit>

#include "ChipSdk/PlcmtData.h"

namespace SliceSystem {

const char* changeKindName(ChangeKind kind) {
   switch (kind) {
      case ChangeKind::add:
         return "add";
      case ChangeKind::modify:
         return "modify";
      case ChangeKind::move:
         return "move";
      case ChangeKind::swap:
         return "swap";
      case ChangeKind::replace:
         return "replace";
      case ChangeKind::del:
         return "delete";
      case ChangeKind::readd:
         return "re-add";
   }
   return "?";
}

std::uint64_t ChangeCounts::total() const {
   std::uint64_t sum = 0;
   for (std::uint64_t n : count) sum += n;
   return sum;
}

std::string ChangeCounts::text() const {
   std::string out;
   for (std::size_t k = 0; k < numChangeKinds; ++k) {
      if (count[k] == 0) continue;
      if (!out.empty()) out += ", ";
      out += changeKindName(static_cast<ChangeKind>(k));
      out += " " + std::to_string(count[k]);
   }
   return out.empty() ? "none" : out;
}

ChangeCounts& ChangeCounts::operator+=(const ChangeCounts& other) {
   for (std::size_t k = 0; k < numChangeKinds; ++k) count[k] += other.count[k];
   return *this;
}

TablePlan::IndexPool::IndexPool(std::uint32_t first, std::uint32_t size, std::uint64_t seed)
    : first_(first),
      size_(size),
      domainMask_(std::bit_ceil(std::max<std::uint64_t>(size, 2)) - 1),
      seed_(seed) {}

// A bijection of the power of two at or above the range, walked until it lands in the range:
// each step is an odd multiply or a shift-xor within the domain, and every value outside the
// range leads on to one inside it, since the walk follows the permutation's cycle.
std::uint32_t TablePlan::IndexPool::permuted(std::uint32_t i) const {
   const int bits = std::countr_one(domainMask_);
   std::uint64_t x = i;
   do {
      for (std::uint64_t round = 0; round < 3; ++round) {
         x = (x * ((mix64(seed_ + round) | 1)) + mix64(seed_ ^ round)) & domainMask_;
         x ^= x >> std::max(1, bits / 2);
      }
   } while (x >= size_);
   return static_cast<std::uint32_t>(x);
}

bool TablePlan::IndexPool::take(std::uint32_t& index) {
   for (;;) {
      if (!freed_.empty()) {
         index = freed_.back();
         freed_.pop_back();
      } else if (next_ < size_) {
         index = first_ + permuted(next_++);
      } else {
         return false;
      }
      // That index names the default entry, whatever the table's size.
      if (index != Vault::MbbEngine::EntryConfig::defaultEntryIndex) return true;
   }
}

TablePlan::TablePlan(TableSpec spec, const std::vector<Route>& routes, std::uint64_t seed)
    : spec_(std::move(spec)), random_(seed) {
   std::uint32_t partitions = std::max<std::uint32_t>(spec_.partitions, 1);
   std::uint32_t per = partitionSize();
   for (std::uint32_t p = 0; p < partitions; ++p) {
      const std::uint32_t first = std::min(spec_.size, p * per);
      freeIndices_.emplace_back(first, std::min(spec_.size, first + per) - first, random_());
   }
   std::size_t n = std::min<std::size_t>({spec_.numEntries, routes.size(), spec_.size});
   entries_.resize(n);
   for (std::size_t i = 0; i < n; ++i) {
      entries_[i].route = routes[i];
      entries_[i].key = routes[i].key();
   }
}

std::uint32_t TablePlan::partitionSize() const {
   std::uint32_t partitions = std::max<std::uint32_t>(spec_.partitions, 1);
   return (spec_.size + partitions - 1) / partitions;
}

std::uint32_t TablePlan::partitionOf(std::uint64_t key) const {
   return spec_.partitions ? static_cast<std::uint32_t>(mix64(key) % spec_.partitions) : 0;
}

// Takes a free index of `partition`, or of the next partition that has one.
bool TablePlan::indexTake(std::uint32_t& partition, std::uint32_t& index) {
   for (std::size_t tried = 0; tried < freeIndices_.size(); ++tried) {
      if (freeIndices_[partition].take(index)) return true;
      partition = (partition + 1) % freeIndices_.size();
   }
   return false;
}

void TablePlan::indexFree(const Entry& entry) {
   freeIndices_[entry.partition].give(entry.index);
}

Vault::MbbEngine::EntryConfig TablePlan::config(std::size_t i) const {
   const Entry& e = entries_[i];
   if (!e.live) return {};
   std::uint8_t payload[20];
   std::size_t addrSize = e.route.v6 ? 16 : 4;
   std::copy_n(e.route.addr.begin(), addrSize, payload);
   payload[addrSize] = e.route.len;
   payload[addrSize + 1] = static_cast<std::uint8_t>(e.nextHop);
   payload[addrSize + 2] = static_cast<std::uint8_t>(e.nextHop >> 8);
   ChipSdk::PlcmtDataBlock block =
       ChipSdk::PlcmtDataBuilder().payload(payload, addrSize + 3).block();
   return Vault::MbbEngine::EntryConfig(e.key, e.opId, e.handle, e.partition, e.route.len, 1,
                                        e.index, 0, 0, block);
}

void TablePlan::change(std::vector<Change>& out, std::uint32_t i, ChangeKind kind,
                       OpIdSource& opIds) {
   entries_[i].opId = opIds();
   out.push_back({i, kind});
}

std::vector<TablePlan::Change> TablePlan::initial(OpIdSource& opIds) {
   std::vector<Change> out;
   out.reserve(entries_.size());
   for (std::uint32_t i = 0; i < entries_.size(); ++i) {
      Entry& e = entries_[i];
      e.partition = partitionOf(e.key);
      if (!indexTake(e.partition, e.index)) continue;
      e.handle = nextHandle_++;
      e.live = true;
      ++numLive_;
      change(out, i, ChangeKind::add, opIds);
   }
   return out;
}

std::vector<TablePlan::Change> TablePlan::churn(double fraction, OpIdSource& opIds) {
   std::vector<std::uint32_t> live;
   for (std::uint32_t i = 0; i < entries_.size(); ++i) {
      if (entries_[i].live) live.push_back(i);
   }
   std::shuffle(live.begin(), live.end(), random_);
   std::size_t n = std::min(live.size(), static_cast<std::size_t>(live.size() * fraction));
   std::vector<bool> taken(entries_.size());
   std::vector<Change> out;
   for (std::size_t c = 0; c < n; ++c) {
      std::uint32_t i = live[c];
      if (taken[i]) continue;
      taken[i] = true;
      Entry& e = entries_[i];
      std::size_t slice = c * 10 / std::max<std::size_t>(n, 1);
      if (slice < 4) {
         ++e.nextHop;
         change(out, i, ChangeKind::modify, opIds);
      } else if (slice < 6) {
         std::uint32_t partition = e.partition;
         std::uint32_t index = 0;
         if (!freeIndices_[partition].empty() && indexTake(partition, index)) {
            indexFree(e);
            e.index = index;
            change(out, i, ChangeKind::move, opIds);
         }
      } else if (slice < 7) {
         // A partner in the same partition that has not changed yet.
         for (std::size_t p = c + 1; p < live.size(); ++p) {
            Entry& other = entries_[live[p]];
            if (taken[live[p]] || other.partition != e.partition) continue;
            taken[live[p]] = true;
            std::swap(e.index, other.index);
            change(out, i, ChangeKind::swap, opIds);
            change(out, live[p], ChangeKind::swap, opIds);
            break;
         }
      } else if (slice < 8) {
         e.handle = nextHandle_++;
         change(out, i, ChangeKind::replace, opIds);
      } else {
         indexFree(e);
         e.live = false;
         --numLive_;
         change(out, i, ChangeKind::del, opIds);
      }
   }
   return out;
}

std::vector<TablePlan::Change> TablePlan::readd(OpIdSource& opIds) {
   std::vector<Change> out;
   for (std::uint32_t i = 0; i < entries_.size(); ++i) {
      Entry& e = entries_[i];
      if (e.live || e.handle == 0) continue;
      if (!indexTake(e.partition, e.index)) continue;
      e.handle = nextHandle_++;
      ++e.nextHop;
      e.live = true;
      ++numLive_;
      change(out, i, ChangeKind::readd, opIds);
   }
   return out;
}

}  // namespace SliceSystem
