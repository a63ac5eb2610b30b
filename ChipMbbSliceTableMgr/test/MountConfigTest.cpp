#include <gtest/gtest.h>

#include "ChipMbbSliceTableMgr/ChipMbbSliceTableMgr.h"

namespace ChipMbbSlice {
namespace {

TEST(MountConfig, ModuleTypesRegisteredAtLoadInStartUpOrder) {
   const std::vector<std::string> expected{
       "ChipMbbSlice::CliYieldSm",          "ChipMbbSlice::CliCallback",
       "ChipMbbSlice::CliCommandEntry",     "ChipMbbSlice::CliYieldCommands",
       "ChipMbbSlice::ChipSliceTableMgrSm", "ChipMbbSlice::DebugIntf",
       "ChipMbbSlice::MountConfig",         "ChipMbbSlice::ChipSliceMatAdtSelTableMgrSm",
       "ChipMbbSlice::MountMode",           "ChipMbbSlice::ChipSliceTableWatcherSm"};
   const auto& types = Orb::TypeRegistry::instance().types();
   std::vector<std::string> ours;
   for (const auto& t : types) {
      if (std::find(expected.begin(), expected.end(), t) != expected.end()) ours.push_back(t);
   }
   EXPECT_EQ(ours, expected);
}

}  // namespace
}  // namespace ChipMbbSlice
