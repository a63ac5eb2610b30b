#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <string>

#include "FlashLog/Decoder.h"
#include "FlashLog/FlashLog.h"
#include "FlashLog/test/TraceDir.h"

namespace FlashLog {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

// A small file with every kind of content: formats, wrapped and padded rings, strings.
std::string sampleFile(const test::TraceDir& dir) {
   Handle h;
   LevelSizes sizes{};
   sizes[0] = 1;
   sizes[5] = 2;
   sizes[9] = 4;
   EXPECT_TRUE(h.open("sample.qt", sizes));
   for (std::uint32_t i = 0; i < 200; ++i) {
      FLASHLOG_H(h, 0, "zero:", i, " s:", std::string(i % 30, 'z'));
      if (i % 2) FLASHLOG_H(h, 5, 1u, ":add key:", hex(i * 0x1000ull), " hdl:", i, " d:", i * 0.5);
      if (i % 7 == 0) FLASHLOG_H(h, 9, "nine ", std::string_view("text"), " ", true);
   }
   std::ifstream in(h.path(), std::ios::binary);
   return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::size_t ringOffset(const std::string& bytes, int level) {
   FileHeader h;
   std::memcpy(&h, bytes.data(), sizeof h);
   return h.rings[level].offset;
}

class DecoderTest : public ::testing::Test {
 protected:
   test::TraceDir dir;
   std::string bytes = sampleFile(dir);
};

TEST_F(DecoderTest, MomentsPrintAsNanosecondsUpToTheirRecordAtTheFileClockRate) {
   Handle h;
   LevelSizes sizes{};
   sizes[5] = 1;
   ASSERT_TRUE(h.open("ticks.qt", sizes));
   const std::uint64_t before = ticks();
   FLASHLOG_H(h, 5, "took ns:", Since{before}, " later:", Since{~std::uint64_t{0}});
   std::ifstream in(h.path(), std::ios::binary);
   std::string timed(std::istreambuf_iterator<char>(in), {});
   h.close();

   // A clock that runs two nanoseconds per tick, from the moment the record was begun.
   FileHeader header;
   std::memcpy(&header, timed.data(), sizeof header);
   header.clockFirst = {before, 5000000};
   header.clockLast = {before + 1000, 5002000};
   std::memcpy(timed.data(), &header, sizeof header);
   const DecodedFile file = decode(timed);
   ASSERT_EQ(file.records.size(), 1u);
   const std::uint64_t tookNs = file.records[0].timeNs - 5000000;
   EXPECT_GT(tookNs, 0u);
   EXPECT_EQ(tookNs % 2, 0u);
   EXPECT_EQ(file.records[0].text, "took ns:" + std::to_string(tookNs) + " later:0");
}

TEST_F(DecoderTest, SoundFilePrintsOneLinePerRecordNewestLast) {
   const DecodedFile file = decode(bytes);
   EXPECT_THAT(file.problems, IsEmpty());
   ASSERT_FALSE(file.records.empty());
   EXPECT_EQ(file.records.back().text, "1:add key:0xc7000 hdl:199 d:99.5");
   std::ostringstream out;
   print(file, out);
   std::string line, last;
   std::size_t numLines = 0;
   for (std::istringstream in(out.str()); std::getline(in, line); ++numLines) last = line;
   EXPECT_EQ(numLines, file.records.size());
   EXPECT_EQ(last, timeText(file.records.back().timeNs) + " 5 " + file.records.back().text);
   EXPECT_EQ(timeText(1700000000123456789ull), "2023-11-14 22:13:20.123456789");
}

TEST_F(DecoderTest, CutShortFileKeepsWhatHoldsAndSaysWhy) {
   const DecodedFile whole = decode(bytes);
   for (std::size_t len : {std::size_t{0}, std::size_t{7}, sizeof(FileHeader) - 1}) {
      EXPECT_THAT(decode(std::string_view(bytes).substr(0, len)).problems,
                  ElementsAre(HasSubstr("too short for a header")));
   }
   // Cut inside the ring of level 5: levels 0 and 5 are lost, the format table is kept.
   const DecodedFile cut = decode(std::string_view(bytes).substr(0, ringOffset(bytes, 5) + 100));
   EXPECT_THAT(cut.problems, ElementsAre(HasSubstr("file cut short"),
                                         HasSubstr("level 5: ring lies beyond the end"),
                                         HasSubstr("level 9: ring lies beyond the end")));
   for (const DecodedRecord& r : cut.records) EXPECT_EQ(r.level, 0u);
   EXPECT_FALSE(cut.records.empty());
   // Every cut point decodes without reading past the end.
   for (std::size_t len = 0; len <= bytes.size(); len += 509) {
      const DecodedFile partial = decode(std::string_view(bytes).substr(0, len));
      EXPECT_LE(partial.records.size(), whole.records.size());
   }
}

TEST_F(DecoderTest, DamagedRecordStopsItsLevelOnly) {
   FileHeader h;
   std::memcpy(&h, bytes.data(), sizeof h);
   const RingHeader& ring = h.rings[5];
   const std::uint64_t offset = ring.offset + (ring.tail % ring.size);
   const std::uint32_t badLength = 12;
   std::memcpy(bytes.data() + offset, &badLength, sizeof badLength);
   const DecodedFile file = decode(bytes);
   EXPECT_THAT(file.problems,
               ElementsAre(HasSubstr("level 5: record at " + std::to_string(ring.tail) +
                                     " has a bad length")));
   std::size_t numLevel0 = 0;
   for (const DecodedRecord& r : file.records) {
      EXPECT_NE(r.level, 5u);
      numLevel0 += r.level == 0;
   }
   EXPECT_GT(numLevel0, 0u);

   std::string notTrace = bytes;
   notTrace[0] = 'X';
   EXPECT_THAT(decode(notTrace).problems, ElementsAre("not a trace file of this version"));
   EXPECT_THAT(decodeFile(dir.path() + "/absent.qt").problems,
               ElementsAre(HasSubstr("cannot read")));
}

TEST_F(DecoderTest, RandomDamageNeverReadsOutOfBounds) {
   FileHeader h;
   std::memcpy(&h, bytes.data(), sizeof h);
   // Damage lands where the decoder looks: the header, the used format table, the rings.
   const std::vector<std::pair<std::size_t, std::size_t>> regions = {
       {0, sizeof h},
       {h.formatTableOffset, h.formatTableUsed},
       {h.rings[0].offset, h.rings[0].size},
       {h.rings[5].offset, h.rings[5].size},
       {h.rings[9].offset, 512}};
   std::mt19937 random(12345);
   std::size_t numDamaged = 0;
   for (int round = 0; round < 3000; ++round) {
      std::vector<std::pair<std::size_t, char>> saved;
      const int numFlips = 1 + round % 4;
      for (int i = 0; i < numFlips; ++i) {
         const auto& [start, len] = regions[random() % regions.size()];
         const std::size_t at = start + random() % len;
         saved.emplace_back(at, bytes[at]);
         bytes[at] = static_cast<char>(random());
      }
      const DecodedFile file = decode(bytes);
      numDamaged += !file.problems.empty();
      for (const DecodedRecord& r : file.records) EXPECT_LT(r.level, 10u);
      for (auto it = saved.rbegin(); it != saved.rend(); ++it) bytes[it->first] = it->second;
   }
   // Flips into string bytes or timestamps decode cleanly; most others must be noticed.
   EXPECT_GT(numDamaged, 300u);
}

}  // namespace
}  // namespace FlashLog
