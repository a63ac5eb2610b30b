#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "Atlas/EntityManager.h"
#include "ChipMbbShared/MountEntryCommon.h"
#include "ChipMbbShared/TableConfigMountKey.h"
#include "ChipMbbSlice/TableAuditRegistry.h"
#include "ChipMbbSliceTableMgr/DebugIntf.h"
#include "ChipMbbSliceTableMgr/MountConfig.h"
#include "ChipMbbSliceTableMgr/detail/MgrTrace.h"
#include "ChipMbbSliceTableMgr/detail/TableClaims.h"
#include "HwPd/ChipId.h"
#include "HwPd/HwResourceInfo.h"
#include "Keel/TimerWheel.h"
#include "MbbEngine/MbbEngineFlushStatus.h"
#include "Orb/Attribute.h"
#include "Orb/Collection.h"
#include "Orb/Entity.h"
#include "Orb/Ptr.h"
#include "Orb/Time.h"
#include "Orb/TypeRegistry.h"

namespace ChipMbbSlice {

// What the single-table and the triple manager share: their parameters, the attributes that
// carry the mount decision, and the decision itself: which published announcements are
// current, which running tables go, and the order in which that is found out. The managers
// differ only in what a table is made of, so `Mgr` supplies, to this base only:
//   static orbTypeName, traceClass, testmodeUnmountText, mountedPaths(entry), chipTables(key,
//   entry); tableRunning(key),
//   runningKeys(), runningTablesDelAll(), fitsChip(key, entry), mountTable(key, entry),
//   unmountTable(key), tableTakeDown(key) and auditRegisterAll().
// `Mgr::Notifiee` derives from `CommonNotifiee` and adds the reactors of its own attributes.
// `Mgr`'s constructor ends with handleInitialized(), once its own collections exist.
template <class Mgr, class MountInfoDir>
class TableMgrBase : public Orb::Entity<Mgr> {
 public:
   using Key = ChipMbbShared::TableConfigMountKey;
   using MountEntry = typename MountInfoDir::Value;
   using MountInfoMap = std::map<Key, MountEntry>;
   using DebugMap = std::map<Key, Orb::Ptr<DebugIntf>>;

   class CommonNotifiee : public Orb::BaseNotifiee<Mgr> {
    public:
      virtual void onMaxPublishedInstanceId() {}
      virtual void onAllowUnmount() {}
      virtual void onTableAuditMgrSm() {}
      virtual void onInitialized() {}
      virtual void onMountInfo(const Key& key) {}
      virtual void onDebug(const Key& key) {}
   };

   // Subscribes to the mount-info collection and the mount configuration. A null entity
   // manager selects test mode: collections are made in this process instead of being
   // mounted, and tables are never unmounted.
   TableMgrBase(Orb::Ptr<MountInfoDir> tableMountInfoDir,
                Orb::Ptr<Atlas::EntityManager> entityManager, std::uint32_t supportedDevices,
                std::uint32_t sessHdl, Orb::Seconds syncGenTime,
                Orb::Ptr<Keel::TimerWheel> timerWheel,
                Orb::Ptr<MbbEngine::MbbEngineFlushStatus> flushStatus,
                Orb::Ptr<MountConfig> mountConfig,
                Orb::Ptr<const HwResourceInfo::HwResourceInfoIntf> resourceInfoIntf)
       : Orb::Entity<Mgr>(tableMountInfoDir ? tableMountInfoDir->name() : std::string()),
         tableMountInfoDir_(std::move(tableMountInfoDir)),
         entityManager_(std::move(entityManager)),
         supportedDevices_(supportedDevices),
         sessHdl_(sessHdl),
         syncGenTime_(syncGenTime),
         timerWheel_(std::move(timerWheel)),
         flushStatus_(std::move(flushStatus)),
         mountConfig_(std::move(mountConfig)),
         resourceInfoIntf_(std::move(resourceInfoIntf)),
         mountInfoReactor_(this),
         mountConfigReactor_(this) {
      const std::string_view type = Mgr::orbTypeName;
      if (!tableMountInfoDir_) Orb::throwNullParameter("tableMountInfoDir", type);
      if (!timerWheel_) Orb::throwNullParameter("timerWheel", type);
      if (!flushStatus_) Orb::throwNullParameter("flushStatus", type);
      if (!mountConfig_) Orb::throwNullParameter("mountConfig", type);
      if (!resourceInfoIntf_) Orb::throwNullParameter("resourceInfoIntf", type);
      mountInfoReactor_.notifierIs(tableMountInfoDir_.get());
      mountConfigReactor_.notifierIs(mountConfig_.get());
   }
   ~TableMgrBase() override { detail::TableClaims::process().releaseAll(this); }

   Orb::Ptr<const MountInfoDir> tableMountInfoDir() const { return tableMountInfoDir_; }
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

   // Told why a published table is not served when its collections cannot be mounted for a
   // reason that the entity manager does not report itself: a path missing, of another type
   // or layout, written for another table, a configuration with room for more entries than
   // the table.
   using SkipHandler = std::function<void(const Key& key, const std::string& reason)>;
   void skipHandlerIs(SkipHandler handler) { skipHandler_ = std::move(handler); }

   // The highest publisher instance seen; announcements of lower instances are stale.
   std::uint16_t maxPublishedInstanceId() const { return maxPublishedInstanceId_(); }
   void maxPublishedInstanceIdIs(std::uint16_t id) {
      maxPublishedInstanceId_.is(id, notifier(&CommonNotifiee::onMaxPublishedInstanceId));
   }

   // An operator's permission to tear down tables that stop being published; without it an
   // unpublished running table is a fatal error.
   bool allowUnmount() const { return allowUnmount_(); }
   void allowUnmountIs(bool allow) {
      allowUnmount_.is(allow, notifier(&CommonNotifiee::onAllowUnmount));
   }

   // The audit manager; setting one registers every running table with it.
   const Orb::Ptr<TableAuditRegistry>& tableAuditMgrSm() const { return tableAuditMgrSm_(); }
   void tableAuditMgrSmIs(Orb::Ptr<TableAuditRegistry> mgr) {
      tableAuditMgrSm_.is(mgr, [this] {
         notify(&CommonNotifiee::onTableAuditMgrSm);
         handleTableAuditMgrSm();
      });
   }

   bool initialized() const { return initialized_(); }
   void initializedIs(bool initialized) {
      initialized_.is(initialized, notifier(&CommonNotifiee::onInitialized));
   }

   // The entry each running table was mounted with; the empty entry for any other key.
   MountEntry mountInfo(const Key& key) const { return mountInfo_(key); }
   void mountInfoIs(const Key& key, const MountEntry& entry) {
      mountInfo_.is(key, entry, notifier(&CommonNotifiee::onMountInfo));
   }
   void mountInfoDel(const Key& key) {
      mountInfo_.del(key, notifier(&CommonNotifiee::onMountInfo));
   }
   void mountInfoDelAll() { mountInfo_.delAll(notifier(&CommonNotifiee::onMountInfo)); }
   const MountInfoMap& mountInfos() const { return mountInfo_.map(); }

   // Per-table debug interfaces; debugIs makes the key's one if it has none and returns it.
   Orb::Ptr<DebugIntf> debug(const Key& key) const { return debug_(key); }
   Orb::Ptr<DebugIntf> debugIs(const Key& key) {
      if (!debug_.has(key)) {
         debug_.is(key, Orb::ptrNew<DebugIntf>(key), notifier(&CommonNotifiee::onDebug));
      }
      return debug_(key);
   }
   void debugDel(const Key& key) { debug_.del(key, notifier(&CommonNotifiee::onDebug)); }
   void debugDelAll() { debug_.delAll(notifier(&CommonNotifiee::onDebug)); }
   const DebugMap& debugs() const { return debug_.map(); }

   void handleInitialized() {
      initQt();
      findMaxPublishedInstanceId();
      initializedIs(true);
      handleTableMount();
   }

   // Raises maxPublishedInstanceId to the highest instance id published.
   void findMaxPublishedInstanceId() {
      for (const auto& [key, entry] : *tableMountInfoDir_) {
         if (maxPublishedInstanceId() < entry.instanceId()) {
            maxPublishedInstanceIdIs(entry.instanceId());
         }
      }
   }

   // The mount decision for every published table.
   void handleTableMount() {
      DUALLOG(sliceLog, detail::handlerLevel, Mgr::traceClass << "handleTableMount");
      if (!initialized()) return;
      for (const auto& [key, entry] : *tableMountInfoDir_) handleTableMount(key);
   }

   // The mount decision for one published table.
   void handleTableMount(const Key& key) {
      DUALLOG(sliceLog, detail::handlerLevel, Mgr::traceClass << "handleTableMount " << key);
      if (!initialized()) return;
      // The text operators know this failure by; the device target keeps its id as a field.
      if (key.devTgt().devId >= ChipId::numDevIds) {
         Brio::assertFailed("key.devTgt().devId() < 32", __FILE__, __LINE__);
      }
      if (!(supportedDevices_ & (std::uint32_t{1} << key.devTgt().devId))) {
         DUALLOG(sliceLog, detail::decisionLevel,
                 "unsupported devId: " << unsigned(key.devTgt().devId));
         return;
      }
      const MountEntry entry = tableMountInfoDir_->entry(key);
      if (entry.empty()) {
         if (self().tableRunning(key)) self().unmountTable(key);
         return;
      }
      if (!currentAnnouncement(key, entry)) return;
      if (!self().fitsChip(key, entry) || !chipTablesClaim(key, entry)) return;
      self().mountTable(key, entry);
      if (!self().tableRunning(key)) chipTablesRelease(key, entry);
   }

   // Takes a running table down as if it were withdrawn; its owner does so when one of the
   // table's segments turned out damaged, and offers it again with handleTableMount(key).
   void tableStop(const Key& key) {
      if (self().tableRunning(key)) self().unmountTable(key);
   }

   void handleMountConfig() {
      DUALLOG(sliceLog, detail::handlerLevel,
              "handleMountConfig"
                  << " mountConfig()->mode() = " << stringValue(mountConfig_->mode()));
      handleTableMount();
   }

   void handleTableAuditMgrSm() {
      if (tableAuditMgrSm()) self().auditRegisterAll();
   }

 protected:
   template <class... Params, class... Args>
   void notify(void (CommonNotifiee::*reactor)(Params...), const Args&... args) {
      this->notifieeList().notify(reactor, args...);
   }
   // What the attributes call when they change.
   template <class Notifiee, class... Params>
   auto notifier(void (Notifiee::*reactor)(Params...)) {
      return
          [this, reactor](const auto&... args) { this->notifieeList().notify(reactor, args...); };
   }

   void tableSkipped(const Key& key, const std::string& reason) const {
      if (skipHandler_) skipHandler_(key, reason);
   }

   // One writer per status collection: a table that names one status path twice, or one that
   // another running table writes, is not served, since two engines writing one collection
   // would each take the other's statuses for their own. Another manager of this process (one
   // per feature agent) writing it shows as a mount that none of this manager's tables holds.
   // `pathsOf` lists an entry's statuses.
   template <class PathsOf>
   void statusPathsCheck(const Key& key, const MountEntry& entry, PathsOf pathsOf) {
      std::set<std::string> mine;
      for (const std::string& path : pathsOf(entry)) {
         if (!mine.insert(path).second) {
            throw Vault::MountException(path + " is named for two statuses of the table");
         }
      }
      std::set<std::string> held;
      for (const auto& [other, known] : mountInfos()) {
         for (const std::string& path : pathsOf(known)) {
            held.insert(path);
            if (other != key && self().tableRunning(other) && mine.contains(path)) {
               throw Vault::MountException(path + " is the status of " + other.name() + " already");
            }
         }
      }
      for (const std::string& path : mine) {
         if (!held.contains(path) && entityManager_->entity(path)) {
            throw Vault::MountException(path + " is the status of another feature agent's table");
         }
      }
   }

   // The chip tables a running key uses are this manager's until the key is taken down.
   bool chipTablesClaim(const Key& key, const MountEntry& entry) {
      if (detail::TableClaims::process().take(this, key.devTgt().devId,
                                              Mgr::chipTables(key, entry))) {
         return true;
      }
      DUALLOG(sliceLog, detail::badEntryLevel,
              "skipping " << key.name() << ": hdl:0x" << std::hex << key.tableId() << std::dec
                          << " is served for another feature agent");
      FLASHLOG(detail::badEntryLevel, 0u,
               ":skipping served elsewhere:", detail::recordName(key.name()));
      std::ostringstream reason;
      reason << "hdl:0x" << std::hex << key.tableId() << " is served for another feature agent";
      tableSkipped(key, reason.str());
      return false;
   }
   void chipTablesRelease(const Key& key, const MountEntry& entry) {
      detail::TableClaims::process().release(this, key.devTgt().devId, Mgr::chipTables(key, entry));
   }

   // The first steps of taking a running table down; false when it stays, as in test mode.
   bool unmountBegins(const Key& key, std::uint32_t qtId) {
      const std::string& name = key.name();
      DUALLOG(sliceLog, detail::decisionLevel, "unmounting table " << name);
      FLASHLOG(detail::decisionLevel, qtId, ":unmounting ", detail::recordName(name));
      // Asserted in the words of the manager, whose attribute it is.
      if (!allowUnmount()) {
         Brio::assertFailed("allowUnmount() && \"unmount is not supported\"", __FILE__, __LINE__);
      }
      if (testmode()) {
         DUALLOG(sliceLog, detail::decisionLevel, Mgr::testmodeUnmountText);
         return false;
      }
      return true;
   }

   // A manager that goes takes its tables down with it, outside test mode: each engine first,
   // which takes its entries out of hardware and writes their statuses, then the collections.
   // Whoever serves the same paths next then mounts the segments as they are by then, not the
   // ones this manager held. Tables whose engine a newer publisher instance already retired
   // still have their collections mounted and lose them here too.
   void tablesTakeDown() {
      if (testmode()) return;
      while (!mountInfos().empty()) {
         const Key key = mountInfos().begin()->first;
         self().tableTakeDown(key);
      }
   }

   // Declared before the per-table collections of `Mgr`, so that tables go before what they
   // use.
   Orb::Ptr<MountInfoDir> tableMountInfoDir_;
   Orb::Ptr<Atlas::EntityManager> entityManager_;
   std::uint32_t supportedDevices_;
   std::uint32_t sessHdl_;
   Orb::Seconds syncGenTime_;
   Orb::Ptr<Keel::TimerWheel> timerWheel_;
   Orb::Ptr<MbbEngine::MbbEngineFlushStatus> flushStatus_;
   Orb::Ptr<MountConfig> mountConfig_;
   Orb::Ptr<const HwResourceInfo::HwResourceInfoIntf> resourceInfoIntf_;

 private:
   class MountInfoReactor : public MountInfoDir::Notifiee {
    public:
      explicit MountInfoReactor(TableMgrBase* mgr) : mgr_(mgr) {}
      void onEntry(const Key& key) override { mgr_->handleTableMount(key); }
      void onEntry() override { mgr_->handleMountInfoResync(); }

    private:
      TableMgrBase* mgr_;
   };
   class MountConfigReactor : public MountConfig::Notifiee {
    public:
      explicit MountConfigReactor(TableMgrBase* mgr) : mgr_(mgr) {}
      void onMode() override { mgr_->handleMountConfig(); }

    private:
      TableMgrBase* mgr_;
   };

   Mgr& self() { return static_cast<Mgr&>(*this); }

   // A resync of the mount-info collection may have lost keys without a notification of
   // their own; running tables are decided again as well as every published one.
   void handleMountInfoResync() {
      handleTableMount();
      if (!initialized()) return;
      for (const Key& key : self().runningKeys()) {
         if (!tableMountInfoDir_->present(key)) handleTableMount(key);
      }
   }

   // Whether a published entry is one to mount now: from the newest publisher instance, of the
   // generation this agent synchronises to, not running yet and enabled by the mount mode. A
   // newer instance retires every running table first.
   bool currentAnnouncement(const Key& key, const ChipMbbShared::MountEntryCommon& entry) {
      using detail::decisionLevel;
      using detail::recordName;
      const std::string& name = key.name();
      if (maxPublishedInstanceId() > entry.instanceId()) {
         FLASHLOG(decisionLevel, 0u, ":skipping stale instanceId:", recordName(name),
                  " id:", entry.instanceId(), " maxId:", maxPublishedInstanceId());
         return false;
      }
      if (maxPublishedInstanceId() < entry.instanceId()) {
         self().runningTablesDelAll();
         maxPublishedInstanceIdIs(entry.instanceId());
      }
      if (syncGenTime_ != entry.statusGenTime()) {
         DUALLOG(sliceLog, decisionLevel,
                 "ignoring " << name << " syncGenTime: " << syncGenTime_
                             << " statusGenTime: " << entry.statusGenTime());
         FLASHLOG(decisionLevel, 0u, ":skipping stale status:", recordName(name),
                  " statusGenTime:", entry.statusGenTime(), " syncGenTime:", syncGenTime_);
         return false;
      }
      if (syncGenTime_ != entry.configGenTime()) {
         DUALLOG(sliceLog, decisionLevel,
                 "ignoring " << name << " global: " << entry.global() << " syncGenTime: "
                             << syncGenTime_ << " configGenTime: " << entry.configGenTime());
         FLASHLOG(decisionLevel, 0u, ":skipping: ", recordName(name), " global: ", entry.global(),
                  " configGenTime:", entry.configGenTime(), " syncGenTime:", syncGenTime_);
         return false;
      }
      if (self().tableRunning(key)) {
         DUALLOG(sliceLog, decisionLevel,
                 "handleTableMount"
                     << " ignoring existing " << name);
         FLASHLOG(decisionLevel, 0u, ":skipping existing:", recordName(name));
         return false;
      }
      if (!entry.needStatus() && mountConfig_->mode() == MountMode::mountStatusTablesOnly) {
         DUALLOG(sliceLog, decisionLevel,
                 "handleTableMount"
                     << " ignoring disabled: " << name);
         FLASHLOG(decisionLevel, 0u, ":skipping disabled:", recordName(name));
         return false;
      }
      return true;
   }

   Orb::Attribute<std::uint16_t> maxPublishedInstanceId_;
   Orb::Attribute<bool> allowUnmount_;
   Orb::Attribute<Orb::Ptr<TableAuditRegistry>> tableAuditMgrSm_;
   Orb::Attribute<bool> initialized_;
   Orb::Collection<Key, MountEntry> mountInfo_{"mountInfo", Mgr::orbTypeName};
   Orb::Collection<Key, Orb::Ptr<DebugIntf>> debug_{"debug", Mgr::orbTypeName};
   MountInfoReactor mountInfoReactor_;
   MountConfigReactor mountConfigReactor_;
   SkipHandler skipHandler_;
};

}  // namespace ChipMbbSlice
