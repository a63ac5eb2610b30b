#pragma once

// Device and pipe ids of the switch chips.

#include <cstdint>

namespace ChipId {

using DevId = std::uint8_t;
using PipeId = std::uint16_t;

constexpr DevId numDevIds = 32;
// A pipe id that addresses every pipe of a device at once.
constexpr PipeId allPipes = 0xFFFF;

}  // namespace ChipId
