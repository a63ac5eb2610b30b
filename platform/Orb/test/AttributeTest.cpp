#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "Orb/Orb.h"

namespace {

// What the notify callbacks were told, in order.
struct Told {
   auto plain() {
      return [this] { seen.push_back("changed"); };
   }
   auto keyed() {
      return [this](const auto& key) { seen.push_back(std::to_string(key)); };
   }
   std::vector<std::string> seen;
};

TEST(OrbAttribute, CounterTellsOnlyChanges) {
   Told told;
   Orb::Counter<std::uint8_t> counter(254);
   counter.is(254, told.plain());
   counter.inc(0, told.plain());
   counter.inc(1, told.plain());
   counter.inc(1, told.plain());  // wraps as its type does
   EXPECT_EQ(counter(), 0u);
   EXPECT_EQ(told.seen.size(), 2u);
}

TEST(OrbCollection, TellsKeysAndRefusesNull) {
   Told told;
   Orb::Collection<int, std::shared_ptr<int>> coll("x", "NS::Class");
   try {
      coll.is(1, nullptr, told.keyed());
      FAIL() << "a null value was accepted";
   } catch (const Brio::RangeException& e) {
      EXPECT_STREQ(e.what(), "null _x parameter to mutator for NS::Class::x not allowed");
   }
   auto one = std::make_shared<int>(1);
   coll.is(1, one, told.keyed());
   coll.is(1, one, told.keyed());
   coll.is(2, std::make_shared<int>(2), told.keyed());
   EXPECT_EQ(coll(3), nullptr);

   coll.del(5, told.keyed());
   coll.delAll(told.keyed());
   EXPECT_TRUE(coll.empty());
   EXPECT_EQ(told.seen, (std::vector<std::string>{"1", "2", "1", "2"}));
}

TEST(OrbLinkQueueAttribute, TellsTheIndexOfEachChange) {
   Told told;
   Orb::LinkQueueAttribute<int> queue;
   EXPECT_EQ(queue.deq(told.keyed()), 0);
   queue.enq(10, told.keyed());
   queue.is(4, 40, told.keyed());
   queue.del(3, told.keyed());
   queue.del(0, told.keyed());
   queue.enq(50, told.keyed());
   queue.delAll(told.keyed());
   EXPECT_EQ(told.seen, (std::vector<std::string>{"0", "4", "0", "5", "4", "5"}));
}

}  // namespace
