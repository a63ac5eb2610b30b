#include "ChipMbbSlice/ChipMbbEngineHelper.h"

#include <cstdlib>
#include <vector>

#include "Brio/Brio.h"
#include "ChipMbbSlice/PlcmtDataCopy.h"
#include "ChipMbbSlice/TraceHex.h"
#include "ChipMbbSlice/TraceSetup.h"
#include "FlashLog/FlashLog.h"
#include "Orb/TypeRegistry.h"

namespace ChipMbbSlice {

namespace {

// The module's framework types, announced when the helper's code is linked in, which every
// user of the module does.
const Orb::TypeRegistration moduleTypes{
    "ChipMbbSlice::ChipEntryStatus",
    "ChipMbbSlice::MatPlcmtInfoStatusMetadata",
    "ChipMbbSlice::AdtPlcmtInfoStatusMetadata",
    "ChipMbbSlice::SelPlcmtInfoStatusMetadata",
    "ChipMbbSlice::MatDeferFreeMetadata",
    "ChipMbbSlice::AdtDeferFreeMetadata",
    "ChipMbbSlice::SelDeferFreeMetadata",
    "ChipMbbSlice::ChipMbbEngineHelper",
};

// ", opId=" and the op id, when shown.
struct OpIdSuffix {
   OpIdSuffix(bool show, Vault::MbbEngine::OpId opId) : show(show), opId(opId) {}
   bool show;
   Vault::MbbEngine::OpId opId;
};

std::ostream& operator<<(std::ostream& os, const OpIdSuffix& suffix) {
   if (suffix.show) os << ", opId=" << suffix.opId;
   return os;
}

}  // namespace

using Vault::MbbEngine::EntryConfig;
using Vault::MbbEngine::EntryKey;
using Vault::MbbEngine::EntryStatus;

DependencyEngineIntf* getImpl(DependencyEngineIntf* impl) {
   BRIO_ASSERT(impl && "no dependency engine");
   return impl;
}

ChipMbbEngineHelper::ChipMbbEngineHelper(std::string name,
                                         Orb::Ptr<Vault::MbbEngine::TableStatus> matTableStatus,
                                         Orb::Ptr<Vault::MbbEngine::TableStatus> adtTableStatus,
                                         Orb::Ptr<Vault::MbbEngine::TableStatus> selGrpTableStatus,
                                         Orb::Ptr<Vault::MbbEngine::TableStatus> selMbrTableStatus,
                                         std::uint32_t sessionHandle, std::uint32_t matTableHandle,
                                         std::uint32_t adtTableHandle, std::uint32_t selTableHandle,
                                         std::uint32_t maxEntries, bool testmodeArg,
                                         std::uint32_t qtId)
    : MbbEngineHelper(std::move(name), matTableStatus, maxEntries),
      adtTableStatus_(std::move(adtTableStatus)),
      selGrpTableStatus_(std::move(selGrpTableStatus)),
      selMbrTableStatus_(std::move(selMbrTableStatus)),
      sessionHandle_(sessionHandle),
      matTableHandle_(matTableHandle),
      adtTableHandle_(adtTableHandle),
      selTableHandle_(selTableHandle),
      qtId_(qtId),
      devTgt_{8, 0},
      testmode_(testmodeArg),
      matTableStatus_(std::move(matTableStatus)) {
   handleInitialized();
}

ChipMbbEngineHelper::~ChipMbbEngineHelper() = default;

void ChipMbbEngineHelper::matTableStatusIs(const Orb::Ptr<Vault::MbbEngine::TableStatus>& value) {
   tableStatusIs(value);
   attrIs(matTableStatus_, value, &Notifiee::onMatTableStatus);
}

void ChipMbbEngineHelper::handleInitialized() {
   initQt();
   if (adtTableHandle() == 0 && selTableHandle() == 0) {
      initializedIs(true);
   } else if (adtTableHandle() != 0 && selTableHandle() != 0) {
      isTripleTableIs(true);
      initializedIs(true);
   } else {
      BRIO_ASSERT(adtTableHandle() != 0 && selTableHandle() != 0 && "need both tables");
   }
}

std::uint64_t ChipMbbEngineHelper::adtBlobShadow(EntryKey key) const {
   auto it = adtBlobShadow_.find(key);
   return it == adtBlobShadow_.end() ? 0 : it->second;
}

void ChipMbbEngineHelper::adtBlobShadowIs(EntryKey key, std::uint64_t value) {
   auto [it, inserted] = adtBlobShadow_.try_emplace(key, value);
   if (!inserted) {
      if (it->second == value) return;
      it->second = value;
   }
   notify(&Notifiee::onAdtBlobShadow, key);
}

void ChipMbbEngineHelper::adtBlobShadowDel(EntryKey key) {
   if (adtBlobShadow_.erase(key) != 0) notify(&Notifiee::onAdtBlobShadow, key);
}

void ChipMbbEngineHelper::adtBlobShadowDelAll() {
   std::vector<EntryKey> keys;
   keys.reserve(adtBlobShadow_.size());
   for (const auto& [key, value] : adtBlobShadow_) keys.push_back(key);
   for (EntryKey key : keys) adtBlobShadowDel(key);
}

p4_pd_plcmt_info_t* ChipMbbEngineHelper::plcmtInfoNew() {
   p4_pd_plcmt_info_t* info = p4_pd_create_plcmt_info();
   BRIO_ASSERT(info && "failed to create plcmt_info");
   return info;
}

bool ChipMbbEngineHelper::sdkCommit(std::uint32_t tblHdl, p4_pd_plcmt_info_t* info,
                                    std::uint32_t& processed) {
   if (testmode()) {
      DUALLOG(sliceLog, 5, "testmode, skipping SDK call");
      return false;
   }
   bf_status_t status =
       p4_pd_process_plcmt_info(sessionHandle(), devTgt().devId, tblHdl, info, 0, &processed);
   DUALLOG(sliceLog, 5, "Processed " << processed << " entries, tblHdl=" << TraceHex{tblHdl});
   BRIO_ASSERT(status == BF_SUCCESS && "Not succesful status");
   return true;
}

void ChipMbbEngineHelper::deferFreeDrain(Orb::LinkQueue<std::uint64_t>& queue,
                                         void (Notifiee::*reactor)(std::uint32_t)) {
   while (!queue.empty()) {
      void* dataPtr = reinterpret_cast<void*>(queueDeq(queue, reactor));
      BRIO_ASSERT(dataPtr);
      std::free(dataPtr);
   }
}

void ChipMbbEngineHelper::statusWrite(Vault::MbbEngine::TableStatus& table, std::uint32_t tblHdl,
                                      const ChipEntryStatus& status) {
   const EntryStatus& entryStatus = status.entryStatus();
   if (status.removeFromStatus()) {
      DUALLOG(sliceLog, 5,
              "Delete status for: tblHdl=" << TraceHex{tblHdl} << ", key=" << entryStatus.key());
      table.entryDel(entryStatus.key());
   } else {
      DUALLOG(sliceLog, 5,
              "Setting status for: tblHdl=" << TraceHex{tblHdl} << ", key=" << entryStatus.key()
                                            << ", opId=" << entryStatus.opId());
      table.entryIs(entryStatus);
   }
}

void ChipMbbEngineHelper::addEntry(const EntryConfig& entry) {
   DUALLOG(sliceLog, 8, __PRETTY_FUNCTION__);
   if (entry.index() == EntryConfig::defaultEntryIndex) {
      setDefault(entry);
      return;
   }
   numMatAddOpsInc(1);
   p4_pd_plcmt_info_t* info = getMatPlcmtInfo();
   const void* data = matDataCopy(entry);
   matSingleIndexCheck(entry);
   matOpTrace("mat_add", entry, true);
   FLASHLOG(5, qtId(), ":add key:", FlashLog::hex(entry.key().value()),
            " hdl:", FlashLog::hex(entry.entryHandle()), " index:", entry.index(),
            " selindex:", entry.selectorIndex(), " adtindex:", entry.adtIndex());
   matInBatchNotify(entry.key());
   bf_status_t status =
       p4_pd_set_one_plcmt_op_mat_add(info, entry.entryHandle(), devTgt().pipeId, entry.index(),
                                      entry.selectorIndex(), entry.adtIndex(), data);
   matOpRecorded(status, entry, false);
}

void ChipMbbEngineHelper::deleteEntry(const EntryConfig& entry) {
   DUALLOG(sliceLog, 8, __PRETTY_FUNCTION__);
   if (entry.index() == EntryConfig::defaultEntryIndex) {
      clearDefault(entry);
      return;
   }
   numMatDelOpsInc(1);
   p4_pd_plcmt_info_t* info = getMatPlcmtInfo();
   matOpTrace("mat_del", entry, false);
   FLASHLOG(5, qtId(), ":del key:", FlashLog::hex(entry.key().value()),
            " hdl:", FlashLog::hex(entry.entryHandle()));
   matInBatchNotify(entry.key());
   bf_status_t status = p4_pd_set_one_plcmt_op_mat_del(info, entry.entryHandle());
   matOpRecorded(status, entry, !entry.isDel());
}

void ChipMbbEngineHelper::deleteEntryDeadlock(const EntryConfig& entry) {
   DUALLOG(sliceLog, 8, __PRETTY_FUNCTION__);
   numMatDelDeadlockOpsInc(1);
   deleteEntry(entry);
}

void ChipMbbEngineHelper::moveEntry(const EntryConfig& entry) {
   DUALLOG(sliceLog, 8, __PRETTY_FUNCTION__);
   numMatMovOpsInc(1);
   p4_pd_plcmt_info_t* info = getMatPlcmtInfo();
   const void* data = matDataCopy(entry);
   matSingleIndexCheck(entry);
   matOpTrace("mat_mov", entry, true);
   FLASHLOG(5, qtId(), ":mov key:", FlashLog::hex(entry.key().value()),
            " hdl:", FlashLog::hex(entry.entryHandle()), " index:", entry.index(),
            " selindex:", entry.selectorIndex(), " adtindex:", entry.adtIndex());
   matInBatchNotify(entry.key());
   bf_status_t status = p4_pd_set_one_plcmt_op_mat_mov(
       info, entry.entryHandle(), entry.index(), entry.selectorIndex(), entry.adtIndex(), data);
   matOpRecorded(status, entry, false);
}

void ChipMbbEngineHelper::updateEntry(const EntryConfig& entry) {
   DUALLOG(sliceLog, 8, __PRETTY_FUNCTION__);
   numMatModOpsInc(1);
   p4_pd_plcmt_info_t* info = getMatPlcmtInfo();
   const void* data = matDataCopy(entry);
   matSingleIndexCheck(entry);
   matOpTrace("mat_mod", entry, true);
   FLASHLOG(5, qtId(), ":mod key:", FlashLog::hex(entry.key().value()),
            " hdl:", FlashLog::hex(entry.entryHandle()), " index:", entry.index(),
            " selindex:", entry.selectorIndex(), " adtindex:", entry.adtIndex());
   matInBatchNotify(entry.key());
   bf_status_t status = p4_pd_set_one_plcmt_op_mat_mod(
       info, entry.entryHandle(), entry.selectorIndex(), entry.adtIndex(), data);
   matOpRecorded(status, entry, false);
}

void ChipMbbEngineHelper::setDefault(const EntryConfig& entry) {
   DUALLOG(sliceLog, 8, __PRETTY_FUNCTION__);
   numMatSetDfltOpsInc(1);
   p4_pd_plcmt_info_t* info = getMatPlcmtInfo();
   const void* data = matDataCopy(entry);
   matOpTrace("mat_set_dflt", entry, true);
   FLASHLOG(5, qtId(), ":setdflt key:", FlashLog::hex(entry.key().value()),
            " hdl:", FlashLog::hex(entry.entryHandle()), " index:", entry.index(),
            " selindex:", entry.selectorIndex(), " adtindex:", entry.adtIndex());
   matInBatchNotify(entry.key());
   bf_status_t status = p4_pd_set_one_plcmt_op_mat_set_dflt(
       info, entry.entryHandle(), devTgt().pipeId, entry.selectorIndex(), entry.adtIndex(), data);
   matOpRecorded(status, entry, false);
}

void ChipMbbEngineHelper::clearDefault(const EntryConfig& entry) {
   DUALLOG(sliceLog, 8, __PRETTY_FUNCTION__);
   numMatClrDfltOpsInc(1);
   p4_pd_plcmt_info_t* info = getMatPlcmtInfo();
   matOpTrace("mat_clr_dflt", entry, true);
   FLASHLOG(5, qtId(), ":clrdflt key:", FlashLog::hex(entry.key().value()),
            " hdl:", FlashLog::hex(entry.entryHandle()));
   matInBatchNotify(entry.key());
   bf_status_t status = p4_pd_set_one_plcmt_op_mat_clr_dflt(info, entry.entryHandle());
   matOpRecorded(status, entry, !entry.isDel());
}

const void* ChipMbbEngineHelper::matDataCopy(const EntryConfig& entry) {
   void* data = allocateAndCopyData(getMatDataPtr(entry));
   matDeferFreeEnq(reinterpret_cast<std::uint64_t>(data));
   return data;
}

void ChipMbbEngineHelper::matSingleIndexCheck(const EntryConfig& entry) {
   if (entry.indexCount() != 1) BRIO_ASSERT(false && "Multi index is not supported yet");
}

void ChipMbbEngineHelper::matOpTrace(const char* op, const EntryConfig& entry, bool withOpId) {
   DUALLOG(sliceLog, 5,
           "Set plcmt op: " << op << ", tblHdl=" << TraceHex{matTableHandle()} << ", entHdl="
                            << TraceHex{entry.entryHandle()} << OpIdSuffix(withOpId, entry.opId()));
}

void ChipMbbEngineHelper::matInBatchNotify(EntryKey key) {
   if (isTripleTable()) getImpl(impl())->matInBatch(key);
}

void ChipMbbEngineHelper::matOpRecorded(bf_status_t status, const EntryConfig& entry,
                                        bool removeFromStatus) {
   BRIO_ASSERT(status == BF_SUCCESS);
   if (matTableStatus()) {
      matPlcmtInfoStatusEnq(
          ChipEntryStatus(EntryStatus(entry.key(), entry.opId()), removeFromStatus));
   }
   matPlcmtInfoSizeInc(1);
   maybeProcessMatPlcmtInfo();
}

p4_pd_plcmt_info_t* ChipMbbEngineHelper::getMatPlcmtInfo() {
   if (!matPlcmtInfo()) matPlcmtInfoIs(plcmtInfoNew());
   return matPlcmtInfo();
}

void ChipMbbEngineHelper::maybeProcessMatPlcmtInfo() {
   DUALLOG(sliceLog, 8, __PRETTY_FUNCTION__);
   if (matPlcmtInfo()) processMatPlcmtInfo();
}

void ChipMbbEngineHelper::processMatPlcmtInfo() {
   DUALLOG(sliceLog, 8, __PRETTY_FUNCTION__);
   FLASHLOG_BLOCK_TIMER(5, qtId(), ":processMatPlcmtInfo tblHdl:", FlashLog::hex(matTableHandle()));
   p4_pd_plcmt_info_t* info = matPlcmtInfo();
   BRIO_ASSERT(info != __null && "nothing to process");
   std::uint32_t processed = 0;
   if (sdkCommit(matTableHandle(), info, processed)) {
      BRIO_ASSERT(processed == matPlcmtInfoSize() && "Unexpected processed count");
   }
   deferFreeDrain(matDeferFree_, &Notifiee::onMatDeferFree);
   if (isTripleTable()) getImpl(impl())->processedMat();
   if (matTableStatus()) {
      while (!matPlcmtInfoStatus_.empty()) matStatusWrite(matPlcmtInfoStatusDeq());
   }
   p4_pd_destroy_plcmt_info(info);
   matPlcmtInfoIs(nullptr);
   matPlcmtInfoSizeIs(0);
}

void ChipMbbEngineHelper::matStatusWrite(const ChipEntryStatus& status) {
   const EntryStatus& entryStatus = status.entryStatus();
   if (status.removeFromStatus()) {
      FLASHLOG(5, qtId(), ":mat status del key:", FlashLog::hex(entryStatus.key().value()));
   } else {
      FLASHLOG(5, qtId(), ":mat status key:", FlashLog::hex(entryStatus.key().value()),
               " opId:", FlashLog::hex(entryStatus.opId().value()));
   }
   statusWrite(*matTableStatus(), matTableHandle(), status);
}

void ChipMbbEngineHelper::flush() {
   DUALLOG(sliceLog, 8, __PRETTY_FUNCTION__);
   if (hasMatBatch()) {
      DUALLOG(sliceLog, 8, __PRETTY_FUNCTION__ << " hasMatBatch");
      processMatPlcmtInfo();
   }
   if (hasAdtBatch()) {
      DUALLOG(sliceLog, 8, __PRETTY_FUNCTION__ << " hasAdtBatch");
      processAdtPlcmtInfo();
   }
   if (hasSelBatch()) {
      DUALLOG(sliceLog, 8, __PRETTY_FUNCTION__ << " hasSelBatch");
      processSelPlcmtInfo();
   }
}

}  // namespace ChipMbbSlice
