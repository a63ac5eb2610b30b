#include <gtest/gtest.h>

#include <tuple>

#include "Keel/EventLoop.h"
#include "SliceSystem/AgentHost.h"
#include "SliceSystem/PublishTarget.h"
#include "SliceSystem/Publisher.h"
#include "SliceSystem/test/SmallRun.h"

namespace {

using SliceSystem::EcmpChange;
using SliceSystem::EcmpTable;
using SliceSystem::Test::ecmpRun;
using SliceSystem::Test::smallRun;

// Host and publisher in one process: the manager makes the tables, every write is in
// hardware before it returns, and what the chip holds is what the publisher last wrote.
TEST(InProcess, PublishChurnReaddConvergesWithTheChipHoldingTheConfiguration) {
   Keel::EventLoop loop;
   SliceSystem::AgentHostOptions hostOptions;
   std::vector<std::string> logged;
   hostOptions.log = [&](const std::string& line) { logged.push_back(line); };
   SliceSystem::AgentHost host(loop, hostOptions);
   ASSERT_TRUE(host.testmode());
   SliceSystem::LocalPublishTarget target(host);
   SliceSystem::Publisher publisher(target, smallRun());

   SliceSystem::PublisherReport report = publisher.run();
   EXPECT_TRUE(report.ok()) << report.text();
   ASSERT_EQ(report.phases.size(), 3u);
   EXPECT_EQ(report.phases[0].changes.total(), 3000u);
   const SliceSystem::ChangeCounts& churn = report.phases[1].changes;
   EXPECT_EQ(report.keysChecked, 3000u);
   EXPECT_EQ(report.mismatches, 0u);
   EXPECT_EQ(report.strayStatuses, 0u);

   ASSERT_TRUE(report.host);
   const SliceSystem::HostCounters& c = *report.host;
   EXPECT_EQ(c.tablesRunning, 3u);
   EXPECT_EQ(c.tablesPublished, 3u);
   EXPECT_EQ(c.entries, 3000u);
   EXPECT_EQ(c.statuses, 3000u);
   EXPECT_EQ(c.pending, 0u);
   EXPECT_EQ(c.numViolations, 0u);
   // Each modify is one mat_mod and each delete one mat_del; a re-add is one mat_add, a move
   // one mat_mov. A replace (new handle, same index) is a cycle of one key: the old entry goes
   // as a deadlock delete, then the new one is added. A swap is a cycle of two: one entry goes
   // as a deadlock delete, the other moves, the first comes back with an add.
   using Kind = SliceSystem::ChangeKind;
   auto count = [&](Kind kind) { return churn.count[std::size_t(kind)]; };
   std::uint64_t readds = report.phases[2].changes.count[std::size_t(Kind::readd)];
   EXPECT_EQ(readds, count(Kind::del));
   EXPECT_EQ(c.numMatModOps, count(Kind::modify));
   EXPECT_EQ(c.numMatDelOps, count(Kind::del) + c.numMatDelDeadlockOps);
   EXPECT_EQ(c.numMatMovOps, count(Kind::move) + count(Kind::swap) / 2);
   EXPECT_EQ(c.numMatAddOps, 3000 + readds + count(Kind::replace) + count(Kind::swap) / 2);
   EXPECT_EQ(c.numMatDelDeadlockOps, count(Kind::replace) + count(Kind::swap) / 2);

   // The chip has exactly the entries of the configurations, at their indices.
   const auto& engines = host.watcher()->tableMgr("slicepub")->mbbEngineSms();
   ASSERT_EQ(engines.size(), 3u);
   for (const auto& [key, engine] : engines) {
      const ChipModel::MatTable* chip = host.chip().matTable(0, key.tableId());
      ASSERT_NE(chip, nullptr);
      EXPECT_EQ(chip->numEntries(0), engine->tableConfig()->size()) << key.name();
      for (const auto& [k, config] : *engine->tableConfig()) {
         const ChipModel::MatEntry* entry = chip->entry(config.entryHandle());
         ASSERT_NE(entry, nullptr) << key.name() << " handle " << config.entryHandle();
         EXPECT_EQ(entry->index, config.index());
         EXPECT_EQ(entry->data, config.plcmtData());
      }
   }
   EXPECT_EQ(host.statusLine(), host.counters().text());
}

// Every ECMP phase converges hitlessly with statuses equal to the configurations, and the
// host's counters tell the selector's story: each next hop and member that came also went, and
// re-pointing the only active member of a vector broke a deadlock.
TEST(InProcess, EcmpPhasesConvergeHitlesslyAndTheCountersAddUp) {
   Keel::EventLoop loop;
   SliceSystem::AgentHostOptions hostOptions;
   hostOptions.log = [](const std::string&) {};
   SliceSystem::AgentHost host(loop, hostOptions);
   SliceSystem::LocalPublishTarget target(host);
   SliceSystem::Publisher publisher(target, ecmpRun());

   SliceSystem::PublisherReport report = publisher.run();
   EXPECT_TRUE(report.ok()) << report.text();
   ASSERT_EQ(report.phases.size(), 7u) << report.text();
   SliceSystem::EcmpCounts all;
   for (const SliceSystem::PhaseResult& phase : report.phases) {
      EXPECT_EQ(phase.violations, 0u) << phase.text();
      for (std::size_t t = 0; t < SliceSystem::numEcmpTables; ++t) {
         for (std::size_t k = 0; k < SliceSystem::numEcmpChanges; ++k)
            all.count[t][k] += phase.ecmpChanges.count[t][k];
      }
   }
   // Every route, member and next hop of the build is one placement operation.
   const SliceSystem::EcmpCounts& build = report.phases[0].ecmpChanges;
   EXPECT_EQ(report.phases[0].placementOps, build.of(EcmpTable::nextHop, EcmpChange::add) +
                                                build.of(EcmpTable::member, EcmpChange::add) +
                                                build.of(EcmpTable::route, EcmpChange::add));

   ASSERT_TRUE(report.host);
   const SliceSystem::HostCounters& c = *report.host;
   EXPECT_EQ(c.triplesRunning, 1u);
   EXPECT_EQ(std::tuple(c.groups, c.members, c.entries, c.statuses, c.pending),
             std::tuple(0u, 0u, 0u, 0u, 0u));
   EXPECT_EQ(c.numAdtAddOps, all.of(EcmpTable::nextHop, EcmpChange::add));
   EXPECT_EQ(c.numAdtDelOps, c.numAdtAddOps);
   EXPECT_EQ(c.numSelDelOps, c.numSelAddOps);
   EXPECT_GT(all.of(EcmpTable::member, EcmpChange::repointSole), 0u);
   EXPECT_GT(c.numDeadlockBreakOps, 0u);
   EXPECT_EQ(c.numViolations, 0u);
}

}  // namespace
