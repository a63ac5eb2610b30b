#include <gtest/gtest.h>

#include "Brio/Brio.h"
#include "ChipModel/testing/ChipTestUtil.h"
#include "TableAuditSm/TableAuditSm.h"

namespace {

using ChipMbbSlice::AuditFailReason;

struct Flags {
   Orb::Ptr<Orb::ManualTimeSource> clock = std::make_shared<Orb::ManualTimeSource>();
   Orb::Ptr<Orb::TimeSource> previous = Orb::activityTimeSource();
   Orb::Ptr<ChipMbbSlice::AuditInstance> instance = Orb::ptrNew<ChipMbbSlice::AuditInstance>();
   Orb::Ptr<ChipMbbSlice::AuditPolicy> policy = Orb::ptrNew<ChipMbbSlice::AuditPolicy>();
   Orb::Ptr<ChipMbbSlice::FailedAuditStatus> failed =
       Orb::ptrNew<ChipMbbSlice::FailedAuditStatus>();
   // No engine: notifications are counted and go nowhere.
   Orb::Ptr<ChipMbbSlice::MbbNotifier> notifier = Orb::ptrNew<ChipMbbSlice::MbbNotifier>(
       Orb::WeakPtr<MbbEngine::MbbEngineSm>(), ChipMbbSlice::TableType::mat);
   ChipMbbSlice::FlagSm flags{instance, failed, policy, 0x100, notifier};

   Flags() { Orb::activityTimeSourceIs(clock); }
   ~Flags() { Orb::activityTimeSourceIs(previous); }
   // Ends the audit's passes and starts the next audit.
   void nextAudit() {
      flags.cleanFlaggedVaultKeys();
      flags.cleanFlaggedEntryHdls();
      instance->instanceInc(1);
      clock->advance(1);
   }
};

TEST(FlagSmTest, KeyClimbsFromNotificationToRecordOnlyWhileItsOpIdStays) {
   Flags f;
   f.instance->instanceIs(1);
   for (int audit = 1; audit <= 4; ++audit) {
      f.flags.flagVaultKey(7, 0x10, AuditFailReason::matEntryNotInSdk);
      f.nextAudit();
   }
   EXPECT_EQ(f.notifier->notificationCount(), 1u);
   ASSERT_EQ(f.failed->numFailedEntries(), 2u);
   const auto& first = f.failed->failedEntries().begin()->second;
   EXPECT_EQ(first,
             ChipMbbSlice::FailedAuditStatusEntry(7, 2.0, AuditFailReason::matEntryNotInSdk));

   // Progress (a new op id) and a passing audit both start the count again.
   f.flags.flagVaultKey(7, 0x11, AuditFailReason::configAndMbbMismatch);
   EXPECT_EQ(f.flags.flaggedVaultKey(7).flagCount(), 1u);
   f.nextAudit();
   f.nextAudit();
   EXPECT_TRUE(f.flags.flaggedVaultKeys().empty());
   f.flags.flagVaultKey(7, 0x11, AuditFailReason::configAndMbbMismatch);
   EXPECT_EQ(f.flags.flaggedVaultKey(7), ChipMbbSlice::FlaggedVaultKey(7, 1, 0x11, 7));
   EXPECT_EQ(f.notifier->notificationCount(), 1u);
}

TEST(FlagSmTest, HandlesAreRecordedNeverNotifiedAndLimitsCompareExactly) {
   Flags f;
   f.policy->notifyMbbLimitIs(3);
   for (int audit = 1; audit <= 3; ++audit) {
      f.flags.flagEntryHdl(0x42, AuditFailReason::matSdkHandleNotInMbb);
      f.flags.flagVaultKey(9, 1, AuditFailReason::configAndStatusMismatch);
      f.nextAudit();
   }
   // notifyMbbLimit == failAuditLimit: the third failure is recorded, nothing is notified.
   EXPECT_EQ(f.notifier->notificationCount(), 0u);
   ASSERT_EQ(f.failed->numFailedEntries(), 1u);  // both at the same time: the later one stays
   EXPECT_EQ(f.failed->failedEntries().begin()->second.identifier(), 9u);

   // A flag older than the previous audit is a broken clean-up, not data.
   f.flags.flagEntryHdl(0x43, AuditFailReason::matSdkHandleNotInMbb);
   f.instance->instanceInc(2);
   EXPECT_EQ(ChipTestUtil::assertionOf(
                 [&] { f.flags.flagEntryHdl(0x43, AuditFailReason::matSdkHandleNotInMbb); }),
             "flaggedHdl.flaggedInstance() == configInstance()->instance() - 1");
}

}  // namespace
