#pragma once

// Private copies of placement data blocks. The SDK keeps pointing at the data of a recorded
// operation until its batch is committed (for an installed ADT entry, for as long as the entry
// is installed), while the block it was recorded from lives in a configuration that the
// publisher may rewrite at any moment.

#include "Vault/MbbEngine/EntryConfig.h"

namespace ChipMbbSlice {

// A copy of the block, as long as the SDK says the block is; the caller gives it back with
// releaseData().
void* allocateAndCopyData(const void* data);
void releaseData(void* copy);

// The block held inside a match entry's configuration.
const void* getMatDataPtr(const Vault::MbbEngine::EntryConfig& entry);

}  // namespace ChipMbbSlice
