#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "Vault/detail/ShmLayout.h"

namespace Vault::Shm {

// Segments owned by this group, besides the user's own, are served too, and the segments this
// process makes belong to the group and are open to it.
void trustedGroupIs(gid_t group);
std::size_t staleSegmentsRemove(const std::string& prefix);

// One mapped table segment. The writer creates it and removes it when it goes; readers open
// it, after checking everything in its header that they will rely on.
class Segment {
 public:
   // Creates the segment `shmName` ("/name") for the writer. A segment left behind by a writer
   // that is gone is replaced; one whose writer still runs is not (MountException).
   static std::unique_ptr<Segment> create(const std::string& shmName, std::string_view typeName,
                                          std::uint32_t keySize, std::uint32_t valueSize,
                                          std::uint32_t capacity, std::uint32_t ringSize = 0);
   // Maps an existing segment for reading. A missing segment, another type name or another
   // layout is a MountException; contents that do not hold together (magic, checksum, sizes)
   // are a Brio::CorruptionDetectedException.
   static std::unique_ptr<Segment> open(const std::string& shmName, std::string_view typeName,
                                        std::uint32_t keySize, std::uint32_t valueSize);
   Segment(const Segment&) = delete;
   Segment& operator=(const Segment&) = delete;
   ~Segment();

   const std::string& shmName() const { return shmName_; }
   bool owner() const { return owner_; }
   // The geometry as checked when the segment was mapped; never re-read from the segment.
   const Geometry& geometry() const { return geometry_; }
   std::size_t mappedSize() const { return mappedSize_; }

   Header& header() const { return *reinterpret_cast<Header*>(base_); }
   SlotHeader& slot(std::uint32_t slot) const {
      return *reinterpret_cast<SlotHeader*>(base_ + geometry_.slotsOffset +
                                            std::uint64_t(slot) * geometry_.slotSize);
   }
   unsigned char* slotKey(std::uint32_t slot) const {
      return reinterpret_cast<unsigned char*>(&this->slot(slot)) + sizeof(SlotHeader);
   }
   unsigned char* slotValue(std::uint32_t slot) const {
      return slotKey(slot) + roundUp(geometry_.keySize, 8);
   }
   std::atomic<std::uint64_t>& cell(std::uint64_t i) const {
      return reinterpret_cast<std::atomic<std::uint64_t>*>(
          base_ + geometry_.indexOffset)[i & (geometry_.indexSize - 1)];
   }
   RingHeader& ringEntry(std::uint64_t position) const {
      return *reinterpret_cast<RingHeader*>(base_ + geometry_.ringOffset +
                                            (position & (geometry_.ringSize - 1)) *
                                                geometry_.ringEntrySize);
   }
   unsigned char* ringKey(std::uint64_t position) const {
      return reinterpret_cast<unsigned char*>(&ringEntry(position)) + sizeof(RingHeader);
   }
   Waiter& waiter(std::uint32_t i) const {
      return reinterpret_cast<Waiter*>(base_ + geometry_.waitersOffset)[i];
   }

   // The segment shrank under this mapping and the memory behind it is gone: what is mapped
   // now is private zeros, so that no access faults, and none of it may be trusted. Stores
   // check it after every operation.
   bool lost() const;

   // Pages in the slots below `slots` ahead of their use, and a little beyond.
   void slotsPopulate(std::uint32_t slots) {
      if (slots >= populatedSlots_) slotsPopulateMore(slots);
   }

   bool writerAlive() const;
   // Writer: removes the segment's name, so that no reader can map it any more and a new
   // writer may create it afresh. Whoever mapped it keeps the memory.
   void unlink();

   // Writer: wakes the readers that armed themselves since the last poke.
   void waitersPoke();

 private:
   Segment(std::string shmName, unsigned char* base, std::size_t mappedSize, Geometry geometry,
           bool owner, int guard);
   void populate(std::uint64_t from, std::uint64_t to) const;
   void slotsPopulateMore(std::uint32_t slots);

   std::string shmName_;
   unsigned char* base_;
   std::size_t mappedSize_;
   Geometry geometry_;
   bool owner_;
   bool linked_;
   int pokeFd_ = -1;
   int guard_;
   std::uint32_t populatedSlots_ = 0;
   // The writer's file, by device and inode, so that it never removes another one of its name.
   std::pair<std::uint64_t, std::uint64_t> file_;
};

// A reader's doorbell: a datagram socket whose name it leaves in one of the segment's waiter
// places. Readable when the writer rang it (or, when every place was taken, on a short
// period, so the reader polls instead).
class Doorbell {
 public:
   explicit Doorbell(Segment& segment);
   Doorbell(const Doorbell&) = delete;
   Doorbell& operator=(const Doorbell&) = delete;
   ~Doorbell();

   int fd() const { return fd_; }
   bool polling() const { return waiter_ < 0; }
   // Empties the socket so the descriptor is quiet until the next ring.
   void drain();
   // Asks the writer to ring after its next change. Seq-cst, paired with the writer's
   // ring-head store, so that a change made while arming is never missed.
   void arm();
   // Makes the descriptor readable again, for a reader that stopped before it was done.
   void ringSelf();

 private:
   Segment& segment_;
   int fd_ = -1;
   int waiter_ = -1;
   std::string name_;
};

}  // namespace Vault::Shm
