#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <string>

#include "ChipMbbSliceTableMgr/ChipSliceTableMgrSm.h"
#include "ChipMbbSliceTableMgr/test/TableMgrWorld.h"

namespace ChipMbbSlice::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Vault::MbbEngine::EntryStatus;
using Vault::MbbEngine::TableConfig;
using Vault::MbbEngine::TableStatus;

// The agent's manager mounts what the publisher announces in "agent1/info".
struct MountedWorld : TwoProcesses, World {
   MountedWorld() {
      pubInfo = publisher.mount<TableConfigMountInfo>("agent1/info", Atlas::MountMode::writer, 16);
      info = agent->mount<TableConfigMountInfo>("agent1/info", Atlas::MountMode::reader);
   }
   Orb::Ptr<TableConfig> pubConfig(const std::string& path) {
      return publisher.mount<TableConfig>(path, Atlas::MountMode::writer, 1024);
   }

   Orb::Ptr<TableConfigMountInfo> pubInfo;
};

TEST(ChipSliceTableMgrMountTest, PublishedTableIsMountedServedAndUnmounted) {
   MountedWorld w;
   auto config = w.pubConfig("host/config");
   config->entryIs(matEntry(0x10, 1, 5, 7));
   w.mgrNew(w.agent);
   auto audit = Orb::ptrNew<RecordingAuditMgr>();
   w.mgr->tableAuditMgrSmIs(audit);

   const auto key = mountKey("host", hostHdl);
   w.pubInfo->entryIs(key, published("host"));
   w.settle([&] { return w.mgr->mbbEngineSm(key) != nullptr; });
   ASSERT_NE(w.mgr->mbbEngineSm(key), nullptr);
   EXPECT_FALSE(w.capture.contains("mounting vault in test mode"));
   EXPECT_TRUE(w.capture.contains("adding table to audit manager for table hdl:0x1000001"));
   EXPECT_EQ(audit->engines.back().lock(), w.mgr->mbbEngineSm(key));
   auto agentConfig = w.agent->entity<TableConfig>("host/config");
   auto agentStatus = w.agent->entity<TableStatus>("host/status");
   ASSERT_NE(agentStatus, nullptr);
   EXPECT_EQ(w.mgr->mbbEngineSm(key)->tableConfig(), agentConfig);

   // What was configured before the mount is in hardware, and the publisher sees it so.
   const ChipModel::MatTable* chip = w.chip->matTable(0, hostHdl);
   ASSERT_NE(chip->entry(5), nullptr);
   EXPECT_EQ(chip->entry(5)->index, 7u);
   auto pubStatus = w.publisher.mount<TableStatus>("host/status", Atlas::MountMode::reader);
   EXPECT_EQ(pubStatus->entry(0x10), EntryStatus(0x10, 1));
   w.publisher.unmount("host/status");

   w.mgr->allowUnmountIs(true);
   w.pubInfo->entryDel(key);
   w.settle([&] { return w.mgr->mbbEngineSm(key) == nullptr; });
   EXPECT_EQ(w.mgr->mbbEngineSm(key), nullptr);
   EXPECT_TRUE(w.capture.contains("unmounting table " + key.name()));
   EXPECT_EQ(w.agent->entity("host/config"), nullptr);
   EXPECT_EQ(w.agent->entity("host/status"), nullptr);
   EXPECT_FALSE(w.mgr->tableScopeHas(hostHdl));
   EXPECT_THAT(audit->calls, ElementsAre("add " + key.name(), "del " + key.name()));
   // The engine took its entries out of hardware as it went.
   EXPECT_EQ(chip->entry(5), nullptr);

   // Published again, it is mounted afresh.
   w.pubInfo->entryIs(key, published("host"));
   w.settle([&] { return w.mgr->mbbEngineSm(key) != nullptr; });
   ASSERT_NE(w.mgr->mbbEngineSm(key), nullptr);
   EXPECT_NE(chip->entry(5), nullptr);
}

// Mount entries that cannot be mounted are left out with a trace and a word to whoever asked
// for one; the others are served.
TEST(ChipSliceTableMgrMountTest, UnmountableEntriesAreSkipped) {
   MountedWorld w;
   w.pubConfig("good/config");
   w.pubConfig("nostatus/config");
   w.pubConfig("clash/config");
   w.pubConfig("shared/config");
   w.pubConfig("large/config");
   w.publisher.mount<TableStatus>("clash/status", Atlas::MountMode::writer, 16);
   w.publisher.mount<TableStatus>("wrongtype/config", Atlas::MountMode::writer, 16);

   w.pubInfo->entryIs(mountKey("missing", hostHdl, 0, 0), published("missing"));
   w.pubInfo->entryIs(mountKey("wrongtype", hostHdl, 0, 1), published("wrongtype"));
   w.pubInfo->entryIs(mountKey("clash", hostHdl, 0, 2), published("clash"));
   w.pubInfo->entryIs(mountKey("good", hostHdl, 0, 3), published("good"));
   auto shared = published("shared");
   shared.statusPathIs("good/status");
   w.pubInfo->entryIs(mountKey("shared", hostHdl, 0, 4), shared);
   // Its configuration has room for 1024 entries.
   w.pubInfo->entryIs(mountKey("large", hostHdl, 0, 5), published("large", true, 512));
   w.pubInfo->entryIs(mountKey("nostatus", aclHdl), published("nostatus", false));
   w.mgrNew(w.agent);
   std::map<std::string, std::string> said;
   w.mgr->skipHandlerIs([&](const TableConfigMountKey& key, const std::string& reason) {
      said[key.name().substr(namePrefix.size())] = reason;
   });
   w.mgr->handleTableMount();

   EXPECT_EQ(w.running(), (std::vector<std::string>{namePrefix + "good", namePrefix + "nostatus"}));
   EXPECT_THAT(said["missing"], HasSubstr("No such file"));
   EXPECT_THAT(said["wrongtype"], HasSubstr("holds Vault::MbbEngine::TableStatus"));
   EXPECT_THAT(said["clash"], HasSubstr("already has a writer that is running"));
   EXPECT_EQ(said["shared"], "good/status is the status of " + namePrefix + "good already");
   EXPECT_EQ(said["large"],
             "large/config has room for 1024 entries, more than the 512 of the table");
   for (const char* name : {"missing", "wrongtype", "clash"}) {
      EXPECT_TRUE(hasRecord("0:skipping unmountable:" + std::string(name))) << name;
   }
   // A refused status leaves no configuration mount behind.
   EXPECT_EQ(w.agent->entity("clash/config"), nullptr);
   EXPECT_EQ(w.agent->entity("nostatus/status"), nullptr);
   EXPECT_NE(w.agent->entity("nostatus/config"), nullptr);
   EXPECT_EQ(w.agent->numMounts(), 4u);
}

}  // namespace
}  // namespace ChipMbbSlice::test
