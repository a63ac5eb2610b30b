#pragma once

#include <string>

#include "ChipModel/Fault.h"
#include "Orb/Time.h"

namespace SliceSystem {

// A fault to inject some seconds after the host started.
struct TimedFault {
   Orb::Seconds at = 0;
   ChipModel::Fault fault;
};

// Reads "KIND:TABLE:HANDLE[:INDEX[:SUBINDEX]][@SECONDS]" (numbers in C notation, device 0, all
// pipes); false with a reason when it does not parse.
bool faultOptionParse(const std::string& text, TimedFault& timed, std::string& error);

}  // namespace SliceSystem
