#include <gtest/gtest.h>
#include <unistd.h>

#include "Keel/EventLoop.h"
#include "SliceSystem/AgentHost.h"
#include "SliceSystem/PublishTarget.h"
#include "SliceSystem/Publisher.h"
#include "SliceSystem/test/SmallRun.h"

namespace {

std::uint64_t chipEntries(const SliceSystem::AgentHost& host, std::uint32_t tableId) {
   return host.chip().matTable(0, tableId)->numEntries(0);
}

SliceSystem::PublisherOptions oneTable(const std::string& request) {
   SliceSystem::PublisherOptions options = SliceSystem::Test::smallRun();
   std::string error;
   EXPECT_TRUE(SliceSystem::tableSpecsFor(ChipModel::ChipProfile::defaultProfile(), {request}, 0,
                                          options.tables, error));
   return options;
}

// A host on shared tables follows its publication: it finds it once it is there, keeps its
// tables in hardware when the publisher goes, and starts over when another one replaces it.
// Host and publishers share this process and its event loop.
TEST(AgentHost, FollowsItsPublicationThroughWithdrawalAndReplacement) {
   Keel::EventLoop loop;
   SliceSystem::AgentHostOptions hostOptions;
   hostOptions.root = "hosttest-" + std::to_string(::getpid());
   std::vector<std::string> logged;
   hostOptions.log = [&](const std::string& line) { logged.push_back(line); };
   SliceSystem::AgentHost host(loop, hostOptions);
   EXPECT_FALSE(host.testmode());
   EXPECT_EQ(host.tableMountInfo(), nullptr);
   EXPECT_EQ(host.counters().tablesRunning, 0u);

   auto first = std::make_unique<SliceSystem::ShmPublishTarget>(loop, hostOptions.root);
   host.handlePublicationProbe();
   ASSERT_NE(host.tableMountInfo(), nullptr);
   {
      SliceSystem::Publisher publisher(*first, oneTable("ipv4_host:400"));
      EXPECT_TRUE(publisher.publish().converged());
   }
   EXPECT_EQ(host.tableMgr()->mbbEngineSms().size(), 1u);
   EXPECT_EQ(chipEntries(host, 0x01000001), 400u);

   // The publisher goes and takes its collections with it; the hardware stays as it is.
   first.reset();
   host.handlePublicationProbe();
   ASSERT_EQ(logged.size(), 2u);
   EXPECT_NE(logged[1].find("withdrawn; keeping 1 tables"), std::string::npos) << logged[1];
   EXPECT_EQ(chipEntries(host, 0x01000001), 400u);
   host.handlePublicationProbe();
   EXPECT_EQ(logged.size(), 2u);

   // Another publisher with another table: the first table is taken out of hardware.
   SliceSystem::ShmPublishTarget second(loop, hostOptions.root);
   host.handlePublicationProbe();
   EXPECT_NE(logged.back().find("serving publication"), std::string::npos);
   SliceSystem::Publisher publisher(second, oneTable("acl_ingress:100"));
   EXPECT_TRUE(publisher.publish().converged());
   EXPECT_EQ(chipEntries(host, 0x01000001), 0u);
   EXPECT_EQ(chipEntries(host, 0x01000003), 100u);
   SliceSystem::HostCounters c = host.counters();
   EXPECT_EQ(c.publications, 2u);
   EXPECT_EQ(c.tablesRunning, 1u);
   EXPECT_EQ(c.entries, 100u);
   EXPECT_EQ(c.statuses, 100u);
   EXPECT_EQ(c.numMatAddOps, 100u);

   // The counters reach the publisher through the host's counters collection.
   std::optional<SliceSystem::HostCounters> seen = publisher.hostCountersFresh(5.0);
   ASSERT_TRUE(seen);
   EXPECT_GT(seen->seq, c.seq);
   EXPECT_EQ(seen->entries, 100u);
}

}  // namespace
