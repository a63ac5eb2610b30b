#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <set>

#include "ChipMbbSliceMatAdtSelSm/testing/TripleWorld.h"
#include "FlashLog/CaptureSink.h"
#include "TableAuditSm/testing/AuditWorld.h"

namespace {

using ChipMbbShared::SelMbrEntryKey;
using ChipMbbSlice::AuditFailReason;
using ChipModel::FaultKind;
using TableAuditTesting::auditFinish;
using TableAuditTesting::auditNext;
using TableAuditTesting::flagLines;
using TableAuditTesting::StepTimeSource;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Vault::MbbEngine::EntryKey;
using World = ChipMbbSlice::Testing::TripleWorld;

constexpr EntryKey grpA = 0x50;
constexpr EntryKey grpB = 0x51;
const SelMbrEntryKey mbrA0(grpA, 0, 0);
const SelMbrEntryKey mbrA1(grpA, 0, 1);
const SelMbrEntryKey mbrB0(grpB, 0, 0);

// A triple and its dependency engine on the chip model, audited by the manager on a wheel of its
// own, whose clock (also the activity clock) can be made to move on every read.
struct TripleAudit {
   TripleAudit() {
      Orb::activityTimeSourceIs(clock);
      w.start();
      mgr = ChipMbbSlice::TableAuditMgrSmIs(&wheel, 1, ChipModel::modelHwPdNew(w.chip));
      mgr->addMatAdtSelTable(mountKey, w.sm);
   }
   ~TripleAudit() {
      mgr.reset();
      Orb::activityTimeSourceIs(previousClock);
   }

   // Next hops 1 to 4 (member handles 0x11 to 0x14), two groups of one vector with three members
   // between them, a route on a group and one on a next hop directly; and an ADT entry, a group
   // and its member that were configured and deleted again, left as tombstones.
   void build() {
      for (std::uint64_t nh = 1; nh <= 5; ++nh) w.adtIs(nh, 1, 0x10 + nh);
      w.grpIs(grpA, 1, 0x1000, 1, 0);
      w.grpIs(grpB, 1, 0x1001, 1, 1);
      w.grpIs(0x52, 1, 0x1002, 1, 2);
      w.mbrIs(mbrA0, 1, 1, true);
      w.mbrIs(mbrA1, 1, 2, true);
      w.mbrIs(mbrB0, 1, 3, true);
      w.mbrIs(SelMbrEntryKey(0x52, 0, 0), 1, 5, true);
      w.routeIs(0x100, 1, 1, 0, grpA, 1, 0);
      w.routeDirectIs(0x101, 1, 2, 1, 0x14);
      w.mbrConfig->entryIs(
          ChipMbbShared::SelMbrEntryConfig::deletion(SelMbrEntryKey(0x52, 0, 0), 2));
      w.grpConfig->entryIs(ChipMbbShared::SelGrpEntryConfig::deletion(0x52, 2));
      w.adtConfig->entryIs(ChipMbbShared::AdtEntryConfig::deletion(5, 2));
      w.turn();
   }
   unsigned audit() { return auditNext(*mgr, *clock, wheel); }
   unsigned finish() { return auditFinish(*mgr, *clock, wheel); }
   bf_status_t adtFault(FaultKind kind, std::uint32_t mbrHdl) {
      return w.chip.faultInject({kind, 0, P4_PD_PIPE_ALL, World::adtHdl, mbrHdl, 0, 0, 0});
   }
   bf_status_t selFault(FaultKind kind, std::uint32_t selIndex, std::uint32_t subIndex,
                        std::uint32_t mbrHdl, std::uint32_t grpHdl = 0) {
      return w.chip.faultInject(
          {kind, 0, P4_PD_PIPE_ALL, World::selHdl, mbrHdl, selIndex, subIndex, grpHdl});
   }
   ChipMbbSlice::MatAdtSelTableAuditSm& sm() const {
      return static_cast<ChipMbbSlice::MatAdtSelTableAuditSm&>(*mgr->tableAuditSm(mountKey));
   }
   std::uint32_t numNotifications() const {
      const auto& s = sm();
      std::uint32_t n = 0;
      for (const auto* flags :
           {&s.matFlagSm(), &s.adtFlagSm(), &s.selGrpFlagSm(), &s.selMbrFlagSm()}) {
         n += (*flags)->mbbNotifier()->notificationCount();
      }
      return n;
   }

   Orb::Ptr<Orb::TimeSource> previousClock = Orb::activityTimeSource();
   Orb::Ptr<StepTimeSource> clock = std::make_shared<StepTimeSource>();
   Keel::TimerWheel wheel{clock, 1, 600000, true, 1024};
   World w;
   ChipMbbShared::TableConfigMountKey mountKey{{0, P4_PD_PIPE_ALL}, "route", World::matHdl};
   Orb::Ptr<ChipMbbSlice::TableAuditMgrSm> mgr;
};

// Every sub-table's disagreements, each behind the ones checked before it, in one audit; the
// tombstones agree, acknowledged or taken out with their group.
TEST(MatAdtSelTableAuditTest, EachSubTableKeyGetsTheFirstReasonInCheckOrder) {
   TripleAudit t;
   t.build();
   DualLog::CaptureSink capture;
   capture.levelIs("TableAudit", 8);
   t.audit();
   ASSERT_THAT(flagLines(capture), IsEmpty());

   t.w.sm->hasNotificationActiveIs(false);
   t.w.adtIs(1, 2, 0x11);                              // engine and status behind
   t.w.adtStatus->entryDel(2);                         // status behind
   t.adtFault(FaultKind::drop, 0x13);                  // gone from hardware
   t.adtFault(FaultKind::stray, 0x30);                 // owned by nobody
   t.w.grpIs(grpA, 2, 0x1000, 1, 0);                   // engine behind
   t.w.grpStatus->entryDel(grpB);                      // status behind
   t.w.mbrIs(mbrA0, 2, 1, true);                       // engine behind
   t.w.mbrStatus->entryDel(mbrA1.value());             // status behind
   t.w.mbrIs(SelMbrEntryKey(0x60, 0, 0), 1, 4, true);  // a group nobody configured
   capture.clear();
   t.audit();
   EXPECT_THAT(flagLines(capture),
               ElementsAre("Flagging key:0x1 tbl:0x301 reason:adtConfigAndMbbMismatch",
                           "Flagging key:0x2 tbl:0x301 reason:adtConfigAndStatusMismatch",
                           "Flagging key:0x3 tbl:0x301 reason:adtEntryNotInSdk",
                           "Flagging key:0x50 tbl:0x302 reason:selGrpConfigAndMbbMismatch",
                           "Flagging key:0x51 tbl:0x302 reason:selGrpConfigAndStatusMismatch",
                           "Flagging key:0x280000 tbl:0x302 reason:selMbrConfigAndMbbMismatch",
                           "Flagging key:0x280001 tbl:0x302 reason:selMbrConfigAndStatusMismatch",
                           "Flagging key:0x300000 tbl:0x302 reason:selMbrGroupNotInMbb",
                           "Flagging hdl:0x30 tbl:0x301 reason:adtSdkHandleNotInMbb"));
   t.adtFault(FaultKind::stray, 0x13);  // the engine's clean-up takes it out again
}

// Faults in action data and selector members are seen only when the chip is read back: with the
// comparison off nothing is flagged, with it on each with its own reason, members the chip holds
// in a group's vector and in a vector of no group alike.
TEST(MatAdtSelTableAuditTest, HardwareComparisonReadsBackActionDataAndMembers) {
   TripleAudit t;
   t.build();
   DualLog::CaptureSink capture;
   capture.levelIs("TableAudit", 8);
   t.mgr->auditPolicy()->auditHardwareIs(true);
   t.audit();
   ASSERT_THAT(flagLines(capture), IsEmpty());

   ASSERT_EQ(t.adtFault(FaultKind::corrupt, 0x11), BF_SUCCESS);
   ASSERT_EQ(t.selFault(FaultKind::drop, 0, 1, 0x12), BF_SUCCESS);  // mbrA1
   // mbrB0 selects another next hop.
   ASSERT_EQ(t.selFault(FaultKind::drop, 1, 0, 0x13), BF_SUCCESS);
   ASSERT_EQ(t.selFault(FaultKind::stray, 1, 0, 0x14, 0x1001), BF_SUCCESS);
   ASSERT_EQ(t.selFault(FaultKind::stray, 0, 5, 0x11), BF_SUCCESS);  // in grpA's vector
   ASSERT_EQ(t.selFault(FaultKind::stray, 3, 0, 0x14, 0x1003), BF_SUCCESS);
   t.mgr->auditPolicy()->auditHardwareIs(false);
   t.audit();
   EXPECT_THAT(flagLines(capture), IsEmpty());

   t.mgr->auditPolicy()->auditHardwareIs(true);
   t.audit();
   EXPECT_THAT(flagLines(capture),
               ElementsAre("Flagging key:0x1 tbl:0x301 reason:adtEntryAndHwNotEqual",
                           "Flagging key:0x280001 tbl:0x302 reason:selMbrNotInSdk",
                           "Flagging key:0x288000 tbl:0x302 reason:selMbrAndHwNotEqual",
                           "Flagging hdl:0x5 tbl:0x302 reason:selSdkMbrNotInMbb",
                           "Flagging hdl:0x180 tbl:0x302 reason:selSdkMbrNotInMbb"));
   // The engine takes out what it placed when it goes.
   t.selFault(FaultKind::stray, 0, 1, 0x12);
   t.selFault(FaultKind::drop, 1, 0, 0x14);
   t.selFault(FaultKind::stray, 1, 0, 0x13, 0x1001);
   t.selFault(FaultKind::drop, 0, 5, 0x11);
   t.selFault(FaultKind::drop, 3, 0, 0x14);
}

// Random churn of next hops, members and routes, audited in short slices while it changes, with
// every check there is (the hardware comparison on): nothing is recorded, the engine is never
// nudged, and once it settles no key stays flagged. A triple whose engine has gone then
// finishes its audit at once.
TEST(MatAdtSelTableAuditTest, ChurnRaisesNoFlagThatLasts) {
   TripleAudit t;
   t.build();
   t.mgr->auditPolicy()->auditHardwareIs(true);
   t.mgr->auditIntervalIs(0.05);
   t.clock->stepIs(0.00005);
   std::mt19937 rng(11);
   std::uint64_t opId = 10;
   for (int step = 0; step < 1500; ++step) {
      switch (rng() % 4) {
         case 0: {
            const std::uint64_t nh = 1 + rng() % 4;
            t.w.adtIs(nh, ++opId, 0x10 + nh);
            break;
         }
         case 1:
            t.w.mbrIs(SelMbrEntryKey(rng() % 2 ? grpA : grpB, 0, rng() % 3), ++opId, 1 + rng() % 4,
                      true);
            break;
         case 2:
            t.w.mbrConfig->entryIs(ChipMbbShared::SelMbrEntryConfig::deletion(
                SelMbrEntryKey(rng() % 2 ? grpA : grpB, 0, 1 + rng() % 2), ++opId));
            break;
         default: {
            const bool onA = rng() % 2;
            t.w.routeIs(0x100, ++opId, 1, 0, onA ? grpA : grpB, 1, onA ? 0 : 1);
            break;
         }
      }
      t.w.turn();
      if (step % 10 == 0) t.w.retryTurn();
      t.clock->nowIs(t.clock->peek() + 0.001);
      t.wheel.runExpired(t.clock->peek());
   }
   EXPECT_GT(t.mgr->configInstance()->instance(), 20u);
   EXPECT_EQ(t.numNotifications(), 0u);
   EXPECT_TRUE(t.mgr->failedAuditStatus()->failedEntries().empty());

   for (int i = 0; i < 5; ++i) t.w.retryTurn();
   t.audit();
   t.audit();
   const auto& sm = t.sm();
   for (const auto* flags :
        {&sm.matFlagSm(), &sm.adtFlagSm(), &sm.selGrpFlagSm(), &sm.selMbrFlagSm()}) {
      EXPECT_THAT((*flags)->flaggedVaultKeys(), IsEmpty());
      EXPECT_THAT((*flags)->flaggedEntryHdls(), IsEmpty());
   }

   t.w.sm.reset();
   EXPECT_EQ(t.audit(), 1u);
   EXPECT_TRUE(t.mgr->failedAuditStatus()->failedEntries().empty());
}

}  // namespace
