#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>

#include "FlashLog/CaptureSink.h"
#include "TableAuditSm/testing/AuditWorld.h"

namespace {

using ChipMbbSlice::AuditFailReason;
using ChipModel::FaultKind;
using TableAuditTesting::AuditWorld;
using TableAuditTesting::flagLines;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Every kind of disagreement, each behind the ones checked before it, in one audit.
TEST(TableAuditTest, EachKeyGetsTheFirstReasonInCheckOrder) {
   AuditWorld w;
   w.mgr->auditPolicy()->auditHardwareIs(true);
   for (std::uint64_t key = 1; key <= 7; ++key) w.publish(key, 0x10, key, key);
   w.config->entryIs(
       AuditWorld::entry(8, 0x10, 8, Vault::MbbEngine::EntryConfig::defaultEntryIndex));
   // Deleted keys agree: one taken out of hardware, one that never was there.
   w.config->entryIs(Vault::MbbEngine::EntryConfig::deletion(7, 0x11));
   w.config->entryIs(Vault::MbbEngine::EntryConfig::deletion(9, 0x11));
   w.audit();
   ASSERT_EQ(w.status->entry(9).opId(), Vault::MbbEngine::delAckOpId);

   DualLog::CaptureSink capture;
   capture.levelIs("TableAudit", 8);
   w.engine->hasNotificationActiveIs(false);
   w.publish(1, 0x11, 1, 1);  // engine and status behind, entry still in hardware
   w.status->entryDel(2);     // status behind
   w.fault(FaultKind::drop, 3);
   w.fault(FaultKind::corrupt, 4);
   w.fault(FaultKind::stray, 0x30, 30);
   w.fault(FaultKind::drop, 8);  // the default entry
   w.audit();
   EXPECT_THAT(flagLines(capture),
               ElementsAre("Flagging key:0x1 tbl:0x1000100 reason:configAndMbbMismatch",
                           "Flagging key:0x2 tbl:0x1000100 reason:configAndStatusMismatch",
                           "Flagging key:0x3 tbl:0x1000100 reason:matEntryNotInSdk",
                           "Flagging key:0x4 tbl:0x1000100 reason:entryAndHwNotEqual",
                           "Flagging key:0x8 tbl:0x1000100 reason:matEntryNotInSdk",
                           "Flagging hdl:0x30 tbl:0x1000100 reason:matSdkHandleNotInMbb"));

   // The manager's own policy leaves hardware unread.
   w.mgr->auditPolicy()->auditHardwareIs(false);
   capture.clear();
   w.audit();
   EXPECT_EQ(flagLines(capture).size(), 5u);
}

// An injected fault climbs the thresholds audit by audit, through the real chip and HwPd.
TEST(TableAuditTest, InjectedFaultIsNotifiedThenRecorded) {
   AuditWorld w;
   for (std::uint64_t key = 1; key <= 4; ++key) w.publish(key, 0x10, key, key);
   w.audit();
   ASSERT_EQ(w.fault(FaultKind::drop, 2), BF_SUCCESS);
   ASSERT_EQ(w.fault(FaultKind::stray, 0x40, 40), BF_SUCCESS);
   w.clock->stepIs(1e-6);  // records made in one slice are told apart by their time
   const auto& notifier = w.mgr->tableAuditSm(w.mountKey)->matFlagSm()->mbbNotifier();
   const auto& failed = *w.mgr->failedAuditStatus();
   std::vector<std::pair<std::uint32_t, std::size_t>> seen;
   for (int audit = 1; audit <= 4; ++audit) {
      w.audit();
      seen.emplace_back(notifier->notificationCount(), failed.numFailedEntries());
   }
   // Notified in the second audit (the engine, with nothing new, leaves the key as it is),
   // recorded from the third on: key and handle each time.
   EXPECT_THAT(seen, ElementsAre(std::pair(0u, 0u), std::pair(1u, 0u), std::pair(1u, 2u),
                                 std::pair(1u, 4u)));
   std::set<std::pair<std::uint64_t, AuditFailReason>> records;
   for (const auto& [time, entry] : failed.failedEntries()) {
      records.emplace(entry.identifier(), entry.reason());
   }
   EXPECT_THAT(records, ElementsAre(std::pair(2ull, AuditFailReason::matEntryNotInSdk),
                                    std::pair(0x40ull, AuditFailReason::matSdkHandleNotInMbb)));
}

// Slices that run out of time leave both passes bookmarked; each key and handle is still seen
// exactly once per audit. A table whose engine has gone finishes at once.
TEST(TableAuditTest, PassesResumeAtTheirBookmarks) {
   AuditWorld w;
   for (std::uint64_t key = 1; key <= 40; ++key) w.publish(key, 1, 100 + key, key);
   w.audit();
   DualLog::CaptureSink capture;
   capture.levelIs("TableAudit", 9);
   w.clock->stepIs(0.0001);
   EXPECT_GT(w.audit(), 3u);
   std::map<std::string, int> visits;
   for (const auto& text : capture.texts()) {
      if (text.starts_with("Auditing")) ++visits[text];
   }
   EXPECT_EQ(visits.size(), 80u);
   for (const auto& [text, n] : visits) EXPECT_EQ(n, 1) << text;
   EXPECT_THAT(flagLines(capture), IsEmpty());

   w.engine.reset();
   EXPECT_EQ(w.audit(), 1u);
   EXPECT_TRUE(w.mgr->failedAuditStatus()->failedEntries().empty());
}

// Random churn of a single table, audited every few milliseconds while it changes: nothing is
// ever recorded and the engine is never nudged.
TEST(TableAuditTest, ChurnRaisesNoFlagThatLasts) {
   AuditWorld w(256);
   w.mgr->auditIntervalIs(0.05);
   std::mt19937 rng(7);
   std::map<std::uint64_t, std::pair<std::uint32_t, std::uint32_t>> live;  // key -> hdl, index
   std::set<std::uint32_t> usedHdl, usedIndex;
   std::uint64_t opId = 1;
   std::uint32_t nextHdl = 1;
   for (int step = 0; step < 3000; ++step) {
      const std::uint64_t key = 1 + rng() % 120;
      auto it = live.find(key);
      if (it != live.end() && rng() % 4 == 0) {
         w.config->entryIs(Vault::MbbEngine::EntryConfig::deletion(key, ++opId));
         usedHdl.erase(it->second.first);
         usedIndex.erase(it->second.second);
         live.erase(it);
      } else {
         std::uint32_t index = rng() % 256;
         while (usedIndex.contains(index)) index = (index + 1) % 256;
         std::uint32_t hdl = it != live.end() && rng() % 2 ? it->second.first : nextHdl++;
         if (it != live.end()) {
            usedIndex.erase(it->second.second);
            if (hdl != it->second.first) usedHdl.erase(it->second.first);
         }
         usedIndex.insert(index);
         usedHdl.insert(hdl);
         live[key] = {hdl, index};
         w.publish(key, ++opId, hdl, index);
      }
      w.clock->nowIs(w.clock->peek() + 0.001);
      w.wheel.runExpired(w.clock->peek());
   }
   EXPECT_GT(w.mgr->configInstance()->instance(), 40u);
   EXPECT_EQ(w.mgr->tableAuditSm(w.mountKey)->matFlagSm()->mbbNotifier()->notificationCount(), 0u);
   EXPECT_TRUE(w.mgr->failedAuditStatus()->failedEntries().empty());
}

}  // namespace
