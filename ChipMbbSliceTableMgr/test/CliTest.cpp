#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Brio/Brio.h"
#include "ChipMbbSliceTableMgr/ChipMbbSliceTableMgr.h"
#include "ChipMbbSliceTableMgr/test/TableMgrWorld.h"
#include "ChipModel/ChipModel.h"
#include "ChipModel/testing/ChipTestUtil.h"
#include "Keel/Keel.h"
#include "TableAuditSm/testing/AuditWorld.h"
#include "Vault/LocalTable.h"

namespace ChipMbbSlice {
namespace {

using test::hostHdl;
using test::matEntry;

// The lines of a dump, each of which must start with its expected text.
std::vector<std::string> linesStartingWith(const std::string& text,
                                           const std::vector<std::string>& expected) {
   std::istringstream in(text);
   std::vector<std::string> lines;
   for (std::string line; std::getline(in, line);) lines.push_back(line);
   EXPECT_EQ(lines.size(), expected.size()) << text;
   for (std::size_t i = 0; i < std::min(lines.size(), expected.size()); ++i)
      EXPECT_TRUE(lines[i].starts_with(expected[i])) << lines[i];
   return lines;
}

// One feature agent "fib" with ipv4_host published, in test mode, and the show commands over
// it and the chip model.
struct CliWorld : CliTableDir {
   CliWorld() {
      setenv("FLASHLOG_DISABLE", "1", 1);
      info->mountedIs(true);
      info->entryIs(key, test::published("fib/ipv4_host", true, 65536));
   }
   TableMgrMap tableMgrs() const override { return {{"fib", mgr}}; }

   Vault::MbbEngine::TableConfig& config() { return *mgr->mbbEngineSm(key)->tableConfig(); }

   // Runs one command to its end, reading the answer as the client would.
   std::string run(const std::string& command, bool hw = false) {
      int fds[2];
      EXPECT_EQ(pipe2(fds, O_NONBLOCK), 0);
      hw ? cli->handleHwCommand(fds[1], command, 0) : cli->handleCommand(fds[1], command);
      return drain(fds[0]);
   }
   std::string drain(int fd) {
      std::string got;
      char buf[4096];
      for (int turn = 0; turn < 100000; ++turn) {
         const ssize_t n = read(fd, buf, sizeof buf);
         if (n == 0) break;
         if (n > 0) got.append(buf, static_cast<std::size_t>(n));
         wheel->advance();
      }
      close(fd);
      return got;
   }

   // What "hw table" prints for the chip table `hdl` holding the entries `hdls`.
   std::string hwDump(std::uint32_t hdl, const std::vector<std::uint32_t>& hdls) const {
      std::string text = "( " + hwPd->cliSchema(0, hdl) + ",{";
      for (std::uint32_t h : hdls) {
         char head[16];
         std::snprintf(head, sizeof head, "0x%08x:", h);
         text += head + hwPd->entryValue(7, 0, 0, hdl, h) + ",";
      }
      return text + "})";
   }

   ChipModel::InstalledChip chip;
   Brio::ScopedThrowingAsserts asserts;
   ChipMbbShared::TableConfigMountKey key{ChipDriver::ChipDevTgt{0, 0xFFFF}, "ipv4_host", hostHdl};
   Orb::Ptr<ChipMbbShared::TableConfigMountInfo> info =
       Vault::localTableNew<ChipMbbShared::TableConfigMountInfo>("fib/info");
   // Moves on each read, so that a dump's slices end after a known number of rows.
   Orb::Ptr<TableAuditTesting::StepTimeSource> time =
       Orb::ptrNew<TableAuditTesting::StepTimeSource>();
   Orb::Ptr<Keel::TimerWheel> wheel = Orb::ptrNew<Keel::TimerWheel>(time, 1, 1024, true, 16);
   Orb::Ptr<ChipSliceTableMgrSm> mgr =
       Orb::ptrNew<ChipSliceTableMgrSm>(info, nullptr, 0x1, 7, test::syncGenTime, wheel,
                                        Orb::ptrNew<MbbEngine::MbbEngineFlushStatus>("flush"),
                                        Orb::ptrNew<MountConfig>(MountMode::mountAllTables),
                                        ChipModel::modelResourceInfoNew(chip.profile()));
   std::shared_ptr<HwPd::HwPdIntf> hwPd = ChipModel::modelHwPdNew(chip);
   Orb::Ptr<CliCallback> cli = Orb::ptrNew<CliCallback>(
       "ChipMbbSlice", "ChipMbbSliceCli", this, ChipModel::modelResourceInfoNew(chip.profile()),
       hwPd, 7, Orb::ptrNew<Keel::WheelClock>(wheel.get()));
};

TEST(CliTest, DumpFormats) {
   CliWorld w;
   EXPECT_EQ(w.run("mbb agents"),
             "mbb agents\nFeatureAgent fib\n table ipv4_host id:0x01000001 type: single\n"
             "  config: fib/ipv4_host/config\n  status: fib/ipv4_host/status\n");
   // A hardware command that is not "hw table" is an "mbb" command.
   EXPECT_EQ(w.run("hw mbb agents", true), w.run("mbb agents").insert(0, "hw "));
   EXPECT_EQ(w.run("mbb table nosuch pipe 0 key 0"),
             "mbb table nosuch pipe 0 key 0\nUnknown table name (nosuch)\n");
   EXPECT_EQ(w.run("mbb nothing"), "mbb nothing\n");

   EXPECT_EQ(w.run("hw table ipv4_host pipe 0", true), w.hwDump(hostHdl, {}));
   EXPECT_EQ(w.run("hw table nosuch pipe 0", true), "None");
   ASSERT_EQ(ChipTestUtil::matAdd(hostHdl, 0x21, 7, ChipTestUtil::plainBlock(1)), BF_SUCCESS);
   ASSERT_EQ(ChipTestUtil::matAdd(hostHdl, 0x22, 8, ChipTestUtil::plainBlock(2)), BF_SUCCESS);
   EXPECT_EQ(w.run("hw table ipv4_host pipe 0", true), w.hwDump(hostHdl, {0x21, 0x22}));

   w.config().entryIs(matEntry(1, 1, 0x11, 5));
   w.config().entryIs(matEntry(2, 1, 0x12, 0x7FFFF));
   w.config().entryIs(matEntry(3, 1, 0x13, 5));  // waits for key 1's index
   linesStartingWith(
       w.run("mbb table ipv4_host pipe 0 key 0"),
       {"mbb table ipv4_host pipe 0 key 0",
        "fib table: ipv4_host id: 0x01000001 pipe: 0xffff needStatus: 1",
        "Pending entries (1):", "key: 0x00000003 ti:        3", "Current entries (3):",
        "key: 0x00000001 ti:        0 hdl: 0x00000011 prioGrp: 0 prio: 0 opId: 0x0000000000000001",
        "  plcmtData ipv4_host: ",
        "key: 0x00000002 ti:        0 hdl: 0x00000012 prioGrp: 0 prio: 0 opId: 0x0000000000000001 "
        "DEFAULT",
        "  plcmtData ipv4_host: ",
        "key: 0x00000003 ti:        3 hdl: 0x00000013 prioGrp: 0 prio: 0 opId: 0x0000000000000001 "
        "STALE",
        "  plcmtData ipv4_host: "});
   const std::string one = w.run("mbb table ipv4_host pipe 0 key 0x2");
   EXPECT_NE(one.find("key: 0x00000002"), std::string::npos);
   EXPECT_EQ(one.find("key: 0x00000001"), std::string::npos);
}

// The same agent with the default profile's triple published beside its single table.
struct TripleCliWorld : CliWorld {
   TripleCliWorld() {
      tripleInfo->mountedIs(true);
      tripleInfo->entryIs(tripleKey, test::triple("fib/ecmp"));
      tmgr = Orb::ptrNew<ChipSliceMatAdtSelTableMgrSm>(
          tripleInfo, nullptr, 0x1, 7, test::syncGenTime, wheel,
          Orb::ptrNew<MbbEngine::MbbEngineFlushStatus>("tflush"),
          Orb::ptrNew<MountConfig>(MountMode::mountAllTables),
          ChipModel::modelResourceInfoNew(chip.profile()));
   }
   ~TripleCliWorld() { tmgr.reset(); }
   TripleMgrMap tripleMgrs() const override { return {{"fib", tmgr}}; }

   ChipMbbShared::TableConfigMountKey tripleKey{ChipDriver::ChipDevTgt{0, 0xFFFF}, "ecmp",
                                                test::ecmpHdl};
   Orb::Ptr<ChipMbbShared::MatAdtSelTableConfigMountInfo> tripleInfo =
       Vault::localTableNew<ChipMbbShared::MatAdtSelTableConfigMountInfo>("fib/triples");
   Orb::Ptr<ChipSliceMatAdtSelTableMgrSm> tmgr;
};

TEST(CliTest, TripleDumpFormats) {
   TripleCliWorld w;
   EXPECT_EQ(w.run("mbb agents"),
             "mbb agents\nFeatureAgent fib\n table ipv4_host id:0x01000001 type: single\n"
             "  config: fib/ipv4_host/config\n  status: fib/ipv4_host/status\n"
             " table nexthop_ecmp/nexthop_ecmp_adt/nexthop_ecmp_sel "
             "id:0x01000010/0x02000010/0x03000010 type: triple\n"
             "  mat config     fib/ecmp/config\n  adt config:    fib/ecmp/adtConfig\n"
             "  selgrp config: fib/ecmp/grpConfig\n  selmbr config: fib/ecmp/mbrConfig\n"
             "  adt status:    fib/ecmp/adtStatus\n  selgrp status: fib/ecmp/grpStatus\n"
             "  mat status:    fib/ecmp/status\n  selmbr status: fib/ecmp/mbrStatus\n");

   // One group of one vector with one member over one ADT entry, a match entry over the
   // group, and a match entry whose group does not exist.
   const auto sm = w.tmgr->matAdtSelSliceSm(w.tripleKey);
   sm->adtTableConfig()->entryIs(ChipMbbShared::AdtEntryConfig(
       0xA1, 1, 11, ChipSdk::PlcmtDataBuilder().adtMember(11).block()));
   sm->selGrpTableConfig()->entryIs(ChipMbbShared::SelGrpEntryConfig(0x61, 1, 21, 1, 10, 120));
   sm->selMbrTableConfig()->entryIs(
       ChipMbbShared::SelMbrEntryConfig(ChipMbbShared::SelMbrEntryKey(0x61, 0, 0), 1, 0xA1, true,
                                        ChipSdk::PlcmtDataBuilder().block()));
   sm->matTableConfig()->entryIs(Vault::MbbEngine::EntryConfig(
       0x300, 1, 31, 0, 0, 1, 5, 10, 0, ChipSdk::PlcmtDataBuilder().selGroup(0x61, 1).block()));
   sm->matTableConfig()->entryIs(Vault::MbbEngine::EntryConfig(
       0x301, 1, 32, 0, 0, 1, 6, 20, 0, ChipSdk::PlcmtDataBuilder().selGroup(0x62, 1).block()));
   w.time->stepIs(0.01);
   for (int i = 0; i < 50 && sm->tableStatus()->entry(0x300).opId() != 1; ++i) w.wheel->advance();
   w.time->stepIs(0);
   ASSERT_NE(w.chip.matTable(0, test::ecmpHdl)->entry(31), nullptr);

   const auto lines = linesStartingWith(
       w.run("mbb table nexthop_ecmp pipe 0 key 0"),
       {"mbb table nexthop_ecmp pipe 0 key 0",
        "fib table nexthop_ecmp/nexthop_ecmp_adt/nexthop_ecmp_sel "
        "id:0x01000010/0x02000010/0x03000010 pipe: 0xffff needStatus: 1",
        "Pending entries (1):", "key: 0x00000301 ti: ", "Current entries (2):",
        "key: 0x00000300 ti:        0 hdl: 0x0000001f prioGrp: 0 prio: 0 opId: 0x0000000000000001",
        "  plcmtData nexthop_ecmp: ", "key: 0x00000301 ti: ", "  plcmtData nexthop_ecmp: "});
   ASSERT_EQ(lines.size(), 9u);
   EXPECT_TRUE(lines[7].ends_with(" STALE")) << lines[7];

   // The hardware dumps of the triple's three tables.
   EXPECT_EQ(w.run("hw table nexthop_ecmp pipe 0", true), w.hwDump(test::ecmpHdl, {31}));
   EXPECT_EQ(w.run("hw table nexthop_ecmp_adt pipe 0", true), w.hwDump(test::ecmpAdtHdl, {11}));
   EXPECT_EQ(w.run("hw table nexthop_ecmp_sel pipe 0", true), w.hwDump(test::ecmpSelHdl, {11}));
}

struct RunnerTest : ::testing::Test {
   RunnerTest() {
      for (std::uint32_t i = 0; i < rows; ++i) {
         EXPECT_EQ(ChipTestUtil::matAdd(hostHdl, 0x100 + i, i, ChipTestUtil::plainBlock()),
                   BF_SUCCESS);
      }
      whole = w.run("hw table ipv4_host pipe 0", true);
      // Each row reads the clock once: a 1 ms slice holds about ten rows.
      w.time->stepIs(0.0001);
   }
   int start(const std::string& command) {
      int fds[2];
      EXPECT_EQ(pipe2(fds, O_NONBLOCK), 0);
      runner().runShowHwCommand(static_cast<std::uint32_t>(fds[1]), command, 0);
      return fds[0];
   }
   CliYieldSm& runner() { return *w.cli->cliYieldSm(); }

   static constexpr std::uint32_t rows = 200;
   CliWorld w;
   std::string whole;
};

TEST_F(RunnerTest, SlicesQueueAndClose) {
   const int first = start("hw table ipv4_host pipe 0");
   const int second = start("hw table ipv4_host pipe 0");
   EXPECT_TRUE(runner().inProgress());
   EXPECT_EQ(runner().showQueueSize(), 1u);
   char c;
   EXPECT_EQ(read(second, &c, 1), -1);  // queued, not run inside the call
   std::size_t slices = 0;
   while (runner().inProgress() && slices < 1000) {
      ++slices;
      w.wheel->advance();
   }
   EXPECT_GT(slices, rows / 20);
   EXPECT_EQ(w.drain(first), whole);
   EXPECT_EQ(w.drain(second), whole);
   EXPECT_EQ(runner().socket(), CliYieldSm::noSocket);
   EXPECT_EQ(runner().showQueueSize(), 0u);
}

TEST_F(RunnerTest, RunTimeLimitAbortsOnlyACommandThatFoundTheRunnerIdle) {
   runner().runTimeLimitIs(0.005);
   const int first = start("hw table ipv4_host pipe 0");
   const int second = start("hw table ipv4_host pipe 0");
   const std::string cut = w.drain(first);
   EXPECT_LT(cut.size(), whole.size());
   EXPECT_TRUE(whole.starts_with(cut));
   EXPECT_EQ(w.drain(second), whole);
   EXPECT_FALSE(runner().inProgress());
}

TEST_F(RunnerTest, LargeEngineDumpYieldsAndMatchesTheWholeDump) {
   for (std::uint64_t k = 1; k <= 2 * CliCallback::mbbTableInlineEntries; ++k) {
      w.config().entryIs(matEntry(k, 1, static_cast<std::uint32_t>(0x1000 + k),
                                  static_cast<std::uint32_t>(1000 + k)));
   }
   const std::string sliced = w.run("mbb table ipv4_host pipe 0 key 0");
   runner().showDurationIs(1e9);  // one slice, unless the reader lags
   EXPECT_EQ(sliced, w.run("mbb table ipv4_host pipe 0 key 0"));
   EXPECT_NE(sliced.find("Current entries (512):"), std::string::npos);
}

}  // namespace
}  // namespace ChipMbbSlice
