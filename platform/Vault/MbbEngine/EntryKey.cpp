#include "Vault/MbbEngine/EntryKey.h"

#include <cstdio>

namespace Vault::MbbEngine {

std::string toHex(EntryKey key) {
   char buf[24];
   std::snprintf(buf, sizeof buf, "0x%llx", static_cast<unsigned long long>(key.value()));
   return buf;
}

std::string toHex(OpId opId) {
   char buf[24];
   std::snprintf(buf, sizeof buf, "0x%016llx", static_cast<unsigned long long>(opId.value()));
   return buf;
}

}  // namespace Vault::MbbEngine
