#pragma once

// The on-disk layout of a trace file, shared by the writer and the decoder.
//
// A file is a header page, a format table and one ring per level. Positions in a ring are
// logical byte counts that only grow; the physical offset is the position modulo the ring
// size. A record never straddles the physical end of its ring: the writer fills the rest of
// the lap with a padding record instead, so every lap starts on a record boundary and the
// decoder can walk from `tail` to `head` by record lengths alone. Everything is little endian
// and native sized; the file is read back on the machine that wrote it.

#include <array>
#include <cstddef>
#include <cstdint>

#include "FlashLog/TraceClock.h"
#include "FlashLog/Types.h"

namespace FlashLog {

// Ring sizes are given in KiB.
constexpr std::uint64_t sizeUnit = 1024;

constexpr std::array<char, 8> fileMagic = {'F', 'L', 'S', 'H', 'L', 'O', 'G', '1'};
constexpr std::uint32_t fileVersion = 2;
constexpr std::uint64_t pageSize = 4096;
constexpr std::uint64_t formatTableCapacity = 1024 * 1024;
constexpr std::uint64_t recordAlign = 8;

struct RingHeader {
   std::uint64_t offset;  // from the start of the file
   std::uint64_t size;    // bytes; 0 disables the level
   std::uint64_t head;    // logical position of the next record
   std::uint64_t tail;    // logical position of the oldest record still held
};

struct FileHeader {
   std::array<char, 8> magic;
   std::uint32_t version;
   std::uint32_t numLevels;
   std::uint64_t fileSize;
   std::uint32_t maxStringLen;
   std::uint32_t pid;
   // Record times are ticks; these two pairs convert them (see TraceClock.h). The first is
   // taken on opening, the last is refreshed as records go.
   ClockPair clockFirst;
   ClockPair clockLast;
   std::uint64_t formatTableOffset;
   std::uint64_t formatTableCapacity;
   std::uint64_t formatTableUsed;
   std::uint64_t numDroppedRecords;  // too large for their ring, or no room for their format
   std::array<RingHeader, FlashLog::numLevels> rings;
};
static_assert(sizeof(FileHeader) <= pageSize);

// A record: this header, then the values of its format's arguments packed without padding,
// then padding up to recordAlign. A padding record has formatId 0 and only the first two
// fields; its length runs to the end of the lap.
struct RecordHeader {
   std::uint32_t length;  // whole record, a multiple of recordAlign
   std::uint32_t formatId;
   std::uint64_t seq;  // per file, orders records across levels
   std::uint64_t ticks;
};
constexpr std::uint32_t paddingFormatId = 0;
constexpr std::uint64_t minRecordLength = 8;

// A format table entry: u32 length of the whole entry, u32 format id, u16 item count, then
// per item one ArgType byte; a label item is followed by a u16 length and its text.
enum class ArgType : std::uint8_t {
   label = 0,
   i8,
   u8,
   i16,
   u16,
   i32,
   u32,
   i64,
   u64,
   hex64,
   f64,
   boolean,
   character,
   string,  // u16 length, then the bytes
   since,   // u64 ticks of the record clock, printed as the nanoseconds up to the record
};
constexpr std::uint8_t numArgTypes = static_cast<std::uint8_t>(ArgType::since) + 1;

}  // namespace FlashLog
