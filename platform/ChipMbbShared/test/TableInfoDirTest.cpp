#include <gtest/gtest.h>
#include <sys/wait.h>
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
   TableInfoPublisher publisher(publisherEm, "tableInfo");
   auto acl = publisher.singleTableInfoIs("Acl", 16);
   acl->entryIs(aclKey(), TableConfigMountEntry());

   // An entry whose collection is not there is left out, and the mirror says why.
   publisher.dirTable()->entryIs(TableInfoDirEntry("Ghost", TableInfoKind::single, 99));
   std::map<std::string, std::string> refused;
   TableInfoDirMirror mirror(
       agentEm, "tableInfo", Orb::ptrNew<Orb::Dir>("tableInfoDir"),
       [&](const std::string& name, const std::string& reason) { refused[name] = reason; });
   DirWatcher watcher;
   watcher.notifierIs(mirror.dir().get());
   auto aclInfo = std::dynamic_pointer_cast<TableConfigMountInfo>(mirror.dir()->entity("Acl"));
   ASSERT_TRUE(aclInfo);
   EXPECT_EQ(aclInfo->size(), 1u);

   publisher.tripleTableInfoIs("Ecmp", 16);
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

   publisher.tableInfoDel("Acl");
   runUntil(loop, [&] { return mirror.dir()->size() == 1; });
   EXPECT_EQ(namesOf(*mirror.dir()), (std::set<std::string>{"Ecmp"}));

   // Published afresh under the same name, with another kind: the entity is replaced.
   publisher.singleTableInfoIs("Ecmp", 16);
   runUntil(loop, [&] {
      return std::dynamic_pointer_cast<TableConfigMountInfo>(mirror.dir()->entity("Ecmp")) !=
             nullptr;
   });
   EXPECT_TRUE(std::dynamic_pointer_cast<TableConfigMountInfo>(mirror.dir()->entity("Ecmp")));
   EXPECT_EQ(refused.size(), 1u);
   EXPECT_NE(refused["Ghost"].find("No such file"), std::string::npos) << refused["Ghost"];
}

TEST(ChipMbbSharedTableInfoDir, PublisherInAnotherProcess) {
   std::string root = uniqueRoot("xproc");
   int ready[2], go[2];
   ASSERT_EQ(::pipe(ready), 0);
   ASSERT_EQ(::pipe(go), 0);
   pid_t child = ::fork();
   if (child == 0) {
      char byte = 0;
      {
         Atlas::EntityManager em(root);
         TableInfoPublisher publisher(em, "tableInfo");
         (void)!::write(ready[1], "r", 1);
         (void)!::read(go[0], &byte, 1);
         for (int i = 0; i < 20; ++i) {
            std::string name = "Agent" + std::to_string(i);
            auto info = i % 2 ? nullptr : publisher.singleTableInfoIs(name, 4);
            if (i % 2) publisher.tripleTableInfoIs(name, 4);
            if (info) info->entryIs(aclKey(), TableConfigMountEntry());
            if (i % 3 == 0) publisher.tableInfoDel(name);
            ::usleep(300);
         }
         (void)!::read(go[0], &byte, 1);
      }
      ::_exit(0);
   }
   char byte = 0;
   ASSERT_EQ(::read(ready[0], &byte, 1), 1);
   Keel::EventLoop loop;
   Atlas::EntityManager agentEm(root, &loop);
   TableInfoDirMirror mirror(agentEm, "tableInfo");
   ASSERT_EQ(::write(go[1], "g", 1), 1);
   std::set<std::string> expected;
   for (int i = 0; i < 20; ++i) {
      if (i % 3 != 0) expected.insert("Agent" + std::to_string(i));
   }
   runUntil(loop, [&] { return namesOf(*mirror.dir()) == expected; });
   EXPECT_EQ(namesOf(*mirror.dir()), expected);
   auto agent2 = std::dynamic_pointer_cast<TableConfigMountInfo>(mirror.dir()->entity("Agent2"));
   ASSERT_TRUE(agent2);
   runUntil(loop, [&] { return agent2->size() == 1; });
   EXPECT_EQ(agent2->size(), 1u);
   EXPECT_TRUE(
       std::dynamic_pointer_cast<MatAdtSelTableConfigMountInfo>(mirror.dir()->entity("Agent1")));

   ASSERT_EQ(::write(go[1], "x", 1), 1);
   int status = 0;
   ::waitpid(child, &status, 0);
   EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
   // A publisher that goes unpublishes everything it announced.
   runUntil(loop, [&] { return mirror.dir()->size() == 0; });
   EXPECT_EQ(mirror.dir()->size(), 0u);
   for (int fd : {ready[0], ready[1], go[0], go[1]}) ::close(fd);
}

}  // namespace
