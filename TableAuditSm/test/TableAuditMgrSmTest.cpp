#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Brio/Brio.h"
#include "FlashLog/CaptureSink.h"
#include "TableAuditSm/testing/AuditWorld.h"

namespace {

using ChipMbbShared::TableConfigMountKey;
using ChipMbbSlice::AuditState;
using TableAuditTesting::StepTimeSource;
using ::testing::ElementsAre;

// A table audit that needs `steps` calls per audit, each taking `cost` seconds.
class ScriptedAudit : public ChipMbbSlice::TableAuditSm {
 public:
   ScriptedAudit(const ChipMbbSlice::TableAuditMgrSm& mgr, TableConfigMountKey key,
                 StepTimeSource& clock, std::vector<std::string>& log, unsigned steps,
                 Orb::Seconds cost)
       : TableAuditSm({}, mgr.configInstance(), 1, mgr.failedAuditStatus(), mgr.auditPolicy(),
                      nullptr, key),
         clock_(clock),
         log_(log),
         steps_(steps),
         cost_(cost) {}

   bool auditIsDone() const override { return done_ == configInstance()->instance(); }
   void continueAudit(const Orb::Seconds&) override {
      if (auditIsDone()) return;
      log_.push_back(mountKey().name() + std::to_string(++taken_));
      clock_.nowIs(clock_.peek() + cost_);
      if (taken_ % steps_ == 0) done_ = configInstance()->instance();
   }

 private:
   StepTimeSource& clock_;
   std::vector<std::string>& log_;
   unsigned steps_;
   Orb::Seconds cost_;
   unsigned taken_ = 0;
   std::uint32_t done_ = 0;
};

struct Timing {
   ChipModel::InstalledChip chip{TableAuditTesting::auditProfile(16)};
   Orb::Ptr<StepTimeSource> clock = std::make_shared<StepTimeSource>();
   Keel::TimerWheel wheel{clock, 1, 600000, true, 1024};
   Orb::Ptr<ChipMbbSlice::TableAuditMgrSm> mgr =
       ChipMbbSlice::TableAuditMgrSmIs(&wheel, 1, nullptr);
   std::vector<std::string> log;

   TableConfigMountKey key(const std::string& name) { return {{0, 0}, name, 1}; }
   void table(const std::string& name, unsigned steps, Orb::Seconds cost) {
      mgr->tableAuditSmIs(key(name),
                          Orb::ptrNew<ScriptedAudit>(*mgr, key(name), *clock, log, steps, cost));
   }
   // Runs the next timer that is due; returns what the slice did.
   std::vector<std::string> slice() {
      log.clear();
      clock->nowIs(std::min(mgr->continueTimer().timeMin(), mgr->auditTimer().timeMin()));
      wheel.runExpired(clock->peek());
      return log;
   }
};

TEST(TableAuditMgrSmTest, FirstAuditRunsAtStartWithHardwareComparisonOff) {
   DualLog::CaptureSink capture;
   capture.levelIs("TableAudit", 5);
   Timing t;
   EXPECT_EQ(t.mgr->auditState(), AuditState::ongoing);
   EXPECT_FALSE(t.mgr->auditPolicy()->auditHardware());
   EXPECT_EQ(t.mgr->continueTimer().timeMin(), 0.01);
   EXPECT_EQ(t.mgr->auditTimer().timeMin(), 30.0);
   t.slice();
   EXPECT_EQ(t.mgr->auditState(), AuditState::idle);
   EXPECT_THAT(capture.texts(),
               ElementsAre("Starting table audit instance: 1", "Completed table audit"));

   Brio::ScopedThrowingAsserts asserts;
   EXPECT_THROW(t.mgr->handleContinueTimer(), Brio::AssertionFailure);
   try {
      t.mgr->tableAuditSmIs(t.key("x"), nullptr);
      FAIL();
   } catch (const Brio::RangeException& e) {
      EXPECT_STREQ(e.what(),
                   "null _tableAuditSm parameter to mutator for "
                   "ChipMbbSlice::TableAuditMgrSm::tableAuditSm not allowed\\\"");
   }
}

// Slices of at most the budget, 10 ms apart, resuming at the bookmarked table; tables that come
// and go during the audit; an expiry during the audit counted and otherwise ignored.
TEST(TableAuditMgrSmTest, SlicesResumeAtBookmarkAndOvershootIsCounted) {
   Timing t;
   t.slice();
   t.table("a", 3, 0.0004);
   t.table("c", 2, 0.0004);
   t.table("e", 1, 0.0004);
   t.mgr->auditIntervalIs(1.0);
   EXPECT_THAT(t.slice(), ElementsAre());  // the audit timer: instance 2 starts
   EXPECT_THAT(t.slice(), ElementsAre("a1", "a2", "a3"));
   EXPECT_EQ(t.mgr->tableBookmark(), t.key("c"));
   EXPECT_DOUBLE_EQ(t.mgr->continueTimer().timeMin(), t.clock->peek() + 0.01);

   t.table("d", 1, 0.0004);  // ahead of the bookmark: audited in this audit
   t.table("b", 1, 0.0004);  // behind it: waits for the next
   t.mgr->tableAuditSmDel(t.key("c"));
   EXPECT_THAT(t.slice(), ElementsAre("d1", "e1"));
   EXPECT_EQ(t.mgr->auditState(), AuditState::idle);

   t.table("slow", 300, 0.0004);
   t.slice();  // instance 3 starts
   while (t.mgr->overshotCnt() == 0) t.slice();
   EXPECT_EQ(t.mgr->configInstance()->instance(), 3u);
   EXPECT_EQ(t.mgr->overshotCnt(), 1u);
   while (t.mgr->auditState() == AuditState::ongoing) t.slice();
   EXPECT_EQ(t.mgr->configInstance()->instance(), 3u);
   t.slice();
   EXPECT_EQ(t.mgr->configInstance()->instance(), 4u);
}

}  // namespace
