#pragma once

#include "Orb/Attribute.h"

namespace Orb {

// An attribute that also counts up (`xInc(delta)`); an increment is a change like any other and
// is told to the notifiees, unless the delta is 0.
template <class T>
class Counter : public Attribute<T> {
 public:
   using Attribute<T>::Attribute;

   template <class Notify>
   void inc(T delta, Notify&& notify) {
      this->is(static_cast<T>(this->value_ + delta), notify);
   }
};

}  // namespace Orb
