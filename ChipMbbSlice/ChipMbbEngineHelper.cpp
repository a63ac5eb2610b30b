#include "ChipMbbSlice/ChipMbbEngineHelper.h"

#include <cstdlib>

#include "Brio/Brio.h"
#include "ChipMbbSlice/TraceSetup.h"
#include "ChipMbbSlice/detail/PlcmtDataCopy.h"
#include "ChipMbbSlice/detail/TraceHex.h"
#include "FlashLog/FlashLog.h"
#include "Orb/TypeRegistry.h"
#include "Vault/Errors.h"

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

// Runs `fn` when the scope is left, by return or by exception.
template <class Fn>
struct AtExit {
   Fn fn;
   ~AtExit() { fn(); }
};

void matStatusRecord(std::uint32_t qtId, const ChipEntryStatus& status) {
   const Vault::MbbEngine::EntryStatus& entryStatus = status.entryStatus();
   if (status.removeFromStatus()) {
      FLASHLOG(5, qtId, ":mat status del key:", FlashLog::hex(entryStatus.key().value()));
   } else {
      FLASHLOG(5, qtId, ":mat status key:", FlashLog::hex(entryStatus.key().value()),
               " opId:", FlashLog::hex(entryStatus.opId().value()));
   }
}

void adtStatusRecord(std::uint32_t qtId, const ChipEntryStatus& status) {
   const Vault::MbbEngine::EntryStatus& entryStatus = status.entryStatus();
   if (status.removeFromStatus()) {
      FLASHLOG(5, qtId, ":adt status del adtkey:", FlashLog::hex(entryStatus.key().value()));
   } else {
      FLASHLOG(5, qtId, ":adt status adtkey:", FlashLog::hex(entryStatus.key().value()),
               " opId:", FlashLog::hex(entryStatus.opId().value()));
   }
}

void selStatusRecord(std::uint32_t qtId, const ChipEntryStatus& status) {
   const Vault::MbbEngine::EntryStatus& entryStatus = status.entryStatus();
   if (status.removeFromStatus()) {
      FLASHLOG(5, qtId, ":selmbr status del key:", FlashLog::hex(entryStatus.key().value()));
   } else {
      FLASHLOG(5, qtId, ":selmbr status key:", FlashLog::hex(entryStatus.key().value()),
               " opId:", FlashLog::hex(entryStatus.opId().value()));
   }
}

}  // namespace

using Vault::MbbEngine::EntryConfig;
using Vault::MbbEngine::EntryKey;
using Vault::MbbEngine::EntryStatus;

struct ChipMbbEngineHelper::LaneHooks {
   void (Notifiee::*onInfo)();
   void (Notifiee::*onSize)();
   void (Notifiee::*onStatus)(std::uint32_t);
   void (Notifiee::*onDeferFree)(std::uint32_t);
   const char* processedCountAssert;
   // Set where queued statuses without a status table are a broken invariant; elsewhere they
   // are not written.
   const char* noStatusTableAssert;
   // The dependency engine's word that the batch is committed, before its statuses are written.
   void (ChipMbbEngineHelper::*committed)();
   void (*statusRecord)(std::uint32_t qtId, const ChipEntryStatus& status);
   // The dependency engine's word for each key whose status is out.
   void (ChipMbbEngineHelper::*statusWritten)(EntryKey key);
};

// The engine learns of an ADT key once its status is out, so that what it does next for the key
// never overtakes the status; of a match or selector batch once, before the statuses, so that
// members leaving an ADT entry release it first.
const ChipMbbEngineHelper::LaneHooks ChipMbbEngineHelper::matHooks{
    &Notifiee::onMatPlcmtInfo,
    &Notifiee::onMatPlcmtInfoSize,
    &Notifiee::onMatPlcmtInfoStatus,
    &Notifiee::onMatDeferFree,
    "processed == matPlcmtInfoSize() && \"Unexpected processed count\"",
    nullptr,
    &ChipMbbEngineHelper::matCommitted,
    matStatusRecord,
    nullptr};
const ChipMbbEngineHelper::LaneHooks ChipMbbEngineHelper::adtHooks{
    &Notifiee::onAdtPlcmtInfo,
    &Notifiee::onAdtPlcmtInfoSize,
    &Notifiee::onAdtPlcmtInfoStatus,
    &Notifiee::onAdtDeferFree,
    "processed == adtPlcmtInfoSize() && \"Unexpected processed count\"",
    "adtTableStatus() && \"no ADT status table\"",
    nullptr,
    adtStatusRecord,
    &ChipMbbEngineHelper::adtStatusWritten};
const ChipMbbEngineHelper::LaneHooks ChipMbbEngineHelper::selHooks{
    &Notifiee::onSelPlcmtInfo,
    &Notifiee::onSelPlcmtInfoSize,
    &Notifiee::onSelPlcmtInfoStatus,
    &Notifiee::onSelDeferFree,
    "processed == selPlcmtInfoSize() && \"Unexpected processed count\"",
    nullptr,
    &ChipMbbEngineHelper::selCommitted,
    selStatusRecord,
    nullptr};

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
      mat_(matTableHandle, std::move(matTableStatus)),
      adt_(adtTableHandle, std::move(adtTableStatus)),
      sel_(selTableHandle, std::move(selMbrTableStatus)),
      sessionHandle_(sessionHandle),
      qtId_(qtId),
      devTgt_({8, 0}),
      testmode_(testmodeArg),
      selGrpTableStatus_(std::move(selGrpTableStatus)) {
   handleInitialized();
}

ChipMbbEngineHelper::~ChipMbbEngineHelper() = default;

void ChipMbbEngineHelper::matTableStatusIs(const StatusTablePtr& value) {
   tableStatusIs(value);
   mat_.statusTable.is(value, notifier(&Notifiee::onMatTableStatus));
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

p4_pd_plcmt_info_t* ChipMbbEngineHelper::laneOpen(PlcmtLane& lane, const LaneHooks& hooks) {
   if (!lane.info()) lane.info.is(plcmtInfoNew(), notifier(hooks.onInfo));
   return lane.info();
}

void ChipMbbEngineHelper::laneOpRecorded(PlcmtLane& lane, const LaneHooks& hooks,
                                         bf_status_t status, EntryKey key,
                                         Vault::MbbEngine::OpId opId, bool queueStatus,
                                         bool removeFromStatus) {
   BRIO_ASSERT(status == BF_SUCCESS);
   if (queueStatus) {
      // The status is written after the commit; its place in the status table, which at a
      // million keys is out of the caches, is fetched meanwhile.
      if (const StatusTablePtr& table = lane.statusTable()) table->entryPrefetch(key);
      lane.status.enq(ChipEntryStatus(EntryStatus(key, opId), removeFromStatus),
                      notifier(hooks.onStatus));
   }
   lane.size.inc(1, notifier(hooks.onSize));
}

void ChipMbbEngineHelper::laneCommit(PlcmtLane& lane, const LaneHooks& hooks) {
   p4_pd_plcmt_info_t* info = lane.info();
   BRIO_ASSERT(info != __null && "nothing to process");
   // However the commit ends, the batch ends with it: left open, the next operation would be
   // recorded into it and commit it again, which the SDK refuses.
   AtExit release{[&] { laneRelease(lane, hooks); }};
   std::uint32_t processed = 0;
   if (sdkCommit(lane.tableHandle(), info, processed) && processed != lane.size()) {
      Brio::assertFailed(hooks.processedCountAssert, __FILE__, __LINE__);
   }
   deferFreeDrain(lane, hooks);
   if (hooks.committed) (this->*hooks.committed)();
   statusesWrite(lane, hooks);
}

// After a whole commit the queues are empty and this only releases the batch. A commit cut
// short by an exception leaves data copies, which nothing needs once the batch is destroyed, and
// statuses, which are dropped with a trace rather than written after the failure: the exception
// is the caller's to handle, and the audit, which compares status with hardware, flags the keys
// left without the status they should have.
void ChipMbbEngineHelper::laneRelease(PlcmtLane& lane, const LaneHooks& hooks) {
   while (!lane.deferFree.empty()) {
      releaseData(reinterpret_cast<void*>(lane.deferFree.deq(notifier(hooks.onDeferFree))));
   }
   while (!lane.status.empty()) {
      const EntryStatus dropped = lane.status.deq(notifier(hooks.onStatus)).entryStatus();
      DUALLOG(sliceLog, 0,
              "Dropping status of an unfinished commit: tblHdl=" << TraceHex{lane.tableHandle()}
                                                                 << ", key=" << dropped.key()
                                                                 << ", opId=" << dropped.opId());
      FLASHLOG(0, qtId(), ":status dropped key:", FlashLog::hex(dropped.key().value()),
               " opId:", FlashLog::hex(dropped.opId().value()));
   }
   p4_pd_destroy_plcmt_info(lane.info());
   lane.info.is(nullptr, notifier(hooks.onInfo));
   lane.size.is(0, notifier(hooks.onSize));
}

void ChipMbbEngineHelper::deferFreeDrain(PlcmtLane& lane, const LaneHooks& hooks) {
   while (!lane.deferFree.empty()) {
      void* dataPtr = reinterpret_cast<void*>(lane.deferFree.deq(notifier(hooks.onDeferFree)));
      BRIO_ASSERT(dataPtr);
      releaseData(dataPtr);
   }
}

void ChipMbbEngineHelper::statusesWrite(PlcmtLane& lane, const LaneHooks& hooks) {
   if (lane.status.empty()) return;
   if (!lane.statusTable()) {
      if (hooks.noStatusTableAssert) {
         Brio::assertFailed(hooks.noStatusTableAssert, __FILE__, __LINE__);
      }
      return;
   }
   while (!lane.status.empty()) {
      const ChipEntryStatus status = lane.status.deq(notifier(hooks.onStatus));
      statusWrite(lane, hooks, status);
      if (hooks.statusWritten) (this->*hooks.statusWritten)(status.entryStatus().key());
   }
}

void ChipMbbEngineHelper::statusWrite(const PlcmtLane& lane, const LaneHooks& hooks,
                                      const ChipEntryStatus& status) {
   hooks.statusRecord(qtId(), status);
   const EntryStatus& entryStatus = status.entryStatus();
   Vault::MbbEngine::TableStatus& table = *lane.statusTable();
   if (status.removeFromStatus()) {
      DUALLOG(sliceLog, 5,
              "Delete status for: tblHdl=" << TraceHex{lane.tableHandle()}
                                           << ", key=" << entryStatus.key());
      table.entryDel(entryStatus.key());
      return;
   }
   DUALLOG(sliceLog, 5,
           "Setting status for: tblHdl=" << TraceHex{lane.tableHandle()} << ", key="
                                         << entryStatus.key() << ", opId=" << entryStatus.opId());
   try {
      table.entryIs(entryStatus);
   } catch (const Vault::TableFullException& e) {
      // More keys than the status table holds is the publisher's doing, and the operation is in
      // hardware: the key goes without status, which the audit reports and the engine rewrites
      // when the key is offered again. Caught here rather than left to the caller, since flush
      // and the dependency engine's calls have no one to catch it, and the statuses after this
      // one, and the dependency engine's word for them, must still go out.
      DUALLOG(sliceLog, 0,
              "No room for status: tblHdl=" << TraceHex{lane.tableHandle()}
                                            << ", key=" << entryStatus.key()
                                            << ", opId=" << entryStatus.opId() << ": " << e.what());
      FLASHLOG(0, qtId(), ":status full key:", FlashLog::hex(entryStatus.key().value()),
               " opId:", FlashLog::hex(entryStatus.opId().value()));
   }
}

void ChipMbbEngineHelper::matCommitted() {
   if (isTripleTable()) getImpl(impl())->processedMat();
}

void ChipMbbEngineHelper::selCommitted() {
   getImpl(impl())->processedSel();
}

void ChipMbbEngineHelper::adtStatusWritten(EntryKey key) {
   getImpl(impl())->processedAdt(key);
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
   matDelete(entry, !entry.isDel());
}

void ChipMbbEngineHelper::deleteReplacedEntry(const EntryConfig& entry) {
   DUALLOG(sliceLog, 8, __PRETTY_FUNCTION__);
   if (entry.index() == EntryConfig::defaultEntryIndex) {
      MbbEngineHelper::deleteReplacedEntry(entry);
      return;
   }
   matDelete(entry, false);
}

void ChipMbbEngineHelper::matDelete(const EntryConfig& entry, bool removeFromStatus) {
   numMatDelOpsInc(1);
   p4_pd_plcmt_info_t* info = getMatPlcmtInfo();
   matOpTrace("mat_del", entry, false);
   FLASHLOG(5, qtId(), ":del key:", FlashLog::hex(entry.key().value()),
            " hdl:", FlashLog::hex(entry.entryHandle()));
   matInBatchNotify(entry.key());
   bf_status_t status = p4_pd_set_one_plcmt_op_mat_del(info, entry.entryHandle());
   matOpRecorded(status, entry, removeFromStatus);
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

// The match path is the one every table takes: its lane steps are compiled into it.
[[gnu::flatten]] void ChipMbbEngineHelper::matOpRecorded(bf_status_t status,
                                                         const EntryConfig& entry,
                                                         bool removeFromStatus) {
   laneOpRecorded(mat_, matHooks, status, entry.key(), entry.opId(), matTableStatus() != nullptr,
                  removeFromStatus);
   maybeProcessMatPlcmtInfo();
}

[[gnu::flatten]] p4_pd_plcmt_info_t* ChipMbbEngineHelper::getMatPlcmtInfo() {
   return laneOpen(mat_, matHooks);
}

void ChipMbbEngineHelper::maybeProcessMatPlcmtInfo() {
   DUALLOG(sliceLog, 8, __PRETTY_FUNCTION__);
   if (matPlcmtInfo()) processMatPlcmtInfo();
}

[[gnu::flatten]] void ChipMbbEngineHelper::processMatPlcmtInfo() {
   DUALLOG(sliceLog, 8, __PRETTY_FUNCTION__);
   FLASHLOG_BLOCK_TIMER(5, qtId(), ":processMatPlcmtInfo tblHdl:", FlashLog::hex(matTableHandle()));
   laneCommit(mat_, matHooks);
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
