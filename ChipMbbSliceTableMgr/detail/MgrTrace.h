#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Brio/Brio.h"
#include "ChipMbbShared/MountEntryCommon.h"
#include "ChipMbbShared/TableConfigMountKey.h"
#include "ChipMbbSlice/TraceSetup.h"
#include "ChipMbbSliceTableMgr/MountConfig.h"
#include "HwPd/ChipId.h"
#include "HwPd/HwResourceInfo.h"
#include "Vault/Errors.h"

namespace ChipMbbSlice::detail {

// Trace levels of the table managers: 3 published entries that cannot be served, 5 decisions,
// 8 handler entry.
inline constexpr unsigned badEntryLevel = 3;
inline constexpr unsigned decisionLevel = 5;
inline constexpr unsigned handlerLevel = 8;

// Ring-buffer records carry the table's trace id (0 before it has one), then a label starting
// with ':', then the table name without its first 11 characters: published names share that
// prefix, and the record's string length is scarce.
std::string_view recordName(const std::string& name);

// Traces that a table is about to be mounted and draws its trace id.
std::uint32_t mountBegin(const std::string& name);
// Says whether a newly running table was handed to the audit or runs unaudited.
void auditTraced(std::uint32_t tableId, bool audited);
// Whether the chip has a match table under the key's handle that holds `tableSize` entries. A
// published size the chip cannot hold, or a handle that is no match table of the chip, is the
// publisher's mistake: the table is left out, the others go on.
bool matTableFits(const HwResourceInfo::HwResourceInfoIntf& resources,
                  const ChipMbbShared::TableConfigMountKey& key, std::uint32_t tableSize);

// Runs `mount`; paths that are not published, or hold another kind of table, leave the table
// out with a trace instead of failing the agent. `skipped` hears why, unless the entity manager
// has said so itself (a segment damaged or another user's).
template <class Fn, class Skipped>
bool mountedOrSkipped(const ChipMbbShared::TableConfigMountKey& key, Fn&& mount,
                      Skipped&& skipped) {
   try {
      mount();
      return true;
   } catch (const Vault::ForeignSegmentException& e) {
      DUALLOG(sliceLog, badEntryLevel, "skipping " << key.name() << ": " << e.what());
   } catch (const Vault::MountException& e) {
      DUALLOG(sliceLog, badEntryLevel, "skipping " << key.name() << ": " << e.what());
      skipped(std::string(e.what()));
   } catch (const Brio::CorruptionDetectedException& e) {
      DUALLOG(sliceLog, badEntryLevel, "skipping " << key.name() << ": " << e.what());
   }
   FLASHLOG(badEntryLevel, 0u, ":skipping unmountable:", recordName(key.name()));
   return false;
}

}  // namespace ChipMbbSlice::detail
