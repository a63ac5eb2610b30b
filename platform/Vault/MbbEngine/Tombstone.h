#pragma once

#include "Vault/MbbEngine/EntryKey.h"

namespace Vault::MbbEngine {

// Configurations announce a delete that wants acknowledging with a tombstone: a new op id and
// nothing else but the key. C::deletion(key, opId) builds one.
template <class C>
bool isTombstone(const C& config) {
   return config.opId() != OpId() && config == C::deletion(config.key(), config.opId());
}

}  // namespace Vault::MbbEngine
