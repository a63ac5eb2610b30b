#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "Atlas/EntityManager.h"
#include "ChipMbbShared/MountInfo.h"
#include "ChipMbbSlice/TableAuditRegistry.h"
#include "ChipMbbSliceTableMgr/DebugIntf.h"
#include "ChipMbbSliceTableMgr/MountConfig.h"
#include "ChipMbbSliceTableMgr/TableMgrBase.h"
#include "HwPd/HwResourceInfo.h"
#include "Keel/TimerWheel.h"
#include "MbbEngine/MbbEngineFlushStatus.h"
#include "MbbEngine/MbbEngineSm.h"
#include "Orb/Attribute.h"
#include "Orb/Collection.h"
#include "Orb/Entity.h"
#include "Orb/Ptr.h"
#include "Orb/Time.h"
#include "Vault/MbbEngine/Tables.h"

namespace ChipMbbSlice {

// Serves one feature agent's published single match tables. Every announcement in the
// mount-info collection is checked (device, publisher instance, generation times, enabled);
// a current one gets its configuration and status collections mounted, its entry scope set in
// the SDK, a placement helper and an engine, and is registered with the audit. The chip's
// resources say which published tables the chip can hold. A table that is unpublished while
// running is torn down again, but only when an operator allowed it; a manager that goes takes
// its tables down with it (TableMgrBase::tablesTakeDown).
//
// Without an entity manager the manager runs in test mode, as TableMgrBase describes.
class ChipSliceTableMgrSm
    : public TableMgrBase<ChipSliceTableMgrSm, ChipMbbShared::TableConfigMountInfo> {
 public:
   static constexpr std::string_view orbTypeName = "ChipMbbSlice::ChipSliceTableMgrSm";
   static constexpr std::string_view traceClass = "ChipSliceTableMgrSm::";
   static constexpr std::string_view testmodeUnmountText = "No unmounting support in testmode";

   using MbbEngineSmMap = std::map<Key, Orb::Ptr<MbbEngine::MbbEngineSm>>;
   using TableScopeMap = std::map<std::uint32_t, std::uint8_t>;

   class Notifiee : public CommonNotifiee {
    public:
      virtual void onMbbEngineSm(const Key& key) {}
      virtual void onTableScope(std::uint32_t tableId) {}
   };

   // Mounts every table already published once subscribed.
   ChipSliceTableMgrSm(Orb::Ptr<ChipMbbShared::TableConfigMountInfo> tableMountInfoDir,
                       Orb::Ptr<Atlas::EntityManager> entityManager, std::uint32_t supportedDevices,
                       std::uint32_t sessHdl, Orb::Seconds syncGenTime,
                       Orb::Ptr<Keel::TimerWheel> timerWheel,
                       Orb::Ptr<MbbEngine::MbbEngineFlushStatus> flushStatus,
                       Orb::Ptr<MountConfig> mountConfig,
                       Orb::Ptr<const HwResourceInfo::HwResourceInfoIntf> resourceInfoIntf);
   ~ChipSliceTableMgrSm() override;

   // The collections a table announced with `entry` is served from, mounted outside test mode.
   static std::vector<std::string> mountedPaths(const MountEntry& entry);
   // The chip tables it programs.
   static std::vector<std::uint32_t> chipTables(const Key& key, const MountEntry& entry);

   // Running engines. A null engine is refused with Brio::RangeException. An engine leaves the
   // collection before it is destroyed: it takes its entries out of hardware as it goes, and
   // nothing may reach it through the manager meanwhile.
   Orb::Ptr<MbbEngine::MbbEngineSm> mbbEngineSm(const Key& key) const { return mbbEngineSm_(key); }
   void mbbEngineSmIs(const Key& key, Orb::Ptr<MbbEngine::MbbEngineSm> engine) {
      mbbEngineSm_.is(key, std::move(engine), notifier(&Notifiee::onMbbEngineSm));
   }
   void mbbEngineSmDel(const Key& key) {
      mbbEngineSm_.del(key, notifier(&Notifiee::onMbbEngineSm));
   }
   void mbbEngineSmDelAll() { mbbEngineSm_.delAll(notifier(&Notifiee::onMbbEngineSm)); }
   const MbbEngineSmMap& mbbEngineSms() const { return mbbEngineSm_.map(); }

   // Entry scope already set in the SDK, per table id: 0 all pipelines, 1 single pipeline.
   std::uint8_t tableScope(std::uint32_t tableId) const { return tableScope_(tableId); }
   bool tableScopeHas(std::uint32_t tableId) const { return tableScope_.has(tableId); }
   void tableScopeIs(std::uint32_t tableId, std::uint8_t scope) {
      tableScope_.is(tableId, scope, notifier(&Notifiee::onTableScope));
   }
   void tableScopeDel(std::uint32_t tableId) {
      tableScope_.del(tableId, notifier(&Notifiee::onTableScope));
   }
   void tableScopeDelAll() { tableScope_.delAll(notifier(&Notifiee::onTableScope)); }
   const TableScopeMap& tableScopes() const { return tableScope_.map(); }

 private:
   // The collections a table is served from.
   struct TableColls {
      Orb::Ptr<Vault::MbbEngine::TableConfig> config;
      Orb::Ptr<Vault::MbbEngine::TableStatus> status;
   };

   friend class TableMgrBase<ChipSliceTableMgrSm, ChipMbbShared::TableConfigMountInfo>;
   bool tableRunning(const Key& key) const { return mbbEngineSm_.has(key); }
   std::vector<Key> runningKeys() const;
   void runningTablesDelAll() { mbbEngineSmDelAll(); }
   void auditRegisterAll();
   bool fitsChip(const Key& key, const MountEntry& entry) const;
   void mountTable(const Key& key, const MountEntry& entry);
   bool mountColls(const Key& key, const MountEntry& entry, TableColls& colls);
   TableColls testmodeColls(const MountEntry& entry) const;
   TableColls mountedColls(const MountEntry& entry);
   void entryScopeIs(const Key& key);
   Orb::Ptr<MbbEngine::MbbEngineImpl> mbbEngineImplNew(
       const Key& key, const MountEntry& entry, const TableColls& colls,
       const Orb::Ptr<DebugIntf>& debugIntf, const Orb::Ptr<MbbEngine::MbbEngineHelper>& helper,
       std::uint32_t qtId);
   void unmountTable(const Key& key);
   void tableTakeDown(const Key& key);

   Orb::Collection<std::uint32_t, std::uint8_t> tableScope_{"tableScope", orbTypeName};
   Orb::Collection<Key, Orb::Ptr<MbbEngine::MbbEngineSm>> mbbEngineSm_{"mbbEngineSm", orbTypeName};
};

}  // namespace ChipMbbSlice
