#pragma once

#include <memory>
#include <utility>

namespace Orb {

// Shared ownership throughout the code base is std::shared_ptr: entities, records and the
// objects handed between modules all use this one pointer type.
template <class T>
using Ptr = std::shared_ptr<T>;

// A reference that does not keep its object alive; lock() it to use the object while it lasts.
template <class T>
using WeakPtr = std::weak_ptr<T>;

template <class T, class... Args>
Ptr<T> ptrNew(Args&&... args) {
   return std::make_shared<T>(std::forward<Args>(args)...);
}

}  // namespace Orb
