#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>

#include <map>

#include "Atlas/Atlas.h"
#include "Keel/EventLoop.h"
#include "Vault/Vault.h"

namespace {

using Atlas::EntityManager;
using Atlas::MountMode;
using namespace Vault::MbbEngine;

std::string uniqueRoot(const std::string& what) {
   static int serial = 0;
   return "atlastest-" + std::to_string(::getpid()) + "-" + std::to_string(serial++) + "-" + what;
}

bool shmExists(const std::string& shmName) {
   int fd = ::shm_open(shmName.c_str(), O_RDONLY, 0);
   if (fd >= 0) ::close(fd);
   return fd >= 0;
}

struct Recorder : TableStatus::Notifiee {
   void onEntry(const EntryKey& key) override { keys.push_back(key.value()); }
   void onEntry() override { ++wholeTable; }
   std::vector<std::uint64_t> keys;
   int wholeTable = 0;
};

TEST(AtlasEntityManager, MountsByPathAndFeedsReadersFromTheEventLoop) {
   Keel::EventLoop loop;
   std::string root = uniqueRoot("feed");
   EntityManager publisher(root);
   EntityManager agent(root, &loop);

   auto status = publisher.mount<TableStatus>("tables/acl/status", MountMode::writer, 16);
   ASSERT_TRUE(status);
   EXPECT_TRUE(status->writable());
   EXPECT_EQ(publisher.entity<TableStatus>("tables/acl/status"), status);
   auto entity =
       agent.mount("tables/acl/status", "Vault::MbbEngine::TableStatus", MountMode::reader);
   auto reader = std::dynamic_pointer_cast<TableStatus>(entity);
   ASSERT_TRUE(reader);
   EXPECT_TRUE(reader->mounted());
   // Mounting again gives the same table.
   EXPECT_EQ(agent.mount<TableStatus>("tables/acl/status", MountMode::reader), reader);

   Recorder recorder;
   recorder.notifierIs(reader.get());
   status->entryIs(EntryStatus(4, 1));
   status->entryIs(EntryStatus(2, 1));
   for (int i = 0; i < 10 && recorder.keys.size() < 2; ++i) loop.runOnce(1.0);
   EXPECT_EQ(recorder.keys, (std::vector<std::uint64_t>{4, 2}));
   EXPECT_EQ(reader->entry(2), EntryStatus(2, 1));

   // Another root is another system.
   EntityManager other(uniqueRoot("other"));
   EXPECT_THROW(other.mount<TableStatus>("tables/acl/status", MountMode::reader),
                Vault::MountException);

   std::string shmName = publisher.shmName("tables/acl/status");
   EXPECT_TRUE(shmExists(shmName));
   agent.unmount("tables/acl/status");
   EXPECT_EQ(loop.numFdReadHandlers(), 0u);
   EXPECT_TRUE(shmExists(shmName));
   publisher.unmount("tables/acl/status");
   EXPECT_FALSE(shmExists(shmName));
   EXPECT_EQ(publisher.numMounts(), 0u);
   // Those that held on to the table keep its contents.
   EXPECT_EQ(status->entry(4), EntryStatus(4, 1));
}

TEST(AtlasEntityManager, BadMountsFailClearly) {
   std::string root = uniqueRoot("bad");
   EntityManager em(root);
   auto expectMountError = [](auto&& fn, const std::string& text) {
      try {
         fn();
         ADD_FAILURE() << "mount succeeded, expected: " << text;
      } catch (const Vault::MountException& e) {
         EXPECT_NE(std::string(e.what()).find(text), std::string::npos) << e.what();
      }
   };
   expectMountError([&] { em.mount("t", "Vault::MbbEngine::NoSuchTable", MountMode::reader); },
                    "unknown table type Vault::MbbEngine::NoSuchTable");
   expectMountError([&] { em.mount<TableConfig>("t", MountMode::writer); }, "needs a capacity");
   expectMountError([&] { em.mount<TableConfig>("missing", MountMode::reader); },
                    "cannot open table");

   em.mount<TableConfig>("config", MountMode::writer, 8);
   expectMountError([&] { em.mount<TableStatus>("config", MountMode::writer, 8); },
                    "config is mounted as Vault::MbbEngine::TableConfig writer");
   EntityManager reader(root);
   expectMountError([&] { reader.mount<TableStatus>("config", MountMode::reader); },
                    "holds Vault::MbbEngine::TableConfig, not Vault::MbbEngine::TableStatus");
   EntityManager secondWriter(root);
   expectMountError([&] { secondWriter.mount<TableConfig>("config", MountMode::writer, 8); },
                    "already has a writer");

   // A segment of the right name but another layout.
   auto odd = Vault::ShmStore<EntryKey, EntryStatus>::writerNew(em.shmName("odd"),
                                                                TableConfig::vaultTypeName, 4);
   expectMountError([&] { reader.mount<TableConfig>("odd", MountMode::reader); },
                    "incompatible layout");
}

TEST(AtlasEntityManager, MountGroupsMountAllOrNothing) {
   std::string root = uniqueRoot("group");
   EntityManager em(root);
   auto group = em.mountGroupNew();
   group->mount("a/config", "Vault::MbbEngine::TableConfig", MountMode::writer, 8);
   group->mount("a/status", "Vault::MbbEngine::TableStatus", MountMode::reader);
   EXPECT_EQ(em.numMounts(), 0u);
   EXPECT_THROW(group->close(), Vault::MountException);
   EXPECT_EQ(em.numMounts(), 0u);
   EXPECT_FALSE(shmExists(em.shmName("a/config")));

   auto good = em.mountGroupNew();
   good->mount("a/config", "Vault::MbbEngine::TableConfig", MountMode::writer, 8);
   good->mount("a/status", "Vault::MbbEngine::TableStatus", MountMode::writer, 8);
   good->close();
   EXPECT_EQ(em.numMounts(), 2u);
   EXPECT_TRUE(em.entity<TableStatus>("a/status"));
   EXPECT_FALSE(em.entity<TableConfig>("a/status"));
}

TEST(AtlasEntityManager, PathsMapToDistinctSegmentNames) {
   EntityManager em("root.x");
   EXPECT_NE(em.shmName("a/b"), em.shmName("a.b"));
   EXPECT_NE(em.shmName("a/b"), em.shmName("a_b"));
   std::string longPath(400, 'p');
   std::string name = em.shmName(longPath);
   EXPECT_LE(name.size(), 200u);
   EXPECT_NE(name, em.shmName(longPath + "q"));
   EXPECT_EQ(name.find('/', 1), std::string::npos);
}

TEST(AtlasEntityManager, EventLoopFollowsAWriterInAnotherProcess) {
   std::string root = uniqueRoot("xproc");
   int ready[2], go[2];
   ASSERT_EQ(::pipe(ready), 0);
   ASSERT_EQ(::pipe(go), 0);
   constexpr std::uint64_t numKeys = 500;
   pid_t child = ::fork();
   if (child == 0) {
      char byte = 0;
      EntityManager publisher(root);
      auto status = publisher.mount<TableStatus>("status", MountMode::writer, numKeys);
      (void)!::write(ready[1], "r", 1);
      (void)!::read(go[0], &byte, 1);
      for (std::uint64_t round = 1; round <= 20; ++round) {
         for (std::uint64_t key = 0; key < numKeys; ++key) {
            if ((key + round) % 7 == 0) {
               status->entryDel(key);
            } else {
               status->entryIs(EntryStatus(key, round));
            }
         }
         ::usleep(500);
      }
      status->entryIs(EntryStatus(numKeys - 1, 999));
      (void)!::read(go[0], &byte, 1);
      status.reset();
      publisher.unmountAll();
      ::_exit(0);
   }
   char byte = 0;
   ASSERT_EQ(::read(ready[0], &byte, 1), 1);
   Keel::EventLoop loop;
   EntityManager agent(root, &loop);
   auto reader = agent.mount<TableStatus>("status", MountMode::reader);
   Recorder recorder;
   recorder.notifierIs(reader.get());
   ASSERT_EQ(::write(go[1], "g", 1), 1);
   // The last write is the marker that the writer is done.
   for (int turns = 0; reader->entry(numKeys - 1).opId() != OpId(999) && turns < 100000; ++turns) {
      loop.runOnce(0.1);
   }
   while (loop.runOnce(0.05) != 0) {
   }
   std::map<std::uint64_t, std::uint64_t> view;
   for (const auto& [key, value] : *reader) view[key.value()] = value.opId().value();
   std::map<std::uint64_t, std::uint64_t> expected;
   for (std::uint64_t key = 0; key < numKeys; ++key) {
      if ((key + 20) % 7 != 0) expected[key] = 20;
   }
   expected[numKeys - 1] = 999;
   EXPECT_EQ(view, expected);
   EXPECT_FALSE(recorder.keys.empty());
   ASSERT_EQ(::write(go[1], "x", 1), 1);
   int status = 0;
   ::waitpid(child, &status, 0);
   EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
   for (int fd : {ready[0], ready[1], go[0], go[1]}) ::close(fd);
}

}  // namespace
