#include "SliceSystem/StatusWatch.h"

namespace SliceSystem {

void StatusWatch::statusIs(Orb::Ptr<Vault::MbbEngine::TableStatus> status) {
   if (status == status_) return;
   // Leave the old collection while it is still alive: this may have been its last holder.
   notifierIs(status.get());
   status_ = std::move(status);
   checkAll();
}

void StatusWatch::checkAll() {
   if (!status_) return;
   std::erase_if(outstanding_, [this](const auto& item) { return done(item.first, item.second); });
}

void StatusWatch::onEntry(const Vault::MbbEngine::EntryKey& key) {
   auto it = outstanding_.find(key.value());
   if (it != outstanding_.end() && done(it->first, it->second)) outstanding_.erase(it);
}

}  // namespace SliceSystem
