#include <gtest/gtest.h>

#include "ChipMbbSliceMatAdtSelSm/test/EngineTestUtil.h"

// The state machine's lifecycle: first passes over tables filled before it starts, the flush
// status, passes after a reader fell behind, and clean-up.

namespace ChipMbbSlice::Test {
namespace {

constexpr EntryKey grp = 0x10;
constexpr EntryKey nh = 0xA1;
constexpr EntryKey route = 0x5;
const SelMbrEntryKey member(grp, 0, 0);

class MatAdtSelSmTest : public ::testing::Test {
 protected:
   void fill() {
      w.adtIs(nh, 1, 0x100);
      w.grpIs(grp, 1, 0x1000, 1, 0);
      w.mbrIs(member, 1, nh, true);
      w.routeIs(route, 1, 0x1, 0, grp, 1, 0);
   }

   Testing::TripleWorld w;
   OpLog log;
};

TEST_F(MatAdtSelSmTest, FirstPassesProgramPrefilledTablesAndCountEachTableOnce) {
   fill();
   w.start();
   EXPECT_EQ(opIdOf(w.matStatus, route), OpId(1));
   EXPECT_EQ(opIdOf(w.adtStatus, nh), OpId(1));
   EXPECT_EQ(opIdOf(w.grpStatus, grp), OpId(1));
   EXPECT_EQ(opIdOf(w.mbrStatus, member), OpId(1));
   EXPECT_EQ(w.flushStatus->tableCounter(), 4);
   EXPECT_EQ(w.flushStatus->flushCounter(), 4);
   w.sm->handleMatAdtSelEntryCollNotify();
   EXPECT_EQ(w.flushStatus->flushCounter(), 4) << "a second pass does not count";
}

TEST_F(MatAdtSelSmTest, PassesAfterAReaderFellBehindTakeOutWhatWasDeletedMeanwhile) {
   fill();
   w.start();
   w.sm->hasNotificationActiveIs(false);
   w.matConfig->entryDel(route);
   w.mbrConfig->entryDel(member);
   w.grpConfig->entryDel(grp);
   w.adtConfig->entryDel(nh);
   EXPECT_FALSE(w.chipEmpty()) << "nobody was told";
   w.sm->hasNotificationActiveIs(true);
   EXPECT_TRUE(w.chipEmpty());
   EXPECT_TRUE(w.impl->currentAdts().empty() && w.impl->currentSelGrps().empty());
   EXPECT_EQ(w.matStatus->size() + w.adtStatus->size() + w.grpStatus->size() + w.mbrStatus->size(),
             0u);
}

TEST_F(MatAdtSelSmTest, CleanupTakesRoutesThenMembersThenAdtEntriesOut) {
   fill();
   w.start();
   log.notifierIs(w.helper.get());
   w.sm.reset();
   log.notifierIs(nullptr);
   EXPECT_EQ(log.ops, (std::vector<std::string>{"mat_del", "sel_del", "adt_del"}));
   EXPECT_TRUE(w.chipEmpty());
   EXPECT_EQ(w.grpStatus->size(), 0u);
}

}  // namespace
}  // namespace ChipMbbSlice::Test
