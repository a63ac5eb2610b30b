#pragma once

// A hash map from a non-zero unsigned integer key to a 32-bit value, with open addressing and
// linear probing in one flat array. The model keeps every handle lookup of the placement path
// in one of these: no node allocation per insert, and a lookup touches one or two cache lines.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Brio/Brio.h"

namespace ChipModel {

template <typename Key>
class OpenMap {
 public:
   static constexpr std::uint32_t absent = 0xFFFFFFFF;

   OpenMap() { rehash(16); }

   std::size_t size() const { return size_; }

   std::uint32_t find(Key key) const {
      for (std::size_t at = home(key);; at = (at + 1) & mask_) {
         const Slot& slot = slots_[at];
         if (slot.key == key) return slot.value;
         if (slot.key == 0) return absent;
      }
   }

   // The key must not be in the map yet.
   void insert(Key key, std::uint32_t value) {
      BRIO_ASSERT(key != 0);
      if ((size_ + 1) * 2 > slots_.size()) rehash(slots_.size() * 2);
      std::size_t at = home(key);
      while (slots_[at].key != 0) at = (at + 1) & mask_;
      slots_[at] = Slot{key, value};
      ++size_;
   }

   void assign(Key key, std::uint32_t value) {
      for (std::size_t at = home(key);; at = (at + 1) & mask_) {
         if (slots_[at].key == key) {
            slots_[at].value = value;
            return;
         }
         if (slots_[at].key == 0) break;
      }
      insert(key, value);
   }

   bool erase(Key key) {
      std::size_t at = home(key);
      for (;; at = (at + 1) & mask_) {
         if (slots_[at].key == key) break;
         if (slots_[at].key == 0) return false;
      }
      // Shift later members of the probe run back so that no lookup meets a hole early.
      std::size_t hole = at;
      for (std::size_t next = (hole + 1) & mask_; slots_[next].key != 0;
           next = (next + 1) & mask_) {
         std::size_t want = home(slots_[next].key);
         if (((next - want) & mask_) >= ((next - hole) & mask_)) {
            slots_[hole] = slots_[next];
            hole = next;
         }
      }
      slots_[hole] = Slot{};
      --size_;
      return true;
   }

   // Makes room for `count` keys without growing again.
   void reserve(std::size_t count) {
      std::size_t want = slots_.size();
      while (count * 2 > want) want *= 2;
      if (want != slots_.size()) rehash(want);
   }

   void clear() {
      slots_.assign(slots_.size(), Slot{});
      size_ = 0;
   }

 private:
   static constexpr unsigned runBits = 4;
   static constexpr std::uint64_t runMask = (1u << runBits) - 1;

   struct Slot {
      Key key = 0;
      std::uint32_t value = 0;
   };

   // Keys that differ only in their low bits share a run of neighbouring slots: handles are
   // mostly handed out in sequence, and a walk over them then stays in a few cache lines
   // instead of missing on every key. The rest of the key is scattered by a multiply.
   std::size_t home(Key key) const {
      auto value = static_cast<std::uint64_t>(key);
      std::uint64_t run = shift_ >= 64 ? 0 : ((value >> runBits) * 0x9E3779B97F4A7C15ull) >> shift_;
      return static_cast<std::size_t>(((run << runBits) | (value & runMask)) & mask_);
   }

   void rehash(std::size_t capacity) {
      std::vector<Slot> old = std::move(slots_);
      slots_.assign(capacity, Slot{});
      mask_ = capacity - 1;
      // 64 minus the bits of a run number: the capacity's bits less runBits.
      shift_ = 64 + runBits;
      for (std::size_t c = capacity; c > 1; c >>= 1) --shift_;
      size_ = 0;
      for (const Slot& slot : old) {
         if (slot.key != 0) insert(slot.key, slot.value);
      }
   }

   std::vector<Slot> slots_;
   std::size_t mask_ = 0;
   unsigned shift_ = 64;
   std::size_t size_ = 0;
};

}  // namespace ChipModel
