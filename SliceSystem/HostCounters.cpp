#include "SliceSystem/HostCounters.h"

namespace SliceSystem {

std::string HostCounters::opsText() const {
   std::string out;
   auto add = [&out](const char* name, std::uint64_t n) {
      if (n == 0) return;
      if (!out.empty()) out += ", ";
      out += std::string(name) + " " + std::to_string(n);
   };
   add("mat_add", numMatAddOps);
   add("mat_mod", numMatModOps);
   add("mat_mov", numMatMovOps);
   add("mat_del", numMatDelOps);
   if (numMatDelDeadlockOps != 0) {
      out += " (deadlock breaks " + std::to_string(numMatDelDeadlockOps) + ")";
   }
   add("mat_set_dflt", numMatSetDfltOps);
   add("mat_clr_dflt", numMatClrDfltOps);
   add("adt_add", numAdtAddOps);
   add("adt_mod", numAdtModOps);
   add("adt_del", numAdtDelOps);
   add("sel_add", numSelAddOps);
   add("sel_del", numSelDelOps);
   add("sel_activate", numSelActivateOps);
   add("sel_deactivate", numSelDeactivateOps);
   add("sel_set_fallback", numSelSetFallbackOps);
   add("sel_clr_fallback", numSelClrFallbackOps);
   return out.empty() ? "none" : out;
}

std::string HostCounters::text() const {
   std::string triples;
   if (triplesPublished || triplesRunning) {
      triples = ", triples " + std::to_string(triplesRunning) + "/" +
                std::to_string(triplesPublished) + " running with " + std::to_string(groups) +
                " groups, " + std::to_string(members) + " members, deadlock breaks " +
                std::to_string(numDeadlockBreakOps);
   }
   return "tables " + std::to_string(tablesRunning) + "/" + std::to_string(tablesPublished) +
          " running" + triples + ", entries " + std::to_string(entries) + ", statuses " +
          std::to_string(statuses) + ", pending " + std::to_string(pending) + ", ops " +
          std::to_string(numOps()) + " (" + opsText() + "), violations " +
          std::to_string(numViolations) + ", handler failures " +
          std::to_string(numHandlerFailures) + ", damaged or foreign segments " +
          std::to_string(numDamagedSegments) + ", tables skipped " +
          std::to_string(numTablesSkipped) + ", audits " + std::to_string(audits) +
          " (overshoots " + std::to_string(auditOvershoots) + ", failed keys " +
          std::to_string(auditFailedKeys) + "), mounts " + std::to_string(mounts) + ", commands " +
          std::to_string(commands) + " (refused " + std::to_string(commandsRefused) + ")";
}

}  // namespace SliceSystem
