#pragma once

// Reads a trace file back as text. The file may come from a process that crashed in the middle
// of a record, or be cut short or damaged on its way: the decoder keeps what holds together,
// says what did not, and never reads outside the bytes it was given.

#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace FlashLog {

struct DecodedRecord {
   std::uint64_t seq;
   std::uint64_t timeNs;
   unsigned level;
   std::string text;
};

struct DecodedFile {
   std::uint32_t pid = 0;
   std::uint32_t maxStringLen = 0;
   std::uint64_t numDroppedRecords = 0;
   std::vector<DecodedRecord> records;  // oldest first, all levels merged
   std::vector<std::string> problems;   // empty for a sound file
};

DecodedFile decode(std::string_view bytes);
DecodedFile decodeFile(const std::string& path);

// "2024-05-01 10:11:12.123456789", UTC.
std::string timeText(std::uint64_t timeNs);

// One line per record, "<time> <level> <text>", newest last.
void print(const DecodedFile& file, std::ostream& out);

}  // namespace FlashLog
