#pragma once

// An ordered set of 32-bit handles, for walking a table's entries in handle order while
// entries come and go. Handles live as bits in pages of 1024; a page is found through a hash
// map and pages are ordered by a tree that changes only when a page is created or emptied, so
// adding or removing a handle is a few bit operations.

#include <cstddef>
#include <cstdint>
#include <set>
#include <vector>

#include "ChipModel/detail/OpenMap.h"
#include "ChipModel/detail/SlotPool.h"

namespace ChipModel {

class HandleSet {
 public:
   bool contains(std::uint32_t hdl) const;
   void insert(std::uint32_t hdl);
   void erase(std::uint32_t hdl);
   std::size_t size() const { return size_; }

   // Appends to `out` up to `count` handles greater than `after`, in ascending order, and
   // returns how many it appended.
   std::size_t next(std::uint32_t after, std::size_t count, std::vector<std::uint32_t>& out) const;

 private:
   static constexpr unsigned pageShift = 10;
   static constexpr std::size_t wordsPerPage = (1u << pageShift) / 64;

   struct Page {
      std::uint64_t words[wordsPerPage] = {};
      std::uint32_t summary = 0;  // bit w set when words[w] is not zero
      std::uint32_t count = 0;
   };

   // Page ids are stored plus one: the map reserves key 0.
   std::uint32_t pageAt(std::uint32_t pageId) const { return pageOf_.find(pageId + 1); }
   std::size_t scanPage(std::uint32_t pageId, const Page& page, unsigned firstBit,
                        std::size_t count, std::vector<std::uint32_t>& out) const;

   SlotPool<Page> pages_;
   OpenMap<std::uint32_t> pageOf_;
   std::set<std::uint32_t> pageIds_;
   std::size_t size_ = 0;
};

}  // namespace ChipModel
