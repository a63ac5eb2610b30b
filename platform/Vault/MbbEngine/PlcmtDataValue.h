#pragma once

// Placement data blocks inside value types print as a quoted hexadecimal string of their
// bytes, trailing zero bytes left out, and parse back to the same bytes.

#include <string>

#include "ChipSdk/PlcmtData.h"
#include "Orb/Value.h"

template <>
struct Orb::ValueTraits<ChipSdk::PlcmtDataBlock> {
   static void print(std::string& out, const ChipSdk::PlcmtDataBlock& block);
   static ChipSdk::PlcmtDataBlock parse(Parser& p);
};
