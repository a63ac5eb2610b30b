#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "Vault/LocalTable.h"
#include "Vault/Table.h"
#include "Vault/TableTypes.h"

namespace SliceSystem {

// What the agent host has done, as it tells publishers in other processes: the tables it
// runs, the entries its engines hold in hardware, the placement operations by kind (summed
// over the running tables' helpers) and the chip's hitless violations. `seq` counts the
// writes, so a reader can wait for a picture taken after a moment it knows.
struct HostCounters {
   std::uint64_t seq = 0;
   std::uint32_t pid = 0;
   std::uint32_t tablesPublished = 0;
   std::uint32_t tablesRunning = 0;
   // Mount-info collections the host has served since it started.
   std::uint32_t publications = 0;
   std::uint64_t entries = 0;
   std::uint64_t statuses = 0;
   std::uint64_t pending = 0;
   std::uint64_t numMatAddOps = 0;
   std::uint64_t numMatModOps = 0;
   std::uint64_t numMatMovOps = 0;
   // Every mat_del, the deadlock breaks among them too.
   std::uint64_t numMatDelOps = 0;
   std::uint64_t numMatDelDeadlockOps = 0;
   std::uint64_t numMatSetDfltOps = 0;
   std::uint64_t numMatClrDfltOps = 0;
   // Triples: their action data and selector operations, the selector groups and members
   // their engines hold, and the selector deadlocks those engines broke.
   std::uint32_t triplesPublished = 0;
   std::uint32_t triplesRunning = 0;
   std::uint64_t numAdtAddOps = 0;
   std::uint64_t numAdtModOps = 0;
   std::uint64_t numAdtDelOps = 0;
   std::uint64_t numSelAddOps = 0;
   std::uint64_t numSelDelOps = 0;
   std::uint64_t numSelActivateOps = 0;
   std::uint64_t numSelDeactivateOps = 0;
   std::uint64_t numSelSetFallbackOps = 0;
   std::uint64_t numSelClrFallbackOps = 0;
   std::uint64_t groups = 0;
   std::uint64_t members = 0;
   std::uint64_t numDeadlockBreakOps = 0;
   std::uint64_t numViolations = 0;
   // Exceptions that reached the event loop from a handler and were dropped there.
   std::uint64_t numHandlerFailures = 0;
   // Segments found damaged or refused as another user's (each reported once, its table stopped
   // until it is replaced).
   std::uint64_t numDamagedSegments = 0;
   // Announced tables not served because their collections could not be mounted (missing, of
   // another type, written for another table, larger than the table), each said once.
   std::uint64_t numTablesSkipped = 0;
   // The audit: audits completed, audits that were due while the previous one still ran, and
   // keys recorded as failing it.
   std::uint64_t audits = 0;
   std::uint64_t auditOvershoots = 0;
   std::uint64_t auditFailedKeys = 0;
   // Shared tables the host has mounted now, for reading and for writing.
   std::uint64_t mounts = 0;
   // Show commands answered, and those refused as unknown or malformed.
   std::uint64_t commands = 0;
   std::uint64_t commandsRefused = 0;

   std::uint64_t numOps() const {
      return numMatAddOps + numMatModOps + numMatMovOps + numMatDelOps + numMatSetDfltOps +
             numMatClrDfltOps + numTripleOps();
   }
   std::uint64_t numTripleOps() const {
      return numAdtAddOps + numAdtModOps + numAdtDelOps + numSelAddOps + numSelDelOps +
             numSelActivateOps + numSelDeactivateOps + numSelSetFallbackOps + numSelClrFallbackOps;
   }
   // "mat_add 10, mat_mod 2, ..." leaving out kinds that did not happen.
   std::string opsText() const;
   // The host's one-line summary.
   std::string text() const;

   bool operator==(const HostCounters&) const = default;
};

// The host's counters, one row under hostCountersKey; the host writes it, publishers read.
class HostCountersTable : public Vault::Table<std::string, HostCounters> {
 public:
   static constexpr std::string_view vaultTypeName = "SliceSystem::HostCountersTable";
   using Table::Table;
};

inline const bool hostCountersTableRegistered = Vault::registerTableType<HostCountersTable>();

inline const std::string hostCountersKey = "host";

}  // namespace SliceSystem
