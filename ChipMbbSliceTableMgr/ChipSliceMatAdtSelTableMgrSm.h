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
#include "ChipMbbSliceTableMgr/detail/TableMgrCore.h"
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
// registration.
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
class ChipSliceMatAdtSelTableMgrSm : public Orb::Entity<ChipSliceMatAdtSelTableMgrSm> {
 public:
   static constexpr std::string_view orbTypeName = "ChipMbbSlice::ChipSliceMatAdtSelTableMgrSm";
   static constexpr std::string_view traceClass = "ChipSliceMatAdtSelTableMgrSm::";
   static constexpr std::string_view testmodeUnmountText = "No unmounting support in test mode";

   using Key = ChipMbbShared::TableConfigMountKey;
   using MountEntry = ChipMbbShared::MatAdtSelTableConfigMountEntry;
   using MatAdtSelSliceSmMap = std::map<Key, Orb::Ptr<MatAdtSelSm>>;
   using MountInfoMap = std::map<Key, MountEntry>;
   using DebugMap = std::map<Key, Orb::Ptr<DebugIntf>>;

   class Notifiee : public Orb::BaseNotifiee<ChipSliceMatAdtSelTableMgrSm> {
    public:
      virtual void onMatAdtSelSliceSm(const Key& key) {}
      virtual void onMaxPublishedInstanceId() {}
      virtual void onAllowUnmount() {}
      virtual void onTableAuditMgrSm() {}
      virtual void onInitialized() {}
      virtual void onMountInfo(const Key& key) {}
      virtual void onDebug(const Key& key) {}
   };

 private:
   template <class... Params, class... Args>
   void notify(void (Notifiee::*reactor)(Params...), const Args&... args) {
      notifieeList().notify(reactor, args...);
   }
   template <class... Params>
   auto notifier(void (Notifiee::*reactor)(Params...)) {
      return [this, reactor](const auto&... args) { notify(reactor, args...); };
   }

 public:
   // Subscribes to the mount-info collection and the mount configuration, then mounts every
   // triple already published. A null entity manager selects test mode.
   ChipSliceMatAdtSelTableMgrSm(
       Orb::Ptr<ChipMbbShared::MatAdtSelTableConfigMountInfo> tableMountInfoDir,
       Orb::Ptr<Atlas::EntityManager> entityManager, std::uint32_t supportedDevices,
       std::uint32_t sessHdl, Orb::Seconds syncGenTime, Orb::Ptr<Keel::TimerWheel> timerWheel,
       Orb::Ptr<MbbEngine::MbbEngineFlushStatus> flushStatus, Orb::Ptr<MountConfig> mountConfig,
       Orb::Ptr<const HwResourceInfo::HwResourceInfoIntf> resourceInfoIntf);
   ~ChipSliceMatAdtSelTableMgrSm() override;

   Orb::Ptr<const ChipMbbShared::MatAdtSelTableConfigMountInfo> tableMountInfoDir() const {
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

   std::uint16_t maxPublishedInstanceId() const { return maxPublishedInstanceId_(); }
   void maxPublishedInstanceIdIs(std::uint16_t id) {
      maxPublishedInstanceId_.is(id, notifier(&Notifiee::onMaxPublishedInstanceId));
   }

   bool allowUnmount() const { return allowUnmount_(); }
   void allowUnmountIs(bool allow) { allowUnmount_.is(allow, notifier(&Notifiee::onAllowUnmount)); }

   // The audit manager; setting one registers every running triple with it.
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

   MountEntry mountInfo(const Key& key) const { return mountInfo_(key); }
   void mountInfoIs(const Key& key, const MountEntry& entry) {
      mountInfo_.is(key, entry, notifier(&Notifiee::onMountInfo));
   }
   void mountInfoDel(const Key& key) { mountInfo_.del(key, notifier(&Notifiee::onMountInfo)); }
   void mountInfoDelAll() { mountInfo_.delAll(notifier(&Notifiee::onMountInfo)); }
   const MountInfoMap& mountInfos() const { return mountInfo_.map(); }

   Orb::Ptr<DebugIntf> debug(const Key& key) const { return debug_(key); }
   Orb::Ptr<DebugIntf> debugIs(const Key& key);
   void debugDel(const Key& key) { debug_.del(key, notifier(&Notifiee::onDebug)); }
   void debugDelAll() { debug_.delAll(notifier(&Notifiee::onDebug)); }
   const DebugMap& debugs() const { return debug_.map(); }

   void handleInitialized();
   void findMaxPublishedInstanceId();
   void handleTableMount();
   void handleTableMount(const Key& key);
   void handleMountConfig();
   void handleTableAuditMgrSm();

 private:
   class MountInfoReactor : public ChipMbbShared::MatAdtSelTableConfigMountInfo::Notifiee {
    public:
      explicit MountInfoReactor(ChipSliceMatAdtSelTableMgrSm* mgr) : mgr_(mgr) {}
      void onEntry(const Key& key) override { mgr_->handleTableMount(key); }
      void onEntry() override { mgr_->core_.handleMountInfoResync(); }

    private:
      ChipSliceMatAdtSelTableMgrSm* mgr_;
   };
   class MountConfigReactor : public MountConfig::Notifiee {
    public:
      explicit MountConfigReactor(ChipSliceMatAdtSelTableMgrSm* mgr) : mgr_(mgr) {}
      void onMode() override { mgr_->handleMountConfig(); }

    private:
      ChipSliceMatAdtSelTableMgrSm* mgr_;
   };

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

   friend class detail::TableMgrCore<ChipSliceMatAdtSelTableMgrSm>;
   bool tableRunning(const Key& key) const { return matAdtSelSliceSm_.has(key); }
   std::vector<Key> runningKeys() const;
   void runningTablesDelAll() { matAdtSelSliceSmDelAll(); }
   bool fitsChip(const Key& key, const MountEntry& entry) const;
   void mountTable(const Key& key, const MountEntry& entry);
   void unmountTable(const Key& key);

   StatusCapacities statusCapacities(const Key& key, const MountEntry& entry) const;
   TripleColls testmodeColls(const MountEntry& entry, const StatusCapacities& capacity) const;
   TripleColls mountedColls(const MountEntry& entry, const StatusCapacities& capacity);

   Orb::Ptr<ChipMbbShared::MatAdtSelTableConfigMountInfo> tableMountInfoDir_;
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
   Orb::Collection<Key, Orb::Ptr<MatAdtSelSm>> matAdtSelSliceSm_{"matAdtSelSliceSm", orbTypeName};
   MountInfoReactor mountInfoReactor_;
   MountConfigReactor mountConfigReactor_;
   detail::TableMgrCore<ChipSliceMatAdtSelTableMgrSm> core_{*this};
};

}  // namespace ChipMbbSlice
