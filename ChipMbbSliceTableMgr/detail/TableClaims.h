#pragma once

#include <cstdint>
#include <map>
#include <utility>
#include <vector>

namespace ChipMbbSlice::detail {

// Which manager serves each table of the chip. Two feature agents that announce the same chip
// table would program it over each other until the chip refuses an operation, which ends the
// agent; so a table belongs to the first manager that serves it, from its first running key to
// its last, and a later announcement of it elsewhere is left out. There is one chip per
// process, hence one record.
class TableClaims {
 public:
   static TableClaims& process();

   // Takes every table in `handles` of device `devId` for `owner`; false, taking none, when
   // another owner holds one of them.
   bool take(const void* owner, std::uint8_t devId, const std::vector<std::uint32_t>& handles);
   void release(const void* owner, std::uint8_t devId, const std::vector<std::uint32_t>& handles);
   void releaseAll(const void* owner);

 private:
   struct Claim {
      const void* owner = nullptr;
      unsigned keys = 0;
   };
   std::map<std::pair<std::uint8_t, std::uint32_t>, Claim> claims_;
};

}  // namespace ChipMbbSlice::detail
