#pragma once

// The placement data block that travels with every placement operation.
//
// Configuration records keep the block inline, in shared memory, and the chip keeps a copy of
// the block of every installed entry, so the block has a small fixed upper size and a layout
// that any reader can check before trusting it: a length header, a checksum over the block,
// and the one part of it that is not opaque, the action of a match entry.
//
// Layout (multi-byte fields little-endian):
//   0      magic 0xB7
//   1      length of the whole block in bytes, header included (16 .. 64)
//   2      action: 0 none, 1 direct action data (ADT member), 2 selector group
//   3      number of selector vectors (0 .. 16), 0 unless the action is a group
//   4..5   Fletcher-16 over the block, computed with these two bytes as zero
//   6..7   zero
//   8..15  ADT member handle (low 32 bits) or the selector group's 64-bit key
//   16..   opaque payload (key and action parameters), up to 48 bytes
//
// This header depends on nothing but the standard library: table records include it.

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace ChipSdk {

constexpr std::size_t plcmtDataMaxSize = 64;
constexpr std::size_t plcmtDataHeaderSize = 16;
constexpr std::size_t plcmtDataMaxPayload = plcmtDataMaxSize - plcmtDataHeaderSize;
constexpr std::uint8_t plcmtDataMagic = 0xB7;
constexpr std::uint8_t plcmtDataMaxVectors = 16;

enum class PlcmtAction : std::uint8_t { none = 0, adtMember = 1, selGroup = 2 };

enum class PlcmtDataStatus : std::uint8_t {
   ok,
   truncated,    // fewer bytes available than a header
   badMagic,     // not a placement data block at all
   badLength,    // the length header is below the header size, above the maximum or the space
   badChecksum,  // the bytes do not match the checksum: torn or lying header
   badAction,    // unknown action or too many vectors
};

inline const char* plcmtDataStatusName(PlcmtDataStatus status) {
   switch (status) {
      case PlcmtDataStatus::ok:
         return "ok";
      case PlcmtDataStatus::truncated:
         return "truncated";
      case PlcmtDataStatus::badMagic:
         return "bad magic";
      case PlcmtDataStatus::badLength:
         return "bad length";
      case PlcmtDataStatus::badChecksum:
         return "bad checksum";
      case PlcmtDataStatus::badAction:
         return "bad action";
   }
   return "unknown";
}

namespace PlcmtDataDetail {

constexpr std::size_t lengthAt = 1;
constexpr std::size_t actionAt = 2;
constexpr std::size_t vectorsAt = 3;
constexpr std::size_t checksumAt = 4;
constexpr std::size_t valueAt = 8;

// A block is at most 64 bytes, so both sums fit 32 bits unreduced and are reduced once.
inline std::uint16_t fletcher16(const std::uint8_t* bytes, std::size_t length) {
   std::uint32_t sum1 = 0;
   std::uint32_t sum2 = 0;
   for (std::size_t i = 0; i < length; ++i) {
      std::uint8_t byte = (i == checksumAt || i == checksumAt + 1) ? 0 : bytes[i];
      sum1 += byte;
      sum2 += sum1;
   }
   return static_cast<std::uint16_t>(((sum2 % 255) << 8) | (sum1 % 255));
}

inline std::uint64_t readLe(const std::uint8_t* bytes, std::size_t width) {
   std::uint64_t value = 0;
   for (std::size_t i = width; i-- > 0;) value = (value << 8) | bytes[i];
   return value;
}

inline void writeLe(std::uint8_t* bytes, std::uint64_t value, std::size_t width) {
   for (std::size_t i = 0; i < width; ++i) bytes[i] = static_cast<std::uint8_t>(value >> (8 * i));
}

}  // namespace PlcmtDataDetail

// Inline storage for one block. Trivially copyable; bytes past the block's length are zero when
// the block was built here, so equal blocks compare equal.
struct PlcmtDataBlock {
   std::array<std::uint8_t, plcmtDataMaxSize> bytes{};

   const std::uint8_t* data() const { return bytes.data(); }
   std::uint8_t* data() { return bytes.data(); }
   // What the length header says, not necessarily the truth; parse before trusting it.
   std::size_t claimedSize() const { return bytes[PlcmtDataDetail::lengthAt]; }
   bool operator==(const PlcmtDataBlock&) const = default;
};

// A checked reading of a block. Everything but status is meaningful only when ok().
struct PlcmtDataView {
   PlcmtDataStatus status = PlcmtDataStatus::truncated;
   std::uint8_t length = 0;
   PlcmtAction action = PlcmtAction::none;
   std::uint8_t numVectors = 0;
   std::uint32_t adtMbrHdl = 0;
   std::uint64_t selGrpKey = 0;
   const std::uint8_t* payload = nullptr;
   std::size_t payloadSize = 0;

   bool ok() const { return status == PlcmtDataStatus::ok; }
};

// Reads a block of which at most `capacity` bytes may be touched. A length header that claims
// more than the capacity is refused before any byte past the header is read.
inline PlcmtDataView plcmtDataParse(const void* block, std::size_t capacity) {
   using namespace PlcmtDataDetail;
   PlcmtDataView view;
   const auto* bytes = static_cast<const std::uint8_t*>(block);
   if (!bytes || capacity < plcmtDataHeaderSize) return view;
   if (bytes[0] != plcmtDataMagic) {
      view.status = PlcmtDataStatus::badMagic;
      return view;
   }
   std::size_t length = bytes[lengthAt];
   if (length < plcmtDataHeaderSize || length > plcmtDataMaxSize || length > capacity) {
      view.status = PlcmtDataStatus::badLength;
      return view;
   }
   if (readLe(bytes + checksumAt, 2) != fletcher16(bytes, length)) {
      view.status = PlcmtDataStatus::badChecksum;
      return view;
   }
   std::uint8_t action = bytes[actionAt];
   std::uint8_t numVectors = bytes[vectorsAt];
   bool isGroup = action == static_cast<std::uint8_t>(PlcmtAction::selGroup);
   if (action > static_cast<std::uint8_t>(PlcmtAction::selGroup) ||
       numVectors > plcmtDataMaxVectors || (!isGroup && numVectors != 0)) {
      view.status = PlcmtDataStatus::badAction;
      return view;
   }
   view.status = PlcmtDataStatus::ok;
   view.length = static_cast<std::uint8_t>(length);
   view.action = static_cast<PlcmtAction>(action);
   view.numVectors = numVectors;
   std::uint64_t value = readLe(bytes + valueAt, 8);
   if (isGroup) {
      view.selGrpKey = value;
   } else {
      view.adtMbrHdl = static_cast<std::uint32_t>(value);
   }
   view.payload = bytes + plcmtDataHeaderSize;
   view.payloadSize = length - plcmtDataHeaderSize;
   return view;
}

// The length a block's header gives, when its magic and length hold together; 0 otherwise.
inline std::size_t plcmtDataHeaderLength(const void* block) {
   const auto* bytes = static_cast<const std::uint8_t*>(block);
   if (bytes[0] != plcmtDataMagic) return 0;
   std::size_t length = bytes[PlcmtDataDetail::lengthAt];
   return length < plcmtDataHeaderSize || length > plcmtDataMaxSize ? 0 : length;
}

inline PlcmtDataView plcmtDataParse(const PlcmtDataBlock& block) {
   return plcmtDataParse(block.data(), plcmtDataMaxSize);
}

// The selector group a match entry's block points at; 0 when the block is not valid or its
// action is not a group.
inline std::uint64_t plcmtDataSelGrpKey(const void* block, std::size_t capacity) {
   PlcmtDataView view = plcmtDataParse(block, capacity);
   return view.ok() && view.action == PlcmtAction::selGroup ? view.selGrpKey : 0;
}

inline std::uint64_t plcmtDataSelGrpKey(const PlcmtDataBlock& block) {
   return plcmtDataSelGrpKey(block.data(), plcmtDataMaxSize);
}

class PlcmtDataBuilder {
 public:
   PlcmtDataBuilder& adtMember(std::uint32_t mbrHdl) {
      action_ = PlcmtAction::adtMember;
      value_ = mbrHdl;
      numVectors_ = 0;
      return *this;
   }
   PlcmtDataBuilder& selGroup(std::uint64_t grpKey, std::uint8_t numVectors) {
      action_ = PlcmtAction::selGroup;
      value_ = grpKey;
      numVectors_ = numVectors;
      return *this;
   }
   // A payload longer than plcmtDataMaxPayload makes the builder invalid rather than cut.
   PlcmtDataBuilder& payload(const void* bytes, std::size_t size) {
      payloadSize_ = size;
      if (size <= plcmtDataMaxPayload && size != 0) std::memcpy(payload_.data(), bytes, size);
      return *this;
   }
   bool valid() const {
      return payloadSize_ <= plcmtDataMaxPayload && numVectors_ <= plcmtDataMaxVectors;
   }
   std::size_t size() const { return valid() ? plcmtDataHeaderSize + payloadSize_ : 0; }

   // Writes the block and returns its length; 0 (and nothing written) when invalid or when
   // the space is too small.
   std::size_t writeTo(void* out, std::size_t capacity) const {
      using namespace PlcmtDataDetail;
      std::size_t length = size();
      if (length == 0 || length > capacity) return 0;
      auto* bytes = static_cast<std::uint8_t*>(out);
      std::memset(bytes, 0, plcmtDataHeaderSize);
      bytes[0] = plcmtDataMagic;
      bytes[lengthAt] = static_cast<std::uint8_t>(length);
      bytes[actionAt] = static_cast<std::uint8_t>(action_);
      bytes[vectorsAt] = numVectors_;
      writeLe(bytes + valueAt, value_, 8);
      if (payloadSize_ != 0)
         std::memcpy(bytes + plcmtDataHeaderSize, payload_.data(), payloadSize_);
      writeLe(bytes + checksumAt, fletcher16(bytes, length), 2);
      return length;
   }

   // The block in inline storage; an invalid builder yields the all-zero block, which no
   // reader accepts.
   PlcmtDataBlock block() const {
      PlcmtDataBlock result;
      writeTo(result.data(), plcmtDataMaxSize);
      return result;
   }

 private:
   PlcmtAction action_ = PlcmtAction::none;
   std::uint64_t value_ = 0;
   std::uint8_t numVectors_ = 0;
   std::size_t payloadSize_ = 0;
   std::array<std::uint8_t, plcmtDataMaxPayload> payload_{};
};

}  // namespace ChipSdk
