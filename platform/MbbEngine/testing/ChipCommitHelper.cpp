#include "MbbEngine/testing/ChipCommitHelper.h"

#include <cstdio>

#include "Brio/Brio.h"
#include "ChipModel/Chip.h"

namespace MbbEngine::Test {

using Vault::MbbEngine::EntryConfig;
using Vault::MbbEngine::EntryStatus;

ChipCommitHelper::ChipCommitHelper(std::string name,
                                   Orb::Ptr<Vault::MbbEngine::TableStatus> tableStatus,
                                   std::uint8_t devId, std::uint32_t tblHdl,
                                   std::uint32_t maxEntries, std::uint16_t pipe)
    : MbbEngineHelper(std::move(name), std::move(tableStatus), maxEntries),
      devId_(devId),
      tblHdl_(tblHdl),
      pipe_(pipe) {}

template <class Record>
void ChipCommitHelper::commit(const Record& record) {
   p4_pd_plcmt_info_t* info = p4_pd_create_plcmt_info();
   BRIO_ASSERT(info && "failed to create plcmt_info");
   bf_status_t status = record(info);
   BRIO_ASSERT(status == BF_SUCCESS);
   std::uint32_t processed = 0;
   status = p4_pd_process_plcmt_info(0, devId_, tblHdl_, info, 0, &processed);
   if (status != BF_SUCCESS) {
      const auto* chip = dynamic_cast<const ChipModel::Chip*>(ChipSdk::sdkImpl());
      std::fprintf(stderr, "%s: %s\n", name().c_str(),
                   chip ? chip->lastError().c_str() : ChipSdk::statusName(status));
   }
   BRIO_ASSERT(status == BF_SUCCESS && "Not succesful status");
   p4_pd_destroy_plcmt_info(info);
}

void ChipCommitHelper::statusWrite(const EntryConfig& entry, bool remove) {
   if (!tableStatus()) return;
   if (remove) {
      tableStatus()->entryDel(entry.key());
   } else {
      tableStatus()->entryIs(EntryStatus(entry.key(), entry.opId()));
   }
}

void ChipCommitHelper::addEntry(const EntryConfig& entry) {
   ++numAddOps_;
   commit([&](p4_pd_plcmt_info_t* info) {
      const void* data = entry.plcmtData().data();
      if (entry.isDefaultEntry()) {
         return p4_pd_set_one_plcmt_op_mat_set_dflt(info, entry.entryHandle(), pipe_,
                                                    entry.selectorIndex(), entry.adtIndex(), data);
      }
      return p4_pd_set_one_plcmt_op_mat_add(info, entry.entryHandle(), pipe_, entry.index(),
                                            entry.selectorIndex(), entry.adtIndex(), data);
   });
   if (watchedConfig_) ++entriesOfKey_[entry.key().value()];
   statusWrite(entry, false);
}

void ChipCommitHelper::moveEntry(const EntryConfig& entry) {
   ++numMoveOps_;
   commit([&](p4_pd_plcmt_info_t* info) {
      return p4_pd_set_one_plcmt_op_mat_mov(info, entry.entryHandle(), entry.index(),
                                            entry.selectorIndex(), entry.adtIndex(),
                                            entry.plcmtData().data());
   });
   statusWrite(entry, false);
}

void ChipCommitHelper::updateEntry(const EntryConfig& entry) {
   ++numUpdateOps_;
   commit([&](p4_pd_plcmt_info_t* info) {
      return p4_pd_set_one_plcmt_op_mat_mod(info, entry.entryHandle(), entry.selectorIndex(),
                                            entry.adtIndex(), entry.plcmtData().data());
   });
   statusWrite(entry, false);
}

void ChipCommitHelper::deleteEntry(const EntryConfig& entry) {
   deleteChecked(entry, false, !entry.isDel());
}

void ChipCommitHelper::deleteReplacedEntry(const EntryConfig& entry) {
   deleteChecked(entry, false, false);
}

void ChipCommitHelper::deleteEntryDeadlock(const EntryConfig& entry) {
   ++numDeleteDeadlockOps_;
   deleteChecked(entry, true, !entry.isDel());
}

void ChipCommitHelper::deleteChecked(const EntryConfig& entry, bool deadlock, bool removeStatus) {
   ++numDeleteOps_;
   commit([&](p4_pd_plcmt_info_t* info) {
      if (entry.isDefaultEntry()) {
         return p4_pd_set_one_plcmt_op_mat_clr_dflt(info, entry.entryHandle());
      }
      return p4_pd_set_one_plcmt_op_mat_del(info, entry.entryHandle());
   });
   if (watchedConfig_) {
      std::uint32_t& left = entriesOfKey_[entry.key().value()];
      --left;
      const EntryConfig config = watchedConfig_->entry(entry.key());
      const bool configured = !(config == EntryConfig()) && !config.isDel();
      if (left == 0 && configured && !deadlock) {
         violations_.push_back("key " + Orb::toString(entry.key()) +
                               " left hardware before its replacement was in");
      }
      if (left == 0) entriesOfKey_.erase(entry.key().value());
   }
   statusWrite(entry, removeStatus);
}

}  // namespace MbbEngine::Test
