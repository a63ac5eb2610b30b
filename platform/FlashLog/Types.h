#pragma once

// What a writer of trace records names: the levels and their ring sizes, and the wrapper that
// makes the decoder print an integer in hexadecimal.

#include <array>
#include <cstdint>
#include <type_traits>

namespace FlashLog {

constexpr int numLevels = 10;

// Ring sizes per level, in KiB; 0 disables the level.
using LevelSizes = std::array<std::uint32_t, numLevels>;

// Wraps an integer so that the decoder prints it in hexadecimal ("0x1f").
struct Hex {
   std::uint64_t value;
};
template <class T>
requires std::is_integral_v<T> || std::is_enum_v<T>
constexpr Hex hex(T v) {
   return Hex{static_cast<std::uint64_t>(v)};
}

}  // namespace FlashLog
