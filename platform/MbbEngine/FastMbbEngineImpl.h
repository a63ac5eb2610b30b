#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "MbbEngine/MbbEngineImpl.h"
#include "MbbEngine/detail/CurrentEntries.h"
#include "MbbEngine/detail/PendingEntries.h"

namespace MbbEngine {

// The engine of an ordinary match table.
//
// A newer configuration of a key is issued as
//   - add, when the key has nothing in hardware;
//   - update, same handle at the same index;
//   - move, same handle at another index;
//   - add of the new handle, then delete of the old one, when both handle and index change;
//   - delete of the old entry (deleteEntryDeadlock), then add, when the old entry is in the
//     new one's way: a new handle at the same index, or a handle that cannot move there.
// An older or equal op id issues nothing. A key whose index or handle is still held by another
// key waits, and is issued, in transaction order, as soon as that key lets go; waits that close
// a cycle are broken by taking one key of the cycle out of hardware.
class FastMbbEngineImpl : public MbbEngineImpl {
 public:
   FastMbbEngineImpl(std::string name, Orb::Ptr<Vault::MbbEngine::TableConfig> tableConfig,
                     Orb::Ptr<DebugConfig> debugConfig, Orb::Ptr<DebugStatus> debugStatus,
                     Orb::Ptr<MbbEngineHelper> helper, std::uint32_t qtId);
   ~FastMbbEngineImpl() override;

   void nameIsFromBackup(const std::string& name) override;
   const std::string& name() const override { return name_; }
   void handleEntry(const Vault::MbbEngine::EntryKey& key) override;
   void handleEntryHelper(const Vault::MbbEngine::EntryKey& key,
                          const Vault::MbbEngine::EntryConfig& config) override;
   bool checkDeadlock(const Vault::MbbEngine::EntryKey& key) override;
   void processPending() override;
   bool processEntry(const Vault::MbbEngine::EntryKey& key,
                     const Vault::MbbEngine::EntryConfig& config) override;
   void processDelete(const Vault::MbbEngine::EntryKey& key,
                      const Vault::MbbEngine::EntryConfig& config) override;
   Vault::MbbEngine::OpId currentOpId(const Vault::MbbEngine::EntryKey& key) const override;
   std::size_t numPending() const override { return pending_.size(); }
   std::uint64_t numDeadlock() const override { return numDeadlock_; }
   void dumpPending(std::ostream& os) const override;
   void dumpState(std::ostream& os) const override;
   void handleDebug() override;
   bool processDependantTables(const Vault::MbbEngine::EntryConfig& config,
                               const Vault::MbbEngine::EntryKey& key) override;
   void handleInitialized() override;
   std::uint64_t pti() const override { return pti_; }
   std::uint64_t lti() const override { return lti_; }

   void doCleanup() override;
   Vault::MbbEngine::EntryKey handleToKey(std::uint64_t handle) const override;
   bool handleToKeyHas(std::uint64_t handle) const override;
   std::vector<Vault::MbbEngine::EntryKey> currentKeys() const override;
   std::vector<Vault::MbbEngine::EntryKey> pendingKeys() const override;

   // What the key has in hardware; nothing when it has no entry there.
   std::optional<CurrentEntry> currentEntry(const Vault::MbbEngine::EntryKey& key) const;
   // Why the key is pending; nothing when it is not.
   std::optional<PendingEntry> pendingEntry(const Vault::MbbEngine::EntryKey& key) const;
   std::size_t numCurrent() const { return current_.size(); }
   // Forgets every key's hardware entry without touching hardware (the caller has taken them
   // out already).
   void handleToKeyDelAll() { current_.clear(); }
   // Bytes held for the table's keys.
   std::size_t memoryBytes() const;

 protected:
   // Why the configuration cannot be placed as it stands, or null when it can.
   virtual const char* configProblem(const Vault::MbbEngine::EntryConfig& config) const;
   // Whether the key's entry can move to the configuration's index with its handle.
   virtual bool movable(const CurrentEntry& current,
                        const Vault::MbbEngine::EntryConfig& config) const;
   // The partition an entry of this configuration sits in.
   virtual std::uint32_t partitionOf(const Vault::MbbEngine::EntryConfig& config) const {
      return 0;
   }
   // A configuration that deletes what `current` describes, carrying `opId`.
   static Vault::MbbEngine::EntryConfig deletion(const CurrentEntry& current,
                                                 Vault::MbbEngine::OpId opId);

 private:
   // Keeps the key pending with `reason`; `ti` is its change's transaction index.
   void park(const Vault::MbbEngine::EntryKey& key, const Vault::MbbEngine::EntryConfig& config,
             std::uint64_t ti, PendingReason reason);
   void waitFor(const Vault::MbbEngine::EntryKey& key, const std::optional<CurrentEntry>& current,
                const Vault::MbbEngine::EntryConfig& config, std::uint64_t ti,
                std::uint64_t resource, const CurrentEntry& holder);
   void issue(const Vault::MbbEngine::EntryKey& key, const std::optional<CurrentEntry>& current,
              const Vault::MbbEngine::EntryConfig& config);
   void breakDeadlock(const Vault::MbbEngine::EntryKey& key);
   // Runs one helper operation for the key, which survives a full status table.
   template <class Op>
   void place(const Vault::MbbEngine::EntryKey& key, Op&& op);
   // Readies the keys that wait for what `old` held and `now` does not.
   void released(const CurrentEntry& old, const CurrentEntry* now);
   void statusRepair(const Vault::MbbEngine::EntryKey& key, Vault::MbbEngine::OpId opId);
   void deleteAck(const Vault::MbbEngine::EntryKey& key,
                  const Vault::MbbEngine::EntryConfig& config);
   // The transaction index of the key's change to `opId`: the waiting one's, or a new one.
   std::uint64_t tiFor(const Vault::MbbEngine::EntryKey& key, Vault::MbbEngine::OpId opId);

   std::string name_;
   CurrentEntries current_;
   PendingEntries pending_;
   std::uint64_t pti_ = 1;
   std::uint64_t lti_ = 0;
   std::uint64_t numDeadlock_ = 0;
   bool draining_ = false;
};

}  // namespace MbbEngine
