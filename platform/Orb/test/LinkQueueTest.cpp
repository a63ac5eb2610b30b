#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "Orb/Orb.h"

namespace {

TEST(OrbLinkQueue, FifoWithGrowingIndices) {
   Orb::LinkQueue<int> q;
   EXPECT_EQ(q.deq(), 0);  // empty reads as the empty value
   EXPECT_EQ(q.enq(10), 0u);
   EXPECT_EQ(q.enq(11), 1u);
   EXPECT_EQ(q.enq(12), 2u);
   EXPECT_EQ(q.at(7), 0);
   EXPECT_TRUE(q.del(1));
   EXPECT_FALSE(q.del(1));
   EXPECT_EQ(q.deq(), 10);
   EXPECT_EQ(q.deq(), 12);
   EXPECT_TRUE(q.empty());
   // Drained: the next index is above every index handed out before.
   EXPECT_EQ(q.enq(13), 3u);

   q.is(9, 90);  // insert past the tail moves the next index along
   q.is(5, 50);  // and in the middle keeps index order
   EXPECT_EQ(q.enq(14), 10u);
   std::vector<std::uint32_t> order;
   for (const auto& [index, value] : q) order.push_back(index);
   EXPECT_EQ(order, (std::vector<std::uint32_t>{3, 5, 9, 10}));
   q.delAll();
   EXPECT_TRUE(q.empty());
   EXPECT_EQ(q.metadata(), (Orb::LinkQueueMetadata{11, 11}));
}

TEST(OrbLinkQueue, LongQueuesKeepOrderAndIndicesAcrossTakes) {
   // Taken elements are dropped in bulk now and then; nothing seen from outside may move.
   Orb::LinkQueue<int> q;
   for (int i = 0; i < 300; ++i) q.enq(i);
   for (int i = 0; i < 250; ++i) ASSERT_EQ(q.deq(), i);
   EXPECT_EQ(q.metadata(), (Orb::LinkQueueMetadata{250, 300}));
   EXPECT_EQ(q.at(260), 260);
   EXPECT_TRUE(q.del(260));
   q.is(260, -260);
   q.is(400, 400);
   for (int i = 0; i < 20; ++i) q.enq(1000 + i);
   std::vector<std::uint32_t> indices;
   for (const auto& [index, value] : q) indices.push_back(index);
   ASSERT_EQ(indices.size(), 71u);
   EXPECT_EQ(indices[50], 400u);
   EXPECT_TRUE(std::is_sorted(indices.begin(), indices.end()));
   EXPECT_EQ(q.at(260), -260);
   int last = 0;
   while (!q.empty()) last = q.deq();
   EXPECT_EQ(last, 1019);
   EXPECT_EQ(q.enq(7), 421u);
}

TEST(OrbLinkQueue, IndexSpaceFullRefusesAndChangesNothing) {
   Orb::LinkQueue<int> q;
   q.metadataIs({0xFFFFFFFE, 0xFFFFFFFE});
   EXPECT_EQ(q.enq(1), 0xFFFFFFFEu);
   EXPECT_EQ(q.enq(2), 0xFFFFFFFFu);
   EXPECT_EQ(q.enq(3), 0u);  // wraps and stays in order
   EXPECT_EQ(q.deq(), 1);

   Orb::LinkQueue<int> full;
   full.enq(1);                       // index 0 is the head
   full.metadataIs({0, 0xFFFFFFFF});  // the next index after this one would be the head's
   try {
      full.enq(2);
      FAIL();
   } catch (const Brio::RangeException& e) {
      EXPECT_STREQ(e.what(), "linkqueue index space full");
   }
   EXPECT_EQ(full.size(), 1u);
   EXPECT_EQ(full.metadata(), (Orb::LinkQueueMetadata{0, 0xFFFFFFFF}));
}

}  // namespace
