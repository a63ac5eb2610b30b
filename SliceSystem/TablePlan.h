#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "SliceSystem/Routes.h"
#include "Vault/MbbEngine/EntryConfig.h"

namespace SliceSystem {

// A table the publisher fills: where it is in the chip and how many entries it gets.
struct TableSpec {
   std::string name;
   std::uint32_t tableId = 0;
   // Indices of the table in the chip.
   std::uint32_t size = 0;
   // ATCAM partitions of the chip's table; 0 for an ordinary table.
   std::uint32_t partitions = 0;
   std::uint32_t numEntries = 0;
};

// What a publisher does to an entry. A swap exchanges two entries' indices, a replace gives an
// entry a new handle at its own index; both leave the engine a cycle to break.
enum class ChangeKind : std::uint8_t { add, modify, move, swap, replace, del, readd };
constexpr std::size_t numChangeKinds = 7;
const char* changeKindName(ChangeKind kind);

struct ChangeCounts {
   std::array<std::uint64_t, numChangeKinds> count{};

   void add(ChangeKind kind) { ++count[static_cast<std::size_t>(kind)]; }
   std::uint64_t total() const;
   // "modify 40, move 20, ..." leaving out kinds that did not happen.
   std::string text() const;
   ChangeCounts& operator+=(const ChangeCounts& other);
};

// Operation ids of one publisher: every configuration it writes gets the next one.
class OpIdSource {
 public:
   explicit OpIdSource(std::uint64_t first = 1) : next_(first) {}
   std::uint64_t operator()() { return next_++; }

 private:
   std::uint64_t next_;
};

// The entries a publisher keeps in one table and the changes it makes to them. Each entry is
// a route with a next hop, programmed under a handle at an index; an ATCAM entry stays in its
// partition (its priority group) for life. Handles are never reused, and a change takes only
// indices that no configuration holds, so every configuration the plan writes is one the chip
// can take once the engine has ordered it.
class TablePlan {
 public:
   // The free indices of one partition, handed out in a seeded random order. Those never taken
   // come from a permutation of the partition's range, computed as they are needed, so that a
   // large table costs nothing for the indices it does not use; those given back go on a list.
   class IndexPool {
    public:
      IndexPool(std::uint32_t first, std::uint32_t size, std::uint64_t seed);
      bool empty() const { return next_ >= size_ && freed_.empty(); }
      // False when none is left; never the default entry's index.
      bool take(std::uint32_t& index);
      void give(std::uint32_t index) { freed_.push_back(index); }

    private:
      std::uint32_t permuted(std::uint32_t i) const;

      std::uint32_t first_;
      std::uint32_t size_;
      std::uint32_t next_ = 0;
      std::uint64_t domainMask_;
      std::uint64_t seed_;
      std::vector<std::uint32_t> freed_;
   };

   struct Entry {
      Route route;
      std::uint64_t key = 0;
      std::uint32_t handle = 0;
      std::uint32_t index = 0;
      std::uint32_t partition = 0;
      std::uint16_t nextHop = 0;
      std::uint64_t opId = 0;
      bool live = false;
   };
   struct Change {
      std::uint32_t entry;
      ChangeKind kind;
   };

   // Takes at most spec.numEntries routes (fewer if the table has fewer indices).
   TablePlan(TableSpec spec, const std::vector<Route>& routes, std::uint64_t seed);

   const TableSpec& spec() const { return spec_; }
   const std::vector<Entry>& entries() const { return entries_; }
   std::size_t numLive() const { return numLive_; }

   // The configuration of an entry as the plan stands; the empty one for a deleted entry.
   Vault::MbbEngine::EntryConfig config(std::size_t i) const;
   // The op id its status must show once the hardware has it: 0 (no status) when deleted.
   std::uint64_t expectedOpId(std::size_t i) const {
      return entries_[i].live ? entries_[i].opId : 0;
   }

   // Every entry, added.
   std::vector<Change> initial(OpIdSource& opIds);
   // Changes about `fraction` of the live entries: modify 40%, move 20%, swap 10%, replace 10%,
   // delete 20%. Each entry changes at most once.
   std::vector<Change> churn(double fraction, OpIdSource& opIds);
   // Every deleted entry, back with a new handle at a free index.
   std::vector<Change> readd(OpIdSource& opIds);

 private:
   std::uint32_t partitionSize() const;
   std::uint32_t partitionOf(std::uint64_t key) const;
   bool indexTake(std::uint32_t& partition, std::uint32_t& index);
   void indexFree(const Entry& entry);
   void change(std::vector<Change>& out, std::uint32_t i, ChangeKind kind, OpIdSource& opIds);

   TableSpec spec_;
   std::vector<Entry> entries_;
   std::vector<IndexPool> freeIndices_;
   std::uint32_t nextHandle_ = 1;
   std::size_t numLive_ = 0;
   std::mt19937_64 random_;
};

}  // namespace SliceSystem
