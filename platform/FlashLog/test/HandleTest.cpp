#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "FlashLog/Decoder.h"
#include "FlashLog/FlashLog.h"
#include "FlashLog/test/TraceDir.h"

namespace FlashLog {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr LevelSizes productSizes = {64, 64, 64, 64, 64, 64, 64, 64, 64, 16384};

std::vector<std::string> texts(const DecodedFile& file) {
   std::vector<std::string> out;
   for (const DecodedRecord& r : file.records) out.push_back(r.text);
   return out;
}

enum class Colour : std::uint16_t { red = 3, blue = 7 };

class HandleTest : public ::testing::Test {
 protected:
   test::TraceDir dir;
   Handle handle;
};

TEST_F(HandleTest, EveryArgumentTypeRoundTrips) {
   ASSERT_TRUE(handle.open("types.qt", productSizes));
   char buffer[16] = "buffered";
   FLASHLOG_H(handle, 5, 7u, ":add key:", hex(0xabcdef0123ull), " i8:", std::int8_t{-5},
              " u8:", std::uint8_t{250}, " i16:", std::int16_t{-300}, " u16:", std::uint16_t{60000},
              " i32:", -70000, " u32:", 4000000000u, " i64:", std::int64_t{-1} << 40,
              " u64:", ~std::uint64_t{0}, " d:", 2.5, " f:", 0.25f, " b:", true, false, " c:", 'x',
              " s:", std::string("str"), " sv:", std::string_view("view"),
              " cp:", static_cast<const char*>("ptr"), " null:", static_cast<const char*>(nullptr),
              " enum:", Colour::blue, " buf:", buffer);
   const DecodedFile file = decodeFile(handle.path());
   EXPECT_THAT(file.problems, ElementsAre());
   ASSERT_EQ(file.records.size(), 1u);
   const DecodedRecord& r = file.records[0];
   EXPECT_EQ(r.text,
             "7:add key:0xabcdef0123 i8:-5 u8:250 i16:-300 u16:60000 i32:-70000 u32:4000000000"
             " i64:-1099511627776 u64:18446744073709551615 d:2.5 f:0.25 b:truefalse c:x s:str"
             " sv:view cp:ptr null: enum:7 buf:buffered");
   EXPECT_EQ(r.level, 5u);
}

TEST_F(HandleTest, LevelsMergeInWriteOrderAndWrapKeepsTheNewest) {
   LevelSizes sizes{};
   sizes[0] = 1;
   sizes[3] = 256;
   ASSERT_TRUE(handle.open("wrap.qt", sizes));
   // Strings of varying length make the small ring pad the end of most laps.
   const std::string filler(40, 'f');
   constexpr std::uint32_t count = 3000;
   for (std::uint32_t i = 0; i < count; ++i) {
      const unsigned level = i % 3 == 0 ? 0 : 3;
      FLASHLOG_H(handle, level, "n:", i, " s:", std::string_view(filler).substr(0, i % 41));
   }
   // Dropped and counted: a level without a ring, a record larger than its ring.
   FLASHLOG_H(handle, 7, "level without a ring");
   handle.maxStringLenIs(2000);
   FLASHLOG_H(handle, 0, "big:", std::string(1500, 'x'));
   const DecodedFile file = decodeFile(handle.path());
   EXPECT_THAT(file.problems, ElementsAre());
   EXPECT_EQ(file.numDroppedRecords, 2u);

   std::vector<std::uint32_t> level0, level3, merged;
   for (const DecodedRecord& r : file.records) {
      const std::uint32_t n = std::stoul(r.text.substr(2));
      EXPECT_EQ(r.text, "n:" + std::to_string(n) + " s:" + filler.substr(0, n % 41));
      EXPECT_EQ(r.level, n % 3 == 0 ? 0u : 3u);
      (r.level == 0 ? level0 : level3).push_back(n);
      merged.push_back(n);
   }
   EXPECT_TRUE(std::is_sorted(merged.begin(), merged.end()));
   // Level 0 kept only its newest records, without a gap; level 3 kept all of them.
   ASSERT_GT(level0.size(), 10u);
   EXPECT_LT(level0.size(), 60u);
   EXPECT_EQ(level0.back(), count - 3);
   for (std::size_t i = 1; i < level0.size(); ++i) EXPECT_EQ(level0[i], level0[i - 1] + 3);
   EXPECT_EQ(level3.size(), count - count / 3);
}

TEST_F(HandleTest, StringsAreCutAtTheMaximumLength) {
   ASSERT_TRUE(handle.open("cut.qt", productSizes));
   const std::string longText(200, 'a');
   const std::string exact(80, 'b');
   FLASHLOG_H(handle, 1, "s:", longText, " p:", longText.c_str(), " e:", exact);
   handle.maxStringLenIs(5);
   FLASHLOG_H(handle, 1, "s:", longText, " sv:", std::string_view("abcdefgh"));
   // A label is part of the format, not a value: it is never cut.
   FLASHLOG_H(handle, 1, "a label that is longer than five characters");
   const DecodedFile file = decodeFile(handle.path());
   EXPECT_THAT(file.problems, ElementsAre());
   EXPECT_THAT(
       texts(file),
       ElementsAre("s:" + std::string(80, 'a') + " p:" + std::string(80, 'a') + " e:" + exact,
                   "s:aaaaa sv:abcde", "a label that is longer than five characters"));
   EXPECT_EQ(file.maxStringLen, 5u);
}

TEST_F(HandleTest, FileNameTakesPidAndDirectory) {
   const std::string pid = std::to_string(getpid());
   EXPECT_EQ(tracePath("ChipSlice-mbbslice-%d.qt"),
             dir.path() + "/ChipSlice-mbbslice-" + pid + ".qt");
   EXPECT_EQ(tracePath("sub/x-%d.qt"), "sub/x-" + pid + ".qt");
   setenv("FLASHLOGDIR", "", 1);
   EXPECT_EQ(tracePath("t.qt"), "t.qt");

   // A directory that does not exist leaves the handle closed and tracing a no-op.
   setenv("FLASHLOGDIR", (dir.path() + "/missing").c_str(), 1);
   EXPECT_FALSE(handle.open("x.qt", productSizes));
   FLASHLOG_H(handle, 0, "nowhere");
}

// The trace file is this process's own: a link someone put in its place is not followed nor a
// file of another name written through (the trace goes beside them), a second handle on the name
// writes beside the first, and nobody else may read it.
TEST_F(HandleTest, TraceFilesAreNeverSharedOrFollowed) {
   const std::string victim = dir.path() + "/victim";
   { std::ofstream(victim) << "keep"; }
   ASSERT_EQ(::symlink(victim.c_str(), (dir.path() + "/link.qt").c_str()), 0);
   ASSERT_TRUE(handle.open("link.qt", productSizes));
   EXPECT_EQ(handle.path(), dir.path() + "/link.qt." + std::to_string(getpid()));
   ASSERT_EQ(::link(victim.c_str(), (dir.path() + "/hard.qt").c_str()), 0);
   ASSERT_TRUE(handle.open("hard.qt", productSizes));
   EXPECT_EQ(handle.path(), dir.path() + "/hard.qt." + std::to_string(getpid()));
   EXPECT_EQ(std::filesystem::file_size(victim), 4u);

   ASSERT_TRUE(handle.open("one.qt", productSizes));
   Handle second;
   ASSERT_TRUE(second.open("one.qt", productSizes));
   EXPECT_EQ(handle.path(), dir.path() + "/one.qt");
   EXPECT_EQ(second.path(), dir.path() + "/one.qt." + std::to_string(getpid()));
   struct stat st {};
   ASSERT_EQ(::stat(handle.path().c_str(), &st), 0);
   EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST_F(HandleTest, ClosedHandleEvaluatesNothing) {
   int evaluated = 0;
   const auto value = [&] { return ++evaluated; };
   ASSERT_FALSE(defaultHandle().isOpen());
   FLASHLOG(5, "v:", value());
   FLASHLOG_H(handle, 5, "v:", value());
   { FLASHLOG_BLOCK_TIMER_H(handle, 5, "timed:", value()); }
   EXPECT_EQ(evaluated, 0);

   ASSERT_TRUE(defaultHandle().open("default.qt", productSizes));
   FLASHLOG(4, "v:", value());
   const std::string path = defaultHandle().path();
   defaultHandle().close();
   FLASHLOG(4, "v:", value());
   EXPECT_EQ(evaluated, 1);
   EXPECT_THAT(texts(decodeFile(path)), ElementsAre("v:1"));
}

TEST_F(HandleTest, BlockTimerWritesElapsedTimeOnExit) {
   ASSERT_TRUE(handle.open("timer.qt", productSizes));
   std::uint32_t table = 3;
   {
      FLASHLOG_BLOCK_TIMER_H(handle, 5, "commit tbl:", table);
      FLASHLOG_H(handle, 5, "inside");
      table = 4;
   }
   const DecodedFile file = decodeFile(handle.path());
   ASSERT_EQ(file.records.size(), 2u);
   EXPECT_EQ(file.records[0].text, "inside");
   EXPECT_THAT(file.records[1].text, StartsWith("commit tbl:4 ns:"));
   EXPECT_GT(std::stoull(file.records[1].text.substr(16)), 0u);
}

TEST_F(HandleTest, OneCallSiteWritesToSeveralFiles) {
   Handle other;
   ASSERT_TRUE(handle.open("first.qt", productSizes));
   ASSERT_TRUE(other.open("second.qt", productSizes));
   // The second file learns the first site after another one, so its format ids differ.
   FLASHLOG_H(other, 1, "only in second");
   for (Handle* h : {&handle, &other}) {
      for (int i = 0; i < 2; ++i) FLASHLOG_H(*h, 1, "shared:", i);
   }
   EXPECT_THAT(texts(decodeFile(handle.path())), ElementsAre("shared:0", "shared:1"));
   EXPECT_THAT(texts(decodeFile(other.path())),
               ElementsAre("only in second", "shared:0", "shared:1"));
}

TEST_F(HandleTest, ThreadsWritingTogetherLoseNothing) {
   LevelSizes sizes{};
   sizes[1] = 1024;
   ASSERT_TRUE(handle.open("threads.qt", sizes));
   constexpr int numThreads = 4, perThread = 2000;
   std::vector<std::thread> threads;
   for (int t = 0; t < numThreads; ++t) {
      threads.emplace_back([&, t] {
         for (int i = 0; i < perThread; ++i) FLASHLOG_H(handle, 1, "t", t, " i", i);
      });
   }
   for (auto& th : threads) th.join();
   const DecodedFile file = decodeFile(handle.path());
   EXPECT_THAT(file.problems, ElementsAre());
   ASSERT_EQ(file.records.size(), std::size_t{numThreads * perThread});
   std::vector<int> next(numThreads, 0);
   for (const DecodedRecord& r : file.records) {
      const int t = r.text[1] - '0';
      EXPECT_EQ(r.text, "t" + std::to_string(t) + " i" + std::to_string(next[t]++));
   }
}

TEST_F(HandleTest, OneWriterHandleRefusesOtherThreads) {
   ASSERT_TRUE(handle.open("one.qt", productSizes, Writers::oneThread));
   for (int i = 0; i < 3; ++i) FLASHLOG_H(handle, 1, "mine ", i);
   Brio::ScopedThrowingAsserts throwing;
   std::string failure;
   std::thread([&] {
      try {
         FLASHLOG_H(handle, 1, "theirs");
      } catch (const Brio::AssertionFailure& e) {
         failure = e.what();
      }
   }).join();
   EXPECT_THAT(failure, HasSubstr("writerThread_ == threadTag()"));
   EXPECT_THAT(texts(decodeFile(handle.path())), ElementsAre("mine 0", "mine 1", "mine 2"));

   // Reopened for any thread, the handle takes records from others again.
   ASSERT_TRUE(handle.open("any.qt", productSizes));
   std::thread([&] { FLASHLOG_H(handle, 1, "theirs"); }).join();
   EXPECT_THAT(texts(decodeFile(handle.path())), ElementsAre("theirs"));
}

TEST_F(HandleTest, RecordsSurviveTheProcessBeingKilled) {
   const std::string path = tracePath("killed.qt");
   const pid_t child = fork();
   ASSERT_GE(child, 0);
   if (child == 0) {
      Handle h;
      if (!h.open("killed.qt", productSizes)) _exit(1);
      for (int i = 0; i < 3; ++i) FLASHLOG_H(h, 9, "before crash ", i);
      raise(SIGKILL);
   }
   int status = 0;
   ASSERT_EQ(waitpid(child, &status, 0), child);
   ASSERT_TRUE(WIFSIGNALED(status));
   const DecodedFile file = decodeFile(path);
   EXPECT_THAT(file.problems, ElementsAre());
   EXPECT_THAT(texts(file), ElementsAre("before crash 0", "before crash 1", "before crash 2"));
   EXPECT_EQ(file.pid, static_cast<std::uint32_t>(child));
}

}  // namespace
}  // namespace FlashLog
