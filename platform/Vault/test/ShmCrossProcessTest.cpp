#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>

#include "SampleTables.h"
#include "ShmTestUtil.h"
#include "Vault/Vault.h"

namespace {

using VaultTest::Part;
using VaultTest::partOf;
using VaultTest::PartTable;

constexpr std::uint32_t numKeys = 3000;
constexpr int numOps = 40000;

// The writer's work, the same in both processes: the child does it, the parent predicts it.
template <class Write, class Del>
void script(Write&& write, Del&& del) {
   std::uint64_t state = 99;
   for (int i = 1; i <= numOps; ++i) {
      state = state * 6364136223846793005ULL + 1442695040888963407ULL;
      std::uint64_t key = (state >> 33) % numKeys;
      if ((state >> 20) % 4 == 0) {
         del(key);
      } else {
         write(partOf(key, i));
      }
      if (i % 500 == 0) ::usleep(200);
   }
}

// Every notified key must read back whole: absent, or a record of that very key.
struct Checker : PartTable::Notifiee {
   void onEntry(const std::uint64_t& key) override {
      Part part = table->entry(key);
      ++numKeyNotifications;
      if (part == Part()) return;
      bad += part.id != key || part != partOf(part.id, part.version);
   }
   void onEntry() override {
      ++numResyncs;
      for (const auto& [key, part] : *table) bad += part.id != key;
   }
   PartTable* table = nullptr;
   int numKeyNotifications = 0;
   int numResyncs = 0;
   int bad = 0;
};

TEST(VaultShmCrossProcess, ReaderFollowsAWriterInAnotherProcess) {
   std::string shmName = uniqueShmName("xproc");
   int ready[2], done[2], go[2];
   ASSERT_EQ(::pipe(ready), 0);
   ASSERT_EQ(::pipe(done), 0);
   ASSERT_EQ(::pipe(go), 0);
   pid_t child = ::fork();
   if (child == 0) {
      char byte = 0;
      auto writer = Vault::shmTableWriterNew<PartTable>("w", shmName, numKeys);
      (void)!::write(ready[1], "r", 1);
      (void)!::read(go[0], &byte, 1);
      script([&](const Part& c) { writer->entryIs(c); },
             [&](std::uint64_t key) { writer->entryDel(key); });
      (void)!::write(done[1], "d", 1);
      (void)!::read(go[0], &byte, 1);
      writer.reset();
      ::_exit(0);
   }
   char byte = 0;
   ASSERT_EQ(::read(ready[0], &byte, 1), 1);
   auto reader = Vault::shmTableReaderNew<PartTable>("r", shmName);
   Checker checker;
   checker.table = reader.get();
   checker.notifierIs(reader.get());
   EXPECT_TRUE(reader->begin() == reader->end());
   ASSERT_EQ(::write(go[1], "g", 1), 1);

   bool writerDone = false;
   while (!writerDone) {
      pollfd fds[2] = {{reader->changeFd(), POLLIN, 0}, {done[0], POLLIN, 0}};
      ASSERT_GT(::poll(fds, 2, 10000), 0) << "no news from the writer";
      if (fds[0].revents & POLLIN) reader->changesDrain();
      writerDone = fds[1].revents & POLLIN;
   }
   while (readable(reader->changeFd(), 50)) reader->changesDrain();

   std::map<std::uint64_t, Part> expected;
   script([&](const Part& c) { expected[c.id] = c; },
          [&](std::uint64_t key) { expected.erase(key); });
   std::map<std::uint64_t, Part> view;
   for (const auto& [key, part] : *reader) view.emplace(key, part);
   EXPECT_EQ(view.size(), expected.size());
   EXPECT_TRUE(view == expected);
   EXPECT_EQ(reader->size(), expected.size());
   EXPECT_EQ(checker.bad, 0);
   // A reader that falls behind the change ring hears only resyncs; which it hears is timing.
   EXPECT_GT(checker.numKeyNotifications + checker.numResyncs, 0);

   ASSERT_EQ(::write(go[1], "x", 1), 1);
   int status = 0;
   ::waitpid(child, &status, 0);
   EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
   for (int fd : {ready[0], ready[1], done[0], done[1], go[0], go[1]}) ::close(fd);
}

}  // namespace
