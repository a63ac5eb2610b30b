#pragma once

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

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

   bool empty() const { return head_ == elements_.size(); }
   std::size_t size() const { return elements_.size() - head_; }
   LinkQueueMetadata metadata() const { return metadata_; }
   void metadataIs(LinkQueueMetadata metadata) { metadata_ = metadata; }

   // Appends and returns the element's index; throws Brio::RangeException when full.
   std::uint32_t enq(T value) {
      std::uint32_t index = metadata_.next;
      if (!empty()) {
         std::uint32_t afterTail = elements_.back().first + 1;
         if (offset(afterTail) > offset(index)) index = afterTail;
         if (static_cast<std::uint32_t>(index + 1) == elements_[head_].first) {
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
      if (empty()) return T{};
      T value = std::move(elements_[head_].second);
      ++head_;
      if (empty()) {
         elements_.clear();
         head_ = 0;
      } else if (head_ >= compactAfter && head_ * 2 >= elements_.size()) {
         elements_.erase(elements_.begin(), live());
         head_ = 0;
      }
      refreshHead();
      return value;
   }

   const T* front() const { return empty() ? nullptr : &elements_[head_].second; }

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
      auto pos = std::find_if(live(), elements_.end(),
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
      head_ = 0;
      refreshHead();
   }

   auto begin() const { return live(); }
   auto end() const { return elements_.end(); }

 private:
   // Taken elements stay in the vector until the queue empties or they are the larger part, so
   // that a queue which fills and drains, as a batch does, never allocates once warm.
   static constexpr std::size_t compactAfter = 64;

   using Iterator = typename std::vector<Element>::iterator;
   using ConstIterator = typename std::vector<Element>::const_iterator;
   Iterator live() { return elements_.begin() + static_cast<std::ptrdiff_t>(head_); }
   ConstIterator live() const { return elements_.begin() + static_cast<std::ptrdiff_t>(head_); }

   // Position of an index in the queue's order, counted from the head.
   std::uint32_t offset(std::uint32_t index) const {
      std::uint32_t head = empty() ? metadata_.head : elements_[head_].first;
      return index - head;
   }

   Iterator find(std::uint32_t index) {
      return std::find_if(live(), elements_.end(),
                          [&](const Element& e) { return e.first == index; });
   }
   ConstIterator find(std::uint32_t index) const {
      return std::find_if(live(), elements_.end(),
                          [&](const Element& e) { return e.first == index; });
   }

   void refreshHead() { metadata_.head = empty() ? metadata_.next : elements_[head_].first; }

   std::vector<Element> elements_;
   std::size_t head_ = 0;
   LinkQueueMetadata metadata_;
};

}  // namespace Orb
