#include "ChipMbbSliceTableMgr/ChipSliceTableMgrSm.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "ChipMbbSlice/ChipMbbEngineHelper.h"
#include "ChipMbbSliceTableMgr/test/TableMgrWorld.h"
#include "MbbEngine/FastMbbEngineAtcamImpl.h"

namespace ChipMbbSlice::test {
namespace {

// A case names only the fields it checks; g++ 12 warns about the others although they are
// value-initialised as the language says.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

const std::vector<DecisionCase<World>>& decisionCases() {
   static const std::vector<DecisionCase<World>> cases = {
       {.name = "a current table is mounted and its steps traced",
        .run =
            [](World& w) {
               w.publish(mountKey("plain", hostHdl), published("plain"));
               w.mgrNew();
            },
        .traces = {"ChipSliceTableMgrSm::handleTableMount",
                   "ChipSliceTableMgrSm::handleTableMount " + p("plain") +
                       " dev:0 pipe:0xffff id:0x01000001",
                   "mounting table for read " + p("plain"), "mounting vault in test mode",
                   "starting mbbenginesm for " + p("plain"),
                   "no audit manager, skipping audit for table with hdl:0x1000001"},
        .running = {p("plain")},
        .check =
            [](World& w) {
               const auto key = mountKey("plain", hostHdl);
               EXPECT_EQ(w.mgr->debug(key)->debugStatus()->name(), p("plain"));
               EXPECT_EQ(w.chip->table(0, hostHdl)->entryScope(),
                         PIPE_MGR_ENTRY_SCOPE_ALL_PIPELINES);
               const auto impl = w.mgr->mbbEngineSm(key)->mbbEngineImpl();
               auto helper = std::dynamic_pointer_cast<ChipMbbEngineHelper>(impl->helper());
               ASSERT_NE(helper, nullptr);
               EXPECT_EQ(std::tuple(helper->devTgt(), helper->matTableHandle(),
                                    helper->sessionHandle(), helper->testmode(), helper->qtId()),
                         std::tuple(key.devTgt(), hostHdl, sessHdl, false, impl->qtId()));
               EXPECT_TRUE(w.flushStatus->allFlushed());
            }},
       {.name = "a device id of 32 or more is fatal",
        .run =
            [](World& w) {
               w.supportedDevices = 0xFFFFFFFF;
               w.publish(mountKey("dev40", hostHdl, 40), published("dev40"));
               w.mgrNew();
            },
        .assertion = "key.devTgt().devId() < 32"},
       {.name = "an older instance is stale, an equal one is current",
        .run =
            [](World& w) {
               w.publish(mountKey("inst2", hostHdl), published("inst2", true, 1024, 2));
               w.mgrNew();
               w.publish(mountKey("inst1", aclHdl), published("inst1", true, 1024, 1));
               w.publish(mountKey("inst2b", lpmHdl), published("inst2b", true, 1024, 2));
            },
        .absentTraces = {"mounting table for read " + p("inst1")},
        .records = {"0:skipping stale instanceId:inst1 id:1 maxId:2", "1:mounting table:inst2",
                    "2:mounting table:inst2b"},
        .running = {p("inst2"), p("inst2b")}},
       {.name = "a newer instance deletes every engine and keeps the rest",
        .run =
            [](World& w) {
               w.publish(mountKey("old1", hostHdl), published("old1", true, 1024, 1));
               w.publish(mountKey("old2", aclHdl), published("old2", true, 1024, 1));
               w.mgrNew();
               w.publish(mountKey("new3", lpmHdl), published("new3", true, 1024, 3));
            },
        .running = {p("new3")},
        .check =
            [](World& w) {
               // The old tables come back only when republished by the new instance.
               w.publish(mountKey("old1", hostHdl), published("old1", true, 1024, 3));
               EXPECT_EQ(w.running(), (std::vector<std::string>{p("new3"), p("old1")}));
            }},
       {.name = "an unsupported device, a stale status before a stale configuration are skipped",
        .run =
            [](World& w) {
               w.supportedDevices = 0x1;
               w.publish(mountKey("foreign", hostHdl, 1), published("foreign"));
               auto stale = published("stale");
               stale.statusGenTimeIs(99);
               stale.configGenTimeIs(98);
               w.publish(mountKey("stale", hostHdl), stale);
               auto oldcfg = published("oldcfg");
               oldcfg.configGenTimeIs(98);
               oldcfg.globalIs(true);
               w.publish(mountKey("oldcfg", aclHdl), oldcfg);
               w.mgrNew();
            },
        .traces = {"unsupported devId: 1",
                   "ignoring " + p("stale") + " syncGenTime: 1234.5 statusGenTime: 99",
                   "ignoring " + p("oldcfg") + " global: 1 syncGenTime: 1234.5 configGenTime: 98"},
        .absentTraces = {"mounting table for read " + p("foreign"),
                         "ignoring " + p("stale") +
                             " global: 0 syncGenTime: 1234.5 configGenTime: 98"},
        .records = {"0:skipping stale status:stale statusGenTime:99 syncGenTime:1234.5",
                    "0:skipping: oldcfg global: true configGenTime:98 syncGenTime:1234.5"}},
       {.name = "a changed entry for a running table changes nothing",
        .run =
            [](World& w) {
               w.publish(mountKey("exists", hostHdl), published("exists"));
               w.mgrNew();
               w.publish(mountKey("exists", hostHdl), published("exists", true, 4096));
            },
        .traces = {"handleTableMount ignoring existing " + p("exists")},
        .records = {"0:skipping existing:exists"},
        .running = {p("exists")},
        .check =
            [](World& w) {
               EXPECT_EQ(w.mgr->mountInfo(mountKey("exists", hostHdl)).tableSize(), 1024u);
            }},
       {.name = "mode 0 leaves tables without status until the mode changes",
        .run =
            [](World& w) {
               w.mountConfig->modeIs(MountMode::mountStatusTablesOnly);
               w.publish(mountKey("nostatus", hostHdl), published("nostatus", false));
               w.publish(mountKey("status", aclHdl), published("status", true));
               w.mgrNew();
               EXPECT_EQ(w.running(), std::vector<std::string>{p("status")});
               w.mountConfig->modeIs(MountMode::mountAllTables);
            },
        .traces = {"handleTableMount ignoring disabled: " + p("nostatus"),
                   "handleMountConfig mountConfig()->mode() = mountAllTables",
                   "handleTableMount ignoring existing " + p("status")},
        .records = {"0:skipping disabled:nostatus"},
        .running = {p("nostatus"), p("status")},
        .check =
            [](World& w) {
               EXPECT_EQ(w.mgr->mbbEngineSm(mountKey("nostatus", hostHdl))->tableStatus(), nullptr);
            }},
       {.name = "all pipes and one pipe of one table conflict",
        .run =
            [](World& w) {
               w.publish(mountKey("allpipes", aclHdl, 0, 0xFFFF), published("allpipes"));
               w.publish(mountKey("onepipe", aclHdl, 0, 2), published("onepipe"));
               w.mgrNew();
            },
        .assertion = "tableScope( key.tableId() ) == propVal.scope"},
       {.name = "an SDK refusal of the scope is fatal",
        .run =
            [](World& w) {
               ChipModel::ChipProfile profile = ChipModel::ChipProfile::defaultProfile();
               profile.devices = {0};
               w.chipIs(profile);
               w.publish(mountKey("nodev", hostHdl, 1), published("nodev"));
               w.mgrNew();
            },
        .assertion = "ps == 0"},
       {.name = "ATCAM partition bits follow the partition count; pipes of a table agree",
        .run =
            [](World& w) {
               // One pipe each, so that the four share the table and its scope.
               std::uint16_t pipe = 0;
               for (auto [name, partitions] :
                    {std::pair{"atcam1", 1u}, {"atcam3", 3u}, {"atcam4", 4u}, {"atcam16", 16u}}) {
                  auto entry = published(name);
                  entry.maxPartitionsIs(partitions);
                  w.publish(mountKey(name, lpmHdl, 0, pipe++), entry);
               }
               w.mgrNew();
            },
        .traces = {"starting atcam partitionBits:0 maxPartitions:1",
                   "starting atcam partitionBits:2 maxPartitions:3",
                   "starting atcam partitionBits:2 maxPartitions:4",
                   "starting atcam partitionBits:4 maxPartitions:16"},
        .running = {p("atcam1"), p("atcam3"), p("atcam4"), p("atcam16")},
        .check =
            [](World& w) {
               EXPECT_EQ(w.chip->table(0, lpmHdl)->entryScope(),
                         PIPE_MGR_ENTRY_SCOPE_SINGLE_PIPELINE);
               for (const auto& [key, engine] : w.mgr->mbbEngineSms()) {
                  EXPECT_NE(std::dynamic_pointer_cast<MbbEngine::FastMbbEngineAtcamImpl>(
                                engine->mbbEngineImpl()),
                            nullptr)
                      << key.name();
               }
            }},
       {.name = "more than 65536 partitions is fatal",
        .run =
            [](World& w) {
               auto entry = published("atcamhuge");
               entry.maxPartitionsIs(65537);
               w.publish(mountKey("atcamhuge", lpmHdl), entry);
               w.mgrNew();
            },
        .assertion = "partitionBits <= 16"},
       {.name = "unpublishing a running table is fatal unless allowed",
        .run =
            [](World& w) {
               w.publish(mountKey("refused", hostHdl), published("refused"));
               w.mgrNew();
               w.info->entryDel(mountKey("refused", hostHdl));
            },
        .assertion = "allowUnmount() && \"unmount is not supported\"",
        .traces = {"unmounting table " + p("refused")},
        .records = {"1:unmounting refused"}},
       {.name = "test mode keeps an unpublished table running, also one found gone on a resync",
        .run =
            [](World& w) {
               w.publish(mountKey("kept", hostHdl), published("kept"));
               w.publish(mountKey("resync", aclHdl), published("resync"));
               w.mgrNew();
               w.mgr->allowUnmountIs(true);
               w.info->entryDel(mountKey("kept", hostHdl));
               // Gone without a notification of its own, as after a reader fell behind.
               w.info->store().erase(mountKey("resync", aclHdl));
               w.info->mountedIs(false);
               w.info->mountedIs(true);
            },
        .traces = {"unmounting table " + p("kept"), "unmounting table " + p("resync"),
                   "No unmounting support in testmode"},
        .running = {p("kept"), p("resync")},
        .check =
            [](World& w) {
               EXPECT_EQ(w.mgr->mountInfo(mountKey("kept", hostHdl)), published("kept"));
            }},
       {.name = "an unpublished table that is not running is left alone",
        .run =
            [](World& w) {
               w.mountConfig->modeIs(MountMode::mountStatusTablesOnly);
               w.mgrNew();
               w.publish(mountKey("never", hostHdl), published("never", false));
               w.info->entryDel(mountKey("never", hostHdl));
            },
        .traces = {"handleTableMount ignoring disabled: " + p("never")},
        .absentTraces = {"unmounting table " + p("never")}},
       {.name = "chip mismatches are skipped and the others go on",
        .run =
            [](World& w) {
               w.publish(mountKey("size0", hostHdl), published("size0", true, 0));
               w.publish(mountKey("toobig", hostHdl, 1), published("toobig", true, hostSize + 1));
               w.publish(mountKey("notmat", ecmpAdtHdl), published("notmat"));
               w.publish(mountKey("nochip", 0x0badbad0), published("nochip"));
               w.publish(mountKey("fits", hostHdl, 0, 3), published("fits", true, hostSize));
               w.mgrNew();
            },
        .traces = {"skipping " + p("size0") + ": tableSize 0 does not fit the chip's 65536",
                   "skipping " + p("toobig") + ": tableSize 65537 does not fit the chip's 65536",
                   "skipping " + p("notmat") + ": no match table with hdl:0x2000010 on the chip",
                   "skipping " + p("nochip") + ": no match table with hdl:0xbadbad0 on the chip"},
        .records = {"0:skipping bad size:toobig tableSize:65537 chipSize:65536"},
        .running = {p("fits")}},
   };
   return cases;
}

TEST(ChipSliceTableMgrSmTest, DecisionSteps) {
   runDecisionCases(decisionCases(), [](const World& w) { return w.running(); });
}

}  // namespace
}  // namespace ChipMbbSlice::test
