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

bool logHas(const std::vector<std::string>& logged, const std::string& text) {
   for (const std::string& line : logged) {
      if (line.find(text) != std::string::npos) return true;
   }
   return false;
}

// A host on shared tables follows each publisher's directory: it serves what a publisher
// announces once the directory is there, keeps the tables in hardware when the publisher goes,
// starts over when a publisher of the same name replaces it, and serves two publishers side by
// side. Whatever it stops serving it unmounts. Host and publishers share this process and its
// event loop.
TEST(AgentHost, FollowsPublishersThroughDepartureAndReplacement) {
   Keel::EventLoop loop;
   SliceSystem::AgentHostOptions hostOptions;
   hostOptions.root = "hosttest-" + std::to_string(::getpid());
   std::vector<std::string> logged;
   hostOptions.log = [&](const std::string& line) { logged.push_back(line); };
   SliceSystem::AgentHost host(loop, hostOptions);
   EXPECT_FALSE(host.testmode());
   const std::size_t baseline = host.entityManager()->numMounts();

   auto first = std::make_unique<SliceSystem::ShmPublishTarget>(loop, hostOptions.root, "alpha");
   {
      SliceSystem::Publisher publisher(*first, oneTable("ipv4_host:400"));
      host.handlePublicationProbe();
      EXPECT_TRUE(publisher.publish().converged());
   }
   ASSERT_NE(host.watcher()->tableMgr("alpha"), nullptr);
   EXPECT_TRUE(host.watcher()->tableMgr("alpha")->allowUnmount());
   EXPECT_EQ(chipEntries(host, 0x01000001), 400u);

   // The publisher goes and its segments with it; the hardware stays as it is, said once.
   first.reset();
   host.handlePublicationProbe();
   host.handlePublicationProbe();
   EXPECT_TRUE(logHas(logged, "publisher mbb/publishers/alpha gone; keeping its 1 tables"));
   EXPECT_EQ(chipEntries(host, 0x01000001), 400u);

   // Its successor under the same name publishes another table: the first one goes.
   SliceSystem::ShmPublishTarget second(loop, hostOptions.root, "alpha");
   SliceSystem::ShmPublishTarget beta(loop, hostOptions.root, "beta");
   host.handlePublicationProbe();
   EXPECT_TRUE(logHas(logged, "replaced"));
   SliceSystem::Publisher publisher(second, oneTable("acl_ingress:100"));
   SliceSystem::Publisher other(beta, oneTable("ipv4_lpm:50"));
   EXPECT_TRUE(publisher.publish().converged());
   host.handlePublicationProbe();
   EXPECT_TRUE(other.publish().converged());
   EXPECT_EQ(chipEntries(host, 0x01000001), 0u);
   EXPECT_EQ(chipEntries(host, 0x01000003), 100u);
   SliceSystem::HostCounters c = host.counters();
   EXPECT_EQ(c.publications, 3u);
   EXPECT_EQ(c.tablesRunning, 2u);
   EXPECT_EQ(c.entries, 150u);
   EXPECT_EQ(c.statuses, 150u);
   // Directory, mount-info collection, configuration and status of each of the two tables.
   EXPECT_EQ(host.entityManager()->numMounts(), baseline + 2 * 4);

   // The counters reach the publisher through the host's counters collection.
   std::optional<SliceSystem::HostCounters> seen = publisher.hostCountersFresh(5.0);
   ASSERT_TRUE(seen);
   EXPECT_GT(seen->seq, c.seq);
   EXPECT_EQ(seen->entries, 150u);
}

}  // namespace
