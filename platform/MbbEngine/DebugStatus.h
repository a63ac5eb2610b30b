#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "Orb/Entity.h"
#include "Vault/MbbEngine/EntryKey.h"

namespace MbbEngine {

// An engine's answer to its DebugConfig: the keys pending when it answered, each with the
// transaction index of its waiting change, and the version of the request answered.
class DebugStatus : public Orb::Entity<DebugStatus> {
 public:
   using PendingEntries = std::map<Vault::MbbEngine::EntryKey, std::uint64_t>;

   class Notifiee : public Orb::BaseNotifiee<DebugStatus> {
    public:
      virtual void onVersion() {}
      virtual void onPendingEntry(const Vault::MbbEngine::EntryKey& key) {}
   };

   explicit DebugStatus(std::string name = {}) : Entity(std::move(name)) {}

   std::uint32_t version() const { return version_; }
   void versionIs(std::uint32_t v) {
      if (v == version_) return;
      version_ = v;
      notifieeList().notify(&Notifiee::onVersion);
   }

   // The transaction index of a pending key; 0 when the key is not pending.
   std::uint64_t pendingEntry(const Vault::MbbEngine::EntryKey& key) const {
      auto it = pendingEntries_.find(key);
      return it == pendingEntries_.end() ? 0 : it->second;
   }
   void pendingEntryIs(const Vault::MbbEngine::EntryKey& key, std::uint64_t ti) {
      auto [it, added] = pendingEntries_.try_emplace(key, ti);
      if (!added && it->second == ti) return;
      it->second = ti;
      notifieeList().notify(&Notifiee::onPendingEntry, key);
   }
   void pendingEntryDel(const Vault::MbbEngine::EntryKey& key) {
      if (pendingEntries_.erase(key) == 0) return;
      notifieeList().notify(&Notifiee::onPendingEntry, key);
   }
   void pendingEntryDelAll() {
      while (!pendingEntries_.empty()) pendingEntryDel(pendingEntries_.begin()->first);
   }
   const PendingEntries& pendingEntries() const { return pendingEntries_; }

 private:
   std::uint32_t version_ = 0;
   PendingEntries pendingEntries_;
};

}  // namespace MbbEngine
