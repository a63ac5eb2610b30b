#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "Atlas/EntityManager.h"
#include "ChipMbbShared/ConfigTables.h"
#include "ChipMbbShared/MountInfo.h"
#include "ChipMbbSlice/TableAuditRegistry.h"
#include "ChipMbbSliceMatAdtSelSm/MatAdtSelSm.h"
#include "ChipMbbSliceTableMgr/DebugIntf.h"
#include "ChipMbbSliceTableMgr/MountConfig.h"
#include "ChipMbbSliceTableMgr/TableMgrBase.h"
#include "HwPd/HwResourceInfo.h"
#include "Keel/TimerWheel.h"
#include "MbbEngine/MbbEngineFlushStatus.h"
#include "Orb/Attribute.h"
#include "Orb/Collection.h"
#include "Orb/Entity.h"
#include "Orb/Ptr.h"
#include "Orb/Time.h"
#include "Vault/MbbEngine/Tables.h"

namespace ChipMbbSlice {

// Serves one feature agent's published triples: a match table whose entries act through an
// action data table and a selector. Announcements are decided exactly as for single tables;
// a current one gets its four configuration and four status collections, one placement helper
// that writes all four statuses, the dependency engine and its state machine, and an audit
// registration. Like the single-table manager, it takes its triples down when it goes.
//
// Status capacities: an announcement carries one table size, that of the match table, while
// the statuses of a triple's parts hold different numbers of keys. Each status collection is
// therefore sized from the chip's own table behind it: the match and action data statuses
// from those tables, the group status from the selector's vectors (a group holds at least
// one), the member status from the selector's vectors times the members a vector holds.
//
// Pipes: the three tables of a triple are programmed with one entry scope, and this manager
// sets none, so they keep the chip's all-pipes scope. A triple announced for one pipe is
// therefore not served: it is skipped with a trace, since its operations would reach the chip
// in a scope the chip refuses.
//
// Without an entity manager the manager runs in test mode, as the single-table manager does.
class ChipSliceMatAdtSelTableMgrSm
    : public TableMgrBase<ChipSliceMatAdtSelTableMgrSm,
                          ChipMbbShared::MatAdtSelTableConfigMountInfo> {
 public:
   static constexpr std::string_view orbTypeName = "ChipMbbSlice::ChipSliceMatAdtSelTableMgrSm";
   static constexpr std::string_view traceClass = "ChipSliceMatAdtSelTableMgrSm::";
   static constexpr std::string_view testmodeUnmountText = "No unmounting support in test mode";

   using MatAdtSelSliceSmMap = std::map<Key, Orb::Ptr<MatAdtSelSm>>;

   class Notifiee : public CommonNotifiee {
    public:
      virtual void onMatAdtSelSliceSm(const Key& key) {}
   };

   // Mounts every triple already published once subscribed.
   ChipSliceMatAdtSelTableMgrSm(
       Orb::Ptr<ChipMbbShared::MatAdtSelTableConfigMountInfo> tableMountInfoDir,
       Orb::Ptr<Atlas::EntityManager> entityManager, std::uint32_t supportedDevices,
       std::uint32_t sessHdl, Orb::Seconds syncGenTime, Orb::Ptr<Keel::TimerWheel> timerWheel,
       Orb::Ptr<MbbEngine::MbbEngineFlushStatus> flushStatus, Orb::Ptr<MountConfig> mountConfig,
       Orb::Ptr<const HwResourceInfo::HwResourceInfoIntf> resourceInfoIntf);
   ~ChipSliceMatAdtSelTableMgrSm() override;

   // The collections a table announced with `entry` is served from, mounted outside test mode.
   static std::vector<std::string> mountedPaths(const MountEntry& entry);
   // The chip tables it programs.
   static std::vector<std::uint32_t> chipTables(const Key& key, const MountEntry& entry);

   // Running triples. A front leaves the collection before it is destroyed, so that nothing
   // reaches it through the manager while it takes its entries out of hardware.
   Orb::Ptr<MatAdtSelSm> matAdtSelSliceSm(const Key& key) const { return matAdtSelSliceSm_(key); }
   void matAdtSelSliceSmIs(const Key& key, Orb::Ptr<MatAdtSelSm> sm) {
      matAdtSelSliceSm_.is(key, std::move(sm), notifier(&Notifiee::onMatAdtSelSliceSm));
   }
   void matAdtSelSliceSmDel(const Key& key) {
      matAdtSelSliceSm_.del(key, notifier(&Notifiee::onMatAdtSelSliceSm));
   }
   void matAdtSelSliceSmDelAll() {
      matAdtSelSliceSm_.delAll(notifier(&Notifiee::onMatAdtSelSliceSm));
   }
   const MatAdtSelSliceSmMap& matAdtSelSliceSms() const { return matAdtSelSliceSm_.map(); }

 private:
   // The eight collections a triple is served from; a status that is not mounted is null.
   struct TripleColls {
      Orb::Ptr<Vault::MbbEngine::TableConfig> matConfig;
      Orb::Ptr<ChipMbbShared::AdtTableConfig> adtConfig;
      Orb::Ptr<ChipMbbShared::SelGrpTableConfig> selGrpConfig;
      Orb::Ptr<ChipMbbShared::SelMbrTableConfig> selMbrConfig;
      Orb::Ptr<Vault::MbbEngine::TableStatus> matStatus;
      Orb::Ptr<Vault::MbbEngine::TableStatus> adtStatus;
      Orb::Ptr<Vault::MbbEngine::TableStatus> selGrpStatus;
      Orb::Ptr<Vault::MbbEngine::TableStatus> selMbrStatus;
   };
   // How many keys each status collection holds.
   struct StatusCapacities {
      std::uint32_t mat = 0;
      std::uint32_t adt = 0;
      std::uint32_t selGrp = 0;
      std::uint32_t selMbr = 0;
   };

   friend class TableMgrBase<ChipSliceMatAdtSelTableMgrSm,
                             ChipMbbShared::MatAdtSelTableConfigMountInfo>;
   bool tableRunning(const Key& key) const { return matAdtSelSliceSm_.has(key); }
   std::vector<Key> runningKeys() const;
   void runningTablesDelAll() { matAdtSelSliceSmDelAll(); }
   void auditRegisterAll();
   bool fitsChip(const Key& key, const MountEntry& entry) const;
   void mountTable(const Key& key, const MountEntry& entry);
   void unmountTable(const Key& key);
   void tableTakeDown(const Key& key);

   StatusCapacities statusCapacities(const Key& key, const MountEntry& entry) const;
   TripleColls testmodeColls(const MountEntry& entry, const StatusCapacities& capacity) const;
   TripleColls mountedColls(const MountEntry& entry, const StatusCapacities& capacity);

   Orb::Collection<Key, Orb::Ptr<MatAdtSelSm>> matAdtSelSliceSm_{"matAdtSelSliceSm", orbTypeName};
};

}  // namespace ChipMbbSlice
