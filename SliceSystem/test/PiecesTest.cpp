#include <gtest/gtest.h>

#include <algorithm>

#include "SliceSystem/HostCounters.h"
#include "SliceSystem/PublisherArgs.h"
#include "SliceSystem/StatusWatch.h"

namespace {

using Vault::MbbEngine::EntryStatus;

Orb::Ptr<Vault::MbbEngine::TableStatus> statusTableNew() {
   auto table = Vault::MbbEngine::tableStatusFactory("status");
   table->mountedIs(true);
   return table;
}

TEST(StatusWatch, KeysLeaveWhenTheirStatusShowsTheExpectedOpIdOrIsGoneForDeletes) {
   SliceSystem::StatusWatch watch;
   watch.expect(1, 5);
   watch.expect(2, 0);
   EXPECT_EQ(watch.numOutstanding(), 2u);

   auto status = statusTableNew();
   status->entryIs(EntryStatus(2, 9));
   watch.statusIs(status);
   EXPECT_EQ(watch.numOutstanding(), 2u);
   status->entryIs(EntryStatus(1, 4));
   EXPECT_EQ(watch.numOutstanding(), 2u);
   status->entryIs(EntryStatus(1, 5));
   EXPECT_FALSE(watch.outstanding(1));
   status->entryDel(2);
   EXPECT_EQ(watch.numOutstanding(), 0u);

   // A key expected again waits for its newer op id.
   watch.expect(1, 6);
   status->entryIs(EntryStatus(3, 6));
   EXPECT_EQ(watch.numOutstanding(), 1u);

   // The host made the collection afresh: the watch moves over, checks everything against it,
   // and lets the old one go although it was its last holder.
   auto fresh = statusTableNew();
   fresh->entryIs(EntryStatus(1, 6));
   watch.statusIs(std::move(fresh));
   status.reset();
   EXPECT_EQ(watch.numOutstanding(), 0u);
   watch.expect(4, 1);
   watch.status()->entryIs(EntryStatus(4, 1));
   EXPECT_EQ(watch.numOutstanding(), 0u);
}

// Every number a tool takes is refused unless it is finite, whole where a count is meant, and
// inside its range; a count that would wrap into the option's type is refused, not narrowed.
TEST(Args, NumbersAreCheckedBeforeTheyAreTaken) {
   auto parse = [](std::vector<std::string> words, std::string& error) {
      CLI::App app{"", "tool"};
      SliceSystem::PublisherArgs pub;
      SliceSystem::publisherArgsAdd(app, pub);
      std::reverse(words.begin(), words.end());
      error.clear();
      try {
         app.parse(words);
      } catch (const CLI::ParseError& e) {
         error = e.what();
      }
      return pub;
   };
   std::string error;
   auto pub = parse({"--entries", "0x10", "--table", "a:10", "--table", "b", "--timeout", "2.5",
                     "--instance-id", "65535", "--ecmp", "--ecmp-order", "shuffled"},
                    error);
   EXPECT_EQ(error, "");
   EXPECT_EQ(pub.entries, 16u);
   EXPECT_EQ(pub.tables, (std::vector<std::string>{"a:10", "b"}));
   EXPECT_DOUBLE_EQ(pub.options.timeout, 2.5);
   EXPECT_EQ(pub.options.instanceId, 65535);
   EXPECT_TRUE(pub.ecmp);
   for (std::vector<std::string> bad : {std::vector<std::string>{"--timeout", "nan"},
                                        {"--timeout", "inf"},
                                        {"--timeout", "-1"},
                                        {"--churn", "1.5"},
                                        {"--entries", "4294967297"},
                                        {"--entries", "-1"},
                                        {"--entries", "12x"},
                                        {"--instance-id", "65536"},
                                        {"--seed", "18446744073709551616"},
                                        {"--ecmp-order", "sideways"},
                                        {"--bogus"}}) {
      parse(bad, error);
      EXPECT_NE(error, "") << bad[0] << " " << (bad.size() > 1 ? bad[1] : "");
   }
   // A table's own count is held to the table, also where it would wrap.
   pub = parse({"--table", "ipv4_host:4294967297"}, error);
   SliceSystem::PublisherOptions options;
   EXPECT_FALSE(SliceSystem::publisherOptionsFor(pub, ChipModel::ChipProfile::defaultProfile(),
                                                 options, error));
   EXPECT_NE(error.find("bad entry count"), std::string::npos) << error;
}

TEST(HostCounters, TextCountsEveryDeleteOnceAndNamesTheDeadlockBreaks) {
   SliceSystem::HostCounters c;
   EXPECT_EQ(c.opsText(), "none");
   c.tablesRunning = 3;
   c.tablesPublished = 5;
   c.numMatAddOps = 10;
   c.numMatDelOps = 4;
   c.numMatDelDeadlockOps = 1;
   EXPECT_EQ(c.numOps(), 14u);
   EXPECT_EQ(c.opsText(), "mat_add 10, mat_del 4 (deadlock breaks 1)");
   EXPECT_EQ(c.text().rfind("tables 3/5 running", 0), 0u) << c.text();
}

}  // namespace
