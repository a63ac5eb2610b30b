#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include "Orb/LinkQueue.h"

namespace Orb {

// A link queue as an attribute of an entity (`x(index)`, `xEnq`, `xDeq`, `xIs`, `xDel`,
// `xDelAll`, metadata): every change is told with the index of the element concerned.
template <class T>
class LinkQueueAttribute {
 public:
   T operator()(std::uint32_t index) const { return queue_.at(index); }
   std::size_t size() const { return queue_.size(); }
   bool empty() const { return queue_.empty(); }
   LinkQueueMetadata metadata() const { return queue_.metadata(); }
   void metadataIs(LinkQueueMetadata metadata) { queue_.metadataIs(metadata); }

   // Throws Brio::RangeException when the index space is full.
   template <class Notify>
   std::uint32_t enq(T value, Notify&& notify) {
      const std::uint32_t index = queue_.enq(std::move(value));
      notify(index);
      return index;
   }

   // The head's value, or the empty value, told to nobody, when the queue is empty.
   template <class Notify>
   T deq(Notify&& notify) {
      if (queue_.empty()) return T{};
      const std::uint32_t index = queue_.metadata().head;
      T value = queue_.deq();
      notify(index);
      return value;
   }

   template <class Notify>
   void is(std::uint32_t index, T value, Notify&& notify) {
      queue_.is(index, std::move(value));
      notify(index);
   }

   template <class Notify>
   void del(std::uint32_t index, Notify&& notify) {
      if (queue_.del(index)) notify(index);
   }

   // From the head, each element told as by deq.
   template <class Notify>
   void delAll(Notify&& notify) {
      while (!queue_.empty()) deq(notify);
   }

 private:
   LinkQueue<T> queue_;
};

}  // namespace Orb
