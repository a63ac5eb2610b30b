#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "ChipMbbShared/AdtEntryConfig.h"
#include "ChipMbbShared/SelMbrEntryConfig.h"
#include "ChipMbbSlice/ChipEntryStatus.h"
#include "ChipMbbSlice/DependencyEngineIntf.h"
#include "ChipMbbSlice/LinkQueueMetadataValue.h"
#include "ChipMbbSlice/detail/PlcmtLane.h"
#include "ChipSdk/PlcmtApi.h"
#include "HwPd/ChipDriver.h"
#include "MbbEngine/MbbEngineHelper.h"
#include "Orb/Attribute.h"
#include "Orb/Collection.h"
#include "Orb/Counter.h"
#include "Orb/Ptr.h"
#include "Vault/MbbEngine/EntryConfig.h"
#include "Vault/MbbEngine/Tables.h"

namespace ChipMbbSlice {

// Places one table's operations in the chip through the SDK's placement interface and writes
// each key's outcome into the table's status collections once the hardware has it.
//
// Every operation is recorded into the open batch of its kind (match, action data, selector)
// and committed before the call returns, so a batch carries one operation. A commit goes, in
// this order: SDK commit, release of the data copies the batch used, word to the dependency
// engine (triple tables), status writes, release of the batch. The publisher thus never sees a
// status before the hardware has the operation. Any SDK failure or broken invariant is an
// assertion: the helper never retries and never reports an SDK error to the engine.
//
// In test mode every batch is built and released but never committed; statuses are still
// written.
class ChipMbbEngineHelper : public MbbEngine::MbbEngineHelper {
 public:
   static constexpr std::string_view orbTypeName = "ChipMbbSlice::ChipMbbEngineHelper";
   using StatusTablePtr = Orb::Ptr<Vault::MbbEngine::TableStatus>;

   // Every setter tells its reactor when the value changes; queues and the shadow tell the
   // index or key concerned.
   class Notifiee : public MbbEngine::MbbEngineHelper::Notifiee {
    public:
      virtual void onMatTableStatus() {}
      virtual void onAdtTableStatus() {}
      virtual void onSelGrpTableStatus() {}
      virtual void onSelMbrTableStatus() {}
      virtual void onSessionHandle() {}
      virtual void onMatTableHandle() {}
      virtual void onAdtTableHandle() {}
      virtual void onSelTableHandle() {}
      virtual void onQtId() {}
      virtual void onDevTgt() {}
      virtual void onTestmode() {}
      virtual void onIsTripleTable() {}
      virtual void onInitialized() {}
      virtual void onMatPlcmtInfo() {}
      virtual void onAdtPlcmtInfo() {}
      virtual void onSelPlcmtInfo() {}
      virtual void onImpl() {}
      virtual void onMatPlcmtInfoSize() {}
      virtual void onAdtPlcmtInfoSize() {}
      virtual void onSelPlcmtInfoSize() {}
      virtual void onNumMatAddOps() {}
      virtual void onNumMatModOps() {}
      virtual void onNumMatMovOps() {}
      virtual void onNumMatDelOps() {}
      virtual void onNumMatDelDeadlockOps() {}
      virtual void onNumMatSetDfltOps() {}
      virtual void onNumMatClrDfltOps() {}
      virtual void onNumAdtAddOps() {}
      virtual void onNumAdtModOps() {}
      virtual void onNumAdtDelOps() {}
      virtual void onNumSelAddOps() {}
      virtual void onNumSelDelOps() {}
      virtual void onNumSelSetFallbackOps() {}
      virtual void onNumSelClrFallbackOps() {}
      virtual void onNumSelActivateOps() {}
      virtual void onNumSelDeactivateOps() {}
      virtual void onMatPlcmtInfoStatus(std::uint32_t index) {}
      virtual void onAdtPlcmtInfoStatus(std::uint32_t index) {}
      virtual void onSelPlcmtInfoStatus(std::uint32_t index) {}
      virtual void onMatDeferFree(std::uint32_t index) {}
      virtual void onAdtDeferFree(std::uint32_t index) {}
      virtual void onSelDeferFree(std::uint32_t index) {}
      virtual void onAdtBlobShadow(Vault::MbbEngine::EntryKey key) {}
   };

 private:
   // Every operation changes several attributes, and mostly nobody listens: the check is inlined
   // into each setter.
   template <class... Params, class... Args>
   [[gnu::always_inline]] void notify(void (Notifiee::*reactor)(Params...), const Args&... args) {
      if (!notifieeList().empty()) [[unlikely]]
         notifyAll(reactor, args...);
   }
   template <class... Params, class... Args>
   void notifyAll(void (Notifiee::*reactor)(Params...), const Args&... args);
   // What the attributes call when they change: the reactor, on every notifiee.
   template <class... Params>
   struct Reactor {
      template <class... Args>
      [[gnu::always_inline]] void operator()(const Args&... args) const {
         helper->notify(reactor, args...);
      }
      ChipMbbEngineHelper* helper;
      void (Notifiee::*reactor)(Params...);
   };
   template <class... Params>
   Reactor<Params...> notifier(void (Notifiee::*reactor)(Params...)) {
      return {this, reactor};
   }

 public:
   // `matTableStatus` is the engine's status table too. Handles of 0 for both the ADT and the
   // selector make a single table; both non-zero a triple.
   ChipMbbEngineHelper(std::string name, StatusTablePtr matTableStatus,
                       StatusTablePtr adtTableStatus, StatusTablePtr selGrpTableStatus,
                       StatusTablePtr selMbrTableStatus, std::uint32_t sessionHandle,
                       std::uint32_t matTableHandle, std::uint32_t adtTableHandle,
                       std::uint32_t selTableHandle, std::uint32_t maxEntries, bool testmodeArg,
                       std::uint32_t qtId);
   // Leaves an open batch and the data copies that wait for it alone: the SDK may still point
   // at them.
   ~ChipMbbEngineHelper() override;

   virtual std::string_view fwkType() const { return orbTypeName; }
   bool hasBackupSupport() const override { return false; }

   // Match-table operations; index 0x7FFFF sends an add or delete to the default entry.
   void addEntry(const Vault::MbbEngine::EntryConfig& entry) override;
   void deleteEntry(const Vault::MbbEngine::EntryConfig& entry) override;
   void deleteEntryDeadlock(const Vault::MbbEngine::EntryConfig& entry) override;
   // The replaced entry's delete writes the key's new status instead of removing it.
   void deleteReplacedEntry(const Vault::MbbEngine::EntryConfig& entry) override;
   void moveEntry(const Vault::MbbEngine::EntryConfig& entry) override;
   void updateEntry(const Vault::MbbEngine::EntryConfig& entry) override;
   void setDefault(const Vault::MbbEngine::EntryConfig& entry);
   void clearDefault(const Vault::MbbEngine::EntryConfig& entry);
   // Commits whatever batch is pending; with every operation committed at once, normally none.
   void flush() override;
   // Runs at the end of construction: opens the slice's trace file and tells a triple table
   // from a single one.
   virtual void handleInitialized();

   // Action data and selector operations, for the dependency engine of a triple table.
   void addAdtEntry(const ChipMbbShared::AdtEntryConfig& adtEntry);
   void updateAdtEntry(const ChipMbbShared::AdtEntryConfig& adtEntry);
   void delAdtEntry(const ChipMbbShared::AdtEntryConfig& adtEntry);
   // `isDeadlock` marks the extra add and delete that keep a vector from losing its last
   // active member; they write no status.
   void addSelEntry(const ChipMbbShared::SelMbrEntryConfig& mbrEntry, std::uint32_t grpHdl,
                    std::uint32_t baseIndex, std::uint32_t mbrHdl, bool isDeadlock);
   void delSelEntry(const ChipMbbShared::SelMbrEntryConfig& mbrEntry, std::uint32_t grpHdl,
                    std::uint32_t baseIndex, std::uint32_t mbrHdl, bool isDeadlock);
   void setFallbackSelEntry(const ChipMbbShared::SelMbrEntryConfig& mbrEntry, std::uint32_t mbrHdl);
   // The SDK clears the fallback of the pipe; `mbrHdl` is only traced.
   void clrFallbackSelEntry(const ChipMbbShared::SelMbrEntryConfig& mbrEntry, std::uint32_t mbrHdl);
   void activateSelEntry(const ChipMbbShared::SelMbrEntryConfig& mbrEntry, std::uint32_t grpHdl,
                         std::uint32_t baseIndex, std::uint32_t mbrHdl);
   void deactivateSelEntry(const ChipMbbShared::SelMbrEntryConfig& mbrEntry, std::uint32_t grpHdl,
                           std::uint32_t baseIndex, std::uint32_t mbrHdl);

   // Status writes for keys that need no hardware operation.
   void adtDelAck(Vault::MbbEngine::EntryKey key);
   void adtDelStatus(Vault::MbbEngine::EntryKey key);
   void selGrpDelAck(Vault::MbbEngine::EntryKey key);
   void selGrpDelStatus(Vault::MbbEngine::EntryKey key);
   void selGrpSetStatus(Vault::MbbEngine::EntryKey key, Vault::MbbEngine::OpId opId);
   void selMbrDelAck(Vault::MbbEngine::EntryKey key);
   void selMbrDelStatus(Vault::MbbEngine::EntryKey key);
   void selMbrSetStatus(Vault::MbbEngine::EntryKey key, Vault::MbbEngine::OpId opId);

   // Batches: get opens one when none is, maybeProcess commits one if open, process commits
   // the open one and requires it. hasMatBatch looks at the ADT batch, as it always has.
   p4_pd_plcmt_info_t* getMatPlcmtInfo();
   void maybeProcessMatPlcmtInfo();
   void processMatPlcmtInfo();
   bool hasMatBatch() const { return adtPlcmtInfo() != nullptr; }
   p4_pd_plcmt_info_t* getAdtPlcmtInfo();
   void maybeProcessAdtPlcmtInfo();
   void processAdtPlcmtInfo();
   bool hasAdtBatch() const { return adtPlcmtInfo() != nullptr; }
   p4_pd_plcmt_info_t* getSelPlcmtInfo();
   void maybeProcessSelPlcmtInfo();
   void processSelPlcmtInfo();
   bool hasSelBatch() const { return selPlcmtInfo() != nullptr; }

   // The address of an installed ADT entry's data copy, 0 for a key without one.
   std::uint64_t adtBlobShadow(Vault::MbbEngine::EntryKey key) const { return adtBlobShadow_(key); }
   void adtBlobShadowIs(Vault::MbbEngine::EntryKey key, std::uint64_t value) {
      adtBlobShadow_.is(key, value, notifier(&Notifiee::onAdtBlobShadow));
   }
   void adtBlobShadowDel(Vault::MbbEngine::EntryKey key) {
      adtBlobShadow_.del(key, notifier(&Notifiee::onAdtBlobShadow));
   }
   // Forgets every shadow; the copies stay allocated.
   void adtBlobShadowDelAll() { adtBlobShadow_.delAll(notifier(&Notifiee::onAdtBlobShadow)); }
   std::size_t adtBlobShadowSize() const { return adtBlobShadow_.size(); }

   // The match table's status table, which is the engine's status table too.
   StatusTablePtr const& matTableStatus() const { return mat_.statusTable(); }
   void matTableStatusIs(const StatusTablePtr& value);
   StatusTablePtr const& adtTableStatus() const { return adt_.statusTable(); }
   void adtTableStatusIs(const StatusTablePtr& value) {
      adt_.statusTable.is(value, notifier(&Notifiee::onAdtTableStatus));
   }
   StatusTablePtr const& selMbrTableStatus() const { return sel_.statusTable(); }
   void selMbrTableStatusIs(const StatusTablePtr& value) {
      sel_.statusTable.is(value, notifier(&Notifiee::onSelMbrTableStatus));
   }
   std::uint32_t matTableHandle() const { return mat_.tableHandle(); }
   void matTableHandleIs(std::uint32_t value) {
      mat_.tableHandle.is(value, notifier(&Notifiee::onMatTableHandle));
   }
   std::uint32_t adtTableHandle() const { return adt_.tableHandle(); }
   void adtTableHandleIs(std::uint32_t value) {
      adt_.tableHandle.is(value, notifier(&Notifiee::onAdtTableHandle));
   }
   std::uint32_t selTableHandle() const { return sel_.tableHandle(); }
   void selTableHandleIs(std::uint32_t value) {
      sel_.tableHandle.is(value, notifier(&Notifiee::onSelTableHandle));
   }
   p4_pd_plcmt_info_t* matPlcmtInfo() const { return mat_.info(); }
   void matPlcmtInfoIs(p4_pd_plcmt_info_t* value) {
      mat_.info.is(value, notifier(&Notifiee::onMatPlcmtInfo));
   }
   p4_pd_plcmt_info_t* adtPlcmtInfo() const { return adt_.info(); }
   void adtPlcmtInfoIs(p4_pd_plcmt_info_t* value) {
      adt_.info.is(value, notifier(&Notifiee::onAdtPlcmtInfo));
   }
   p4_pd_plcmt_info_t* selPlcmtInfo() const { return sel_.info(); }
   void selPlcmtInfoIs(p4_pd_plcmt_info_t* value) {
      sel_.info.is(value, notifier(&Notifiee::onSelPlcmtInfo));
   }
   StatusTablePtr const& selGrpTableStatus() const { return selGrpTableStatus_(); }
   void selGrpTableStatusIs(const StatusTablePtr& value) {
      selGrpTableStatus_.is(value, notifier(&Notifiee::onSelGrpTableStatus));
   }
   std::uint32_t sessionHandle() const { return sessionHandle_(); }
   void sessionHandleIs(std::uint32_t value) {
      sessionHandle_.is(value, notifier(&Notifiee::onSessionHandle));
   }
   std::uint32_t qtId() const { return qtId_(); }
   void qtIdIs(std::uint32_t value) { qtId_.is(value, notifier(&Notifiee::onQtId)); }
   ChipDriver::ChipDevTgt const& devTgt() const { return devTgt_(); }
   void devTgtIs(const ChipDriver::ChipDevTgt& value) {
      devTgt_.is(value, notifier(&Notifiee::onDevTgt));
   }
   bool testmode() const { return testmode_(); }
   void testmodeIs(bool value) { testmode_.is(value, notifier(&Notifiee::onTestmode)); }
   bool isTripleTable() const { return isTripleTable_(); }
   void isTripleTableIs(bool value) {
      isTripleTable_.is(value, notifier(&Notifiee::onIsTripleTable));
   }
   bool initialized() const { return initialized_(); }
   void initializedIs(bool value) { initialized_.is(value, notifier(&Notifiee::onInitialized)); }
   DependencyEngineIntf* impl() const { return impl_(); }
   void implIs(DependencyEngineIntf* value) { impl_.is(value, notifier(&Notifiee::onImpl)); }

   // Counters, and the number of operations in each open batch.
   std::uint32_t matPlcmtInfoSize() const { return mat_.size(); }
   void matPlcmtInfoSizeIs(std::uint32_t value) {
      mat_.size.is(value, notifier(&Notifiee::onMatPlcmtInfoSize));
   }
   void matPlcmtInfoSizeInc(std::uint32_t delta) {
      mat_.size.inc(delta, notifier(&Notifiee::onMatPlcmtInfoSize));
   }
   std::uint32_t adtPlcmtInfoSize() const { return adt_.size(); }
   void adtPlcmtInfoSizeIs(std::uint32_t value) {
      adt_.size.is(value, notifier(&Notifiee::onAdtPlcmtInfoSize));
   }
   void adtPlcmtInfoSizeInc(std::uint32_t delta) {
      adt_.size.inc(delta, notifier(&Notifiee::onAdtPlcmtInfoSize));
   }
   std::uint32_t selPlcmtInfoSize() const { return sel_.size(); }
   void selPlcmtInfoSizeIs(std::uint32_t value) {
      sel_.size.is(value, notifier(&Notifiee::onSelPlcmtInfoSize));
   }
   void selPlcmtInfoSizeInc(std::uint32_t delta) {
      sel_.size.inc(delta, notifier(&Notifiee::onSelPlcmtInfoSize));
   }
   std::uint64_t numMatAddOps() const { return numMatAddOps_(); }
   void numMatAddOpsIs(std::uint64_t value) {
      numMatAddOps_.is(value, notifier(&Notifiee::onNumMatAddOps));
   }
   void numMatAddOpsInc(std::uint64_t delta) {
      numMatAddOps_.inc(delta, notifier(&Notifiee::onNumMatAddOps));
   }
   std::uint64_t numMatModOps() const { return numMatModOps_(); }
   void numMatModOpsIs(std::uint64_t value) {
      numMatModOps_.is(value, notifier(&Notifiee::onNumMatModOps));
   }
   void numMatModOpsInc(std::uint64_t delta) {
      numMatModOps_.inc(delta, notifier(&Notifiee::onNumMatModOps));
   }
   std::uint64_t numMatMovOps() const { return numMatMovOps_(); }
   void numMatMovOpsIs(std::uint64_t value) {
      numMatMovOps_.is(value, notifier(&Notifiee::onNumMatMovOps));
   }
   void numMatMovOpsInc(std::uint64_t delta) {
      numMatMovOps_.inc(delta, notifier(&Notifiee::onNumMatMovOps));
   }
   std::uint64_t numMatDelOps() const { return numMatDelOps_(); }
   void numMatDelOpsIs(std::uint64_t value) {
      numMatDelOps_.is(value, notifier(&Notifiee::onNumMatDelOps));
   }
   void numMatDelOpsInc(std::uint64_t delta) {
      numMatDelOps_.inc(delta, notifier(&Notifiee::onNumMatDelOps));
   }
   std::uint64_t numMatDelDeadlockOps() const { return numMatDelDeadlockOps_(); }
   void numMatDelDeadlockOpsIs(std::uint64_t value) {
      numMatDelDeadlockOps_.is(value, notifier(&Notifiee::onNumMatDelDeadlockOps));
   }
   void numMatDelDeadlockOpsInc(std::uint64_t delta) {
      numMatDelDeadlockOps_.inc(delta, notifier(&Notifiee::onNumMatDelDeadlockOps));
   }
   std::uint64_t numMatSetDfltOps() const { return numMatSetDfltOps_(); }
   void numMatSetDfltOpsIs(std::uint64_t value) {
      numMatSetDfltOps_.is(value, notifier(&Notifiee::onNumMatSetDfltOps));
   }
   void numMatSetDfltOpsInc(std::uint64_t delta) {
      numMatSetDfltOps_.inc(delta, notifier(&Notifiee::onNumMatSetDfltOps));
   }
   std::uint64_t numMatClrDfltOps() const { return numMatClrDfltOps_(); }
   void numMatClrDfltOpsIs(std::uint64_t value) {
      numMatClrDfltOps_.is(value, notifier(&Notifiee::onNumMatClrDfltOps));
   }
   void numMatClrDfltOpsInc(std::uint64_t delta) {
      numMatClrDfltOps_.inc(delta, notifier(&Notifiee::onNumMatClrDfltOps));
   }
   std::uint64_t numAdtAddOps() const { return numAdtAddOps_(); }
   void numAdtAddOpsIs(std::uint64_t value) {
      numAdtAddOps_.is(value, notifier(&Notifiee::onNumAdtAddOps));
   }
   void numAdtAddOpsInc(std::uint64_t delta) {
      numAdtAddOps_.inc(delta, notifier(&Notifiee::onNumAdtAddOps));
   }
   std::uint64_t numAdtModOps() const { return numAdtModOps_(); }
   void numAdtModOpsIs(std::uint64_t value) {
      numAdtModOps_.is(value, notifier(&Notifiee::onNumAdtModOps));
   }
   void numAdtModOpsInc(std::uint64_t delta) {
      numAdtModOps_.inc(delta, notifier(&Notifiee::onNumAdtModOps));
   }
   std::uint64_t numAdtDelOps() const { return numAdtDelOps_(); }
   void numAdtDelOpsIs(std::uint64_t value) {
      numAdtDelOps_.is(value, notifier(&Notifiee::onNumAdtDelOps));
   }
   void numAdtDelOpsInc(std::uint64_t delta) {
      numAdtDelOps_.inc(delta, notifier(&Notifiee::onNumAdtDelOps));
   }
   std::uint64_t numSelAddOps() const { return numSelAddOps_(); }
   void numSelAddOpsIs(std::uint64_t value) {
      numSelAddOps_.is(value, notifier(&Notifiee::onNumSelAddOps));
   }
   void numSelAddOpsInc(std::uint64_t delta) {
      numSelAddOps_.inc(delta, notifier(&Notifiee::onNumSelAddOps));
   }
   std::uint64_t numSelDelOps() const { return numSelDelOps_(); }
   void numSelDelOpsIs(std::uint64_t value) {
      numSelDelOps_.is(value, notifier(&Notifiee::onNumSelDelOps));
   }
   void numSelDelOpsInc(std::uint64_t delta) {
      numSelDelOps_.inc(delta, notifier(&Notifiee::onNumSelDelOps));
   }
   std::uint64_t numSelSetFallbackOps() const { return numSelSetFallbackOps_(); }
   void numSelSetFallbackOpsIs(std::uint64_t value) {
      numSelSetFallbackOps_.is(value, notifier(&Notifiee::onNumSelSetFallbackOps));
   }
   void numSelSetFallbackOpsInc(std::uint64_t delta) {
      numSelSetFallbackOps_.inc(delta, notifier(&Notifiee::onNumSelSetFallbackOps));
   }
   std::uint64_t numSelClrFallbackOps() const { return numSelClrFallbackOps_(); }
   void numSelClrFallbackOpsIs(std::uint64_t value) {
      numSelClrFallbackOps_.is(value, notifier(&Notifiee::onNumSelClrFallbackOps));
   }
   void numSelClrFallbackOpsInc(std::uint64_t delta) {
      numSelClrFallbackOps_.inc(delta, notifier(&Notifiee::onNumSelClrFallbackOps));
   }
   std::uint64_t numSelActivateOps() const { return numSelActivateOps_(); }
   void numSelActivateOpsIs(std::uint64_t value) {
      numSelActivateOps_.is(value, notifier(&Notifiee::onNumSelActivateOps));
   }
   void numSelActivateOpsInc(std::uint64_t delta) {
      numSelActivateOps_.inc(delta, notifier(&Notifiee::onNumSelActivateOps));
   }
   std::uint64_t numSelDeactivateOps() const { return numSelDeactivateOps_(); }
   void numSelDeactivateOpsIs(std::uint64_t value) {
      numSelDeactivateOps_.is(value, notifier(&Notifiee::onNumSelDeactivateOps));
   }
   void numSelDeactivateOpsInc(std::uint64_t delta) {
      numSelDeactivateOps_.inc(delta, notifier(&Notifiee::onNumSelDeactivateOps));
   }

   // Per queue: read at an index (empty value if absent), append, take the head (empty value
   // when the queue is empty), set or insert at an index, remove one or all, and the metadata.
   // Appending to a queue whose index space is full throws Brio::RangeException.
   ChipEntryStatus matPlcmtInfoStatus(std::uint32_t index) const { return mat_.status(index); }
   std::uint32_t matPlcmtInfoStatusEnq(const ChipEntryStatus& value) {
      return mat_.status.enq(value, notifier(&Notifiee::onMatPlcmtInfoStatus));
   }
   ChipEntryStatus matPlcmtInfoStatusDeq() {
      return mat_.status.deq(notifier(&Notifiee::onMatPlcmtInfoStatus));
   }
   void matPlcmtInfoStatusIs(std::uint32_t index, const ChipEntryStatus& value) {
      mat_.status.is(index, value, notifier(&Notifiee::onMatPlcmtInfoStatus));
   }
   void matPlcmtInfoStatusDel(std::uint32_t index) {
      mat_.status.del(index, notifier(&Notifiee::onMatPlcmtInfoStatus));
   }
   void matPlcmtInfoStatusDelAll() {
      mat_.status.delAll(notifier(&Notifiee::onMatPlcmtInfoStatus));
   }
   std::size_t matPlcmtInfoStatusSize() const { return mat_.status.size(); }
   MatPlcmtInfoStatusMetadata matPlcmtInfoStatusMetadata() const {
      return MatPlcmtInfoStatusMetadata(mat_.status.metadata());
   }
   void matPlcmtInfoStatusMetadataIs(const MatPlcmtInfoStatusMetadata& metadata) {
      mat_.status.metadataIs(metadata.linkQueueMetadata());
   }
   ChipEntryStatus adtPlcmtInfoStatus(std::uint32_t index) const { return adt_.status(index); }
   std::uint32_t adtPlcmtInfoStatusEnq(const ChipEntryStatus& value) {
      return adt_.status.enq(value, notifier(&Notifiee::onAdtPlcmtInfoStatus));
   }
   ChipEntryStatus adtPlcmtInfoStatusDeq() {
      return adt_.status.deq(notifier(&Notifiee::onAdtPlcmtInfoStatus));
   }
   void adtPlcmtInfoStatusIs(std::uint32_t index, const ChipEntryStatus& value) {
      adt_.status.is(index, value, notifier(&Notifiee::onAdtPlcmtInfoStatus));
   }
   void adtPlcmtInfoStatusDel(std::uint32_t index) {
      adt_.status.del(index, notifier(&Notifiee::onAdtPlcmtInfoStatus));
   }
   void adtPlcmtInfoStatusDelAll() {
      adt_.status.delAll(notifier(&Notifiee::onAdtPlcmtInfoStatus));
   }
   std::size_t adtPlcmtInfoStatusSize() const { return adt_.status.size(); }
   AdtPlcmtInfoStatusMetadata adtPlcmtInfoStatusMetadata() const {
      return AdtPlcmtInfoStatusMetadata(adt_.status.metadata());
   }
   void adtPlcmtInfoStatusMetadataIs(const AdtPlcmtInfoStatusMetadata& metadata) {
      adt_.status.metadataIs(metadata.linkQueueMetadata());
   }
   ChipEntryStatus selPlcmtInfoStatus(std::uint32_t index) const { return sel_.status(index); }
   std::uint32_t selPlcmtInfoStatusEnq(const ChipEntryStatus& value) {
      return sel_.status.enq(value, notifier(&Notifiee::onSelPlcmtInfoStatus));
   }
   ChipEntryStatus selPlcmtInfoStatusDeq() {
      return sel_.status.deq(notifier(&Notifiee::onSelPlcmtInfoStatus));
   }
   void selPlcmtInfoStatusIs(std::uint32_t index, const ChipEntryStatus& value) {
      sel_.status.is(index, value, notifier(&Notifiee::onSelPlcmtInfoStatus));
   }
   void selPlcmtInfoStatusDel(std::uint32_t index) {
      sel_.status.del(index, notifier(&Notifiee::onSelPlcmtInfoStatus));
   }
   void selPlcmtInfoStatusDelAll() {
      sel_.status.delAll(notifier(&Notifiee::onSelPlcmtInfoStatus));
   }
   std::size_t selPlcmtInfoStatusSize() const { return sel_.status.size(); }
   SelPlcmtInfoStatusMetadata selPlcmtInfoStatusMetadata() const {
      return SelPlcmtInfoStatusMetadata(sel_.status.metadata());
   }
   void selPlcmtInfoStatusMetadataIs(const SelPlcmtInfoStatusMetadata& metadata) {
      sel_.status.metadataIs(metadata.linkQueueMetadata());
   }
   std::uint64_t matDeferFree(std::uint32_t index) const { return mat_.deferFree(index); }
   std::uint32_t matDeferFreeEnq(const std::uint64_t& value) {
      return mat_.deferFree.enq(value, notifier(&Notifiee::onMatDeferFree));
   }
   std::uint64_t matDeferFreeDeq() {
      return mat_.deferFree.deq(notifier(&Notifiee::onMatDeferFree));
   }
   void matDeferFreeIs(std::uint32_t index, const std::uint64_t& value) {
      mat_.deferFree.is(index, value, notifier(&Notifiee::onMatDeferFree));
   }
   void matDeferFreeDel(std::uint32_t index) {
      mat_.deferFree.del(index, notifier(&Notifiee::onMatDeferFree));
   }
   void matDeferFreeDelAll() { mat_.deferFree.delAll(notifier(&Notifiee::onMatDeferFree)); }
   std::size_t matDeferFreeSize() const { return mat_.deferFree.size(); }
   MatDeferFreeMetadata matDeferFreeMetadata() const {
      return MatDeferFreeMetadata(mat_.deferFree.metadata());
   }
   void matDeferFreeMetadataIs(const MatDeferFreeMetadata& metadata) {
      mat_.deferFree.metadataIs(metadata.linkQueueMetadata());
   }
   std::uint64_t adtDeferFree(std::uint32_t index) const { return adt_.deferFree(index); }
   std::uint32_t adtDeferFreeEnq(const std::uint64_t& value) {
      return adt_.deferFree.enq(value, notifier(&Notifiee::onAdtDeferFree));
   }
   std::uint64_t adtDeferFreeDeq() {
      return adt_.deferFree.deq(notifier(&Notifiee::onAdtDeferFree));
   }
   void adtDeferFreeIs(std::uint32_t index, const std::uint64_t& value) {
      adt_.deferFree.is(index, value, notifier(&Notifiee::onAdtDeferFree));
   }
   void adtDeferFreeDel(std::uint32_t index) {
      adt_.deferFree.del(index, notifier(&Notifiee::onAdtDeferFree));
   }
   void adtDeferFreeDelAll() { adt_.deferFree.delAll(notifier(&Notifiee::onAdtDeferFree)); }
   std::size_t adtDeferFreeSize() const { return adt_.deferFree.size(); }
   AdtDeferFreeMetadata adtDeferFreeMetadata() const {
      return AdtDeferFreeMetadata(adt_.deferFree.metadata());
   }
   void adtDeferFreeMetadataIs(const AdtDeferFreeMetadata& metadata) {
      adt_.deferFree.metadataIs(metadata.linkQueueMetadata());
   }
   std::uint64_t selDeferFree(std::uint32_t index) const { return sel_.deferFree(index); }
   std::uint32_t selDeferFreeEnq(const std::uint64_t& value) {
      return sel_.deferFree.enq(value, notifier(&Notifiee::onSelDeferFree));
   }
   std::uint64_t selDeferFreeDeq() {
      return sel_.deferFree.deq(notifier(&Notifiee::onSelDeferFree));
   }
   void selDeferFreeIs(std::uint32_t index, const std::uint64_t& value) {
      sel_.deferFree.is(index, value, notifier(&Notifiee::onSelDeferFree));
   }
   void selDeferFreeDel(std::uint32_t index) {
      sel_.deferFree.del(index, notifier(&Notifiee::onSelDeferFree));
   }
   void selDeferFreeDelAll() { sel_.deferFree.delAll(notifier(&Notifiee::onSelDeferFree)); }
   std::size_t selDeferFreeSize() const { return sel_.deferFree.size(); }
   SelDeferFreeMetadata selDeferFreeMetadata() const {
      return SelDeferFreeMetadata(sel_.deferFree.metadata());
   }
   void selDeferFreeMetadataIs(const SelDeferFreeMetadata& metadata) {
      sel_.deferFree.metadataIs(metadata.linkQueueMetadata());
   }

 private:
   // What sets the kinds of batch apart in the one commit sequence; constants, so that a kind's
   // commit compiles to direct calls.
   struct LaneHooks;
   static const LaneHooks matHooks;
   static const LaneHooks adtHooks;
   static const LaneHooks selHooks;

   static p4_pd_plcmt_info_t* plcmtInfoNew();
   p4_pd_plcmt_info_t* laneOpen(PlcmtLane& lane, const LaneHooks& hooks);
   void laneOpRecorded(PlcmtLane& lane, const LaneHooks& hooks, bf_status_t status,
                       Vault::MbbEngine::EntryKey key, Vault::MbbEngine::OpId opId,
                       bool queueStatus, bool removeFromStatus);
   // The commit sequence every batch goes through, and the release that ends it however the
   // commit ends.
   void laneCommit(PlcmtLane& lane, const LaneHooks& hooks);
   void laneRelease(PlcmtLane& lane, const LaneHooks& hooks);
   // Commits a batch to the SDK unless in test mode; false when the commit was skipped, else
   // `processed` is the number of operations the SDK applied.
   bool sdkCommit(std::uint32_t tblHdl, p4_pd_plcmt_info_t* info, std::uint32_t& processed);
   void deferFreeDrain(PlcmtLane& lane, const LaneHooks& hooks);
   void statusesWrite(PlcmtLane& lane, const LaneHooks& hooks);
   void statusWrite(const PlcmtLane& lane, const LaneHooks& hooks, const ChipEntryStatus& status);
   // What the dependency engine hears of a commit.
   void matCommitted();
   void selCommitted();
   void adtStatusWritten(Vault::MbbEngine::EntryKey key);

   // The steps a match operation shares: the data copy, the multi-index check, the trace and
   // the record's outcome.
   const void* matDataCopy(const Vault::MbbEngine::EntryConfig& entry);
   void matSingleIndexCheck(const Vault::MbbEngine::EntryConfig& entry);
   void matOpTrace(const char* op, const Vault::MbbEngine::EntryConfig& entry, bool withOpId);
   void matInBatchNotify(Vault::MbbEngine::EntryKey key);
   void matDelete(const Vault::MbbEngine::EntryConfig& entry, bool removeFromStatus);
   void matOpRecorded(bf_status_t status, const Vault::MbbEngine::EntryConfig& entry,
                      bool removeFromStatus);

   void adtOpTrace(const char* op, const ChipMbbShared::AdtEntryConfig& adtEntry);
   void adtOpRecorded(bf_status_t status, const ChipMbbShared::AdtEntryConfig& adtEntry,
                      bool removeFromStatus);
   void selOpTrace(const char* op, const ChipMbbShared::SelMbrEntryConfig& mbrEntry,
                   std::optional<std::uint32_t> grpHdl, std::uint32_t mbrHdl);
   void selOpRecorded(bf_status_t status, const ChipMbbShared::SelMbrEntryConfig& mbrEntry,
                      bool queueStatus, bool removeFromStatus);

   PlcmtLane mat_;
   PlcmtLane adt_;
   PlcmtLane sel_;
   Orb::Attribute<std::uint32_t> sessionHandle_;
   Orb::Attribute<std::uint32_t> qtId_;
   Orb::Attribute<ChipDriver::ChipDevTgt> devTgt_;
   Orb::Attribute<bool> testmode_;
   Orb::Attribute<bool> isTripleTable_;
   Orb::Attribute<bool> initialized_;
   Orb::Attribute<DependencyEngineIntf*> impl_;
   Orb::Attribute<StatusTablePtr> selGrpTableStatus_;
   Orb::Counter<std::uint64_t> numMatAddOps_;
   Orb::Counter<std::uint64_t> numMatModOps_;
   Orb::Counter<std::uint64_t> numMatMovOps_;
   Orb::Counter<std::uint64_t> numMatDelOps_;
   Orb::Counter<std::uint64_t> numMatDelDeadlockOps_;
   Orb::Counter<std::uint64_t> numMatSetDfltOps_;
   Orb::Counter<std::uint64_t> numMatClrDfltOps_;
   Orb::Counter<std::uint64_t> numAdtAddOps_;
   Orb::Counter<std::uint64_t> numAdtModOps_;
   Orb::Counter<std::uint64_t> numAdtDelOps_;
   Orb::Counter<std::uint64_t> numSelAddOps_;
   Orb::Counter<std::uint64_t> numSelDelOps_;
   Orb::Counter<std::uint64_t> numSelSetFallbackOps_;
   Orb::Counter<std::uint64_t> numSelClrFallbackOps_;
   Orb::Counter<std::uint64_t> numSelActivateOps_;
   Orb::Counter<std::uint64_t> numSelDeactivateOps_;
   Orb::Collection<Vault::MbbEngine::EntryKey, std::uint64_t,
                   std::unordered_map<Vault::MbbEngine::EntryKey, std::uint64_t>>
       adtBlobShadow_{"adtBlobShadow", orbTypeName};
};

template <class... Params, class... Args>
void ChipMbbEngineHelper::notifyAll(void (Notifiee::*reactor)(Params...), const Args&... args) {
   notifieeList().forEach([&](MbbEngine::MbbEngineHelper::Notifiee& notifiee) {
      if (auto* own = dynamic_cast<Notifiee*>(&notifiee)) (own->*reactor)(args...);
   });
}

}  // namespace ChipMbbSlice
