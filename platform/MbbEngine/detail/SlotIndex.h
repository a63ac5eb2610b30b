#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace MbbEngine {

// 32 well-mixed bits of a 64-bit value, for the indexes below.
inline std::uint32_t mixHash(std::uint64_t x) {
   x ^= x >> 33;
   x *= 0xff51afd7ed558ccdULL;
   x ^= x >> 33;
   return static_cast<std::uint32_t>(x >> 32) ^ static_cast<std::uint32_t>(x);
}

// Stores `value` in a freed record if there is one, else in a new one; returns its number.
template <class T>
std::uint32_t recordNew(std::vector<T>& records, std::vector<std::uint32_t>& freeRecords,
                        const T& value) {
   if (freeRecords.empty()) {
      records.push_back(value);
      return static_cast<std::uint32_t>(records.size() - 1);
   }
   const std::uint32_t record = freeRecords.back();
   freeRecords.pop_back();
   records[record] = value;
   return record;
}

// A hash index over records that live elsewhere, in a vector: each slot holds a record number
// and the record's hash, so an index costs eight bytes a slot, and a probe reads a record only
// when the hashes already agree. Linear probing, deletion by shifting back (no tombstones), so
// lookups stay short however much the contents churn.
//
// `KeyOf` says what a record is looked up by: `Key operator()(std::uint32_t record) const` and
// `static std::uint32_t hash(Key)`.
template <class KeyOf>
class SlotIndex {
 public:
   using Key = decltype(std::declval<const KeyOf&>()(0u));
   static constexpr std::uint32_t none = ~std::uint32_t{0};

   explicit SlotIndex(KeyOf keyOf = {}) : keyOf_(keyOf) {}

   std::size_t size() const { return size_; }
   std::size_t memoryBytes() const { return slots_.capacity() * sizeof(Slot); }

   // The record indexed under `key`, or none.
   std::uint32_t find(const Key& key) const {
      if (size_ == 0) return none;
      const std::uint32_t hash = KeyOf::hash(key);
      for (std::size_t i = hash & mask_;; i = (i + 1) & mask_) {
         const Slot& slot = slots_[i];
         if (slot.ref == 0) return none;
         if (slot.hash == hash && keyOf_(slot.ref - 1) == key) return slot.ref - 1;
      }
   }

   // Indexes a record under its current key, which must not be indexed yet.
   void insert(std::uint32_t record) {
      if ((size_ + 1) * 4 > slots_.size() * 3) grow();
      place(Slot{record + 1, KeyOf::hash(keyOf_(record))});
      ++size_;
   }

   // Removes the record indexed under `key` and returns it, or none.
   std::uint32_t erase(const Key& key) {
      if (size_ == 0) return none;
      const std::uint32_t hash = KeyOf::hash(key);
      std::size_t i = hash & mask_;
      for (;; i = (i + 1) & mask_) {
         if (slots_[i].ref == 0) return none;
         if (slots_[i].hash == hash && keyOf_(slots_[i].ref - 1) == key) break;
      }
      const std::uint32_t record = slots_[i].ref - 1;
      // Pull later members of the run back over the hole, unless that would put one before
      // its home slot.
      for (std::size_t j = (i + 1) & mask_; slots_[j].ref != 0; j = (j + 1) & mask_) {
         const std::size_t home = slots_[j].hash & mask_;
         if (((j - home) & mask_) >= ((j - i) & mask_)) {
            slots_[i] = slots_[j];
            i = j;
         }
      }
      slots_[i] = Slot{};
      --size_;
      return record;
   }

   void clear() {
      slots_.assign(slots_.size(), Slot{});
      size_ = 0;
   }

   template <class Fn>
   void forEach(Fn&& fn) const {
      for (const Slot& slot : slots_) {
         if (slot.ref != 0) fn(slot.ref - 1);
      }
   }

 private:
   struct Slot {
      std::uint32_t ref = 0;  // record + 1; 0 marks a free slot
      std::uint32_t hash = 0;
   };

   void place(Slot entry) {
      std::size_t i = entry.hash & mask_;
      while (slots_[i].ref != 0) i = (i + 1) & mask_;
      slots_[i] = entry;
   }

   void grow() {
      std::vector<Slot> old;
      old.swap(slots_);
      slots_.assign(old.empty() ? 16 : old.size() * 2, Slot{});
      mask_ = slots_.size() - 1;
      for (const Slot& slot : old) {
         if (slot.ref != 0) place(slot);
      }
   }

   KeyOf keyOf_;
   std::vector<Slot> slots_;
   std::size_t mask_ = 0;
   std::size_t size_ = 0;
};

}  // namespace MbbEngine
