#include <gtest/gtest.h>

#include <sys/wait.h>

#include <functional>
#include <map>
#include <vector>

#include "SampleTables.h"
#include "ShmTestUtil.h"
#include "Vault/Vault.h"

namespace {

using VaultTest::Part;
using VaultTest::partOf;
using VaultTest::PartTable;
using VaultTest::VersionTable;

struct Recorder : PartTable::Notifiee {
   void onEntry(const std::uint64_t& key) override { keys.push_back(key); }
   void onEntry() override { ++wholeTable; }
   std::vector<std::uint64_t> keys;
   int wholeTable = 0;
};

template <class T>
std::map<std::uint64_t, typename T::Value> viewOf(const T& table) {
   return {table.begin(), table.end()};
}

TEST(VaultShmTable, ReaderSeesWritesAndHearsOfThemThroughItsDescriptor) {
   std::string shmName = uniqueShmName("config");
   auto writer = Vault::shmTableWriterNew<PartTable>("config", shmName, 100);
   auto reader = Vault::shmTableReaderNew<PartTable>("config", shmName);
   EXPECT_EQ(reader->capacity(), 100u);
   Recorder recorder;
   recorder.notifierIs(reader.get());

   writer->entryIs(partOf(5, 1));
   writer->entryIs(partOf(3, 1));
   writer->entryIs(partOf(5, 2));
   writer->entryIs(partOf(5, 2));  // unchanged: not a change
   EXPECT_EQ(reader->entry(5), partOf(5, 2));
   EXPECT_EQ(reader->size(), 2u);
   EXPECT_TRUE(recorder.keys.empty());

   ASSERT_TRUE(readable(reader->changeFd(), 1000));
   reader->changesDrain();
   // One notification per changed key, in the order of their first change.
   EXPECT_EQ(recorder.keys, (std::vector<std::uint64_t>{5, 3}));
   EXPECT_FALSE(readable(reader->changeFd(), 0));

   EXPECT_EQ(viewOf(*reader), viewOf(*writer));
   writer->entryDel(3);
   writer->entryIs(partOf(9, 1));
   writer->entryIs(partOf(1, 1));
   ASSERT_TRUE(readable(reader->changeFd(), 1000));
   reader->changesDrain();
   EXPECT_EQ(recorder.keys, (std::vector<std::uint64_t>{5, 3, 3, 9, 1}));
   EXPECT_EQ(reader->entry(3), Part());
   EXPECT_EQ(viewOf(*reader), viewOf(*writer));
   std::vector<std::uint64_t> keys;
   for (auto it = reader->iter(2); it != reader->end(); ++it) keys.push_back(it->first);
   EXPECT_EQ(keys, (std::vector<std::uint64_t>{5, 9}));
   EXPECT_EQ(recorder.wholeTable, 0);
}

TEST(VaultShmTable, FullTableRefusesAndStaysConsistent) {
   std::string shmName = uniqueShmName("full");
   auto writer = Vault::shmTableWriterNew<PartTable>("full", shmName, 4);
   auto reader = Vault::shmTableReaderNew<PartTable>("full", shmName);
   for (std::uint64_t key = 1; key <= 4; ++key) writer->entryIs(partOf(key, 1));
   EXPECT_THROW(writer->entryIs(partOf(5, 1)), Vault::TableFullException);
   EXPECT_EQ(writer->size(), 4u);
   EXPECT_EQ(reader->entry(5), Part());
   writer->entryIs(partOf(4, 2));
   writer->entryDel(1);
   writer->entryIs(partOf(5, 1));
   reader->changesDrain();
   EXPECT_EQ(viewOf(*reader), viewOf(*writer));
   EXPECT_EQ(reader->size(), 4u);
}

TEST(VaultShmTable, ReaderThatFellBehindRescansAndAnnouncesTheWholeTable) {
   std::string shmName = uniqueShmName("behind");
   auto writer = Vault::shmTableWriterNew<PartTable>("behind", shmName, 64, 16);
   auto reader = Vault::shmTableReaderNew<PartTable>("behind", shmName);
   Recorder recorder;
   recorder.notifierIs(reader.get());
   EXPECT_TRUE(reader->begin() == reader->end());  // builds the reader's key index

   for (std::uint64_t round = 1; round <= 5; ++round) {
      for (std::uint64_t key = 0; key < 20; ++key) writer->entryIs(partOf(key, round));
   }
   writer->entryDel(7);
   reader->changesDrain();
   EXPECT_EQ(recorder.wholeTable, 1);
   EXPECT_TRUE(recorder.keys.empty());
   EXPECT_EQ(viewOf(*reader), viewOf(*writer));

   // Back in step: single changes come key by key again.
   writer->entryDel(8);
   reader->changesDrain();
   EXPECT_EQ(recorder.keys, (std::vector<std::uint64_t>{8}));
   EXPECT_EQ(viewOf(*reader), viewOf(*writer));
}

TEST(VaultShmTable, ManyAddsAndDeletesKeepLookupsRight) {
   std::string shmName = uniqueShmName("churn");
   auto writer = Vault::shmTableWriterNew<VersionTable>("churn", shmName, 64);
   auto reader = Vault::shmTableReaderNew<VersionTable>("churn", shmName);
   std::map<std::uint64_t, std::uint64_t> expected;
   EXPECT_TRUE(viewOf(*reader).empty());  // the reader keeps a key order from here on
   std::uint64_t state = 12345;
   for (std::uint64_t i = 1; i <= 5000; ++i) {
      // Drained often, walked now and then: the order catches up from drained keys, a few at a
      // time or merged in bulk.
      if (i % 50 == 0) {
         reader->changesDrain();
         if (i < 1000 || i % 1000 == 0) {
            ASSERT_EQ(viewOf(*reader), expected);
         }
      }
      state = state * 6364136223846793005ULL + 1442695040888963407ULL;
      std::uint64_t key = (state >> 33) % 96;
      if (expected.contains(key) || expected.size() == 64) {
         writer->entryDel(key);
         expected.erase(key);
      } else {
         writer->entryIs(key, i);
         expected[key] = i;
      }
      ASSERT_EQ(reader->entry(key), expected.contains(key) ? expected[key] : 0);
   }
   reader->changesDrain();
   EXPECT_EQ(viewOf(*reader), expected);
   EXPECT_EQ(reader->size(), expected.size());
   // A pass in no order meets each live key once, past the freed slots the churn left.
   for (const VersionTable* table : {reader.get(), writer.get()}) {
      std::map<std::uint64_t, std::uint64_t> visited;
      table->entriesVisit([&](std::uint64_t key, std::uint64_t value) {
         EXPECT_TRUE(visited.emplace(key, value).second) << key;
      });
      EXPECT_EQ(visited, expected);
   }
}

TEST(VaultShmTable, MountsFailClearly) {
   std::string shmName = uniqueShmName("mount");
   EXPECT_THROW(Vault::shmTableReaderNew<PartTable>("x", shmName), Vault::MountException);
   auto writer = Vault::shmTableWriterNew<PartTable>("x", shmName, 8);
   try {
      Vault::shmTableReaderNew<VersionTable>("x", shmName);
      FAIL() << "a segment of parts mounted as a table of versions";
   } catch (const Vault::MountException& e) {
      EXPECT_NE(
          std::string(e.what()).find("holds VaultTest::PartTable, not VaultTest::VersionTable"),
          std::string::npos)
          << e.what();
   }
   EXPECT_THROW(Vault::shmTableWriterNew<PartTable>("x", shmName, 8), Vault::MountException);
   auto reader = Vault::shmTableReaderNew<PartTable>("x", shmName);
   {
      Brio::ScopedThrowingAsserts asserts;
      EXPECT_THROW(reader->entryIs(partOf(1, 1)), Brio::AssertionFailure);
   }
   // The writer takes its segment with it; the reader keeps what it mapped.
   writer->entryIs(partOf(1, 1));
   writer.reset();
   EXPECT_THROW(Vault::shmTableReaderNew<PartTable>("x", shmName), Vault::MountException);
   EXPECT_EQ(reader->entry(1), partOf(1, 1));
}

}  // namespace

std::string mountError(const std::function<void()>& mount) {
   try {
      mount();
   } catch (const Vault::MountException& e) {
      return e.what();
   }
   return "mounted";
}

// A writer record of a process that is gone (or a zombie) is taken over; a live writer's, a
// segment still being made by a live process and another user's are not, each said as such.
TEST(VaultShmTable, WritersTellStaleLiveAndForeignSegmentsApart) {
   const std::string shmName = uniqueShmName("owner");
   auto squat = [&](pid_t pid) {
      std::vector<unsigned char> bytes(sizeof(Vault::Shm::Header), 0);
      reinterpret_cast<Vault::Shm::Header*>(bytes.data())->writerPid = std::uint32_t(pid);
      shmWrite(shmName, bytes);
   };
   auto writerNew = [&] { Vault::shmTableWriterNew<VersionTable>("x", shmName, 8); };
   squat(::getppid());
   EXPECT_NE(mountError(writerNew).find("already has a writer that is running (pid "),
             std::string::npos);

   pid_t zombie = ::fork();
   if (zombie == 0) ::_exit(0);
   while (::waitid(P_PID, zombie, nullptr, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
   }
   squat(zombie);
   EXPECT_EQ(mountError(writerNew), "mounted");
   ::waitpid(zombie, nullptr, 0);

   // Being made: the maker's pid is in the name; the remover leaves a live maker's alone.
   shmWrite(shmName + ".~" + std::to_string(::getpid()) + ".9", {0});
   shmWrite(shmName + ".~" + std::to_string(zombie) + ".9", {0});
   EXPECT_EQ(Vault::shmStaleSegmentsRemove(shmName), 1u);
   EXPECT_EQ(::shm_unlink((shmName + ".~" + std::to_string(::getpid()) + ".9").c_str()), 0);

   if (::geteuid() != 0) GTEST_SKIP() << "another user's segment needs root to make";
   squat(0);
   ASSERT_EQ(::chown(("/dev/shm" + shmName).c_str(), 65534, 65534), 0);
   EXPECT_NE(mountError(writerNew).find("owned by uid 65534, not this user"), std::string::npos);
   EXPECT_THROW(writerNew(), Vault::ForeignSegmentException);
   EXPECT_NE(mountError([&] {
                Vault::shmTableReaderNew<VersionTable>("x", shmName);
             }).find("not serving"),
             std::string::npos);
   EXPECT_EQ(Vault::shmStaleSegmentsRemove(shmName), 0u);
   Vault::shmTrustedGroupIs(65534);
   EXPECT_EQ(mountError(writerNew), "mounted");
   Vault::shmTrustedGroupIs(gid_t(-1));
}
