#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "Brio/Brio.h"
#include "Orb/Ptr.h"
#include "Vault/detail/ShmStore.h"

namespace Vault {

// Tables of the named type T (TableConfig, ...) over a shared-memory segment, both returned
// mounted. The writer creates the segment `shmName` with room for `capacity` entries and
// removes it when the table goes; a reader maps a segment that a writer made, and fails with
// MountException (missing, other type, other layout) or Brio::CorruptionDetectedException.
template <class T>
Orb::Ptr<T> shmTableWriterNew(const std::string& name, const std::string& shmName,
                              std::uint32_t capacity, std::uint32_t ringSize = 0) {
   using Store = ShmStore<typename T::Key, typename T::Value>;
   auto table =
       Orb::ptrNew<T>(name, Store::writerNew(shmName, T::vaultTypeName, capacity, ringSize));
   table->mountedIs(true);
   return table;
}

template <class T>
Orb::Ptr<T> shmTableReaderNew(const std::string& name, const std::string& shmName) {
   using Store = ShmStore<typename T::Key, typename T::Value>;
   auto table = Orb::ptrNew<T>(name, Store::readerNew(shmName, T::vaultTypeName));
   table->mountedIs(true);
   return table;
}

// Segments owned by this group are served as well as the user's own (by default only the
// user's own are), and the segments this process makes are the group's and open to it, so that
// a host and publishers of different users in one group can share their tables.
inline void shmTrustedGroupIs(gid_t group) {
   Shm::trustedGroupIs(group);
}

// Removes the segments whose names start with `prefix` ("/root.") that a writer of this user
// left behind when it died; a live writer's segments and other users' stay. Returns how many
// went.
inline std::size_t shmStaleSegmentsRemove(const std::string& prefix) {
   return Shm::staleSegmentsRemove(prefix);
}

// How a shared table's segment is laid out, for sizing it and for benchmarks.
struct ShmFootprint {
   std::size_t mappedBytes;
   std::uint32_t capacity;
   std::uint32_t slotBytes;
   std::uint32_t indexCells;
   std::uint32_t ringSize;
};

template <class T>
ShmFootprint shmFootprint(T& table) {
   using Store = ShmStore<typename T::Key, typename T::Value>;
   auto* store = dynamic_cast<Store*>(&table.store());
   BRIO_ASSERT(store && "table is not kept in shared memory");
   const Shm::Segment& segment = store->segment();
   const Shm::Geometry& g = segment.geometry();
   return {segment.mappedSize(), g.capacity, g.slotSize, g.indexSize, g.ringSize};
}

}  // namespace Vault
