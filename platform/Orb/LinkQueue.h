#pragma once

#include <algorithm>
#include <cstdint>
#include <deque>
#include <utility>

#include "Brio/Brio.h"

namespace Orb {

// Bookkeeping of a link queue: the index of the head element and the next index to hand out.
struct LinkQueueMetadata {
   std::uint32_t head = 0;
   std::uint32_t next = 0;
   bool operator==(const LinkQueueMetadata&) const = default;
};

// First-in first-out queue whose elements carry growing U32 indices, so that watchers can
// name an element by index. A new element gets the larger of the next index and the tail's
// index plus one; indices wrap, and an append whose next index would reach the head's index
// is refused, as the index space is then full. Reads of an absent index, and dequeues from an
// empty queue, give T's empty value.
template <class T>
class LinkQueue {
 public:
   using Element = std::pair<std::uint32_t, T>;

   bool empty() const { return elements_.empty(); }
   std::size_t size() const { return elements_.size(); }
   LinkQueueMetadata metadata() const { return metadata_; }
   void metadataIs(LinkQueueMetadata metadata) { metadata_ = metadata; }

   // Appends and returns the element's index; throws Brio::RangeException when full.
   std::uint32_t enq(T value) {
      std::uint32_t index = metadata_.next;
      if (!elements_.empty()) {
         std::uint32_t afterTail = elements_.back().first + 1;
         if (offset(afterTail) > offset(index)) index = afterTail;
         if (static_cast<std::uint32_t>(index + 1) == elements_.front().first) {
            throw Brio::RangeException("linkqueue index space full");
         }
      } else {
         metadata_.head = index;
      }
      elements_.emplace_back(index, std::move(value));
      metadata_.next = index + 1;
      return index;
   }

   T deq() {
      if (elements_.empty()) return T{};
      T value = std::move(elements_.front().second);
      elements_.pop_front();
      refreshHead();
      return value;
   }

   const T* front() const { return elements_.empty() ? nullptr : &elements_.front().second; }

   T at(std::uint32_t index) const {
      auto it = find(index);
      return it == elements_.end() ? T{} : it->second;
   }

   // Sets the value at an index, inserting it in index order when absent.
   void is(std::uint32_t index, T value) {
      if (auto it = find(index); it != elements_.end()) {
         it->second = std::move(value);
         return;
      }
      auto pos = std::find_if(elements_.begin(), elements_.end(),
                              [&](const Element& e) { return offset(e.first) > offset(index); });
      elements_.emplace(pos, index, std::move(value));
      if (offset(index + 1) > offset(metadata_.next)) metadata_.next = index + 1;
      refreshHead();
   }

   bool del(std::uint32_t index) {
      auto it = find(index);
      if (it == elements_.end()) return false;
      elements_.erase(it);
      refreshHead();
      return true;
   }

   void delAll() {
      elements_.clear();
      refreshHead();
   }

   auto begin() const { return elements_.begin(); }
   auto end() const { return elements_.end(); }

 private:
   // Position of an index in the queue's order, counted from the head.
   std::uint32_t offset(std::uint32_t index) const {
      std::uint32_t head = elements_.empty() ? metadata_.head : elements_.front().first;
      return index - head;
   }

   typename std::deque<Element>::iterator find(std::uint32_t index) {
      return std::find_if(elements_.begin(), elements_.end(),
                          [&](const Element& e) { return e.first == index; });
   }
   typename std::deque<Element>::const_iterator find(std::uint32_t index) const {
      return std::find_if(elements_.begin(), elements_.end(),
                          [&](const Element& e) { return e.first == index; });
   }

   void refreshHead() {
      metadata_.head = elements_.empty() ? metadata_.next : elements_.front().first;
   }

   std::deque<Element> elements_;
   LinkQueueMetadata metadata_;
};

}  // namespace Orb
