#include <gtest/gtest.h>

#include <sstream>

#include "FlashLog/CaptureSink.h"
#include "MbbEngine/test/RecordingHelper.h"

namespace {

using MbbEngine::PendingReason;
using MbbEngine::Test::EngineFixture;
using MbbEngine::Test::Op;
using Ops = std::vector<Op>;
constexpr std::uint32_t dflt = Vault::MbbEngine::EntryConfig::defaultEntryIndex;

TEST(FastMbbEngineImpl, IssuesEachKindOfChangeAndWritesStatusAfterIt) {
   EngineFixture<> f;
   f.publish(1, 10, 0x100, 5);
   EXPECT_EQ(f.helper->take(), (Ops{{"add", 1, 0x100, 5, 10}}));
   EXPECT_EQ(f.statusOf(1), 10u);
   f.publish(1, 11, 0x100, 5, 0, 7);
   EXPECT_EQ(f.helper->take(), (Ops{{"upd", 1, 0x100, 5, 11}}));
   f.publish(1, 12, 0x100, 6);
   EXPECT_EQ(f.helper->take(), (Ops{{"mov", 1, 0x100, 6, 12}}));

   // Older and equal op ids issue nothing and leave the status alone.
   f.publish(1, 9, 0x200, 9);
   f.publish(1, 12, 0x100, 7);
   EXPECT_TRUE(f.helper->take().empty());
   EXPECT_EQ(f.statusOf(1), 12u);

   // A new handle at a new index: the new entry goes in before the old one goes.
   f.publish(1, 13, 0x300, 8);
   EXPECT_EQ(f.helper->take(), (Ops{{"add", 1, 0x300, 8, 13}, {"del", 1, 0x100, 6, 13}}));

   // A new handle at the same index: the old entry is in the way and goes first.
   f.publish(1, 14, 0x400, 8);
   EXPECT_EQ(f.helper->take(), (Ops{{"delDeadlock", 1, 0x300, 8, 13}, {"add", 1, 0x400, 8, 14}}));

   // Removal from the configuration removes the entry and the status.
   f.config->entryDel(1);
   EXPECT_EQ(f.helper->take(), (Ops{{"del", 1, 0x400, 8, 14}}));
   EXPECT_FALSE(f.status->present(1));
}

TEST(FastMbbEngineImpl, DeletionsAreAcknowledgedWithTheirOpId) {
   EngineFixture<> f;
   f.publish(1, 10, 0x100, 5);
   f.helper->take();
   f.config->entryIs(Vault::MbbEngine::EntryConfig::deletion(1, 11));
   EXPECT_EQ(f.helper->take(), (Ops{{"del", 1, 0x100, 5, 11}}));
   EXPECT_EQ(f.statusOf(1), 11u);
   // A deletion of a key that has nothing in hardware is acknowledged without an operation.
   f.config->entryIs(Vault::MbbEngine::EntryConfig::deletion(2, 3));
   EXPECT_TRUE(f.helper->take().empty());
   EXPECT_EQ(f.status->entry(2).opId(), Vault::MbbEngine::delAckOpId);
   // An older deletion does not take out a newer entry.
   f.publish(3, 20, 0x300, 7);
   f.helper->take();
   f.config->entryIs(Vault::MbbEngine::EntryConfig::deletion(3, 19));
   EXPECT_TRUE(f.helper->take().empty());
   EXPECT_EQ(f.statusOf(3), 20u);
}

TEST(FastMbbEngineImpl, KeysWaitForAHeldIndexInArrivalOrder) {
   EngineFixture<> f;
   f.publish(1, 1, 0x100, 5);
   f.helper->take();
   f.publish(2, 1, 0x200, 5);
   f.publish(3, 1, 0x300, 5);
   EXPECT_TRUE(f.helper->take().empty());
   ASSERT_EQ(f.impl->numPending(), 2u);
   const auto first = *f.impl->pendingEntry(2);
   const auto second = *f.impl->pendingEntry(3);
   EXPECT_EQ(first.reason, PendingReason::index);
   EXPECT_LT(first.ti, second.ti);

   // Offering a waiting key again keeps its place.
   f.sm->handleEntry(2);
   EXPECT_EQ(f.impl->pendingEntry(2)->ti, first.ti);

   // The index frees: the earlier change gets it, the later one now waits for it.
   f.publish(1, 2, 0x100, 6);
   EXPECT_EQ(f.helper->take(), (Ops{{"mov", 1, 0x100, 6, 2}, {"add", 2, 0x200, 5, 1}}));
   std::ostringstream dump;
   f.impl->dumpPending(dump);
   EXPECT_NE(dump.str().find("reason: index index: 0x5"), std::string::npos) << dump.str();

   f.config->entryDel(2);
   EXPECT_EQ(f.helper->take(), (Ops{{"del", 2, 0x200, 5, 1}, {"add", 3, 0x300, 5, 1}}));
}

// A rotation of indices and a swap of handles: each change waits for the next, and the
// deadlock is broken once, at the key whose change closed it.
TEST(FastMbbEngineImpl, ACycleIsBrokenOnceAtOneKey) {
   EngineFixture<> f;
   for (std::uint64_t k = 1; k <= 3; ++k) f.publish(k, 1, 0x100 + k, k);
   f.helper->take();
   f.publish(1, 2, 0x101, 2);
   f.publish(2, 2, 0x102, 3);
   EXPECT_TRUE(f.helper->take().empty());
   f.publish(3, 2, 0x103, 1);
   EXPECT_EQ(f.helper->take(), (Ops{{"delDeadlock", 3, 0x103, 3, 1},
                                    {"mov", 2, 0x102, 3, 2},
                                    {"mov", 1, 0x101, 2, 2},
                                    {"add", 3, 0x103, 1, 2}}));

   f.publish(1, 3, 0x102, 4);
   EXPECT_EQ(f.impl->pendingEntry(1)->reason, PendingReason::handle);
   f.publish(2, 3, 0x101, 5);
   EXPECT_EQ(f.helper->take(), (Ops{{"delDeadlock", 2, 0x102, 3, 2},
                                    {"add", 1, 0x102, 4, 3},
                                    {"del", 1, 0x101, 2, 3},
                                    {"add", 2, 0x101, 5, 3}}));
}

TEST(FastMbbEngineImpl, DefaultEntryChangesThatCannotMoveDeleteFirst) {
   EngineFixture<> f;
   f.publish(1, 1, 0x100, dflt);
   EXPECT_EQ(f.helper->take(), (Ops{{"add", 1, 0x100, dflt, 1}}));
   f.publish(1, 2, 0x100, dflt, 0, 3);
   EXPECT_EQ(f.helper->take(), (Ops{{"upd", 1, 0x100, dflt, 2}}));
   // A second key on the default entry waits like any other on a held index.
   f.publish(2, 1, 0x200, dflt);
   EXPECT_TRUE(f.helper->take().empty());
   // The default entry cannot move to an index with its handle.
   f.publish(1, 3, 0x100, 9);
   EXPECT_EQ(f.helper->take(), (Ops{{"delDeadlock", 1, 0x100, dflt, 2},
                                    {"add", 1, 0x100, 9, 3},
                                    {"add", 2, 0x200, dflt, 1}}));
}

TEST(FastMbbEngineImpl, ConfigurationThatCannotBeHonouredStaysPendingAndHarmsNothing) {
   DualLog::CaptureSink capture;
   capture.levelIs("MbbEngine", 3);
   EngineFixture<> f(1024);
   f.publish(1, 1, 0x100, 5);
   f.helper->take();
   // Out of the table: the key keeps what it has.
   f.publish(1, 2, 0x100, 2000);
   EXPECT_TRUE(f.helper->take().empty());
   EXPECT_EQ(f.impl->pendingEntry(1)->reason, PendingReason::badConfig);
   EXPECT_EQ(f.statusOf(1), 1u);
   ASSERT_EQ(capture.lines().size(), 1u);
   EXPECT_NE(capture.lines()[0].text.find("key 0x1 opId 0x0000000000000002 stays pending, cannot "
                                          "be placed: index out of the table"),
             std::string::npos)
       << capture.lines()[0].text;
   // Offered again it is not traced again.
   f.sm->handleEntry(1);
   EXPECT_EQ(capture.lines().size(), 1u);

   // No default entry on this table, more than one index, handle 0, and two keys configured
   // onto one index for ever.
   f.helper->hasDefaultEntryIs(false);
   f.publish(2, 1, 0x200, dflt);
   auto multi = f.entry(3, 1, 0x300, 7);
   multi.indexCountIs(2);
   f.config->entryIs(multi);
   f.publish(4, 1, 0, 8);
   f.publish(5, 1, 0x500, 5);
   EXPECT_TRUE(f.helper->take().empty());
   EXPECT_EQ(f.impl->numPending(), 5u);

   // A good configuration later takes the key out of pending.
   f.publish(1, 3, 0x100, 6);
   EXPECT_EQ(f.helper->take(), (Ops{{"mov", 1, 0x100, 6, 3}, {"add", 5, 0x500, 5, 1}}));
}

TEST(FastMbbEngineImpl, TableSizeLearnedLateKeepsTrackOfHeldIndices) {
   EngineFixture<> f(0);
   f.publish(1, 1, 0x100, 5);
   f.publish(2, 1, 0x200, dflt);
   f.publish(3, 1, 0x300, 5000);
   f.helper->take();
   f.helper->maxEntriesIs(64);
   // Index 5 and the default entry are still known to be held; 5000 is now out of the table.
   f.publish(4, 1, 0x400, 5);
   f.publish(5, 1, 0x500, dflt);
   f.publish(6, 1, 0x600, 6000);
   EXPECT_TRUE(f.helper->take().empty());
   EXPECT_EQ(f.impl->pendingEntry(4)->reason, PendingReason::index);
   EXPECT_EQ(f.impl->pendingEntry(5)->reason, PendingReason::index);
   EXPECT_EQ(f.impl->pendingEntry(6)->reason, PendingReason::badConfig);
   f.config->entryDel(3);
   f.publish(1, 2, 0x100, 7);
   EXPECT_EQ(f.helper->take(),
             (Ops{{"del", 3, 0x300, 5000, 1}, {"mov", 1, 0x100, 7, 2}, {"add", 4, 0x400, 5, 1}}));
   // Unknown again: every index is hashed, and still found; waits carry over both ways.
   f.publish(8, 1, 0x800, 5);
   f.helper->maxEntriesIs(0);
   f.publish(7, 1, 0x700, 7);
   EXPECT_EQ(f.impl->pendingEntry(7)->reason, PendingReason::index);
   f.config->entryDel(4);
   f.config->entryDel(1);
   EXPECT_EQ(f.helper->take(), (Ops{{"del", 4, 0x400, 5, 1},
                                    {"add", 8, 0x800, 5, 1},
                                    {"del", 1, 0x100, 7, 2},
                                    {"add", 7, 0x700, 7, 1}}));
}

// The version handshake and the listing are pinned by the show command's dump; a key that
// stopped waiting must also leave the answer.
TEST(FastMbbEngineImpl, DebugStatusForgetsKeysThatNoLongerWait) {
   EngineFixture<> f;
   for (std::uint64_t k = 1; k <= 3; ++k) f.publish(k, 1, 0x100 * k, 5);
   f.debugConfig->versionIs(4);
   ASSERT_EQ(f.debugStatus->pendingEntries().size(), 2u);
   f.config->entryDel(3);
   f.debugConfig->versionIs(5);
   EXPECT_EQ(f.debugStatus->pendingEntries().size(), 1u);
}

TEST(FastMbbEngineImpl, AFullStatusTableCostsTheStatusOnly) {
   EngineFixture<> f;
   auto small = Vault::MbbEngine::tableStatusFactory("small", Vault::MapDescriptor{2});
   small->mountedIs(true);
   f.helper->tableStatusIs(small);
   f.publish(1, 1, 0x100, 1);
   f.publish(2, 1, 0x200, 2);
   f.publish(3, 1, 0x300, 3);
   f.publish(3, 2, 0x301, 4);
   EXPECT_EQ(f.helper->take(), (Ops{{"add", 1, 0x100, 1, 1},
                                    {"add", 2, 0x200, 2, 1},
                                    {"add", 3, 0x300, 3, 1},
                                    {"add", 3, 0x301, 4, 2},
                                    {"del", 3, 0x300, 3, 2}}));
   EXPECT_FALSE(small->present(3));
   // Once there is room, offering the key again writes its status and issues nothing for it.
   f.config->entryDel(1);
   f.sm->handleEntry(3);
   EXPECT_EQ(small->entry(3).opId().value(), 2u);
   EXPECT_TRUE(f.helper->take() == (Ops{{"del", 1, 0x100, 1, 1}}));
}

// Moves within a partition, and changes across partitions with a new or the same handle, run
// under the chip's checker in the ATCAM churn test; a configuration no partition can hold is
// left waiting.
TEST(FastMbbEngineAtcamImpl, AnIndexOutsideItsPartitionWaits) {
   // 64 indices in 4 partitions of 16.
   EngineFixture<MbbEngine::FastMbbEngineAtcamImpl> f(64, 4u);
   f.publish(2, 1, 0x200, 10, 4);
   f.publish(3, 1, 0x300, 10, 1);
   EXPECT_TRUE(f.helper->take().empty());
   EXPECT_EQ(f.impl->pendingEntry(2)->reason, PendingReason::badConfig);
   EXPECT_EQ(f.impl->pendingEntry(3)->reason, PendingReason::badConfig);
}

}  // namespace
