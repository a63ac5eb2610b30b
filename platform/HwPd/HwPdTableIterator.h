#pragma once

// Walks the handles of one table in ascending order, reading them from the SDK a batch at a
// time. The walk continues from the handle it stands on, so it survives entries coming and
// going underneath; flushCache() drops what was read ahead, for a walk that was left alone a
// while and should see the chip as it is now.

#include <cstdint>
#include <memory>
#include <vector>

#include "HwPd/HwPdIntf.h"

namespace HwPd {

class HwPdTableIterator {
 public:
   static constexpr std::uint32_t defaultReadAhead = 64;

   HwPdTableIterator(std::shared_ptr<const HwPdIntf> hwPdIntf, std::uint32_t sessHdl,
                     std::uint8_t dev, std::uint16_t pipe, std::uint32_t tblHdl,
                     std::uint32_t readAhead = defaultReadAhead);

   bool end() const { return at_ >= cache_.size(); }
   // The handle the walk stands on; only when not at the end.
   std::uint32_t entryHdl() const { return cache_[at_]; }
   void next();
   void flushCache();

   std::uint64_t numSdkReads() const { return numSdkReads_; }

 private:
   void fetchAfter(std::uint32_t hdl);

   std::shared_ptr<const HwPdIntf> hwPdIntf_;
   std::uint32_t sessHdl_;
   std::uint8_t dev_;
   std::uint16_t pipe_;
   std::uint32_t tblHdl_;
   std::uint32_t readAhead_;
   std::vector<std::uint32_t> cache_;
   std::size_t at_ = 0;
   std::uint64_t numSdkReads_ = 0;
};

}  // namespace HwPd
