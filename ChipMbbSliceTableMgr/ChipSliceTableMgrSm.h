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
#include "ChipMbbSliceTableMgr/detail/TableMgrCore.h"
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
// resources say which published tables the chip can hold. A table that
// is unpublished while running is torn down again, but only when an operator allowed it.
//
// Without an entity manager the manager runs in test mode: collections are made in this
// process instead of being mounted, and tables are never unmounted.
class ChipSliceTableMgrSm : public Orb::Entity<ChipSliceTableMgrSm> {
 public:
   static constexpr std::string_view orbTypeName = "ChipMbbSlice::ChipSliceTableMgrSm";
   static constexpr std::string_view traceClass = "ChipSliceTableMgrSm::";
   static constexpr std::string_view testmodeUnmountText = "No unmounting support in testmode";

   using Key = ChipMbbShared::TableConfigMountKey;
   using MountEntry = ChipMbbShared::TableConfigMountEntry;
   using MbbEngineSmMap = std::map<Key, Orb::Ptr<MbbEngine::MbbEngineSm>>;
   using MountInfoMap = std::map<Key, MountEntry>;
   using DebugMap = std::map<Key, Orb::Ptr<DebugIntf>>;
   using TableScopeMap = std::map<std::uint32_t, std::uint8_t>;

   class Notifiee : public Orb::BaseNotifiee<ChipSliceTableMgrSm> {
    public:
      virtual void onMbbEngineSm(const Key& key) {}
      virtual void onMaxPublishedInstanceId() {}
      virtual void onAllowUnmount() {}
      virtual void onTableAuditMgrSm() {}
      virtual void onInitialized() {}
      virtual void onMountInfo(const Key& key) {}
      virtual void onDebug(const Key& key) {}
      virtual void onTableScope(std::uint32_t tableId) {}
   };

 private:
   template <class... Params, class... Args>
   void notify(void (Notifiee::*reactor)(Params...), const Args&... args) {
      notifieeList().notify(reactor, args...);
   }
   // What the attributes call when they change.
   template <class... Params>
   auto notifier(void (Notifiee::*reactor)(Params...)) {
      return [this, reactor](const auto&... args) { notify(reactor, args...); };
   }

 public:
   // Subscribes to the mount-info collection and the mount configuration, then mounts every
   // table already published. A null entity manager selects test mode.
   ChipSliceTableMgrSm(Orb::Ptr<ChipMbbShared::TableConfigMountInfo> tableMountInfoDir,
                       Orb::Ptr<Atlas::EntityManager> entityManager, std::uint32_t supportedDevices,
                       std::uint32_t sessHdl, Orb::Seconds syncGenTime,
                       Orb::Ptr<Keel::TimerWheel> timerWheel,
                       Orb::Ptr<MbbEngine::MbbEngineFlushStatus> flushStatus,
                       Orb::Ptr<MountConfig> mountConfig,
                       Orb::Ptr<const HwResourceInfo::HwResourceInfoIntf> resourceInfoIntf);
   ~ChipSliceTableMgrSm() override;

   Orb::Ptr<const ChipMbbShared::TableConfigMountInfo> tableMountInfoDir() const {
      return tableMountInfoDir_;
   }
   const Orb::Ptr<Atlas::EntityManager>& entityManager() const { return entityManager_; }
   bool testmode() const { return entityManager_ == nullptr; }
   std::uint32_t supportedDevices() const { return supportedDevices_; }
   std::uint32_t sessHdl() const { return sessHdl_; }
   Orb::Seconds syncGenTime() const { return syncGenTime_; }
   Orb::Ptr<const Keel::TimerWheel> timerWheel() const { return timerWheel_; }
   const Orb::Ptr<MbbEngine::MbbEngineFlushStatus>& flushStatus() const { return flushStatus_; }
   Orb::Ptr<const MountConfig> mountConfig() const { return mountConfig_; }
   const Orb::Ptr<const HwResourceInfo::HwResourceInfoIntf>& resourceInfoIntf() const {
      return resourceInfoIntf_;
   }

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

   // The highest publisher instance seen; announcements of lower instances are stale.
   std::uint16_t maxPublishedInstanceId() const { return maxPublishedInstanceId_(); }
   void maxPublishedInstanceIdIs(std::uint16_t id) {
      maxPublishedInstanceId_.is(id, notifier(&Notifiee::onMaxPublishedInstanceId));
   }

   // An operator's permission to tear down tables that stop being published; without it an
   // unpublished running table is a fatal error.
   bool allowUnmount() const { return allowUnmount_(); }
   void allowUnmountIs(bool allow) { allowUnmount_.is(allow, notifier(&Notifiee::onAllowUnmount)); }

   // The audit manager; setting one registers every running table with it.
   const Orb::Ptr<TableAuditRegistry>& tableAuditMgrSm() const { return tableAuditMgrSm_(); }
   void tableAuditMgrSmIs(Orb::Ptr<TableAuditRegistry> mgr) {
      tableAuditMgrSm_.is(mgr, [this] {
         notify(&Notifiee::onTableAuditMgrSm);
         handleTableAuditMgrSm();
      });
   }

   bool initialized() const { return initialized_(); }
   void initializedIs(bool initialized) {
      initialized_.is(initialized, notifier(&Notifiee::onInitialized));
   }

   // The entry each running table was mounted with; the empty entry for any other key.
   MountEntry mountInfo(const Key& key) const { return mountInfo_(key); }
   void mountInfoIs(const Key& key, const MountEntry& entry) {
      mountInfo_.is(key, entry, notifier(&Notifiee::onMountInfo));
   }
   void mountInfoDel(const Key& key) { mountInfo_.del(key, notifier(&Notifiee::onMountInfo)); }
   void mountInfoDelAll() { mountInfo_.delAll(notifier(&Notifiee::onMountInfo)); }
   const MountInfoMap& mountInfos() const { return mountInfo_.map(); }

   // Per-table debug interfaces; debugIs makes the key's one if it has none and returns it.
   Orb::Ptr<DebugIntf> debug(const Key& key) const { return debug_(key); }
   Orb::Ptr<DebugIntf> debugIs(const Key& key);
   void debugDel(const Key& key) { debug_.del(key, notifier(&Notifiee::onDebug)); }
   void debugDelAll() { debug_.delAll(notifier(&Notifiee::onDebug)); }
   const DebugMap& debugs() const { return debug_.map(); }

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

   void handleInitialized();
   // Raises maxPublishedInstanceId to the highest instance id published.
   void findMaxPublishedInstanceId();
   // The mount decision for every published table.
   void handleTableMount();
   // The mount decision for one published table.
   void handleTableMount(const Key& key);
   void handleMountConfig();
   void handleTableAuditMgrSm();

 private:
   class MountInfoReactor : public ChipMbbShared::TableConfigMountInfo::Notifiee {
    public:
      explicit MountInfoReactor(ChipSliceTableMgrSm* mgr) : mgr_(mgr) {}
      void onEntry(const Key& key) override { mgr_->handleTableMount(key); }
      void onEntry() override { mgr_->handleMountInfoResync(); }

    private:
      ChipSliceTableMgrSm* mgr_;
   };
   class MountConfigReactor : public MountConfig::Notifiee {
    public:
      explicit MountConfigReactor(ChipSliceTableMgrSm* mgr) : mgr_(mgr) {}
      void onMode() override { mgr_->handleMountConfig(); }

    private:
      ChipSliceTableMgrSm* mgr_;
   };

   // The collections a table is served from.
   struct TableColls {
      Orb::Ptr<Vault::MbbEngine::TableConfig> config;
      Orb::Ptr<Vault::MbbEngine::TableStatus> status;
   };

   friend class detail::TableMgrCore<ChipSliceTableMgrSm>;
   bool tableRunning(const Key& key) const { return mbbEngineSm_.has(key); }
   std::vector<Key> runningKeys() const;
   void runningTablesDelAll() { mbbEngineSmDelAll(); }
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
   void handleMountInfoResync() { core_.handleMountInfoResync(); }

   // Declared before the per-table collections, so that engines go before what they use.
   Orb::Ptr<ChipMbbShared::TableConfigMountInfo> tableMountInfoDir_;
   Orb::Ptr<Atlas::EntityManager> entityManager_;
   std::uint32_t supportedDevices_;
   std::uint32_t sessHdl_;
   Orb::Seconds syncGenTime_;
   Orb::Ptr<Keel::TimerWheel> timerWheel_;
   Orb::Ptr<MbbEngine::MbbEngineFlushStatus> flushStatus_;
   Orb::Ptr<MountConfig> mountConfig_;
   Orb::Ptr<const HwResourceInfo::HwResourceInfoIntf> resourceInfoIntf_;
   Orb::Attribute<std::uint16_t> maxPublishedInstanceId_;
   Orb::Attribute<bool> allowUnmount_;
   Orb::Attribute<Orb::Ptr<TableAuditRegistry>> tableAuditMgrSm_;
   Orb::Attribute<bool> initialized_;
   Orb::Collection<Key, MountEntry> mountInfo_{"mountInfo", orbTypeName};
   Orb::Collection<Key, Orb::Ptr<DebugIntf>> debug_{"debug", orbTypeName};
   Orb::Collection<std::uint32_t, std::uint8_t> tableScope_{"tableScope", orbTypeName};
   Orb::Collection<Key, Orb::Ptr<MbbEngine::MbbEngineSm>> mbbEngineSm_{"mbbEngineSm", orbTypeName};
   MountInfoReactor mountInfoReactor_;
   MountConfigReactor mountConfigReactor_;
   detail::TableMgrCore<ChipSliceTableMgrSm> core_{*this};
};

}  // namespace ChipMbbSlice
