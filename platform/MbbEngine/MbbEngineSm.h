#pragma once

#include <cstddef>
#include <cstdint>
#include <map>

#include "Keel/TimerWheel.h"
#include "MbbEngine/DebugConfig.h"
#include "MbbEngine/DebugStatus.h"
#include "MbbEngine/MbbEngineFlushStatus.h"
#include "MbbEngine/MbbEngineImpl.h"
#include "Orb/Entity.h"
#include "Orb/Ptr.h"
#include "Orb/Time.h"
#include "Vault/MbbEngine/Tables.h"

namespace MbbEngine {

// Drives one table's engine from its configuration: a change of a key hands the key to the
// engine; a notification of the whole table (mount, resync) runs one pass over every key, then
// one flush, and the first such pass counts the table in the flush status. Keys that the
// engine held back for their dependant tables are offered again on a timer until they go.
class MbbEngineSm : public Orb::Entity<MbbEngineSm> {
 public:
   class Notifiee : public Orb::BaseNotifiee<MbbEngineSm> {
    public:
      virtual void onInitialFlushed() {}
   };

   // Starts with notifications on: the table is announced in the flush status and, when its
   // configuration is mounted, passed over at once.
   MbbEngineSm(Orb::Ptr<Vault::MbbEngine::TableConfig> tableConfig,
               Orb::Ptr<Vault::MbbEngine::TableStatus> tableStatus,
               Orb::Ptr<DebugConfig> debugConfig, Orb::Ptr<DebugStatus> debugStatus,
               Orb::Ptr<MbbEngineImpl> mbbEngineImpl, Orb::Ptr<MbbEngineFlushStatus> flushStatus,
               Keel::TimerWheel* timerWheel);
   // Takes the table's entries out of hardware (the engine's doCleanup2).
   ~MbbEngineSm() override;

   const Orb::Ptr<Vault::MbbEngine::TableConfig>& tableConfig() const { return tableConfig_; }
   const Orb::Ptr<Vault::MbbEngine::TableStatus>& tableStatus() const { return tableStatus_; }
   const Orb::Ptr<DebugConfig>& debugConfig() const { return debugConfig_; }
   const Orb::Ptr<DebugStatus>& debugStatus() const { return debugStatus_; }
   const Orb::Ptr<MbbEngineImpl>& mbbEngineImpl() const { return mbbEngineImpl_; }
   const Orb::Ptr<MbbEngineFlushStatus>& flushStatus() const { return flushStatus_; }
   Keel::TimerWheel* timerWheel() const { return timerWheel_; }

   bool initialized() const { return initialized_; }
   // The first pass over the whole table has been made and flushed.
   bool initialFlushed() const { return initialFlushed_; }
   bool hasNotificationActive() const { return hasNotificationActive_; }
   // Switching notifications back on catches up with a pass over the whole table.
   virtual void hasNotificationActiveIs(bool on);

   // The key handler: the engine acts on the key as if its configuration had just changed.
   void handleEntry(const Vault::MbbEngine::EntryKey& key);
   // One pass over every key of the table, then a flush; counts the first in the flush status.
   virtual void handleEntryCollNotify();

   // Keys waiting for their dependant tables, with their transaction index.
   std::uint64_t failedKey(const Vault::MbbEngine::EntryKey& key) const;
   void failedKeyIs(const Vault::MbbEngine::EntryKey& key, std::uint64_t ti);
   void failedKeyDel(const Vault::MbbEngine::EntryKey& key) { failedKey_.erase(key); }
   std::size_t numFailedKey() const { return failedKey_.size(); }

   Orb::Seconds retryPeriod() const { return retryPeriod_; }
   void retryPeriodIs(Orb::Seconds period) { retryPeriod_ = period; }
   bool retryTimerSet() const { return retryTimerSet_; }
   const Keel::TimerWheel::Timer& retryFailedTimer() const { return retryFailedTimer_; }
   // Arms the retry timer one period from now, unless it is armed or nothing failed.
   void doScheduleRetry();
   // Offers the failed keys again, at most retryDepsMaxCnt of them, oldest change first.
   void handleRetry();
   std::uint64_t numRetryOps() const { return numRetryOps_; }

   static constexpr Orb::Seconds defaultRetryPeriod = 0.1;

 protected:
   // For engines that finish setting up before any notification: notifications start as
   // `hasNotificationActive` says.
   MbbEngineSm(Orb::Ptr<Vault::MbbEngine::TableConfig> tableConfig,
               Orb::Ptr<Vault::MbbEngine::TableStatus> tableStatus,
               Orb::Ptr<DebugConfig> debugConfig, Orb::Ptr<DebugStatus> debugStatus,
               Orb::Ptr<MbbEngineImpl> mbbEngineImpl, Orb::Ptr<MbbEngineFlushStatus> flushStatus,
               Keel::TimerWheel* timerWheel, bool hasNotificationActive);

   void handleInitialized();
   void initialFlushedIs(bool v);

 private:
   class ConfigReactor : public Vault::MbbEngine::TableConfig::Notifiee {
    public:
      explicit ConfigReactor(MbbEngineSm* sm) : sm_(sm) {}
      void onEntry(const Vault::MbbEngine::EntryKey& key) override;
      void onEntry() override;

    private:
      MbbEngineSm* sm_;
   };
   class ImplReactor : public MbbEngineImpl::Notifiee {
    public:
      explicit ImplReactor(MbbEngineSm* sm) : sm_(sm) {}
      void onFailedKey(const Vault::MbbEngine::EntryKey& key, std::uint64_t ti) override {
         sm_->failedKeyIs(key, ti);
         sm_->doScheduleRetry();
      }

    private:
      MbbEngineSm* sm_;
   };
   class RetryTimer : public Keel::TimerWheel::Timer {
    public:
      RetryTimer(MbbEngineSm* sm, Keel::TimerWheel* wheel) : Timer(wheel), sm_(sm) {}
      void onTime() override { sm_->handleRetry(); }

    private:
      MbbEngineSm* sm_;
   };

   Orb::Ptr<Vault::MbbEngine::TableConfig> tableConfig_;
   Orb::Ptr<Vault::MbbEngine::TableStatus> tableStatus_;
   Orb::Ptr<DebugConfig> debugConfig_;
   Orb::Ptr<DebugStatus> debugStatus_;
   Orb::Ptr<MbbEngineImpl> mbbEngineImpl_;
   Orb::Ptr<MbbEngineFlushStatus> flushStatus_;
   Keel::TimerWheel* timerWheel_;
   bool initialized_ = false;
   bool initialFlushed_ = false;
   bool hasNotificationActive_;
   std::map<Vault::MbbEngine::EntryKey, std::uint64_t> failedKey_;
   Orb::Seconds retryPeriod_ = defaultRetryPeriod;
   bool retryTimerSet_ = false;
   std::uint64_t numRetryOps_ = 0;
   ConfigReactor configReactor_;
   ImplReactor implReactor_;
   RetryTimer retryFailedTimer_;
};

}  // namespace MbbEngine
