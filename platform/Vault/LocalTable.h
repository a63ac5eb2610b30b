#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "Orb/Ptr.h"
#include "Vault/HeapStore.h"

namespace Vault {

// How a locally created table is set up. maxSize 0: no limit.
struct MapDescriptor {
   std::size_t maxSize = 0;
};

// A table of the named type T (TableConfig, ...) held in this process's memory. It is not
// mounted yet: the creator fills it if it likes, then calls mountedIs(true), which announces
// the whole table.
template <class T>
Orb::Ptr<T> localTableNew(const std::string& name, const MapDescriptor& descriptor = {}) {
   using Store = HeapStore<typename T::Key, typename T::Value>;
   return Orb::ptrNew<T>(name, std::make_unique<Store>(descriptor.maxSize));
}

}  // namespace Vault
