#include "ChipMbbSlice/detail/PlcmtDataCopy.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "Brio/Brio.h"
#include "ChipSdk/PlcmtApi.h"
#include "ChipSdk/PlcmtData.h"

namespace ChipMbbSlice {

namespace {

// Every copy has room for the largest block, so that copies given back serve any later one:
// a converging table takes one per operation and gives it back at the commit, and malloc and
// free were a tenth of an add. Copies of installed ADT entries outlive their helper (the chip
// points at them), so the spare ones belong to the thread, not to a helper.
struct SpareCopies {
   std::vector<void*> copies;
   ~SpareCopies() {
      for (void* copy : copies) std::free(copy);
   }
};
thread_local SpareCopies spare;

}  // namespace

void* allocateAndCopyData(const void* data) {
   // A block whose header does not hold together is reported at the largest size a block can
   // have, so copying it is still safe; the record call that gets it refuses it.
   std::uint32_t size = 0;
   p4_pd_plcmt_data_size(data, &size);
   BRIO_ASSERT(size <= ChipSdk::plcmtDataMaxSize);
   void* copy = nullptr;
   if (spare.copies.empty()) {
      copy = std::malloc(ChipSdk::plcmtDataMaxSize);
      BRIO_ASSERT(copy && "malloc failed");
   } else {
      copy = spare.copies.back();
      spare.copies.pop_back();
   }
   std::memcpy(copy, data, size);
   return copy;
}

void releaseData(void* copy) {
   // Kept up to a megabyte of spares; a table taken down all at once gives back more.
   constexpr std::size_t maxSpares = (1u << 20) / ChipSdk::plcmtDataMaxSize;
   if (spare.copies.size() < maxSpares) {
      spare.copies.push_back(copy);
   } else {
      std::free(copy);
   }
}

const void* getMatDataPtr(const Vault::MbbEngine::EntryConfig& entry) {
   return entry.plcmtData().data();
}

}  // namespace ChipMbbSlice
