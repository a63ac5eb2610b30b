#pragma once

#include <cstdint>
#include <string>

#include "Orb/Entity.h"
#include "Orb/Ptr.h"
#include "Vault/MbbEngine/EntryConfig.h"
#include "Vault/MbbEngine/Tables.h"

namespace MbbEngine {

// What the engine asks of the code that owns the hardware. The engine decides which entry to
// add, move, modify or delete and in what order; the helper places each operation in hardware
// and writes the key's status once the hardware has it, all before the call returns.
//
// Status rules the engine relies on, per operation: add, move and update write
// (key, config op id); a delete removes the key's status, unless the configuration handed in
// is itself a deletion. The engine hands a delete the configuration of the entry that goes, so
// its status goes with it; where more is due (the key's replacement is in, or its deletion is
// to be acknowledged) the engine writes it afterwards with the writers below, which are also
// for keys that need no hardware operation at all.
class MbbEngineHelper : public Orb::Entity<MbbEngineHelper> {
 public:
   class Notifiee : public Orb::BaseNotifiee<MbbEngineHelper> {
    public:
      virtual void onTableStatus() {}
   };

   // `maxEntries` is the table's number of indices (0: not known, any index is taken as valid).
   MbbEngineHelper(std::string name, Orb::Ptr<Vault::MbbEngine::TableStatus> tableStatus,
                   std::uint32_t maxEntries = 0);
   ~MbbEngineHelper() override;

   // Whether the helper keeps a copy of what it placed from which the engine could recover.
   virtual bool hasBackupSupport() const { return false; }
   virtual void addEntry(const Vault::MbbEngine::EntryConfig& entry) = 0;
   virtual void deleteEntry(const Vault::MbbEngine::EntryConfig& entry) = 0;
   // Deletes an entry that has to go before its replacement can come: the engine breaks a
   // cycle of keys waiting for each other's indices or handles with it.
   virtual void deleteEntryDeadlock(const Vault::MbbEngine::EntryConfig& entry) = 0;
   // Deletes the entry that the key's new entry, placed already, replaces; `entry` carries the
   // new op id. The key's status moves to that op id instead of going, so that a publisher
   // never sees it vanish. A helper that cannot say so writes it again right after.
   virtual void deleteReplacedEntry(const Vault::MbbEngine::EntryConfig& entry) {
      deleteEntry(entry);
      noopAck(entry.key(), entry.opId());
   }
   virtual void moveEntry(const Vault::MbbEngine::EntryConfig& entry) = 0;
   virtual void updateEntry(const Vault::MbbEngine::EntryConfig& entry) = 0;
   // Commits whatever has been recorded and not committed yet. A helper that commits every
   // operation as it comes has nothing to do here.
   virtual void flush() {}

   // The delete of a key that is not in hardware is acknowledged (key, delete-ack op id).
   void delAck(Vault::MbbEngine::EntryKey key);
   // The key has nothing in hardware and no status any more.
   void delStatus(Vault::MbbEngine::EntryKey key);
   // The key's configuration `opId` is in hardware without needing an operation.
   void noopAck(Vault::MbbEngine::EntryKey key, Vault::MbbEngine::OpId opId);

   const Orb::Ptr<Vault::MbbEngine::TableStatus>& tableStatus() const { return tableStatus_; }
   void tableStatusIs(Orb::Ptr<Vault::MbbEngine::TableStatus> tableStatus);

   std::uint32_t maxEntries() const { return maxEntries_; }
   void maxEntriesIs(std::uint32_t maxEntries) { maxEntries_ = maxEntries; }
   // Whether the table has a default entry (index 0x7FFFF) that keys may configure.
   bool hasDefaultEntry() const { return hasDefaultEntry_; }
   void hasDefaultEntryIs(bool v) { hasDefaultEntry_ = v; }

   std::uint64_t numDelAckOps() const { return numDelAckOps_; }
   std::uint64_t numDelStatusOps() const { return numDelStatusOps_; }
   std::uint64_t numNoopAckOps() const { return numNoopAckOps_; }

 private:
   void statusIs(const Vault::MbbEngine::EntryStatus& status);

   Orb::Ptr<Vault::MbbEngine::TableStatus> tableStatus_;
   std::uint32_t maxEntries_;
   bool hasDefaultEntry_ = true;
   std::uint64_t numDelAckOps_ = 0;
   std::uint64_t numDelStatusOps_ = 0;
   std::uint64_t numNoopAckOps_ = 0;
};

}  // namespace MbbEngine
