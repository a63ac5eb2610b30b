#pragma once

// The format of a table's shared-memory segment.
//
//   header | slots | index | ring | waiters
//
// The header's first part is written once, when the writer creates the segment, and is
// covered by a checksum; the magic is stored last, so a reader never trusts a half-made header.
// Its second part holds the few counters that change. Readers copy the geometry out of the
// header when they map the segment and never look at it again, so a header rewritten later
// cannot lead them out of bounds.
//
// Slot: a sequence number (odd while the writer is in the middle of changing the slot), a
// live flag, a checksum over flag, key and value, then the key and the value.
// Index: open addressing over U64 cells. The low half is 0 for an empty cell, all ones for a
// deleted one, else slot + 1; the high half holds the upper half of the key's hash, so that a
// probe reads only the slots that are likely to hold the key.
// The writer hands out slots from the bottom up, so the slots in use sit below slotsUsed.
// Ring: the keys of the last changes; cell p % ringSize holds change p, tagged p + 1.
// Waiters: readers that sleep in an event loop leave the name of a datagram socket here; the
// writer pokes the armed ones after a change.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

namespace Vault::Shm {

inline constexpr std::uint64_t magic = 0x315447455354564bULL;
inline constexpr std::uint32_t layoutVersion = 3;
inline constexpr std::size_t typeNameSize = 96;
inline constexpr std::uint32_t maxWaiters = 64;
inline constexpr std::size_t waiterNameSize = 108;
inline constexpr std::uint32_t emptyCell = 0;
inline constexpr std::uint32_t deletedCell = 0xFFFFFFFFu;

constexpr std::uint32_t cellSlot(std::uint64_t cell) {
   return static_cast<std::uint32_t>(cell);
}
constexpr std::uint32_t cellTag(std::uint64_t cell) {
   return static_cast<std::uint32_t>(cell >> 32);
}
constexpr std::uint64_t cellOf(std::uint32_t tag, std::uint32_t slot) {
   return std::uint64_t(tag) << 32 | (slot + 1);
}
inline constexpr std::uint32_t maxCapacity = 1u << 28;
inline constexpr std::uint32_t minRingSize = 16;
inline constexpr std::uint32_t maxRingSize = 1u << 22;

struct Geometry {
   std::uint32_t keySize = 0;
   std::uint32_t valueSize = 0;
   std::uint32_t capacity = 0;
   std::uint32_t slotSize = 0;
   std::uint32_t indexSize = 0;
   std::uint32_t ringSize = 0;
   std::uint32_t ringEntrySize = 0;
   std::uint32_t waiterCount = 0;
   std::uint64_t slotsOffset = 0;
   std::uint64_t indexOffset = 0;
   std::uint64_t ringOffset = 0;
   std::uint64_t waitersOffset = 0;
   std::uint64_t totalSize = 0;
   bool operator==(const Geometry&) const = default;
};

struct alignas(64) Header {
   std::uint64_t magic;
   std::uint32_t layoutVersion;
   std::uint32_t headerSize;
   char typeName[typeNameSize];
   Geometry geometry;
   std::uint64_t checksum;  // over everything above but the magic

   alignas(64) std::atomic<std::uint32_t> writerPid;
   std::atomic<std::uint32_t> count;
   std::atomic<std::uint32_t> indexSeq;  // odd while the writer rebuilds the index
   // Slots at and above this one were never written; readers scan no further, so that a
   // large, sparsely used segment is not paged in.
   std::atomic<std::uint32_t> slotsUsed;
   alignas(64) std::atomic<std::uint64_t> ringHead;
   alignas(64) std::atomic<std::uint64_t> armedMask;
};

struct SlotHeader {
   std::atomic<std::uint32_t> seq;
   std::uint32_t live;
   std::uint64_t checksum;
};

struct RingHeader {
   std::atomic<std::uint64_t> tag;
};

struct Waiter {
   std::atomic<std::uint32_t> claimed;
   std::uint32_t pid;
   char name[waiterNameSize];
};

static_assert(std::atomic<std::uint32_t>::is_always_lock_free);
static_assert(std::atomic<std::uint64_t>::is_always_lock_free);
static_assert(sizeof(SlotHeader) == 16);

constexpr std::uint64_t roundUp(std::uint64_t n, std::uint64_t to) {
   return (n + to - 1) / to * to;
}

// The ring that a table of this capacity gets unless its creator asks otherwise.
std::uint32_t defaultRingSize(std::uint32_t capacity);

// The one layout that fits these sizes; nullopt when they are out of range.
std::optional<Geometry> geometryFor(std::uint32_t keySize, std::uint32_t valueSize,
                                    std::uint32_t capacity, std::uint32_t ringSize);

struct FletcherSums {
   std::uint64_t a;
   std::uint64_t b;

   [[gnu::always_inline]] void add(const void* bytes, std::size_t size) {
      const auto* p = static_cast<const unsigned char*>(bytes);
      std::size_t i = 0;
      for (; i + 8 <= size; i += 8) {
         std::uint64_t word;
         std::memcpy(&word, p + i, 8);
         a += word;
         b += a;
      }
      if (i < size) {
         std::uint64_t word = 0;
         std::memcpy(&word, p + i, size - i);
         a += word;
         b += a;
      }
   }
};

// Fletcher's sums over 64-bit words: every word counts, and so does its place, at an add or
// two per word, since readers check a record on every lookup. Each of the two ranges is summed
// word by word, its last word padded with zeros. The seed keeps an all-zero record from
// checking out.
[[gnu::always_inline]] inline std::uint64_t checksum(const void* first, std::size_t firstSize,
                                                     const void* second, std::size_t secondSize,
                                                     std::uint64_t seed) {
   FletcherSums sums{seed ^ 0x243F6A8885A308D3ULL, firstSize + secondSize};
   sums.add(first, firstSize);
   sums.add(second, secondSize);
   std::uint64_t h = (sums.a ^ (sums.b << 32 | sums.b >> 32)) * 0x9E3779B97F4A7C15ULL;
   return h ^ (h >> 31);
}

inline std::uint64_t checksum(const void* bytes, std::size_t size, std::uint64_t seed) {
   return checksum(bytes, 0, bytes, size, seed);
}

std::uint64_t headerChecksum(const Header& header);

// The hash of a stored key, from its bytes.
inline std::uint64_t keyHash(const void* bytes, std::size_t size) {
   std::uint64_t h = 0x9E3779B97F4A7C15ULL ^ size;
   const auto* p = static_cast<const unsigned char*>(bytes);
   std::size_t i = 0;
   for (; i + 8 <= size; i += 8) {
      std::uint64_t word;
      std::memcpy(&word, p + i, 8);
      h = (h ^ word) * 0xff51afd7ed558ccdULL;
      h ^= h >> 32;
   }
   if (i < size) {
      std::uint64_t word = 0;
      std::memcpy(&word, p + i, size - i);
      h = (h ^ word) * 0xff51afd7ed558ccdULL;
   }
   h ^= h >> 29;
   h *= 0xc4ceb9fe1a85ec53ULL;
   h ^= h >> 32;
   return h;
}

}  // namespace Vault::Shm
