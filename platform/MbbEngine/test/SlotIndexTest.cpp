#include <gtest/gtest.h>

#include <random>
#include <unordered_map>
#include <vector>

#include "MbbEngine/detail/SlotIndex.h"

namespace {

struct Record {
   std::uint64_t key = 0;
   bool live = false;
};

struct ByKey {
   const std::vector<Record>* records;
   std::uint64_t operator()(std::uint32_t r) const { return (*records)[r].key; }
   // A poor hash on purpose: long runs and wrap-around exercise the shift-back on erase.
   static std::uint32_t hash(std::uint64_t key) { return static_cast<std::uint32_t>(key % 7); }
};

// The index must agree with a reference map through any mix of inserts and erases, including
// colliding runs that wrap around the end of the slot array.
TEST(SlotIndex, AgreesWithAMapThroughChurn) {
   std::vector<Record> records(4000);
   MbbEngine::SlotIndex<ByKey> index(ByKey{&records});
   std::unordered_map<std::uint64_t, std::uint32_t> reference;
   std::mt19937 rng(7);
   for (int step = 0; step < 40000; ++step) {
      const auto r = static_cast<std::uint32_t>(rng() % records.size());
      if (!records[r].live) {
         records[r].key = rng() % 100000;
         if (reference.count(records[r].key)) continue;
         records[r].live = true;
         index.insert(r);
         reference[records[r].key] = r;
      } else {
         EXPECT_EQ(index.erase(records[r].key), r);
         reference.erase(records[r].key);
         records[r].live = false;
      }
      if (step % 1000 == 0) {
         for (const auto& [key, record] : reference) ASSERT_EQ(index.find(key), record);
      }
   }
   EXPECT_EQ(index.erase(100001), index.none);
   std::size_t visited = 0;
   index.forEach([&](std::uint32_t r) {
      EXPECT_TRUE(records[r].live);
      ++visited;
   });
   EXPECT_EQ(visited, reference.size());
}

}  // namespace
