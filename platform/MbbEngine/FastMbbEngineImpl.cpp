#include "MbbEngine/FastMbbEngineImpl.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <limits>

#include "Brio/Brio.h"
#include "MbbEngine/detail/Trace.h"
#include "Vault/Errors.h"

namespace MbbEngine {

using Vault::MbbEngine::EntryConfig;
using Vault::MbbEngine::EntryKey;
using Vault::MbbEngine::OpId;

namespace {

// Beyond this many indices the array of holders would cost more than hashing them.
constexpr std::uint32_t maxDenseIndices = 1u << 22;

bool isAbsent(const EntryConfig& config) {
   return config.opId() == OpId() && config == EntryConfig();
}

const char* resourceKind(std::uint64_t resource) {
   return (resource >> 32) == 1 ? "index" : "handle";
}

}  // namespace

FastMbbEngineImpl::FastMbbEngineImpl(std::string name,
                                     Orb::Ptr<Vault::MbbEngine::TableConfig> tableConfig,
                                     Orb::Ptr<DebugConfig> debugConfig,
                                     Orb::Ptr<DebugStatus> debugStatus,
                                     Orb::Ptr<MbbEngineHelper> helper, std::uint32_t qtId)
    : MbbEngineImpl(name, std::move(tableConfig), std::move(debugConfig), std::move(debugStatus),
                    std::move(helper), qtId),
      name_(std::move(name)) {}

FastMbbEngineImpl::~FastMbbEngineImpl() = default;

template <class Op>
void FastMbbEngineImpl::place(const EntryKey& key, Op&& op) {
   try {
      op();
   } catch (const Vault::TableFullException& e) {
      // The operation is in hardware; only the key's status could not be written. The audit
      // finds the key, and offering it again writes the status once there is room.
      DUALLOG(mbbEngineLog, 0, name_ << ": key " << key << " without status: " << e.what());
      FLASHLOG(0, qtId(), ":mbb status full key:", FlashLog::hex(key.value()));
   }
}

void FastMbbEngineImpl::nameIsFromBackup(const std::string& name) {
   DUALLOG(mbbEngineLog, 7, name_ << ": name from backup " << name);
   name_ = name;
}

void FastMbbEngineImpl::handleInitialized() {
   DUALLOG(mbbEngineLog, 8, name_ << ": FastMbbEngineImpl::handleInitialized");
   initializedIs(true);
}

void FastMbbEngineImpl::handleEntry(const EntryKey& key) {
   DUALLOG(mbbEngineLog, 8, name_ << ": handleEntry key:" << key);
   EntryConfig config;
   try {
      config = tableConfig()->entry(key);
   } catch (const Brio::CorruptionDetectedException& e) {
      // The table has run its corruption handling; the key keeps what it has until a good
      // record comes.
      DUALLOG(mbbEngineLog, 0, name_ << ": key " << key << " skipped: " << e.what());
      return;
   }
   handleEntryHelper(key, config);
   processPending();
}

void FastMbbEngineImpl::handleEntryHelper(const EntryKey& key, const EntryConfig& config) {
   if (isAbsent(config) || config.isDel()) {
      processDelete(key, config);
   } else {
      processEntry(key, config);
   }
}

void FastMbbEngineImpl::processPending() {
   if (draining_) return;
   draining_ = true;
   struct Done {
      bool& draining;
      ~Done() { draining = false; }
   } done{draining_};
   EntryKey key;
   EntryConfig config;
   while (pending_.readyPop(key, config)) handleEntryHelper(key, config);
}

std::uint64_t FastMbbEngineImpl::tiFor(const EntryKey& key, OpId opId) {
   if (const PendingEntry* pending = pending_.find(key)) {
      if (pending->opId == opId) return pending->ti;
      pending_.erase(key);
   }
   return pti_++;
}

bool FastMbbEngineImpl::processEntry(const EntryKey& key, const EntryConfig& config) {
   // Indices of a table of known size are looked up in an array; the size may come late.
   if (const std::uint32_t maxEntries = helper()->maxEntries();
       maxEntries != current_.denseIndices() && maxEntries <= maxDenseIndices) {
      current_.denseIndicesIs(maxEntries);
      pending_.denseIndicesIs(maxEntries);
   }
   const CurrentEntry* found = current_.find(key);
   const std::optional<CurrentEntry> current =
       found ? std::optional<CurrentEntry>(*found) : std::nullopt;
   if (current && config.opId() <= current->opId) {
      pending_.erase(key);
      if (config.opId() == current->opId) statusRepair(key, current->opId);
      return true;
   }
   const std::uint64_t ti = tiFor(key, config.opId());
   if (const char* problem = configProblem(config)) {
      const PendingEntry* pending = pending_.find(key);
      if (!pending || pending->reason != PendingReason::badConfig) {
         DUALLOG(mbbEngineLog, 3,
                 name_ << ": key " << key << " opId " << config.opId()
                       << " stays pending, cannot be placed: " << problem << " (hdl 0x" << std::hex
                       << config.entryHandle() << " index 0x" << config.index() << std::dec
                       << " prioGrp " << config.priorityGroup() << ")");
         FLASHLOG(3, qtId(), ":mbb bad config key:", FlashLog::hex(key.value()),
                  " hdl:", FlashLog::hex(config.entryHandle()),
                  " index:", FlashLog::hex(config.index()));
      }
      park(key, config, ti, PendingReason::badConfig);
      return false;
   }
   if (!current || current->index != config.index()) {
      if (const CurrentEntry* holder = current_.byIndex(config.index())) {
         waitFor(key, current, config, ti, indexResource(config.index()), *holder);
         return false;
      }
   }
   if (!current || current->handle != config.entryHandle()) {
      if (const CurrentEntry* holder = current_.byHandle(config.entryHandle())) {
         waitFor(key, current, config, ti, handleResource(config.entryHandle()), *holder);
         return false;
      }
   }
   if (!processDependantTables(config, key)) {
      DUALLOG(mbbEngineLog, 7, name_ << ": key " << key << " waits for its dependant tables");
      failedDepCntInc();
      park(key, config, ti, PendingReason::dependants);
      notifieeList().notify(&Notifiee::onFailedKey, key, ti);
      return false;
   }
   pending_.erase(key);
   issue(key, current, config);
   lti_ = ti;
   return true;
}

void FastMbbEngineImpl::park(const EntryKey& key, const EntryConfig& config, std::uint64_t ti,
                             PendingReason reason) {
   pending_.reasonIs(pending_.add(key, config, ti), reason);
}

void FastMbbEngineImpl::waitFor(const EntryKey& key, const std::optional<CurrentEntry>& current,
                                const EntryConfig& config, std::uint64_t ti, std::uint64_t resource,
                                const CurrentEntry& holder) {
   DUALLOG(mbbEngineLog, 7,
           name_ << ": key " << key << " waits for " << resourceKind(resource) << " 0x" << std::hex
                 << static_cast<std::uint32_t>(resource) << std::dec << " held by key "
                 << holder.key);
   pending_.waitFor(pending_.add(key, config, ti), resource,
                    (resource >> 32) == 1 ? PendingReason::index : PendingReason::handle,
                    holder.key);
   // Only a key that others wait for can be in a cycle, which spares most walks.
   if (current && (pending_.waitedFor(indexResource(current->index)) ||
                   pending_.waitedFor(handleResource(current->handle)))) {
      checkDeadlock(key);
   }
}

bool FastMbbEngineImpl::checkDeadlock(const EntryKey& key) {
   // A cycle of waits resolves only when one of its keys gives way; each wait is checked as it
   // is made, so every cycle runs through its newest waiter.
   if (!pending_.waitsOnItself(key)) return false;
   breakDeadlock(key);
   return true;
}

void FastMbbEngineImpl::breakDeadlock(const EntryKey& key) {
   const CurrentEntry* found = current_.find(key);
   BRIO_ASSERT(found && "a key in a cycle holds what another waits for");
   const CurrentEntry old = *found;
   ++numDeadlock_;
   DUALLOG(mbbEngineLog, 5,
           name_ << ": deadlock, deleting key " << key << " hdl 0x" << std::hex << old.handle
                 << " index 0x" << old.index << std::dec << " until its turn comes");
   FLASHLOG(5, qtId(), ":mbb deadlock key:", FlashLog::hex(key.value()),
            " hdl:", FlashLog::hex(old.handle), " index:", FlashLog::hex(old.index));
   place(key, [&] { helper()->deleteEntryDeadlock(deletion(old, old.opId)); });
   current_.erase(key);
   released(old, nullptr);
}

void FastMbbEngineImpl::issue(const EntryKey& key, const std::optional<CurrentEntry>& current,
                              const EntryConfig& config) {
   const CurrentEntry next{key, config.opId(), config.entryHandle(), config.index(),
                           partitionOf(config)};
   if (!current) {
      DUALLOG(mbbEngineLog, 9, name_ << ": add key " << key << " opId " << config.opId());
      place(key, [&] { helper()->addEntry(config); });
      current_.insert(next);
      return;
   }
   const bool sameHandle = current->handle == next.handle;
   if (sameHandle && current->index == next.index) {
      DUALLOG(mbbEngineLog, 9, name_ << ": update key " << key << " opId " << config.opId());
      place(key, [&] { helper()->updateEntry(config); });
      current_.update(next);
      return;
   }
   if (sameHandle && movable(*current, config)) {
      DUALLOG(mbbEngineLog, 9, name_ << ": move key " << key << " opId " << config.opId());
      place(key, [&] { helper()->moveEntry(config); });
      current_.update(next);
      released(*current, &next);
      return;
   }
   if (!sameHandle && current->index != next.index) {
      DUALLOG(mbbEngineLog, 9, name_ << ": replace key " << key << " opId " << config.opId());
      place(key, [&] { helper()->addEntry(config); });
      place(key, [&] { helper()->deleteReplacedEntry(deletion(*current, config.opId())); });
      current_.update(next);
      released(*current, &next);
      return;
   }
   // The old entry stands in the new one's way: a new handle at the same index, or a handle
   // that cannot move where it goes. A cycle of one key, broken the same way.
   ++numDeadlock_;
   DUALLOG(mbbEngineLog, 5,
           name_ << ": key " << key << " in its own way, deleting hdl 0x" << std::hex
                 << current->handle << " index 0x" << current->index << std::dec
                 << " before adding opId " << config.opId());
   FLASHLOG(5, qtId(), ":mbb self deadlock key:", FlashLog::hex(key.value()),
            " hdl:", FlashLog::hex(current->handle), " index:", FlashLog::hex(current->index));
   place(key, [&] { helper()->deleteEntryDeadlock(deletion(*current, current->opId)); });
   current_.erase(key);
   place(key, [&] { helper()->addEntry(config); });
   current_.insert(next);
   released(*current, &next);
}

void FastMbbEngineImpl::released(const CurrentEntry& old, const CurrentEntry* now) {
   if (!now || now->index != old.index) pending_.release(indexResource(old.index));
   if (!now || now->handle != old.handle) pending_.release(handleResource(old.handle));
}

void FastMbbEngineImpl::processDelete(const EntryKey& key, const EntryConfig& config) {
   const CurrentEntry* found = current_.find(key);
   if (found && config.isDel() && config.opId() <= found->opId) {
      pending_.erase(key);
      return;
   }
   pending_.erase(key);
   // What the key's entry depended on is released with it, and a key that waited for its
   // dependencies stops waiting.
   processDependantTables(EntryConfig(), key);
   if (!found) {
      deleteAck(key, config);
      return;
   }
   const CurrentEntry old = *found;
   DUALLOG(mbbEngineLog, 9, name_ << ": delete key " << key);
   place(key,
         [&] { helper()->deleteEntry(deletion(old, config.isDel() ? config.opId() : old.opId)); });
   current_.erase(key);
   released(old, nullptr);
   if (config.isDel()) helper()->noopAck(key, config.opId());
   lti_ = pti_++;
}

void FastMbbEngineImpl::deleteAck(const EntryKey& key, const EntryConfig& config) {
   const auto& status = helper()->tableStatus();
   if (!status) return;
   if (!config.isDel()) {
      if (status->present(key)) helper()->delStatus(key);
      return;
   }
   const OpId acked = status->entry(key).opId();
   if (acked != config.opId() && acked != Vault::MbbEngine::delAckOpId) helper()->delAck(key);
}

void FastMbbEngineImpl::statusRepair(const EntryKey& key, OpId opId) {
   const auto& status = helper()->tableStatus();
   if (status && status->entry(key).opId() != opId) helper()->noopAck(key, opId);
}

EntryConfig FastMbbEngineImpl::deletion(const CurrentEntry& current, OpId opId) {
   EntryConfig config;
   config.keyIs(current.key);
   config.opIdIs(opId);
   config.entryHandleIs(current.handle);
   config.priorityGroupIs(current.partition);
   config.indexCountIs(1);
   config.indexIs(current.index);
   return config;
}

const char* FastMbbEngineImpl::configProblem(const EntryConfig& config) const {
   if (config.entryHandle() == 0) return "entry handle 0";
   if (config.isDefaultEntry()) {
      return helper()->hasDefaultEntry() ? nullptr : "the table has no default entry";
   }
   if (config.indexCount() != 1) return "only single-index entries are supported";
   const std::uint32_t maxEntries = helper()->maxEntries();
   if (maxEntries != 0 && config.index() >= maxEntries) return "index out of the table";
   return nullptr;
}

bool FastMbbEngineImpl::movable(const CurrentEntry& current, const EntryConfig& config) const {
   return current.index != EntryConfig::defaultEntryIndex && !config.isDefaultEntry();
}

bool FastMbbEngineImpl::processDependantTables(const EntryConfig& config, const EntryKey& key) {
   return true;
}

OpId FastMbbEngineImpl::currentOpId(const EntryKey& key) const {
   const CurrentEntry* found = current_.find(key);
   return found ? found->opId : OpId();
}

EntryKey FastMbbEngineImpl::handleToKey(std::uint64_t handle) const {
   if (handle > std::numeric_limits<std::uint32_t>::max()) return EntryKey();
   const CurrentEntry* found = current_.byHandle(static_cast<std::uint32_t>(handle));
   return found ? found->key : EntryKey();
}

bool FastMbbEngineImpl::handleToKeyHas(std::uint64_t handle) const {
   return handle <= std::numeric_limits<std::uint32_t>::max() &&
          current_.byHandle(static_cast<std::uint32_t>(handle)) != nullptr;
}

std::vector<EntryKey> FastMbbEngineImpl::currentKeys() const {
   std::vector<EntryKey> keys;
   keys.reserve(current_.size());
   current_.forEach([&](const CurrentEntry& entry) { keys.push_back(entry.key); });
   std::sort(keys.begin(), keys.end());
   return keys;
}

std::vector<EntryKey> FastMbbEngineImpl::pendingKeys() const {
   std::vector<EntryKey> keys;
   keys.reserve(pending_.size());
   for (const PendingEntry& entry : pending_.byTi()) keys.push_back(entry.key);
   std::sort(keys.begin(), keys.end());
   return keys;
}

std::optional<CurrentEntry> FastMbbEngineImpl::currentEntry(const EntryKey& key) const {
   const CurrentEntry* found = current_.find(key);
   return found ? std::optional<CurrentEntry>(*found) : std::nullopt;
}

std::optional<PendingEntry> FastMbbEngineImpl::pendingEntry(const EntryKey& key) const {
   const PendingEntry* found = pending_.find(key);
   return found ? std::optional<PendingEntry>(*found) : std::nullopt;
}

void FastMbbEngineImpl::doCleanup() {
   DUALLOG(mbbEngineLog, 8, name_ << ": doCleanup of " << current_.size() << " entries");
   for (const EntryKey& key : currentKeys()) processDelete(key, EntryConfig());
   for (const PendingEntry& pending : pending_.byTi()) pending_.erase(pending.key);
   helper()->flush();
}

void FastMbbEngineImpl::handleDebug() {
   if (!debugStatus()) return;
   const std::vector<PendingEntry> pending = pending_.byTi();
   std::vector<EntryKey> gone;
   for (const auto& [key, ti] : debugStatus()->pendingEntries()) {
      if (!pending_.find(key)) gone.push_back(key);
   }
   for (const EntryKey& key : gone) debugStatus()->pendingEntryDel(key);
   for (const PendingEntry& entry : pending) debugStatus()->pendingEntryIs(entry.key, entry.ti);
   debugStatus()->versionIs(debugConfig() ? debugConfig()->version() : 0);
}

void FastMbbEngineImpl::dumpPending(std::ostream& os) const {
   const std::vector<PendingEntry> pending = pending_.byTi();
   os << "Pending entries (" << pending.size() << "):\n";
   char line[160];
   for (const PendingEntry& entry : pending) {
      std::snprintf(line, sizeof line,
                    "key: 0x%08" PRIx64 " ti: %8" PRIu64 " opId: 0x%016" PRIx64 " reason: %s",
                    entry.key.value(), entry.ti, entry.opId.value(),
                    pendingReasonName(entry.reason));
      os << line;
      if (entry.resource != 0) {
         std::snprintf(line, sizeof line, " %s: 0x%x", resourceKind(entry.resource),
                       static_cast<std::uint32_t>(entry.resource));
         os << line;
      }
      os << '\n';
   }
}

void FastMbbEngineImpl::dumpState(std::ostream& os) const {
   os << "engine " << name_ << " qtId: " << qtId() << " current: " << current_.size()
      << " pending: " << pending_.size() << " deadlocks: " << numDeadlock_ << " pti: " << pti_
      << " lti: " << lti_ << " failedDeps: " << failedDepCnt() << '\n';
   std::vector<CurrentEntry> entries;
   entries.reserve(current_.size());
   current_.forEach([&](const CurrentEntry& entry) { entries.push_back(entry); });
   std::sort(entries.begin(), entries.end(),
             [](const CurrentEntry& a, const CurrentEntry& b) { return a.key < b.key; });
   os << "Current entries (" << entries.size() << "):\n";
   char line[160];
   for (const CurrentEntry& entry : entries) {
      std::snprintf(line, sizeof line,
                    "key: 0x%08" PRIx64 " opId: 0x%016" PRIx64 " hdl: 0x%08x index: 0x%x\n",
                    entry.key.value(), entry.opId.value(), entry.handle, entry.index);
      os << line;
   }
   dumpPending(os);
}

std::size_t FastMbbEngineImpl::memoryBytes() const {
   return sizeof(*this) + current_.memoryBytes() + pending_.memoryBytes();
}

}  // namespace MbbEngine
