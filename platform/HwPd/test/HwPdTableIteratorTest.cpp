#include <vector>

#include <gtest/gtest.h>

#include "ChipSdk/test/ChipTestUtil.h"
#include "HwPd/HwPd.h"

namespace {

using namespace ChipTestUtil;
using HwPd::HwPdTableIterator;

class HwPdTableIteratorTest : public ::testing::Test {
 protected:
   void SetUp() override { ChipSdk::chipModelIs(testProfile()); }

   void add(std::uint32_t hdl, std::uint32_t index) {
      ASSERT_EQ(matAdd(routeHdl, hdl, index, plainBlock()), BF_SUCCESS);
   }
   void del(std::uint32_t hdl) {
      ASSERT_EQ(
          commit(routeHdl, [&](auto* info) { return p4_pd_set_one_plcmt_op_mat_del(info, hdl); }),
          BF_SUCCESS);
   }
   std::vector<std::uint32_t> rest(HwPdTableIterator& it) {
      std::vector<std::uint32_t> seen;
      for (; !it.end(); it.next()) seen.push_back(it.entryHdl());
      return seen;
   }

   std::shared_ptr<HwPd::HwPdIntf> hwPd = HwPd::modelHwPdNew();
};

TEST_F(HwPdTableIteratorTest, ReadsAheadInBatches) {
   HwPdTableIterator empty(hwPd, 1, 0, allPipes, routeHdl);
   EXPECT_TRUE(empty.end());
   empty.next();
   empty.flushCache();
   EXPECT_TRUE(empty.end());

   std::vector<std::uint32_t> want;
   for (std::uint32_t i = 0; i < 50; ++i) {
      add(1000 - 7 * i, i);  // added in descending handle order, walked ascending
      want.insert(want.begin(), 1000 - 7 * i);
   }
   HwPdTableIterator it(hwPd, 1, 0, allPipes, routeHdl, 16);
   EXPECT_EQ(rest(it), want);
   // 16 + 16 + 16 + 2 handles, and the read that found none.
   EXPECT_EQ(it.numSdkReads(), 5u);

   HwPdTableIterator otherPipe(hwPd, 1, 1, 1, routeHdl);  // device 1 has its own tables
   EXPECT_TRUE(otherPipe.end());
}

TEST_F(HwPdTableIteratorTest, FlushCacheSeesTheChipAsItIsNow) {
   for (std::uint32_t hdl : {10u, 20u, 30u, 40u}) add(hdl, hdl);
   HwPdTableIterator it(hwPd, 1, 0, allPipes, routeHdl);
   ASSERT_EQ(it.entryHdl(), 10u);

   // Read ahead, the walk does not see changes behind its cache...
   add(15, 15);
   del(30);
   it.next();
   EXPECT_EQ(it.entryHdl(), 20u);
   it.next();
   EXPECT_EQ(it.entryHdl(), 30u);

   // ...until the cache is dropped: the walk goes on after where it stands.
   add(35, 35);
   it.flushCache();
   EXPECT_EQ(it.entryHdl(), 30u);
   std::uint64_t reads = it.numSdkReads();
   EXPECT_EQ(rest(it), (std::vector<std::uint32_t>{30, 35, 40}));
   EXPECT_EQ(it.numSdkReads(), reads + 2);

   HwPdTableIterator again(hwPd, 1, 0, allPipes, routeHdl);
   EXPECT_EQ(rest(again), (std::vector<std::uint32_t>{10, 15, 20, 35, 40}));
}

}  // namespace
