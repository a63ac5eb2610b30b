#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string_view>

#include "ChipMbbShared/TableConfigMountKey.h"
#include "ChipMbbSlice/TableAuditRegistry.h"
#include "HwPd/HwPdIntf.h"
#include "Keel/TimerWheel.h"
#include "Orb/Entity.h"
#include "Orb/Ptr.h"
#include "Orb/Time.h"
#include "TableAuditSm/AuditTypes.h"
#include "TableAuditSm/FailedAuditStatus.h"
#include "TableAuditSm/MatAdtSelTableAudit.h"
#include "TableAuditSm/TableAudit.h"

namespace ChipMbbSlice {

// Opens the audit's trace file "ChipSlice-tableAudit" once per process, unless FLASHLOG_DISABLE
// is set.
void initBt();

// The one audit of the slice. Every `auditInterval` it starts a numbered audit of every
// registered table, carried out one table after another in slices of at most `processTime`,
// `continueInterval` apart, so that the event loop is never held for long. An audit that is
// still running when the next one is due is left alone and the expiry is counted.
class TableAuditMgrSm : public Orb::Entity<TableAuditMgrSm>, public TableAuditRegistry {
 public:
   static constexpr std::string_view orbTypeName = "ChipMbbSlice::TableAuditMgrSm";
   using TableAuditSmMap = std::map<ChipMbbShared::TableConfigMountKey, Orb::Ptr<TableAuditSm>>;

   // Starts the first audit at once when the wheel is there.
   TableAuditMgrSm(Keel::TimerWheel* timerWheel, std::uint32_t sessHdl,
                   std::shared_ptr<const HwPd::HwPdIntf> hwPdIntf);
   ~TableAuditMgrSm() override;

   Keel::TimerWheel* timerWheel() const { return timerWheel_; }
   std::uint32_t sessHdl() const { return sessHdl_; }
   const std::shared_ptr<const HwPd::HwPdIntf>& hwPdIntf() const { return hwPdIntf_; }
   const Orb::Ptr<AuditInstance>& configInstance() const { return configInstance_; }
   AuditState auditState() const { return auditState_; }
   const Orb::Ptr<FailedAuditStatus>& failedAuditStatus() const { return failedAuditStatus_; }
   Orb::Ptr<TableAuditSm> tableAuditSm(const ChipMbbShared::TableConfigMountKey& key) const;
   const TableAuditSmMap& tableAuditSms() const { return tableAuditSm_; }
   void tableAuditSmIs(const ChipMbbShared::TableConfigMountKey& key, Orb::Ptr<TableAuditSm> sm);
   void tableAuditSmDel(const ChipMbbShared::TableConfigMountKey& key);
   const ChipMbbShared::TableConfigMountKey& tableBookmark() const { return tableBookmark_; }
   const Orb::Ptr<AuditPolicy>& auditPolicy() const { return auditPolicy_; }
   Orb::Seconds processTime() const { return processTime_; }
   void processTimeIs(Orb::Seconds v) { processTime_ = v; }
   Orb::Seconds auditInterval() const { return auditInterval_; }
   // A new interval applies from now: a waiting audit timer is moved to one interval ahead.
   void auditIntervalIs(Orb::Seconds v);
   Orb::Seconds continueInterval() const { return continueInterval_; }
   void continueIntervalIs(Orb::Seconds v) { continueInterval_ = v; }
   const Keel::TimerWheel::Timer& auditTimer() const { return auditTimer_; }
   const Keel::TimerWheel::Timer& continueTimer() const { return continueTimer_; }
   std::uint32_t overshotCnt() const { return overshotCnt_; }
   bool initialized() const { return initialized_; }

   void addTable(const ChipMbbShared::TableConfigMountKey& key,
                 const Orb::WeakPtr<MbbEngine::MbbEngineSm>& engine) override;
   void delTable(const ChipMbbShared::TableConfigMountKey& key) override;
   void addMatAdtSelTable(const ChipMbbShared::TableConfigMountKey& key,
                          const Orb::WeakPtr<MatAdtSelSm>& sm) override;
   void delMatAdtSelTable(const ChipMbbShared::TableConfigMountKey& key) override;

   void handleInitialized();
   void handleAuditTimer();
   void handleContinueTimer();

   static constexpr Orb::Seconds defaultProcessTime = 0.001;
   static constexpr Orb::Seconds defaultAuditInterval = 30.0;
   static constexpr Orb::Seconds defaultContinueInterval = 0.01;

 private:
   class OrbAuditTimer : public Keel::TimerWheel::Timer {
    public:
      OrbAuditTimer(TableAuditMgrSm* mgr, Keel::TimerWheel* wheel) : Timer(wheel), mgr_(mgr) {}
      void onTime() override { mgr_->handleAuditTimer(); }

    private:
      TableAuditMgrSm* mgr_;
   };
   class OrbContinueTimer : public Keel::TimerWheel::Timer {
    public:
      OrbContinueTimer(TableAuditMgrSm* mgr, Keel::TimerWheel* wheel) : Timer(wheel), mgr_(mgr) {}
      void onTime() override { mgr_->handleContinueTimer(); }

    private:
      TableAuditMgrSm* mgr_;
   };

   void bookmarkIs(const ChipMbbShared::TableConfigMountKey& key);

   Keel::TimerWheel* timerWheel_;
   std::uint32_t sessHdl_;
   std::shared_ptr<const HwPd::HwPdIntf> hwPdIntf_;
   Orb::Ptr<AuditInstance> configInstance_;
   AuditState auditState_ = AuditState::idle;
   Orb::Ptr<FailedAuditStatus> failedAuditStatus_;
   TableAuditSmMap tableAuditSm_;
   ChipMbbShared::TableConfigMountKey tableBookmark_;
   Orb::Ptr<AuditPolicy> auditPolicy_;
   Orb::Seconds processTime_ = defaultProcessTime;
   Orb::Seconds auditInterval_ = defaultAuditInterval;
   Orb::Seconds continueInterval_ = defaultContinueInterval;
   OrbAuditTimer auditTimer_;
   OrbContinueTimer continueTimer_;
   std::uint32_t overshotCnt_ = 0;
   bool initialized_ = false;
};

Orb::Ptr<TableAuditMgrSm> TableAuditMgrSmIs(Keel::TimerWheel* timerWheel, std::uint32_t sessHdl,
                                            std::shared_ptr<const HwPd::HwPdIntf> hwPdIntf);

}  // namespace ChipMbbSlice
