#pragma once

#include <utility>

namespace Orb {

// One attribute of an entity. The entity names the accessors (`x()`, `xIs(v)`) and says how its
// notifiees are told; the attribute keeps the value and tells them only when it changes, so a
// setter called with what is already there costs one comparison.
template <class T>
class Attribute {
 public:
   Attribute() = default;
   explicit Attribute(T value) : value_(std::move(value)) {}

   const T& operator()() const { return value_; }

   // Stores `value`, then calls notify() if it differed from the value held.
   template <class Notify>
   void is(const T& value, Notify&& notify) {
      if (value_ == value) return;
      value_ = value;
      notify();
   }

 protected:
   T value_{};
};

}  // namespace Orb
