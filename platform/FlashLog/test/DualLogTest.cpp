#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>
#include <iomanip>
#include <sstream>
#include <string>

#include "FlashLog/CaptureSink.h"
#include "FlashLog/FlashLog.h"
#include "FlashLog/test/TraceDir.h"

namespace DualLog {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;

struct Facilities {
   Facility mount{"Mount"};
   Facility vault{"Vault"};
   Facility audit{"Audit"};
   Facility other{"Other"};
};

TEST(DualLogTest, LevelsComeFromTheConfigurationText) {
   CaptureSink capture;  // puts the levels back afterwards
   Facilities f;
   setenv("DUALLOG", "Mount/5, Vault ,*/2,Audit/-1,Bad/x,/3", 1);
   configFromEnv();
   unsetenv("DUALLOG");
   EXPECT_EQ(f.mount.mask(), 0x3Fu);
   EXPECT_EQ(f.vault.mask(), 0x3FFu);
   EXPECT_EQ(f.audit.mask(), 0u);
   EXPECT_EQ(f.other.mask(), 0x7u);
   // Facilities that register later take their levels from the same configuration.
   Facility late{"Mount"};
   EXPECT_TRUE(late.enabled(5));
   EXPECT_FALSE(late.enabled(6));

   configIs("Vault/12");
   EXPECT_EQ(f.vault.mask(), 0x3FFu);
   EXPECT_EQ(f.mount.mask(), 0u);
   levelIs("Other", 0);
   EXPECT_EQ(f.other.mask(), 1u);
}

TEST(DualLogTest, DisabledLevelBuildsNothing) {
   Facilities f;
   CaptureSink capture;
   capture.levelIs("Mount", 5);
   int evaluated = 0;
   const auto name = [&] {
      ++evaluated;
      return std::string("foo");
   };
   DUALLOG(f.mount, 6, "mounting table for read " << name());
   DUALLOG(f.vault, 0, "other facility " << name());
   EXPECT_EQ(evaluated, 0);
   DUALLOG(f.mount, 5, "mounting table for read " << name());
   EXPECT_EQ(evaluated, 1);
   EXPECT_THAT(capture.texts(), ElementsAre("mounting table for read foo"));
}

struct Nested {
   const Facility& facility;
};
std::ostream& operator<<(std::ostream& os, const Nested& n) {
   DUALLOG(n.facility, 1, "inner " << 2);
   return os << "nested";
}

TEST(DualLogTest, CaptureSeesExactTextsAndRestoresOnExit) {
   Facilities f;
   {
      CaptureSink capture;
      capture.levelIs("Mount", 9);
      DUALLOG(f.mount, 8,
              "handleTableMount ignoring existing "
                  << "foo");
      DUALLOG(f.mount, 5, "hex " << std::hex << 255 << std::setw(4) << std::setfill('.') << 1);
      DUALLOG(f.mount, 5, "dec " << 255 << " " << 1.5);
      DUALLOG(f.mount, 7, "outer " << Nested{f.mount});
      EXPECT_FALSE(capture.contains("handleTableMount ignoring existing"));
      EXPECT_THAT(capture.texts(),
                  ElementsAre("handleTableMount ignoring existing foo", "hex ff...1", "dec 255 1.5",
                              "inner 2", "outer nested"));
   }
   EXPECT_EQ(f.mount.mask(), 0u);
}

TEST(DualLogTest, DefaultOutputGoesToTheNamedFile) {
   FlashLog::test::TraceDir dir;
   Facility f{"FileOut"};
   const std::string path = dir.path() + "/duallog.txt";
   ASSERT_TRUE(outputFileIs(path));
   f.levelIs(3);
   DUALLOG(f, 3, "to the file " << 42);
   DUALLOG(f, 4, "not enabled");
   ASSERT_TRUE(outputFileIs(""));
   EXPECT_FALSE(outputFileIs(dir.path() + "/missing/x.txt"));
   std::ifstream in(path);
   std::string line;
   ASSERT_TRUE(std::getline(in, line));
   EXPECT_THAT(line, EndsWith(" FileOut/3 to the file 42"));
   EXPECT_FALSE(std::getline(in, line));
}

}  // namespace
}  // namespace DualLog
