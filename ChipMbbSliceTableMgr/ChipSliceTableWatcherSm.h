#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "Atlas/EntityManager.h"
#include "ChipMbbSliceTableMgr/ChipSliceMatAdtSelTableMgrSm.h"
#include "ChipMbbSliceTableMgr/ChipSliceTableMgrSm.h"
#include "ChipMbbSliceTableMgr/CliCallback.h"
#include "ChipMbbSliceTableMgr/MountConfig.h"
#include "HwPd/HwPdIntf.h"
#include "HwPd/HwResourceInfo.h"
#include "Keel/TimerWheel.h"
#include "Keel/WheelClock.h"
#include "MbbEngine/MbbEngineFlushStatus.h"
#include "Orb/Dir.h"
#include "Orb/Entity.h"
#include "Orb/Ptr.h"
#include "Orb/Time.h"
#include "TableAuditSm/TableAuditMgrSm.h"

namespace ChipMbbSlice {

// The slice's entry point, created once by the hosting agent. It watches a directory in which
// each feature agent's published tables stand as one mount-info collection, single tables or
// triples, and serves each with a table manager of the matching kind under the entity's name.
// It owns what the managers share: the timer wheel, the audit manager, and the show commands.
//
// An entity announced again under the same name gets a fresh manager in place of the old one,
// whose engines take their entries out of hardware as it goes. A single-table entity that
// leaves the directory takes its manager with it; a triple's manager stays with its engines
// running, because a triple's parts reference each other in hardware and only a new
// publication may take them apart.
//
// The timer wheel runs on the process's activity time source; the agent adds it to its event
// loop. Without an entity manager every manager runs in test mode.
class ChipSliceTableWatcherSm : public Orb::Entity<ChipSliceTableWatcherSm>, public CliTableDir {
 public:
   static constexpr std::string_view orbTypeName = "ChipMbbSlice::ChipSliceTableWatcherSm";

   using MatAdtSelTableMgrMap = TripleMgrMap;

   class Notifiee : public Orb::BaseNotifiee<ChipSliceTableWatcherSm> {
    public:
      virtual void onCliCallback() {}
      virtual void onTimerWheel() {}
      virtual void onTableAuditMgrSm() {}
      virtual void onInitialized() {}
      // A manager was created, replaced or removed under `name`.
      virtual void onTableMgr(const std::string& name) {}
      virtual void onMatAdtSelTableMgr(const std::string& name) {}
   };

   ChipSliceTableWatcherSm(Orb::Ptr<Orb::Dir> tableInfoDir,
                           Orb::Ptr<Atlas::EntityManager> entityManager,
                           std::uint32_t supportedDevices, std::uint32_t sessHdl,
                           Orb::Seconds syncGenTime,
                           Orb::Ptr<const HwResourceInfo::HwResourceInfoIntf> resourceInfoIntf,
                           std::shared_ptr<const HwPd::HwPdIntf> hwPdIntf,
                           Orb::Ptr<MbbEngine::MbbEngineFlushStatus> flushStatus,
                           Orb::Ptr<MountConfig> mountConfig);
   ~ChipSliceTableWatcherSm() override;

   Orb::Ptr<const Orb::Dir> tableInfoDir() const { return tableInfoDir_; }
   const Orb::Ptr<Atlas::EntityManager>& entityManager() const { return entityManager_; }
   std::uint32_t supportedDevices() const { return supportedDevices_; }
   std::uint32_t sessHdl() const { return sessHdl_; }
   Orb::Seconds syncGenTime() const { return syncGenTime_; }
   const Orb::Ptr<const HwResourceInfo::HwResourceInfoIntf>& resourceInfoIntf() const {
      return resourceInfoIntf_;
   }
   const std::shared_ptr<const HwPd::HwPdIntf>& hwPdIntf() const { return hwPdIntf_; }
   const Orb::Ptr<MbbEngine::MbbEngineFlushStatus>& flushStatus() const { return flushStatus_; }
   Orb::Ptr<const MountConfig> mountConfig() const { return mountConfig_; }

   const Orb::Ptr<CliCallback>& cliCallback() const { return cliCallback_; }
   // The show commands. Their runner waits for the timer wheel, which is made after them.
   void cliCallbackIs(const std::string& name, const std::string& agentName,
                      const CliTableDir* watcher,
                      Orb::Ptr<const HwResourceInfo::HwResourceInfoIntf> resourceInfoIntf,
                      std::shared_ptr<const HwPd::HwPdIntf> hwPdIntf);

   const Orb::Ptr<Keel::TimerWheel>& timerWheel() const { return timerWheel_; }
   void timerWheelIs(Orb::Ptr<Orb::TimeSource> clock, unsigned tickMsecs,
                     std::size_t initialMaxTicks, bool preserveOrder,
                     std::size_t defaultBucketSize);

   const Orb::Ptr<TableAuditMgrSm>& tableAuditMgrSm() const { return tableAuditMgrSm_; }
   void tableAuditMgrSmIs(Keel::TimerWheel* timerWheel, std::uint32_t sessHdl,
                          std::shared_ptr<const HwPd::HwPdIntf> hwPdIntf);

   bool initialized() const { return initialized_; }
   void initializedIs(bool initialized);

   Orb::Ptr<ChipSliceTableMgrSm> tableMgr(const std::string& name) const;
   TableMgrMap tableMgrs() const override { return tableMgr_; }
   Orb::Ptr<ChipSliceMatAdtSelTableMgrSm> matAdtSelTableMgr(const std::string& name) const;
   const MatAdtSelTableMgrMap& matAdtSelTableMgrs() const { return matAdtSelTableMgr_; }
   TripleMgrMap tripleMgrs() const override { return matAdtSelTableMgr_; }

   void handleInitialized();
   // The decision for every entity in the directory.
   void handleTableInfoDir();
   // The decision for the entity under `name`, present or gone.
   void handleTableInfoDir(const std::string& name);

 private:
   class DirReactor : public Orb::Dir::Notifiee {
    public:
      explicit DirReactor(ChipSliceTableWatcherSm* watcher) : watcher_(watcher) {}
      void onEntityPtr(const std::string& name) override { watcher_->handleTableInfoDir(name); }

    private:
      ChipSliceTableWatcherSm* watcher_;
   };

   template <class... Params, class... Args>
   void notify(void (Notifiee::*reactor)(Params...), const Args&... args) {
      notifieeList().notify(reactor, args...);
   }
   void tableMgrIs(const std::string& name, Orb::Ptr<ChipMbbShared::TableConfigMountInfo> info);
   void matAdtSelTableMgrIs(const std::string& name,
                            Orb::Ptr<ChipMbbShared::MatAdtSelTableConfigMountInfo> info);
   void tableMgrDel(const std::string& name);

   Orb::Ptr<Orb::Dir> tableInfoDir_;
   Orb::Ptr<Atlas::EntityManager> entityManager_;
   std::uint32_t supportedDevices_;
   std::uint32_t sessHdl_;
   Orb::Seconds syncGenTime_;
   Orb::Ptr<const HwResourceInfo::HwResourceInfoIntf> resourceInfoIntf_;
   std::shared_ptr<const HwPd::HwPdIntf> hwPdIntf_;
   Orb::Ptr<MbbEngine::MbbEngineFlushStatus> flushStatus_;
   Orb::Ptr<MountConfig> mountConfig_;
   // The wheel outlives everything that sets timers on it: the show commands, the audit and
   // the managers' engines, declared after it, go first.
   Orb::Ptr<Keel::TimerWheel> timerWheel_;
   Orb::Ptr<Keel::WheelClock> cliClock_;
   Orb::Ptr<CliCallback> cliCallback_;
   Orb::Ptr<TableAuditMgrSm> tableAuditMgrSm_;
   TableMgrMap tableMgr_;
   MatAdtSelTableMgrMap matAdtSelTableMgr_;
   bool initialized_ = false;
   DirReactor dirReactor_;
};

}  // namespace ChipMbbSlice
