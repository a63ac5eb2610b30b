#pragma once

#include <cstdint>
#include <cstdio>
#include <ostream>

namespace ChipMbbSlice {

// Streams an SDK handle in hexadecimal ("0x1000010"), the way the SDK's own traces show them.
struct TraceHex {
   std::uint32_t value;
};

inline std::ostream& operator<<(std::ostream& os, TraceHex hex) {
   char text[12];
   std::snprintf(text, sizeof text, "0x%x", hex.value);
   return os << text;
}

}  // namespace ChipMbbSlice
