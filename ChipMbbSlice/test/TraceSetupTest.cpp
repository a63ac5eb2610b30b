#include <gtest/gtest.h>

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>

#include "ChipMbbSlice/ChipMbbSlice.h"
#include "FlashLog/Decoder.h"

namespace ChipMbbSlice {
namespace {

// The trace handle and the id counter are process-wide, so one test walks through their
// life in order.
TEST(TraceSetup, InitQtHonoursEnvironmentAndOpensOnce) {
   auto dir = std::filesystem::temp_directory_path() / ("qt-" + std::to_string(getpid()));
   std::filesystem::create_directories(dir);
   FlashLog::Handle& handle = FlashLog::defaultHandle();

   unsetenv("FLASHLOGDIR");
   EXPECT_EQ(qtFileName(), "ChipSlice-mbbslice-%d.qt");

   setenv("FLASHLOG_DISABLE", "", 1);
   initQt();
   EXPECT_FALSE(handle.isOpen());
   unsetenv("FLASHLOG_DISABLE");  // looked at again on the next call

   setenv("FLASHLOGDIR", dir.c_str(), 1);
   EXPECT_EQ(qtFileName(), "ChipSlice-mbbslice.qt");
   initQt();
   ASSERT_TRUE(handle.isOpen());
   EXPECT_EQ(std::filesystem::path(handle.path()), dir / "ChipSlice-mbbslice.qt");
   EXPECT_EQ(handle.maxStringLen(), 80u);

   std::string path = handle.path();
   initQt();  // a second call keeps the file it has
   EXPECT_EQ(handle.path(), path);

   FLASHLOG(5, getNextQtId(), ":add key:", std::uint64_t{0x42});
   EXPECT_EQ(getNextQtId(), 2u);
   handle.close();
   unsetenv("FLASHLOGDIR");
   std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace ChipMbbSlice
