#include "MbbEngine/MbbEngineSm.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "Brio/Brio.h"
#include "MbbEngine/detail/Trace.h"
#include "Orb/TypeRegistry.h"

namespace MbbEngine {

using Vault::MbbEngine::EntryConfig;
using Vault::MbbEngine::EntryKey;

namespace {

const Orb::TypeRegistration registration{
    "MbbEngine::MbbEngineFlushStatus",   "MbbEngine::DebugConfig",   "MbbEngine::DebugStatus",
    "MbbEngine::MbbEngineHelper",        "MbbEngine::MbbEngineImpl", "MbbEngine::FastMbbEngineImpl",
    "MbbEngine::FastMbbEngineAtcamImpl", "MbbEngine::MbbEngineSm"};

}  // namespace

MbbEngineSm::MbbEngineSm(Orb::Ptr<Vault::MbbEngine::TableConfig> tableConfig,
                         Orb::Ptr<Vault::MbbEngine::TableStatus> tableStatus,
                         Orb::Ptr<DebugConfig> debugConfig, Orb::Ptr<DebugStatus> debugStatus,
                         Orb::Ptr<MbbEngineImpl> mbbEngineImpl,
                         Orb::Ptr<MbbEngineFlushStatus> flushStatus, Keel::TimerWheel* timerWheel)
    : MbbEngineSm(std::move(tableConfig), std::move(tableStatus), std::move(debugConfig),
                  std::move(debugStatus), std::move(mbbEngineImpl), std::move(flushStatus),
                  timerWheel, true) {}

MbbEngineSm::MbbEngineSm(Orb::Ptr<Vault::MbbEngine::TableConfig> tableConfig,
                         Orb::Ptr<Vault::MbbEngine::TableStatus> tableStatus,
                         Orb::Ptr<DebugConfig> debugConfig, Orb::Ptr<DebugStatus> debugStatus,
                         Orb::Ptr<MbbEngineImpl> mbbEngineImpl,
                         Orb::Ptr<MbbEngineFlushStatus> flushStatus, Keel::TimerWheel* timerWheel,
                         bool hasNotificationActive)
    : tableConfig_(std::move(tableConfig)),
      tableStatus_(std::move(tableStatus)),
      debugConfig_(std::move(debugConfig)),
      debugStatus_(std::move(debugStatus)),
      mbbEngineImpl_(std::move(mbbEngineImpl)),
      flushStatus_(std::move(flushStatus)),
      timerWheel_(timerWheel),
      hasNotificationActive_(hasNotificationActive),
      configReactor_(this),
      implReactor_(this),
      retryFailedTimer_(this, timerWheel) {
   BRIO_ASSERT(tableConfig_ && "engine needs a table config");
   BRIO_ASSERT(mbbEngineImpl_ && "engine needs an implementation");
   BRIO_ASSERT(timerWheel_ && "engine needs a timer wheel");
   configReactor_.notifierIs(tableConfig_.get());
   implReactor_.notifierIs(mbbEngineImpl_.get());
   handleInitialized();
}

MbbEngineSm::~MbbEngineSm() {
   configReactor_.notifierIs(nullptr);
   implReactor_.notifierIs(nullptr);
   if (initialized_ && mbbEngineImpl_->initialized()) mbbEngineImpl_->doCleanup2();
}

void MbbEngineSm::handleInitialized() {
   if (initialized_) return;
   DUALLOG(mbbEngineLog, 8, "MbbEngineSm::handleInitialized " << tableConfig_->name());
   if (!mbbEngineImpl_->initialized()) mbbEngineImpl_->handleInitialized2();
   if (flushStatus_) flushStatus_->tableCounterInc(1);
   initialized_ = true;
   if (hasNotificationActive_) handleEntryCollNotify();
}

void MbbEngineSm::hasNotificationActiveIs(bool on) {
   if (on == hasNotificationActive_) return;
   hasNotificationActive_ = on;
   if (on) handleEntryCollNotify();
}

void MbbEngineSm::initialFlushedIs(bool v) {
   if (v == initialFlushed_) return;
   initialFlushed_ = v;
   notifieeList().notify(&Notifiee::onInitialFlushed);
}

void MbbEngineSm::handleEntry(const EntryKey& key) {
   DUALLOG(mbbEngineLog, 7, "MbbEngineSm::handleEntry " << tableConfig_->name() << " key:" << key);
   failedKey_.erase(key);
   mbbEngineImpl_->handleEntry(key);
}

void MbbEngineSm::handleEntryCollNotify() {
   if (!initialized_ || !tableConfig_->mounted()) return;
   DUALLOG(mbbEngineLog, 7,
           "MbbEngineSm::handleEntryCollNotify " << tableConfig_->name()
                                                 << " keys:" << tableConfig_->size());
   MbbEngineImpl& impl = *mbbEngineImpl_;
   bool complete = true;
   try {
      // In no order: a shared table read slot by slot, not sorted and looked up key by key,
      // which a host that mounts a table its publisher already filled pays for every key.
      std::vector<EntryKey> met;
      met.reserve(tableConfig_->size());
      tableConfig_->entriesVisit([&](const EntryKey& key, const EntryConfig& config) {
         met.push_back(key);
         failedKey_.erase(key);
         impl.handleEntryHelper(key, config);
      });
      std::sort(met.begin(), met.end());
      // Keys the pass did not meet have lost their configuration while nobody was told. Only
      // those are looked up again: the keys come sorted, so one walk along the met ones tells.
      for (const std::vector<EntryKey>& keys : {impl.currentKeys(), impl.pendingKeys()}) {
         auto seen = met.begin();
         for (const EntryKey& key : keys) {
            seen = std::lower_bound(seen, met.end(), key);
            if (seen != met.end() && *seen == key) continue;
            if (!tableConfig_->present(key)) impl.handleEntryHelper(key, EntryConfig());
         }
      }
   } catch (const Brio::CorruptionDetectedException& e) {
      // The table has run its corruption handling and will announce itself again once it has
      // recovered; until then no key is taken out for not having been read.
      complete = false;
      DUALLOG(mbbEngineLog, 0,
              "MbbEngineSm::handleEntryCollNotify " << tableConfig_->name()
                                                    << " cut short: " << e.what());
   }
   impl.processPending();
   impl.helper()->flush();
   if (complete && !initialFlushed_) {
      if (flushStatus_) flushStatus_->flushCounterInc(1);
      initialFlushedIs(true);
   }
}

std::uint64_t MbbEngineSm::failedKey(const EntryKey& key) const {
   auto it = failedKey_.find(key);
   return it == failedKey_.end() ? 0 : it->second;
}

void MbbEngineSm::failedKeyIs(const EntryKey& key, std::uint64_t ti) {
   failedKey_[key] = ti;
}

void MbbEngineSm::doScheduleRetry() {
   if (retryTimerSet_ || failedKey_.empty()) return;
   retryTimerSet_ = true;
   retryFailedTimer_.timeMinIs(timerWheel_->now() + retryPeriod_);
}

void MbbEngineSm::handleRetry() {
   retryTimerSet_ = false;
   if (failedKey_.empty()) return;
   ++numRetryOps_;
   std::vector<std::pair<std::uint64_t, EntryKey>> batch;
   batch.reserve(failedKey_.size());
   for (const auto& [key, ti] : failedKey_) batch.emplace_back(ti, key);
   const std::size_t limit = std::max<std::uint32_t>(mbbEngineImpl_->retryDepsMaxCnt(), 1);
   if (batch.size() > limit) {
      std::nth_element(batch.begin(), batch.begin() + static_cast<std::ptrdiff_t>(limit),
                       batch.end());
      batch.resize(limit);
   }
   std::sort(batch.begin(), batch.end());
   DUALLOG(mbbEngineLog, 7,
           "MbbEngineSm::handleRetry " << tableConfig_->name() << " keys:" << batch.size() << " of "
                                       << failedKey_.size());
   for (const auto& [ti, key] : batch) failedKey_.erase(key);
   for (const auto& [ti, key] : batch) mbbEngineImpl_->handleEntry(key);
   doScheduleRetry();
}

void MbbEngineSm::ConfigReactor::onEntry(const EntryKey& key) {
   if (sm_->initialized() && sm_->hasNotificationActive()) sm_->handleEntry(key);
}

void MbbEngineSm::ConfigReactor::onEntry() {
   if (sm_->hasNotificationActive()) sm_->handleEntryCollNotify();
}

}  // namespace MbbEngine
