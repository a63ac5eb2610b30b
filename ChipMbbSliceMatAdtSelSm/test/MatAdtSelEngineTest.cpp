#include <gtest/gtest.h>

#include "ChipMbbSliceMatAdtSelSm/test/EngineTestUtil.h"
#include "ChipModel/testing/ChipTestUtil.h"

// The engine's decisions, one situation each, against the chip model with its hitless checker
// fatal: what waits, what is deferred, what is released when, and what the helper is asked.

namespace ChipMbbSlice::Test {
namespace {

constexpr EntryKey grpA = 0x10;
constexpr EntryKey grpB = 0x11;
constexpr EntryKey nh1 = 0xA1;
constexpr EntryKey nh2 = 0xA2;
constexpr EntryKey route = 0x5;

class EngineTest : public ::testing::Test {
 protected:
   void SetUp() override {
      w.start();
      log.notifierIs(w.helper.get());
   }
   void TearDown() override { log.notifierIs(nullptr); }

   // A group of one vector at `base` with one active member on `adtKey`, and that ADT entry.
   void groupWithMember(EntryKey grp, std::uint32_t base, EntryKey adtKey, std::uint32_t hdl) {
      w.adtIs(adtKey, 1, hdl);
      w.grpIs(grp, 1, 0x1000 + base, 1, base);
      w.mbrIs(SelMbrEntryKey(grp, 0, 0), 1, adtKey, true);
   }
   Orb::Ptr<SelGrpState> grp(EntryKey key) const { return w.impl->currentSelGrp(key); }
   Orb::Ptr<AdtState> adt(EntryKey key) const { return w.impl->currentAdt(key); }

   Testing::TripleWorld w;
   OpLog log;
};

TEST_F(EngineTest, RouteWaitsForItsGroupAndIsOfferedOnTheLoopTurnAfterItBecomesReferable) {
   w.routeIs(route, 1, 0x1, 0, grpA, 1, 4);
   EXPECT_EQ(w.matStatus->entry(route), Vault::MbbEngine::EntryStatus());
   EXPECT_EQ(w.impl->failedDepCnt(), 1u);

   groupWithMember(grpA, 4, nh1, 0x100);
   ASSERT_TRUE(grp(grpA)->referable());
   EXPECT_EQ(w.matStatus->size(), 0u) << "never offered from inside the commit";
   w.turn();
   EXPECT_EQ(opIdOf(w.matStatus, route), OpId(1)) << "offered without waiting for the retry";
   // One reference recorded when the route was found ready, one when it was issued.
   EXPECT_EQ(grp(grpA)->refCnt(), 2u);
   EXPECT_EQ(w.selTable().vector(0, 4)->matRefs, 1u);
}

TEST_F(EngineTest, ReferencesMoveMakeBeforeBreakAndQueuedGroupDeleteRunsAfterTheMatchCommit) {
   groupWithMember(grpA, 0, nh1, 0x100);
   groupWithMember(grpB, 1, nh2, 0x101);
   w.routeIs(route, 1, 0x1, 0, grpA, 1, 0);
   w.grpConfig->entryIs(ChipMbbShared::SelGrpEntryConfig::deletion(grpA, 2));
   EXPECT_TRUE(grp(grpA)->queueDelete()) << "still referenced: only queued";
   EXPECT_EQ(w.selTable().vector(0, 0)->activeCount, 1u);

   log.take();
   w.routeIs(route, 2, 0x1, 0, grpB, 1, 1);
   EXPECT_EQ(grp(grpA), nullptr) << "deleted once the re-pointed route was committed";
   EXPECT_EQ(log.take(), (std::vector<std::string>{"mat_mod", "sel_del"}));
   EXPECT_EQ(opIdOf(w.grpStatus, grpA), Vault::MbbEngine::delAckOpId);
   EXPECT_EQ(w.mbrStatus->size(), 1u) << "the group's member lost its status with it";
   EXPECT_EQ(grp(grpB)->refCnt(), 2u);

   w.matConfig->entryDel(route);
   EXPECT_EQ(grp(grpB)->refCnt(), 0u) << "a deleted route releases its group";
   EXPECT_EQ(ChipTestUtil::assertionOf([&] { w.impl->decSelGrpRefCnt(grp(grpB)); }),
             "sgs->refCnt() > 0: tried to decrease refCnt, but it was 0");
}

TEST_F(EngineTest, TheLastActiveMemberOfAVectorStaysUntilAnotherOneIsActive) {
   groupWithMember(grpA, 0, nh1, 0x100);
   w.adtIs(nh2, 1, 0x101);
   const SelMbrEntryKey first(grpA, 0, 0);
   const SelMbrEntryKey second(grpA, 0, 1);
   log.take();
   w.mbrIs(first, 2, nh1, false);
   EXPECT_TRUE(log.take().empty());
   EXPECT_EQ(opIdOf(w.mbrStatus, first), OpId(1)) << "no status before hardware has it";
   EXPECT_EQ(grp(grpA)->deferredOp(VectorIndex(0)), first);

   w.mbrIs(second, 1, nh2, true);
   // The vector counts 2 active members now: the deferred deactivation runs.
   EXPECT_EQ(log.take(), (std::vector<std::string>{"sel_add", "sel_deactivate"}));
   EXPECT_EQ(opIdOf(w.mbrStatus, first), OpId(2));
   EXPECT_TRUE(w.impl->issuedSelMbrs(grpA).at(1)->active());
   EXPECT_EQ(grp(grpA)->activeMbrCnt(VectorIndex(0)), 1u);

   w.mbrConfig->entryIs(ChipMbbShared::SelMbrEntryConfig::deletion(second, 2));
   EXPECT_TRUE(log.take().empty()) << "deleting the only active member is deferred too";
   w.mbrIs(first, 3, nh1, true);
   EXPECT_EQ(log.take(), (std::vector<std::string>{"sel_activate", "sel_del"}));
   EXPECT_EQ(opIdOf(w.mbrStatus, second), Vault::MbbEngine::delAckOpId);
   EXPECT_EQ(adt(nh2)->refCnt(), 0u);
}

TEST_F(EngineTest, RepointingAVectorsOnlyActiveMemberBreaksTheDeadlockThroughAnotherSlot) {
   groupWithMember(grpA, 0, nh1, 0x100);
   w.adtIs(nh2, 1, 0x101);
   w.routeIs(route, 1, 0x1, 0, grpA, 1, 0);
   const SelMbrEntryKey member(grpA, 0, 0);
   log.take();
   w.mbrIs(member, 2, nh2, true);
   EXPECT_EQ(log.take(), (std::vector<std::string>{"sel_add", "sel_del", "sel_add", "sel_del"}));
   EXPECT_EQ(w.impl->numDeadlockBreakOps(), 1u);
   const auto members = w.impl->issuedSelMbrs(grpA);
   ASSERT_EQ(members.size(), 1u) << "the slot the breaker borrowed is empty again";
   EXPECT_EQ(members[0]->adtKey(), nh2);
   // The churn test holds every reference count against the chip after each break.
   EXPECT_EQ(opIdOf(w.mbrStatus, member), OpId(2));
   EXPECT_EQ(w.mbrStatus->size(), 1u);
}

TEST_F(EngineTest, FallbackMemberSetsAndClearsThePipesFallbackWithoutAGroup) {
   w.adtIs(nh1, 1, 0x100);
   const SelMbrEntryKey fallback(EntryKey(MatAdtSelMbbEngineImpl::fallbackGrpKey), 0, 0);
   log.take();
   w.mbrIs(fallback, 1, nh1, true);
   EXPECT_EQ(log.take(), std::vector<std::string>{"sel_set_fallback"});
   EXPECT_TRUE(w.impl->currentSelGrps().empty());
   EXPECT_EQ(adt(nh1)->refCnt(), 1u);
   w.mbrConfig->entryIs(ChipMbbShared::SelMbrEntryConfig::deletion(fallback, 2));
   EXPECT_EQ(log.take(), std::vector<std::string>{"sel_clr_fallback"});
   EXPECT_EQ(w.impl->issuedFallback(), nullptr);
   EXPECT_EQ(adt(nh1)->refCnt(), 0u);
   EXPECT_EQ(opIdOf(w.mbrStatus, fallback), Vault::MbbEngine::delAckOpId);
}

TEST_F(EngineTest, RouteNamingAnAdtEntryHoldsItUntilItsMatchCommitLetsGo) {
   w.routeDirectIs(route, 1, 0x1, 0, 0x100);
   EXPECT_EQ(w.matStatus->size(), 0u);
   w.adtIs(nh1, 1, 0x100);
   w.turn();
   EXPECT_EQ(opIdOf(w.matStatus, route), OpId(1));
   EXPECT_EQ(adt(nh1)->matRefCnt(), 2u);
   EXPECT_EQ(adt(nh1)->refCnt(), 0u) << "kept apart from the members' count";
   log.take();
   w.impl->handleAdtEntry(nh1);
   w.adtIs(nh1, 2, 0x100);
   EXPECT_EQ(log.take(), std::vector<std::string>{"adt_mod"}) << "only a newer op id is placed";

   w.adtConfig->entryIs(ChipMbbShared::AdtEntryConfig::deletion(nh1, 3));
   EXPECT_TRUE(adt(nh1)->queueDelete());
   groupWithMember(grpA, 0, nh2, 0x101);
   log.take();
   w.routeIs(route, 2, 0x1, 0, grpA, 1, 0);
   EXPECT_EQ(log.take(), (std::vector<std::string>{"mat_mod", "adt_del"}));
   EXPECT_EQ(adt(nh1), nullptr);
   EXPECT_EQ(w.adtTable().entry(0x100), nullptr);
}

}  // namespace
}  // namespace ChipMbbSlice::Test
