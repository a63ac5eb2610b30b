#include <gtest/gtest.h>

#include "ChipMbbSliceTableMgr/ChipMbbSliceTableMgr.h"

namespace ChipMbbSlice {
namespace {

class ModeWatcher : public MountConfig::Notifiee {
 public:
   void onMode() override { ++calls; }
   int calls = 0;
};

TEST(MountConfig, ModeIsNotifiesOnlyOnChange) {
   auto config = Orb::ptrNew<MountConfig>(MountMode::mountStatusTablesOnly);
   ModeWatcher a, b;
   a.notifierIs(config.get());
   b.notifierIs(config.get());
   config->modeIs(MountMode::mountStatusTablesOnly);
   EXPECT_EQ(a.calls, 0);
   config->modeIs(MountMode::mountAllTables);
   EXPECT_EQ(a.calls, 1);
   EXPECT_EQ(b.calls, 1);
   EXPECT_EQ(config->mode(), MountMode::mountAllTables);
}

TEST(MountConfig, ModeConvertsByNumberAndName) {
   EXPECT_EQ(stringValue(MountMode::mountAllTables), "mountAllTables");
   EXPECT_EQ(MountModeInstance(0), MountMode::mountStatusTablesOnly);
   EXPECT_EQ(MountModeInstance("mountAllTables"), MountMode::mountAllTables);
   EXPECT_EQ(MountModeInstance(stringValue(MountMode::mountStatusTablesOnly)),
             MountMode::mountStatusTablesOnly);
   EXPECT_THROW(MountModeInstance(7), Orb::ParseError);
   EXPECT_THROW(MountModeInstance("mountSome"), Orb::ParseError);
   EXPECT_EQ(Orb::EnumInfo<MountMode>::typeName, "ChipMbbSlice::MountMode");
}

}  // namespace
}  // namespace ChipMbbSlice

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
