#include "ChipMbbSliceTableMgr/ChipSliceTableWatcherSm.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ChipMbbSliceTableMgr/test/TableMgrWorld.h"
#include "ChipModel/testing/ChipTestUtil.h"

namespace ChipMbbSlice::test {
namespace {

using ChipMbbShared::MatAdtSelTableConfigMountInfo;
using ::testing::ElementsAre;

// What the watcher tells its notifiees, in order.
class WatcherLog : public ChipSliceTableWatcherSm::Notifiee {
 public:
   void onCliCallback() override { calls.push_back("cliCallback"); }
   void onTimerWheel() override { calls.push_back("timerWheel"); }
   void onTableAuditMgrSm() override { calls.push_back("tableAuditMgrSm"); }
   void onInitialized() override { calls.push_back("initialized"); }
   void onTableMgr(const std::string& name) override { calls.push_back("tableMgr " + name); }
   void onMatAdtSelTableMgr(const std::string& name) override {
      calls.push_back("matAdtSelTableMgr " + name);
   }
   std::vector<std::string> calls;
};

struct WatcherWorld : World {
   WatcherWorld() { Orb::activityTimeSourceIs(clock); }

   Orb::Ptr<ChipSliceTableWatcherSm> watcherNew() {
      watcher = Orb::ptrNew<ChipSliceTableWatcherSm>(
          dir, nullptr, supportedDevices, sessHdl, syncGenTime,
          ChipModel::modelResourceInfoNew(chip->profile()), ChipModel::modelHwPdNew(*chip),
          flushStatus, mountConfig);
      return watcher;
   }
   // A feature agent's mount-info collection with one table published in it.
   Orb::Ptr<TableConfigMountInfo> singleInfo(const std::string& table, std::uint32_t handle) {
      auto info = Vault::localTableNew<TableConfigMountInfo>(table + "Info");
      info->mountedIs(true);
      info->entryIs(mountKey(table, handle), published(table));
      return info;
   }
   Orb::Ptr<MatAdtSelTableConfigMountInfo> tripleInfo() {
      auto info = Vault::localTableNew<MatAdtSelTableConfigMountInfo>("tripleInfo");
      info->mountedIs(true);
      return info;
   }

   Orb::Ptr<Orb::Dir> dir = Orb::ptrNew<Orb::Dir>("tableInfo");
   Orb::Ptr<ChipSliceTableWatcherSm> watcher;
};

TEST(ChipSliceTableWatcherSmTest, StartsUpInOrderAndServesWhatIsAlreadyPublished) {
   WatcherWorld w;
   w.dir->entityIs("host", w.singleInfo("host", hostHdl));
   auto watcher = w.watcherNew();
   EXPECT_TRUE(w.capture.contains("handleInitialized syncGenTime: 1234.5"));
   EXPECT_TRUE(hasRecord("0:syncGenTime:1234.5"));

   ASSERT_NE(watcher->tableMgr("host"), nullptr);
   const auto key = mountKey("host", hostHdl);
   EXPECT_NE(watcher->tableMgr("host")->mbbEngineSm(key), nullptr);
   // The wheel, the audit and the show commands exist before the first manager: the audit
   // heard of the table that was mounted before it was handed over.
   EXPECT_NE(watcher->tableAuditMgrSm()->tableAuditSm(key), nullptr);
   EXPECT_EQ(watcher->tableAuditMgrSm()->timerWheel(), watcher->timerWheel().get());
   EXPECT_NE(watcher->cliCallback()->cliYieldSm(), nullptr);
   EXPECT_EQ(watcher->tableMgrs().size(), 1u);
}

TEST(ChipSliceTableWatcherSmTest, DirectoryEntitiesAreAddedReplacedAndRemoved) {
   WatcherWorld w;
   auto watcher = w.watcherNew();
   WatcherLog log;
   log.notifierIs(watcher.get());

   w.dir->entityIs("host", w.singleInfo("host", hostHdl));
   const auto first = watcher->tableMgr("host");
   ASSERT_NE(first, nullptr);
   EXPECT_EQ(first->tableAuditMgrSm(), watcher->tableAuditMgrSm());
   EXPECT_TRUE(w.capture.contains("handleTableInfoDir adding host"));

   // Announced again: a fresh manager under the same name, serving the new collection.
   w.dir->entityIs("host", w.singleInfo("acl", aclHdl));
   ASSERT_NE(watcher->tableMgr("host"), first);
   EXPECT_NE(watcher->tableMgr("host")->mbbEngineSm(mountKey("acl", aclHdl)), nullptr);

   // A second feature agent announcing a chip table that is served already is left out.
   w.dir->entityIs("rival", w.singleInfo("acl", aclHdl));
   EXPECT_TRUE(watcher->tableMgr("rival")->mbbEngineSms().empty());
   EXPECT_TRUE(w.capture.contains("skipping " + namePrefix +
                                  "acl: hdl:0x1000003 is served for another feature agent"));

   w.dir->entityIs("ecmp", w.tripleInfo());
   const auto triples = watcher->matAdtSelTableMgr("ecmp");
   ASSERT_NE(triples, nullptr);
   EXPECT_EQ(triples->tableAuditMgrSm(), watcher->tableAuditMgrSm());
   EXPECT_EQ(watcher->tripleMgrs().at("ecmp"), triples);

   // A single-table entity takes its manager with it; a triple's manager stays.
   w.dir->entityDel("host");
   w.dir->entityDel("ecmp");
   EXPECT_EQ(watcher->tableMgr("host"), nullptr);
   EXPECT_TRUE(w.capture.contains("handleTableInfoDir removing host"));
   EXPECT_EQ(watcher->matAdtSelTableMgr("ecmp"), triples);
   EXPECT_THAT(log.calls, ElementsAre("tableMgr host", "tableMgr host", "tableMgr rival",
                                      "matAdtSelTableMgr ecmp", "tableMgr host"));

   EXPECT_EQ(
       ChipTestUtil::assertionOf([&] { w.dir->entityIs("odd", Orb::ptrNew<Orb::Dir>("odd")); }),
       "false && \"Unexpected type in dir\"");
}

}  // namespace
}  // namespace ChipMbbSlice::test
