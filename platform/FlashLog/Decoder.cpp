#include "FlashLog/Decoder.h"

#include <time.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <ostream>
#include <sstream>
#include <string>

#include "FlashLog/detail/FileLayout.h"

namespace FlashLog {

namespace {

// Bounds-checked reads from a span of the file; a read that would leave the span fails and
// leaves the output untouched.
class Cursor {
 public:
   explicit Cursor(std::string_view bytes) : bytes_(bytes) {}
   template <class T>
   bool read(T& out) {
      if (bytes_.size() - pos_ < sizeof(T)) return false;
      std::memcpy(&out, bytes_.data() + pos_, sizeof(T));
      pos_ += sizeof(T);
      return true;
   }
   bool read(std::size_t n, std::string_view& out) {
      if (bytes_.size() - pos_ < n) return false;
      out = bytes_.substr(pos_, n);
      pos_ += n;
      return true;
   }
   bool atEnd() const { return pos_ == bytes_.size(); }

 private:
   std::string_view bytes_;
   std::size_t pos_ = 0;
};

struct Item {
   ArgType type;
   std::string label;
};
using Format = std::vector<Item>;
using Formats = std::map<std::uint32_t, Format>;

std::string problem(const char* fmt, auto... args) {
   char buf[256];
   std::snprintf(buf, sizeof buf, fmt, args...);
   return buf;
}

bool readFormat(Cursor& c, Format& format) {
   std::uint16_t count;
   if (!c.read(count)) return false;
   for (std::uint16_t i = 0; i < count; ++i) {
      std::uint8_t type;
      if (!c.read(type) || type >= numArgTypes) return false;
      Item item{static_cast<ArgType>(type), {}};
      if (item.type == ArgType::label) {
         std::uint16_t len;
         std::string_view text;
         if (!c.read(len) || !c.read(len, text)) return false;
         item.label = text;
      }
      format.push_back(std::move(item));
   }
   return c.atEnd();
}

void readFormats(std::string_view table, Formats& formats, DecodedFile& out) {
   Cursor c(table);
   std::uint64_t at = 0;
   while (!c.atEnd()) {
      std::uint32_t len, id;
      std::string_view body;
      Format format;
      if (!c.read(len) || len < 2 * sizeof(std::uint32_t) || !c.read(id) ||
          !c.read(len - 2 * sizeof(std::uint32_t), body)) {
         out.problems.push_back(problem("format table: entry at %" PRIu64 " is cut short", at));
         return;
      }
      Cursor bodyCursor(body);
      if (!readFormat(bodyCursor, format)) {
         out.problems.push_back(problem("format table: entry %u is malformed", id));
         return;
      }
      formats[id] = std::move(format);
      at += len;
   }
}

template <class T>
bool appendNumber(Cursor& c, std::string& text, const char* fmt) {
   T v;
   if (!c.read(v)) return false;
   char buf[32];
   std::snprintf(buf, sizeof buf, fmt, v);
   text += buf;
   return true;
}

// Record times are in ticks; the file's two clock pairs convert them.
struct RecordClock {
   ClockPair first;
   ClockPair last;
   std::uint64_t recordTicks;
   // A moment after the record (a torn or foreign value) is taken as the record's own.
   std::uint64_t nsSince(std::uint64_t ticks) const {
      if (ticks >= recordTicks) return 0;
      return ticksToNs(recordTicks, first, last) - ticksToNs(ticks, first, last);
   }
};

bool appendValue(ArgType type, Cursor& c, std::string& text, const RecordClock& clock) {
   switch (type) {
      case ArgType::label:
         return true;
      case ArgType::i8:
         return appendNumber<std::int8_t>(c, text, "%" PRId8);
      case ArgType::u8:
         return appendNumber<std::uint8_t>(c, text, "%" PRIu8);
      case ArgType::i16:
         return appendNumber<std::int16_t>(c, text, "%" PRId16);
      case ArgType::u16:
         return appendNumber<std::uint16_t>(c, text, "%" PRIu16);
      case ArgType::i32:
         return appendNumber<std::int32_t>(c, text, "%" PRId32);
      case ArgType::u32:
         return appendNumber<std::uint32_t>(c, text, "%" PRIu32);
      case ArgType::i64:
         return appendNumber<std::int64_t>(c, text, "%" PRId64);
      case ArgType::u64:
         return appendNumber<std::uint64_t>(c, text, "%" PRIu64);
      case ArgType::hex64:
         return appendNumber<std::uint64_t>(c, text, "0x%" PRIx64);
      case ArgType::f64:
         return appendNumber<double>(c, text, "%.17g");
      case ArgType::boolean: {
         std::uint8_t v;
         if (!c.read(v)) return false;
         text += v ? "true" : "false";
         return true;
      }
      case ArgType::character: {
         char v;
         if (!c.read(v)) return false;
         text += v;
         return true;
      }
      case ArgType::since: {
         std::uint64_t ticks;
         if (!c.read(ticks)) return false;
         text += std::to_string(clock.nsSince(ticks));
         return true;
      }
      case ArgType::string: {
         std::uint16_t len;
         std::string_view s;
         if (!c.read(len) || !c.read(len, s)) return false;
         text += s;
         return true;
      }
   }
   return false;
}

bool recordText(const Format& format, std::string_view values, std::string& text,
                const RecordClock& clock) {
   Cursor c(values);
   for (const Item& item : format) {
      if (item.type == ArgType::label)
         text += item.label;
      else if (!appendValue(item.type, c, text, clock))
         return false;
   }
   return true;
}

// Walks one ring from its tail to its head; stops at the first thing that does not hold.
void readRing(unsigned level, const FileHeader& file, std::string_view bytes,
              const Formats& formats, DecodedFile& out) {
   const RingHeader& ring = file.rings[level];
   if (ring.size == 0) return;
   if (ring.offset > bytes.size() || bytes.size() - ring.offset < ring.size) {
      out.problems.push_back(problem("level %u: ring lies beyond the end of the file", level));
      return;
   }
   if (ring.head < ring.tail || ring.head - ring.tail > ring.size) {
      out.problems.push_back(problem("level %u: head %" PRIu64 " and tail %" PRIu64
                                     " do not fit the ring",
                                     level, ring.head, ring.tail));
      return;
   }
   const std::string_view data = bytes.substr(ring.offset, ring.size);
   for (std::uint64_t pos = ring.tail; pos < ring.head;) {
      const std::uint64_t offset = pos % ring.size;
      Cursor c(data.substr(offset));
      RecordHeader h{};
      const auto fail = [&](const char* what) {
         out.problems.push_back(problem(
             "level %u: record at %" PRIu64 " %s; rest of the level skipped", level, pos, what));
      };
      if (!c.read(h.length) || !c.read(h.formatId) || h.length < minRecordLength ||
          h.length % recordAlign != 0 || offset + h.length > ring.size) {
         return fail("has a bad length");
      }
      if (h.formatId == paddingFormatId) {
         if (offset + h.length != ring.size) return fail("is padding that ends before the lap");
         pos += h.length;
         continue;
      }
      std::string_view values;
      if (h.length < sizeof(RecordHeader) || !c.read(h.seq) || !c.read(h.ticks) ||
          !c.read(h.length - sizeof(RecordHeader), values)) {
         return fail("is shorter than its header");
      }
      const auto format = formats.find(h.formatId);
      if (format == formats.end()) return fail("has an unknown format");
      DecodedRecord record{h.seq, ticksToNs(h.ticks, file.clockFirst, file.clockLast), level, {}};
      if (!recordText(format->second, values, record.text,
                      {file.clockFirst, file.clockLast, h.ticks})) {
         return fail("is cut short");
      }
      out.records.push_back(std::move(record));
      pos += h.length;
   }
}

}  // namespace

DecodedFile decode(std::string_view bytes) {
   DecodedFile out;
   FileHeader h;
   if (bytes.size() < sizeof h) {
      out.problems.push_back(problem("file of %zu bytes is too short for a header", bytes.size()));
      return out;
   }
   std::memcpy(&h, bytes.data(), sizeof h);
   if (h.magic != fileMagic || h.version != fileVersion || h.numLevels != numLevels) {
      out.problems.push_back("not a trace file of this version");
      return out;
   }
   out.pid = h.pid;
   out.maxStringLen = h.maxStringLen;
   out.numDroppedRecords = h.numDroppedRecords;
   if (bytes.size() < h.fileSize) {
      out.problems.push_back(
          problem("file cut short: %zu of %" PRIu64 " bytes", bytes.size(), h.fileSize));
   }
   Formats formats;
   if (h.formatTableUsed > h.formatTableCapacity || h.formatTableOffset > bytes.size() ||
       bytes.size() - h.formatTableOffset < h.formatTableUsed) {
      out.problems.push_back("format table lies beyond the end of the file");
   } else {
      readFormats(bytes.substr(h.formatTableOffset, h.formatTableUsed), formats, out);
   }
   for (unsigned level = 0; level < numLevels; ++level) {
      readRing(level, h, bytes, formats, out);
   }
   std::stable_sort(out.records.begin(), out.records.end(),
                    [](const DecodedRecord& a, const DecodedRecord& b) { return a.seq < b.seq; });
   return out;
}

DecodedFile decodeFile(const std::string& path) {
   // Read, not mapped: a file cut short under a mapping would fault instead of decoding.
   std::ifstream in(path, std::ios::binary | std::ios::ate);
   std::string bytes;
   if (in) {
      bytes.resize(static_cast<std::size_t>(in.tellg()));
      in.seekg(0);
      in.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
   }
   if (!in) {
      DecodedFile out;
      out.problems.push_back("cannot read " + path);
      return out;
   }
   return decode(bytes);
}

std::string timeText(std::uint64_t timeNs) {
   const time_t secs = static_cast<time_t>(timeNs / 1000000000u);
   tm t{};
   gmtime_r(&secs, &t);
   char buf[64];
   std::snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%02d.%09" PRIu64, t.tm_year + 1900,
                 t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, timeNs % 1000000000u);
   return buf;
}

void print(const DecodedFile& file, std::ostream& out) {
   for (const DecodedRecord& r : file.records) {
      out << timeText(r.timeNs) << ' ' << r.level << ' ' << r.text << '\n';
   }
}

}  // namespace FlashLog
