#include "ChipMbbSliceTableMgr/detail/TableClaims.h"

#include <map>

namespace ChipMbbSlice::detail {

TableClaims& TableClaims::process() {
   static TableClaims claims;
   return claims;
}

bool TableClaims::take(const void* owner, std::uint8_t devId,
                       const std::vector<std::uint32_t>& handles) {
   for (std::uint32_t handle : handles) {
      auto it = claims_.find({devId, handle});
      if (it != claims_.end() && it->second.owner != owner) return false;
   }
   for (std::uint32_t handle : handles) {
      Claim& claim = claims_[{devId, handle}];
      claim.owner = owner;
      ++claim.keys;
   }
   return true;
}

void TableClaims::release(const void* owner, std::uint8_t devId,
                          const std::vector<std::uint32_t>& handles) {
   for (std::uint32_t handle : handles) {
      auto it = claims_.find({devId, handle});
      if (it == claims_.end() || it->second.owner != owner) continue;
      if (--it->second.keys == 0) claims_.erase(it);
   }
}

void TableClaims::releaseAll(const void* owner) {
   std::erase_if(claims_, [owner](const auto& claim) { return claim.second.owner == owner; });
}

}  // namespace ChipMbbSlice::detail
