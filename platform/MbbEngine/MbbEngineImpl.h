#pragma once

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "MbbEngine/DebugConfig.h"
#include "MbbEngine/DebugStatus.h"
#include "MbbEngine/MbbEngineHelper.h"
#include "Orb/Entity.h"
#include "Orb/Ptr.h"
#include "Vault/MbbEngine/EntryConfig.h"
#include "Vault/MbbEngine/Tables.h"

namespace MbbEngine {

// The engine of one match table: turns each key's configuration into the helper's hardware
// operations, in an order that never takes a configured entry out of hardware before its
// replacement is in, and never places two entries on one index. MbbEngineSm drives it from the
// table's notifications and retries the keys whose dependant tables were not ready.
class MbbEngineImpl : public Orb::Entity<MbbEngineImpl> {
 public:
   class Notifiee : public Orb::BaseNotifiee<MbbEngineImpl> {
    public:
      // processDependantTables held the key back; `ti` is its change's transaction index.
      virtual void onFailedKey(const Vault::MbbEngine::EntryKey& key, std::uint64_t ti) {}
   };

   MbbEngineImpl(std::string name, Orb::Ptr<Vault::MbbEngine::TableConfig> tableConfig,
                 Orb::Ptr<DebugConfig> debugConfig, Orb::Ptr<DebugStatus> debugStatus,
                 Orb::Ptr<MbbEngineHelper> helper, std::uint32_t qtId);
   ~MbbEngineImpl() override;

   virtual bool hasBackupSupport() const { return false; }
   // Takes a name restored from a backup in place of the one given at construction.
   virtual void nameIsFromBackup(const std::string& name) = 0;
   virtual const std::string& name() const = 0;
   // The key's configuration changed (or is offered again): act on it, then on whatever that
   // freed.
   virtual void handleEntry(const Vault::MbbEngine::EntryKey& key) = 0;
   // Acts on one key's configuration as read; the empty configuration means absent.
   virtual void handleEntryHelper(const Vault::MbbEngine::EntryKey& key,
                                  const Vault::MbbEngine::EntryConfig& config) = 0;
   // The key now waits: if the waits close a cycle through it, breaks the cycle.
   virtual bool checkDeadlock(const Vault::MbbEngine::EntryKey& key) = 0;
   // Issues the pending keys whose way has been freed, in transaction order.
   virtual void processPending() = 0;
   // Issues a present configuration, or leaves the key pending; true when nothing is left
   // pending for it.
   virtual bool processEntry(const Vault::MbbEngine::EntryKey& key,
                             const Vault::MbbEngine::EntryConfig& config) = 0;
   // Takes the key out of hardware: its configuration is absent or a deletion.
   virtual void processDelete(const Vault::MbbEngine::EntryKey& key,
                              const Vault::MbbEngine::EntryConfig& config) = 0;
   // The op id in hardware for the key; zero when it has nothing there.
   virtual Vault::MbbEngine::OpId currentOpId(const Vault::MbbEngine::EntryKey& key) const = 0;
   virtual std::size_t numPending() const = 0;
   // Cycles of waiting keys broken so far, a key in its own way included.
   virtual std::uint64_t numDeadlock() const = 0;
   virtual void dumpPending(std::ostream& os) const = 0;
   virtual void dumpState(std::ostream& os) const = 0;
   // Answers the debug configuration's version in the debug status.
   virtual void handleDebug() = 0;
   // Whether the tables this key's configuration depends on are ready for it; false keeps the
   // key pending until a retry finds them ready. Asked again for each retry, and with the
   // empty configuration when the key goes.
   virtual bool processDependantTables(const Vault::MbbEngine::EntryConfig& config,
                                       const Vault::MbbEngine::EntryKey& key) = 0;
   virtual void handleInitialized() = 0;
   // The transaction index that the next configuration change gets.
   virtual std::uint64_t pti() const = 0;
   // The transaction index of the last change that reached hardware.
   virtual std::uint64_t lti() const = 0;

   // Run by the engine's state machine when it starts and when it goes; a derived engine that
   // binds to more than the match table hooks in here.
   virtual void handleInitialized2() { handleInitialized(); }
   virtual void doCleanup2() { doCleanup(); }
   // Takes every entry of the table out of hardware and forgets every key.
   virtual void doCleanup() = 0;

   // The key that owns an entry handle; the empty key when no key does.
   virtual Vault::MbbEngine::EntryKey handleToKey(std::uint64_t handle) const = 0;
   virtual bool handleToKeyHas(std::uint64_t handle) const = 0;
   // The keys that have an entry in hardware, and those that wait, in key order.
   virtual std::vector<Vault::MbbEngine::EntryKey> currentKeys() const = 0;
   virtual std::vector<Vault::MbbEngine::EntryKey> pendingKeys() const = 0;

   const Orb::Ptr<Vault::MbbEngine::TableConfig>& tableConfig() const { return tableConfig_; }
   const Orb::Ptr<DebugConfig>& debugConfig() const { return debugConfig_; }
   const Orb::Ptr<DebugStatus>& debugStatus() const { return debugStatus_; }
   const Orb::Ptr<MbbEngineHelper>& helper() const { return helper_; }
   std::uint32_t qtId() const { return qtId_; }
   bool initialized() const { return initialized_; }

   // At most this many failed keys are offered again per retry.
   std::uint32_t retryDepsMaxCnt() const { return retryDepsMaxCnt_; }
   void retryDepsMaxCntIs(std::uint32_t n) { retryDepsMaxCnt_ = n; }
   // Times processDependantTables has held a key back.
   std::uint64_t failedDepCnt() const { return failedDepCnt_; }

 protected:
   void initializedIs(bool v) { initialized_ = v; }
   void failedDepCntInc() { ++failedDepCnt_; }

 private:
   class DebugConfigReactor : public DebugConfig::Notifiee {
    public:
      explicit DebugConfigReactor(MbbEngineImpl* impl) : impl_(impl) {}
      void onVersion() override { impl_->handleDebug(); }

    private:
      MbbEngineImpl* impl_;
   };

   Orb::Ptr<Vault::MbbEngine::TableConfig> tableConfig_;
   Orb::Ptr<DebugConfig> debugConfig_;
   Orb::Ptr<DebugStatus> debugStatus_;
   Orb::Ptr<MbbEngineHelper> helper_;
   std::uint32_t qtId_;
   bool initialized_ = false;
   std::uint32_t retryDepsMaxCnt_ = 1024;
   std::uint64_t failedDepCnt_ = 0;
   DebugConfigReactor debugConfigReactor_;
};

}  // namespace MbbEngine
