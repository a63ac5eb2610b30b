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
// out with a trace instead of failing the agent.
template <class Fn>
bool mountedOrSkipped(const ChipMbbShared::TableConfigMountKey& key, Fn&& mount) {
   try {
      mount();
      return true;
   } catch (const Vault::MountException& e) {
      DUALLOG(sliceLog, badEntryLevel, "skipping " << key.name() << ": " << e.what());
   } catch (const Brio::CorruptionDetectedException& e) {
      DUALLOG(sliceLog, badEntryLevel, "skipping " << key.name() << ": " << e.what());
   }
   FLASHLOG(badEntryLevel, 0u, ":skipping unmountable:", recordName(key.name()));
   return false;
}

// The mount decision that the single-table and the triple manager share: which published
// announcements are current, which running tables go, and the order in which that is found
// out. The managers differ only in what a table is made of, so `Mgr` supplies the mount and
// the unmount and says whether a table runs:
//   static traceClass, testmodeUnmountText; initialized(), supportedDevices(), syncGenTime(),
//   mountConfig(), tableMountInfoDir(), maxPublishedInstanceId() and its setter,
//   allowUnmount(), testmode(); and, to its core only, tableRunning(key), runningKeys(),
//   runningTablesDelAll(), fitsChip(key, entry), mountTable(key, entry), unmountTable(key).
template <class Mgr>
class TableMgrCore {
 public:
   using Key = ChipMbbShared::TableConfigMountKey;

   explicit TableMgrCore(Mgr& mgr) : mgr_(mgr) {}

   void findMaxPublishedInstanceId() {
      for (const auto& [key, entry] : *mgr_.tableMountInfoDir()) {
         if (mgr_.maxPublishedInstanceId() < entry.instanceId())
            mgr_.maxPublishedInstanceIdIs(entry.instanceId());
      }
   }

   void handleTableMount() {
      DUALLOG(sliceLog, handlerLevel, Mgr::traceClass << "handleTableMount");
      if (!mgr_.initialized()) return;
      for (const auto& [key, entry] : *mgr_.tableMountInfoDir()) handleTableMount(key);
   }

   void handleTableMount(const Key& key) {
      DUALLOG(sliceLog, handlerLevel, Mgr::traceClass << "handleTableMount " << key);
      if (!mgr_.initialized()) return;
      // The text operators know this failure by; the device target keeps its id as a field.
      if (key.devTgt().devId >= ChipId::numDevIds) {
         Brio::assertFailed("key.devTgt().devId() < 32", __FILE__, __LINE__);
      }
      if (!(mgr_.supportedDevices() & (std::uint32_t{1} << key.devTgt().devId))) {
         DUALLOG(sliceLog, decisionLevel, "unsupported devId: " << unsigned(key.devTgt().devId));
         return;
      }
      const auto entry = mgr_.tableMountInfoDir()->entry(key);
      if (entry.empty()) {
         if (mgr_.tableRunning(key)) mgr_.unmountTable(key);
         return;
      }
      if (!currentAnnouncement(key, entry)) return;
      if (!mgr_.fitsChip(key, entry)) return;
      mgr_.mountTable(key, entry);
   }

   // A resync of the mount-info collection may have lost keys without a notification of
   // their own; running tables are decided again as well as every published one.
   void handleMountInfoResync() {
      handleTableMount();
      if (!mgr_.initialized()) return;
      for (const Key& key : mgr_.runningKeys()) {
         if (!mgr_.tableMountInfoDir()->present(key)) handleTableMount(key);
      }
   }

   // The first steps of taking a running table down; false when it stays, as in test mode.
   bool unmountBegins(const Key& key, std::uint32_t qtId) {
      const std::string& name = key.name();
      DUALLOG(sliceLog, decisionLevel, "unmounting table " << name);
      FLASHLOG(decisionLevel, qtId, ":unmounting ", recordName(name));
      // Asserted in the words of the manager, whose attribute it is.
      if (!mgr_.allowUnmount()) {
         Brio::assertFailed("allowUnmount() && \"unmount is not supported\"", __FILE__, __LINE__);
      }
      if (mgr_.testmode()) {
         DUALLOG(sliceLog, decisionLevel, Mgr::testmodeUnmountText);
         return false;
      }
      return true;
   }

 private:
   // Whether a published entry is one to mount now: from the newest publisher instance, of the
   // generation this agent synchronises to, not running yet and enabled by the mount mode. A
   // newer instance retires every running table first.
   bool currentAnnouncement(const Key& key, const ChipMbbShared::MountEntryCommon& entry) {
      const std::string& name = key.name();
      const Orb::Seconds syncGenTime = mgr_.syncGenTime();
      if (mgr_.maxPublishedInstanceId() > entry.instanceId()) {
         FLASHLOG(decisionLevel, 0u, ":skipping stale instanceId:", recordName(name),
                  " id:", entry.instanceId(), " maxId:", mgr_.maxPublishedInstanceId());
         return false;
      }
      if (mgr_.maxPublishedInstanceId() < entry.instanceId()) {
         mgr_.runningTablesDelAll();
         mgr_.maxPublishedInstanceIdIs(entry.instanceId());
      }
      if (syncGenTime != entry.statusGenTime()) {
         DUALLOG(sliceLog, decisionLevel,
                 "ignoring " << name << " syncGenTime: " << syncGenTime
                             << " statusGenTime: " << entry.statusGenTime());
         FLASHLOG(decisionLevel, 0u, ":skipping stale status:", recordName(name),
                  " statusGenTime:", entry.statusGenTime(), " syncGenTime:", syncGenTime);
         return false;
      }
      if (syncGenTime != entry.configGenTime()) {
         DUALLOG(sliceLog, decisionLevel,
                 "ignoring " << name << " global: " << entry.global() << " syncGenTime: "
                             << syncGenTime << " configGenTime: " << entry.configGenTime());
         FLASHLOG(decisionLevel, 0u, ":skipping: ", recordName(name), " global: ", entry.global(),
                  " configGenTime:", entry.configGenTime(), " syncGenTime:", syncGenTime);
         return false;
      }
      if (mgr_.tableRunning(key)) {
         DUALLOG(sliceLog, decisionLevel,
                 "handleTableMount"
                     << " ignoring existing " << name);
         FLASHLOG(decisionLevel, 0u, ":skipping existing:", recordName(name));
         return false;
      }
      if (!entry.needStatus() && mgr_.mountConfig()->mode() == MountMode::mountStatusTablesOnly) {
         DUALLOG(sliceLog, decisionLevel,
                 "handleTableMount"
                     << " ignoring disabled: " << name);
         FLASHLOG(decisionLevel, 0u, ":skipping disabled:", recordName(name));
         return false;
      }
      return true;
   }

   Mgr& mgr_;
};

}  // namespace ChipMbbSlice::detail
