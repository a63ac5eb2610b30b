#include "HwPd/HwPdTableIterator.h"

#include "Brio/Brio.h"

namespace HwPd {

HwPdTableIterator::HwPdTableIterator(std::shared_ptr<const HwPdIntf> hwPdIntf,
                                     std::uint32_t sessHdl, std::uint8_t dev, std::uint16_t pipe,
                                     std::uint32_t tblHdl, std::uint32_t readAhead)
    : hwPdIntf_(std::move(hwPdIntf)),
      sessHdl_(sessHdl),
      dev_(dev),
      pipe_(pipe),
      tblHdl_(tblHdl),
      readAhead_(readAhead == 0 ? 1 : readAhead) {
   BRIO_ASSERT(hwPdIntf_);
   cache_.reserve(readAhead_);
   // Handle 0 is never an entry, so the walk starts after it.
   fetchAfter(0);
}

void HwPdTableIterator::fetchAfter(std::uint32_t hdl) {
   ++numSdkReads_;
   at_ = 0;
   bf_status_t status =
       hwPdIntf_->entryHdlsNext(sessHdl_, dev_, pipe_, tblHdl_, hdl, readAhead_, cache_);
   if (status != BF_SUCCESS) cache_.clear();
}

void HwPdTableIterator::next() {
   if (end()) return;
   if (++at_ < cache_.size()) return;
   fetchAfter(cache_.back());
}

void HwPdTableIterator::flushCache() {
   if (end()) return;
   std::uint32_t current = cache_[at_];
   cache_.assign(1, current);
   at_ = 0;
}

}  // namespace HwPd
