#include "MbbEngine/MbbEngineHelper.h"

#include "MbbEngine/detail/Trace.h"
#include "Vault/Errors.h"

namespace MbbEngine {

using Vault::MbbEngine::EntryKey;
using Vault::MbbEngine::EntryStatus;
using Vault::MbbEngine::OpId;

MbbEngineHelper::MbbEngineHelper(std::string name,
                                 Orb::Ptr<Vault::MbbEngine::TableStatus> tableStatus,
                                 std::uint32_t maxEntries)
    : Entity(std::move(name)), tableStatus_(std::move(tableStatus)), maxEntries_(maxEntries) {}

MbbEngineHelper::~MbbEngineHelper() = default;

void MbbEngineHelper::tableStatusIs(Orb::Ptr<Vault::MbbEngine::TableStatus> tableStatus) {
   if (tableStatus == tableStatus_) return;
   tableStatus_ = std::move(tableStatus);
   notifieeList().notify(&Notifiee::onTableStatus);
}

void MbbEngineHelper::delAck(EntryKey key) {
   DUALLOG(mbbEngineLog, 9, "MbbEngineHelper::delAck key:" << key);
   ++numDelAckOps_;
   statusIs(EntryStatus(key, Vault::MbbEngine::delAckOpId));
}

void MbbEngineHelper::statusIs(const EntryStatus& status) {
   if (!tableStatus_) return;
   try {
      tableStatus_->entryIs(status);
   } catch (const Vault::TableFullException& e) {
      // More keys than the status table holds is the publisher's doing: the key goes without
      // status, which the audit reports.
      DUALLOG(mbbEngineLog, 0,
              name() << ": key " << status.key() << " without status: " << e.what());
   }
}

void MbbEngineHelper::delStatus(EntryKey key) {
   DUALLOG(mbbEngineLog, 9, "MbbEngineHelper::delStatus key:" << key);
   ++numDelStatusOps_;
   if (tableStatus_) tableStatus_->entryDel(key);
}

void MbbEngineHelper::noopAck(EntryKey key, OpId opId) {
   DUALLOG(mbbEngineLog, 9, "MbbEngineHelper::noopAck key:" << key << " opId:" << opId);
   ++numNoopAckOps_;
   statusIs(EntryStatus(key, opId));
}

}  // namespace MbbEngine
