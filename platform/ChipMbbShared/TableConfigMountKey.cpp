#include "ChipMbbShared/TableConfigMountKey.h"

#include <cstdio>

namespace ChipMbbShared {

std::ostream& operator<<(std::ostream& os, const TableConfigMountKey& key) {
   char buf[48];
   std::snprintf(buf, sizeof buf, " dev:%u pipe:0x%04x id:0x%08x", key.devTgt().devId,
                 key.devTgt().pipeId, key.tableId());
   return os << key.name() << buf;
}

}  // namespace ChipMbbShared
