#include "ChipMbbSliceTableMgr/detail/MgrTrace.h"

#include <algorithm>

#include "ChipSdk/OpKind.h"

namespace ChipMbbSlice::detail {

std::string_view recordName(const std::string& name) {
   return std::string_view(name).substr(std::min<std::size_t>(11, name.size()));
}

std::uint32_t mountBegin(const std::string& name) {
   DUALLOG(sliceLog, decisionLevel, "mounting table for read " << name);
   const std::uint32_t qtId = getNextQtId();
   FLASHLOG(decisionLevel, qtId, ":mounting table:", recordName(name));
   return qtId;
}

void auditTraced(std::uint32_t tableId, bool audited) {
   if (audited) {
      DUALLOG(sliceLog, decisionLevel,
              "adding table to audit manager for table hdl:0x" << std::hex << tableId);
   } else {
      DUALLOG(sliceLog, decisionLevel,
              "no audit manager, skipping audit for table with hdl:0x" << std::hex << tableId);
   }
}

bool matTableFits(const HwResourceInfo::HwResourceInfoIntf& resources,
                  const ChipMbbShared::TableConfigMountKey& key, std::uint32_t tableSize) {
   const HwResourceInfo::HwResource table = resources.hwResourceByHandle(key.tableId());
   if (!table.known() || table.kind != ChipSdk::TableKind::mat) {
      DUALLOG(sliceLog, badEntryLevel,
              "skipping " << key.name() << ": no match table with hdl:0x" << std::hex
                          << key.tableId() << " on the chip");
      FLASHLOG(badEntryLevel, 0u, ":skipping unknown table:", recordName(key.name()),
               " hdl:", FlashLog::hex(key.tableId()));
      return false;
   }
   if (tableSize == 0 || tableSize > table.size) {
      DUALLOG(sliceLog, badEntryLevel,
              "skipping " << key.name() << ": tableSize " << tableSize
                          << " does not fit the chip's " << table.size);
      FLASHLOG(badEntryLevel, 0u, ":skipping bad size:", recordName(key.name()),
               " tableSize:", tableSize, " chipSize:", table.size);
      return false;
   }
   return true;
}

}  // namespace ChipMbbSlice::detail
