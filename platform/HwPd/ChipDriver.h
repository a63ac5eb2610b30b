#pragma once

// The target of an SDK call: a device, and a pipe of it or all of its pipes.

#include <compare>

#include "HwPd/ChipId.h"

namespace ChipDriver {

struct ChipDevTgt {
   ChipId::DevId devId = 0;
   ChipId::PipeId pipeId = 0;

   bool allPipes() const { return pipeId == ChipId::allPipes; }
   auto operator<=>(const ChipDevTgt&) const = default;
};

}  // namespace ChipDriver
