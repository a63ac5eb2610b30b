#include <gtest/gtest.h>

#include "SliceSystem/Args.h"
#include "SliceSystem/HostCounters.h"
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
   EXPECT_EQ(watch.outstanding().count(1), 0u);
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

TEST(Args, OptionsFlagsAndWhatIsNotUnderstood) {
   const char* argv[] = {"tool",      "--root",        "r1",   "--table", "a:10",
                         "--table=b", "--churn",       "0.25", "--quiet", "--entries",
                         "0x10",      "--crash-after", "x",    "--bogus", "--timeout"};
   SliceSystem::Args args(sizeof argv / sizeof *argv, const_cast<char**>(argv));
   EXPECT_EQ(args.text("root"), "r1");
   EXPECT_EQ(args.texts("table"), (std::vector<std::string>{"a:10", "b"}));
   EXPECT_DOUBLE_EQ(args.number("churn", 0.1), 0.25);
   EXPECT_TRUE(args.flag("quiet"));
   EXPECT_FALSE(args.flag("in-process"));
   EXPECT_EQ(args.count("entries", 5), 16u);
   EXPECT_EQ(args.count("seed", 7), 7u);
   args.count("crash-after", 0);
   args.number("timeout", 1);
   std::string error = args.error();
   EXPECT_NE(error.find("--crash-after wants a count"), std::string::npos) << error;
   EXPECT_NE(error.find("unknown option --bogus"), std::string::npos) << error;
   EXPECT_NE(error.find("--timeout needs a value"), std::string::npos) << error;

   const char* good[] = {"tool", "--root", "r"};
   SliceSystem::Args clean(3, const_cast<char**>(good));
   EXPECT_EQ(clean.text("root"), "r");
   EXPECT_EQ(clean.error(), "");
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
