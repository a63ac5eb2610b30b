#pragma once

// What the chip holds: its pipes, the devices present and its tables. A triple is a match
// table that names its action data table and its selector table.

#include <cstdint>
#include <string>
#include <vector>

#include "ChipSdk/OpKind.h"

namespace ChipModel {

constexpr std::uint8_t maxDevices = 32;
constexpr std::uint16_t maxPipes = 16;
// What a profile may declare: far above any chip's tables, yet small enough that a table's
// shared segments and the host's bookkeeping for it fit a machine. A name must leave room for
// the paths a publisher derives from it.
constexpr std::uint32_t maxTableSize = 1u << 24;
constexpr std::size_t maxTableNameSize = 96;
constexpr std::size_t maxTables = 1024;
// Member slots per selector vector.
constexpr std::uint32_t selVectorMembers = 120;

struct TableProfile {
   std::string name;
   std::uint32_t handle = 0;
   ChipSdk::TableKind kind = ChipSdk::TableKind::mat;
   // Entries of a MAT or ADT, selector indices (vectors) of a SEL; per pipe when the entry
   // scope is a single pipe.
   std::uint32_t size = 0;
   // 0 for an ordinary table; otherwise the MAT's indices are cut into this many equal
   // partitions and an entry never moves from one to another.
   std::uint32_t atcamPartitions = 0;
   // The action data and selector tables of a MAT that is the head of a triple, else 0.
   std::uint32_t adtHandle = 0;
   std::uint32_t selHandle = 0;

   bool isTriple() const { return adtHandle != 0; }
   bool operator==(const TableProfile&) const = default;
};

struct ChipProfile {
   std::string name;
   std::uint16_t numPipes = 4;
   // Device ids present on the system; empty means every id below maxDevices.
   std::vector<std::uint8_t> devices;
   std::vector<TableProfile> tables;

   // A small switch chip: single tables of each shape and one triple.
   static ChipProfile defaultProfile();

   bool hasDevice(std::uint8_t devId) const;
   // Why the profile cannot describe a chip, or empty when it can.
   std::string validate() const;
   bool operator==(const ChipProfile&) const = default;
};

// Reads a profile from JSON text or from a file. On failure returns false and says why in
// `error`; `profile` is left unchanged. The format:
//   {"name": "chip", "numPipes": 4, "devices": [0, 1],
//    "tables": [{"name": "route", "handle": "0x01000010", "kind": "MAT", "size": 1024,
//                "atcamPartitions": 0, "adt": "0x02000010", "sel": "0x03000010"}, ...]}
// Handles are numbers or strings in C notation; "devices", "atcamPartitions", "adt" and
// "sel" may be left out.
bool chipProfileParse(const std::string& text, ChipProfile& profile, std::string& error);
bool chipProfileLoad(const std::string& path, ChipProfile& profile, std::string& error);

}  // namespace ChipModel
