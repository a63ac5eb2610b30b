#include "ChipMbbSliceTableMgr/MountConfig.h"

namespace ChipMbbSlice {

namespace {

// The module's framework types, announced at load time in the order start-up relies on. It
// sits beside MountConfig because every user of the module links this file.
const Orb::TypeRegistration moduleTypes{
    "ChipMbbSlice::CliYieldSm",          "ChipMbbSlice::CliCallback",
    "ChipMbbSlice::CliCommandEntry",     "ChipMbbSlice::CliYieldCommands",
    "ChipMbbSlice::ChipSliceTableMgrSm", "ChipMbbSlice::DebugIntf",
    "ChipMbbSlice::MountConfig",         "ChipMbbSlice::ChipSliceMatAdtSelTableMgrSm",
    "ChipMbbSlice::MountMode",           "ChipMbbSlice::ChipSliceTableWatcherSm",
};

}  // namespace

std::string stringValue(MountMode mode) {
   return Orb::enumName(mode);
}

MountMode MountModeInstance(std::int64_t number) {
   return Orb::enumFromNumber<MountMode>(number);
}

MountMode MountModeInstance(std::string_view name) {
   return Orb::enumFromName<MountMode>(name);
}

void MountConfig::modeIs(MountMode mode) {
   if (mode == mode_) return;
   mode_ = mode;
   notifieeList().notify(&Notifiee::onMode);
}

}  // namespace ChipMbbSlice
