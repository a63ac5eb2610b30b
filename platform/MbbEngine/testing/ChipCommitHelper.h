#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "MbbEngine/MbbEngineHelper.h"
#include "Vault/MbbEngine/Tables.h"

namespace MbbEngine::Test {

// A helper that commits every operation at once to the chip model through the placement
// interface and then writes the key's status, by the same rules as the slice's helper: add,
// move and update write (key, op id); a delete removes the status unless its configuration is a
// deletion. A refused commit is an assertion, as in the slice.
//
// With a configuration to watch it also checks make-before-break: an entry of a key whose
// configuration is present may only be deleted while the key has another entry in hardware,
// unless the engine says it breaks a deadlock.
class ChipCommitHelper : public MbbEngineHelper {
 public:
   ChipCommitHelper(std::string name, Orb::Ptr<Vault::MbbEngine::TableStatus> tableStatus,
                    std::uint8_t devId, std::uint32_t tblHdl, std::uint32_t maxEntries,
                    std::uint16_t pipe = 0xFFFF);

   void addEntry(const Vault::MbbEngine::EntryConfig& entry) override;
   void deleteEntry(const Vault::MbbEngine::EntryConfig& entry) override;
   void deleteEntryDeadlock(const Vault::MbbEngine::EntryConfig& entry) override;
   void deleteReplacedEntry(const Vault::MbbEngine::EntryConfig& entry) override;
   void moveEntry(const Vault::MbbEngine::EntryConfig& entry) override;
   void updateEntry(const Vault::MbbEngine::EntryConfig& entry) override;

   void watchedConfigIs(Orb::Ptr<Vault::MbbEngine::TableConfig> config) {
      watchedConfig_ = std::move(config);
   }
   const std::vector<std::string>& violations() const { return violations_; }

   std::uint64_t numAddOps() const { return numAddOps_; }
   std::uint64_t numDeleteOps() const { return numDeleteOps_; }
   std::uint64_t numDeleteDeadlockOps() const { return numDeleteDeadlockOps_; }
   std::uint64_t numMoveOps() const { return numMoveOps_; }
   std::uint64_t numUpdateOps() const { return numUpdateOps_; }
   std::uint64_t numOps() const { return numAddOps_ + numDeleteOps_ + numMoveOps_ + numUpdateOps_; }

 private:
   template <class Record>
   void commit(const Record& record);
   void statusWrite(const Vault::MbbEngine::EntryConfig& entry, bool remove);
   void deleteChecked(const Vault::MbbEngine::EntryConfig& entry, bool deadlock, bool removeStatus);

   std::uint8_t devId_;
   std::uint32_t tblHdl_;
   std::uint16_t pipe_;
   Orb::Ptr<Vault::MbbEngine::TableConfig> watchedConfig_;
   // Entries in hardware per key, while watching.
   std::unordered_map<std::uint64_t, std::uint32_t> entriesOfKey_;
   std::vector<std::string> violations_;
   std::uint64_t numAddOps_ = 0;
   std::uint64_t numDeleteOps_ = 0;
   std::uint64_t numDeleteDeadlockOps_ = 0;
   std::uint64_t numMoveOps_ = 0;
   std::uint64_t numUpdateOps_ = 0;
};

}  // namespace MbbEngine::Test
