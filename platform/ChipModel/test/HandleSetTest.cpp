#include <random>
#include <set>
#include <vector>

#include <gtest/gtest.h>

#include "ChipModel/detail/HandleSet.h"
#include "ChipModel/detail/OpenMap.h"

namespace {

using ChipModel::HandleSet;
using ChipModel::OpenMap;

// Walks both in steps of `step` handles from the start and compares.
void expectSameWalk(const HandleSet& set, const std::set<std::uint32_t>& reference,
                    std::size_t step) {
   std::vector<std::uint32_t> walked;
   std::uint32_t after = 0;
   for (;;) {
      std::vector<std::uint32_t> chunk;
      if (set.next(after, step, chunk) == 0) break;
      walked.insert(walked.end(), chunk.begin(), chunk.end());
      after = chunk.back();
   }
   EXPECT_EQ(walked, std::vector<std::uint32_t>(reference.begin(), reference.end()));
}

TEST(HandleSet, WalksInOrderLikeAnOrderedSet) {
   HandleSet set;
   std::set<std::uint32_t> reference;
   std::mt19937 random(7);
   // Dense runs, page edges and sparse outliers, added and removed at random.
   std::vector<std::uint32_t> pool;
   for (std::uint32_t h = 1; h < 3000; ++h) pool.push_back(h);
   for (std::uint32_t h : {1023u, 1024u, 1025u, 0x7FFFFu, 0xFFFFFFFEu, 0x80000000u}) {
      pool.push_back(h);
   }
   for (int round = 0; round < 20000; ++round) {
      std::uint32_t h = pool[random() % pool.size()];
      if (random() % 3 == 0) {
         set.erase(h);
         reference.erase(h);
      } else {
         set.insert(h);
         reference.insert(h);
      }
   }
   EXPECT_EQ(set.size(), reference.size());
   expectSameWalk(set, reference, 1);
   expectSameWalk(set, reference, 64);
   for (std::uint32_t h : pool) EXPECT_EQ(set.contains(h), reference.count(h) == 1) << h;

   std::vector<std::uint32_t> out;
   EXPECT_EQ(set.next(0xFFFFFFFF, 10, out), 0u);
   for (std::uint32_t h : std::set<std::uint32_t>(reference)) set.erase(h);
   EXPECT_EQ(set.size(), 0u);
   EXPECT_EQ(set.next(0, 10, out), 0u);
}

TEST(OpenMap, KeepsEveryKeyThroughGrowthAndErase) {
   OpenMap<std::uint64_t> map;
   for (std::uint64_t k = 1; k <= 5000; ++k)
      map.insert(k * 0x100000001ull, static_cast<std::uint32_t>(k));
   for (std::uint64_t k = 1; k <= 5000; k += 2) EXPECT_TRUE(map.erase(k * 0x100000001ull));
   EXPECT_FALSE(map.erase(3 * 0x100000001ull));
   EXPECT_EQ(map.size(), 2500u);
   for (std::uint64_t k = 1; k <= 5000; ++k) {
      std::uint32_t want = k % 2 ? OpenMap<std::uint64_t>::absent : static_cast<std::uint32_t>(k);
      EXPECT_EQ(map.find(k * 0x100000001ull), want) << k;
   }
   map.assign(2 * 0x100000001ull, 99);
   EXPECT_EQ(map.find(2 * 0x100000001ull), 99u);
}

}  // namespace
