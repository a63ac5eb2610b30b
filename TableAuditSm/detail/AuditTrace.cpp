#include "TableAuditSm/detail/AuditTrace.h"

#include <cstdlib>
#include <string>

#include "TableAuditSm/TableAuditMgrSm.h"

namespace ChipMbbSlice {

DualLog::Facility auditLog{"TableAudit"};

namespace {
constinit FlashLog::Handle auditHandle;
}

FlashLog::Handle& auditQt() {
   return auditHandle;
}

std::string btFileName() {
   std::string name = "ChipSlice-tableAudit";
   if (std::getenv("FLASHLOGDIR") == nullptr) name += "-%d";
   name += ".qt";
   return name;
}

void initBt() {
   if (auditHandle.isOpen() || FlashLog::disabledByEnv()) return;
   auditHandle.maxStringLenIs(80);
   FlashLog::LevelSizes sizes{64, 64, 64, 64, 64, 64, 64, 64, 64, 64};
   auditHandle.open(btFileName(), sizes, FlashLog::Writers::oneThread);
}

}  // namespace ChipMbbSlice
