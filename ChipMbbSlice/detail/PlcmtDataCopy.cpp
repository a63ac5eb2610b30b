#include "ChipMbbSlice/detail/PlcmtDataCopy.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "Brio/Brio.h"
#include "ChipSdk/PlcmtApi.h"

namespace ChipMbbSlice {

void* allocateAndCopyData(const void* data) {
   // A block whose header does not hold together is reported at the largest size a block can
   // have, so copying it is still safe; the record call that gets it refuses it.
   std::uint32_t size = 0;
   p4_pd_plcmt_data_size(data, &size);
   void* dataShadow = std::malloc(size);
   BRIO_ASSERT(dataShadow && "malloc failed");
   std::memcpy(dataShadow, data, size);
   return dataShadow;
}

const void* getMatDataPtr(const Vault::MbbEngine::EntryConfig& entry) {
   return entry.plcmtData().data();
}

}  // namespace ChipMbbSlice
