#pragma once

#include <string>

#include "ChipModel/ChipProfile.h"
#include "SliceSystem/Args.h"
#include "SliceSystem/Publisher.h"

namespace SliceSystem {

// The publisher's options as the tools take them:
//   --table NAME[:ENTRIES] (repeatable)  --entries N  --prefixes FILE|synthetic  --churn F
//   --bad-announcements  --instance-id N  --gen-time T  --timeout S  --crash-after N  --seed N
// False, saying why, when a table does not fit the chip profile.
bool publisherOptionsParse(Args& args, const ChipModel::ChipProfile& profile,
                           PublisherOptions& options, std::string& error);

extern const char* publisherArgsUsage;

}  // namespace SliceSystem
