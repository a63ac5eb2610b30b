#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include <fcntl.h>

#include "Atlas/Atlas.h"
#include "Keel/EventLoop.h"
#include "Vault/Vault.h"

namespace {

using Atlas::EntityManager;
using Atlas::MountMode;

class Versions : public Vault::Table<std::uint64_t, std::uint64_t> {
 public:
   static constexpr std::string_view vaultTypeName = "AtlasTest::Versions";
   using Table::Table;
};

class Counts : public Vault::Table<std::uint64_t, std::uint64_t> {
 public:
   static constexpr std::string_view vaultTypeName = "AtlasTest::Counts";
   using Table::Table;
};

// Versions by name, laid out otherwise.
class OddVersions : public Vault::Table<std::uint64_t, std::uint32_t> {
 public:
   static constexpr std::string_view vaultTypeName = Versions::vaultTypeName;
   using Table::Table;
};

const bool registered = Vault::registerTableType<Versions>() && Vault::registerTableType<Counts>();

std::string uniqueRoot(const std::string& what) {
   static int serial = 0;
   return "atlastest-" + std::to_string(::getpid()) + "-" + std::to_string(serial++) + "-" + what;
}

bool shmExists(const std::string& shmName) {
   int fd = ::shm_open(shmName.c_str(), O_RDONLY, 0);
   if (fd >= 0) ::close(fd);
   return fd >= 0;
}

struct Recorder : Versions::Notifiee {
   void onEntry(const std::uint64_t& key) override { keys.push_back(key); }
   std::vector<std::uint64_t> keys;
};

TEST(AtlasEntityManager, MountsByPathAndFeedsReadersFromTheEventLoop) {
   ASSERT_TRUE(registered);
   Keel::EventLoop loop;
   std::string root = uniqueRoot("feed");
   EntityManager publisher(root);
   EntityManager agent(root, &loop);

   auto writer = publisher.mount<Versions>("tables/acl", MountMode::writer, 16);
   auto reader = std::dynamic_pointer_cast<Versions>(
       agent.mount("tables/acl", "AtlasTest::Versions", MountMode::reader));
   ASSERT_TRUE(reader);
   EXPECT_EQ(agent.mount<Versions>("tables/acl", MountMode::reader), reader);

   Recorder recorder;
   recorder.notifierIs(reader.get());
   writer->entryIs(4, 1);
   writer->entryIs(2, 1);
   for (int i = 0; i < 10 && recorder.keys.size() < 2; ++i) loop.runOnce(1.0);
   EXPECT_EQ(recorder.keys, (std::vector<std::uint64_t>{4, 2}));

   // Another root is another system.
   EXPECT_THROW(EntityManager(uniqueRoot("other")).mount<Versions>("tables/acl", MountMode::reader),
                Vault::MountException);

   // A reader's unmount leaves the segment; the writer's removes it.
   std::string shmName = publisher.shmName("tables/acl");
   agent.unmount("tables/acl");
   EXPECT_TRUE(shmExists(shmName));
   publisher.unmount("tables/acl");
   EXPECT_FALSE(shmExists(shmName));
}

// A writer on an event loop rings a sleeping reader when the turn that wrote ends, once for
// all its changes, and on the way through a long burst; a manager gone before its turn ended
// leaves nothing behind that the loop could still call.
TEST(AtlasEntityManager, WritersOnALoopRingReadersOncePerTurn) {
   Keel::EventLoop loop;
   std::string root = uniqueRoot("ring");
   auto host = std::make_unique<EntityManager>(root, &loop);
   EntityManager agent(root);
   auto writer = host->mount<Versions>("t", MountMode::writer, 4096);
   auto reader = agent.mount<Versions>("t", MountMode::reader);
   auto rung = [&] {
      pollfd p{reader->changeFd(), POLLIN, 0};
      return ::poll(&p, 1, 0) == 1;
   };
   Recorder recorder;
   recorder.notifierIs(reader.get());
   writer->entryIs(1, 1);
   writer->entryIs(2, 1);
   EXPECT_FALSE(rung());
   loop.runOnce(0);
   ASSERT_TRUE(rung());
   reader->changesDrain();
   EXPECT_EQ(recorder.keys, (std::vector<std::uint64_t>{1, 2}));
   EXPECT_FALSE(rung());

   for (std::uint64_t key = 0; key < 1500; ++key) writer->entryIs(key, 2);
   EXPECT_TRUE(rung());
   reader->changesDrain();
   writer->entryIs(3, 3);
   host.reset();
   EXPECT_TRUE(rung());
   loop.runOnce(0);
   recorder.notifierIs(nullptr);
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
   expectMountError([&] { em.mount("t", "AtlasTest::NoSuchTable", MountMode::reader); },
                    "unknown table type AtlasTest::NoSuchTable");
   expectMountError([&] { em.mount<Versions>("t", MountMode::writer); }, "needs a capacity");

   em.mount<Versions>("v", MountMode::writer, 8);
   expectMountError([&] { em.mount<Counts>("v", MountMode::writer, 8); },
                    "v is mounted as AtlasTest::Versions writer");

   // A segment of the right type name but another layout.
   auto odd = Vault::shmTableWriterNew<OddVersions>("odd", em.shmName("odd"), 4);
   expectMountError([&] { EntityManager(root).mount<Versions>("odd", MountMode::reader); },
                    "incompatible layout");
}

// A segment refused at mount is said once, however often it is tried, and again once it has
// been replaced by another that is refused too.
TEST(AtlasEntityManager, RefusedSegmentsAreReportedOncePerSegment) {
   const std::string root = uniqueRoot("refused");
   EntityManager agent(root);
   std::vector<std::string> reports;
   agent.corruptionHandlerIs([&](const std::string& path, const std::string& reason) {
      reports.push_back(path + ": " + reason);
   });
   auto zeros = [&] {
      const std::string name = agent.shmName("t");
      ::shm_unlink(name.c_str());
      int fd = ::shm_open(name.c_str(), O_RDWR | O_CREAT, 0600);
      ASSERT_EQ(::ftruncate(fd, 8192), 0);
      ::close(fd);
   };
   zeros();
   for (int attempt = 0; attempt < 3; ++attempt) {
      EXPECT_THROW(agent.mount<Versions>("t", MountMode::reader),
                   Brio::CorruptionDetectedException);
   }
   zeros();
   EXPECT_THROW(agent.mount<Versions>("t", MountMode::reader), Brio::CorruptionDetectedException);
   ASSERT_EQ(reports.size(), 2u);
   EXPECT_EQ(reports[0], "t: " + agent.shmName("t") + ": segment was never initialised");
   EXPECT_EQ(agent.numMountsRefused(), 2u);
   ::shm_unlink(agent.shmName("t").c_str());
}

TEST(AtlasEntityManager, MountGroupsMountAllOrNothing) {
   EntityManager em(uniqueRoot("group"));
   auto group = em.mountGroupNew();
   group->mount("a/versions", "AtlasTest::Versions", MountMode::writer, 8);
   group->mount("a/counts", "AtlasTest::Counts", MountMode::reader);
   EXPECT_THROW(group->close(), Vault::MountException);
   EXPECT_EQ(em.numMounts(), 0u);
   EXPECT_FALSE(shmExists(em.shmName("a/versions")));

   auto good = em.mountGroupNew();
   good->mount("a/versions", "AtlasTest::Versions", MountMode::writer, 8);
   good->mount("a/counts", "AtlasTest::Counts", MountMode::writer, 8);
   good->close();
   EXPECT_TRUE(em.entity<Counts>("a/counts"));
   EXPECT_FALSE(em.entity<Versions>("a/counts"));
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

}  // namespace
