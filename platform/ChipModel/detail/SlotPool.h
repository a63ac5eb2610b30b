#pragma once

// Records in one flat vector, addressed by a 32-bit slot that stays valid while the record
// lives; freed slots are reused first, so a table that churns does not grow.

#include <cstdint>
#include <vector>

namespace ChipModel {

template <typename T>
class SlotPool {
 public:
   // A slot holding a fresh T.
   std::uint32_t alloc() {
      if (freeSlots_.empty()) {
         items_.emplace_back();
         return static_cast<std::uint32_t>(items_.size() - 1);
      }
      std::uint32_t slot = freeSlots_.back();
      freeSlots_.pop_back();
      items_[slot] = T{};
      return slot;
   }
   void release(std::uint32_t slot) { freeSlots_.push_back(slot); }

   T& operator[](std::uint32_t slot) { return items_[slot]; }
   const T& operator[](std::uint32_t slot) const { return items_[slot]; }
   bool empty() const { return items_.size() == freeSlots_.size(); }
   void reserve(std::size_t count) { items_.reserve(count); }

 private:
   std::vector<T> items_;
   std::vector<std::uint32_t> freeSlots_;
};

}  // namespace ChipModel
