#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <set>

#include "Atlas/Atlas.h"
#include "ChipMbbShared/ChipMbbShared.h"
#include "Keel/EventLoop.h"

namespace {

using namespace ChipMbbShared;

std::string uniqueRoot(const std::string& what) {
   static int serial = 0;
   return "tableinfotest-" + std::to_string(::getpid()) + "-" + std::to_string(serial++) + "-" +
          what;
}

TableConfigMountKey aclKey() {
   return TableConfigMountKey(ChipDriver::ChipDevTgt{0, 0xFFFF}, "ingress.acl", 0x10);
}

struct DirWatcher : Orb::Dir::Notifiee {
   void onEntityPtr(const std::string& name) override { names.push_back(name); }
   std::vector<std::string> names;
};

std::set<std::string> namesOf(const Orb::Dir& dir) {
   std::set<std::string> names;
   for (const auto& [name, entity] : dir.entities()) names.insert(name);
   return names;
}

void runUntil(Keel::EventLoop& loop, const std::function<bool()>& done) {
   for (int i = 0; i < 2000 && !done(); ++i) loop.runOnce(0.01);
}

TEST(ChipMbbSharedTableInfoDir, AgentDirFollowsWhatThePublisherAddsAndRemoves) {
   std::string root = uniqueRoot("dir");
   Keel::EventLoop loop;
   Atlas::EntityManager publisherEm(root);
   Atlas::EntityManager agentEm(root, &loop);
   auto publisher = std::make_unique<TableInfoPublisher>(publisherEm, "tableInfo");
   auto acl = publisher->singleTableInfoIs("Acl", 16);
   acl->entryIs(aclKey(), TableConfigMountEntry());

   // An entry whose collection is not there is left out, and the mirror says why.
   publisher->dirTable()->entryIs(TableInfoDirEntry("Ghost", TableInfoKind::single, 99));
   std::map<std::string, std::string> refused;
   TableInfoDirMirror mirror(
       agentEm, "tableInfo", Orb::ptrNew<Orb::Dir>("tableInfoDir"),
       [&](const std::string& name, const std::string& reason) { refused[name] = reason; });
   DirWatcher watcher;
   watcher.notifierIs(mirror.dir().get());
   auto aclInfo = std::dynamic_pointer_cast<TableConfigMountInfo>(mirror.dir()->entity("Acl"));
   ASSERT_TRUE(aclInfo);
   EXPECT_EQ(aclInfo->size(), 1u);

   publisher->tripleTableInfoIs("Ecmp", 16);
   runUntil(loop, [&] { return mirror.dir()->size() == 2; });
   EXPECT_TRUE(
       std::dynamic_pointer_cast<MatAdtSelTableConfigMountInfo>(mirror.dir()->entity("Ecmp")));
   EXPECT_EQ(watcher.names, (std::vector<std::string>{"Ecmp"}));

   // Changes inside a collection reach the agent's copy from the event loop.
   TableConfigMountEntry entry;
   entry.configPathIs("acl/config");
   entry.tableSizeIs(128);
   acl->entryIs(aclKey(), entry);
   runUntil(loop, [&] { return aclInfo->entry(aclKey()) == entry; });
   EXPECT_EQ(aclInfo->entry(aclKey()), entry);

   publisher->tableInfoDel("Acl");
   runUntil(loop, [&] { return mirror.dir()->size() == 1; });
   EXPECT_EQ(namesOf(*mirror.dir()), (std::set<std::string>{"Ecmp"}));

   // Published afresh under the same name, with another kind: the entity is replaced.
   publisher->singleTableInfoIs("Ecmp", 16);
   runUntil(loop, [&] {
      return std::dynamic_pointer_cast<TableConfigMountInfo>(mirror.dir()->entity("Ecmp")) !=
             nullptr;
   });
   EXPECT_TRUE(std::dynamic_pointer_cast<TableConfigMountInfo>(mirror.dir()->entity("Ecmp")));
   EXPECT_EQ(mirror.numMountFailures(), 1u);
   EXPECT_EQ(refused.size(), 1u);
   EXPECT_NE(refused["Ghost"].find("No such file"), std::string::npos) << refused["Ghost"];

   // A publisher that goes withdraws everything it announced. Across processes the same path
   // is taken by the host's end-to-end tests.
   publisher.reset();
   runUntil(loop, [&] { return mirror.dir()->size() == 0; });
   EXPECT_EQ(mirror.dir()->size(), 0u);
}

}  // namespace
