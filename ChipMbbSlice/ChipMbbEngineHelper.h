#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "ChipMbbShared/AdtEntryConfig.h"
#include "ChipMbbShared/SelMbrEntryConfig.h"
#include "ChipMbbSlice/ChipEntryStatus.h"
#include "ChipMbbSlice/DependencyEngineIntf.h"
#include "ChipMbbSlice/LinkQueueMetadataValue.h"
#include "ChipSdk/PlcmtApi.h"
#include "HwPd/ChipDriver.h"
#include "MbbEngine/MbbEngineHelper.h"
#include "Orb/LinkQueue.h"
#include "Orb/Ptr.h"
#include "Vault/MbbEngine/EntryConfig.h"
#include "Vault/MbbEngine/Tables.h"

namespace ChipMbbSlice {

// The helper's plain attributes: type, name, reactor suffix. Each has a getter `name()` and a
// setter `nameIs(v)` that notifies `onName()` when the value changes.
#define CHIP_MBB_HELPER_ATTRIBUTES(X)                                               \
   X(Orb::Ptr<Vault::MbbEngine::TableStatus>, adtTableStatus, AdtTableStatus)       \
   X(Orb::Ptr<Vault::MbbEngine::TableStatus>, selGrpTableStatus, SelGrpTableStatus) \
   X(Orb::Ptr<Vault::MbbEngine::TableStatus>, selMbrTableStatus, SelMbrTableStatus) \
   X(std::uint32_t, sessionHandle, SessionHandle)                                   \
   X(std::uint32_t, matTableHandle, MatTableHandle)                                 \
   X(std::uint32_t, adtTableHandle, AdtTableHandle)                                 \
   X(std::uint32_t, selTableHandle, SelTableHandle)                                 \
   X(std::uint32_t, qtId, QtId)                                                     \
   X(ChipDriver::ChipDevTgt, devTgt, DevTgt)                                        \
   X(bool, testmode, Testmode)                                                      \
   X(bool, isTripleTable, IsTripleTable)                                            \
   X(bool, initialized, Initialized)                                                \
   X(p4_pd_plcmt_info_t*, matPlcmtInfo, MatPlcmtInfo)                               \
   X(p4_pd_plcmt_info_t*, adtPlcmtInfo, AdtPlcmtInfo)                               \
   X(p4_pd_plcmt_info_t*, selPlcmtInfo, SelPlcmtInfo)                               \
   X(DependencyEngineIntf*, impl, Impl)

// Attributes that also count up: `nameInc(delta)` beside the getter and setter.
#define CHIP_MBB_HELPER_COUNTERS(X)                             \
   X(std::uint32_t, matPlcmtInfoSize, MatPlcmtInfoSize)         \
   X(std::uint32_t, adtPlcmtInfoSize, AdtPlcmtInfoSize)         \
   X(std::uint32_t, selPlcmtInfoSize, SelPlcmtInfoSize)         \
   X(std::uint64_t, numMatAddOps, NumMatAddOps)                 \
   X(std::uint64_t, numMatModOps, NumMatModOps)                 \
   X(std::uint64_t, numMatMovOps, NumMatMovOps)                 \
   X(std::uint64_t, numMatDelOps, NumMatDelOps)                 \
   X(std::uint64_t, numMatDelDeadlockOps, NumMatDelDeadlockOps) \
   X(std::uint64_t, numMatSetDfltOps, NumMatSetDfltOps)         \
   X(std::uint64_t, numMatClrDfltOps, NumMatClrDfltOps)         \
   X(std::uint64_t, numAdtAddOps, NumAdtAddOps)                 \
   X(std::uint64_t, numAdtModOps, NumAdtModOps)                 \
   X(std::uint64_t, numAdtDelOps, NumAdtDelOps)                 \
   X(std::uint64_t, numSelAddOps, NumSelAddOps)                 \
   X(std::uint64_t, numSelDelOps, NumSelDelOps)                 \
   X(std::uint64_t, numSelSetFallbackOps, NumSelSetFallbackOps) \
   X(std::uint64_t, numSelClrFallbackOps, NumSelClrFallbackOps) \
   X(std::uint64_t, numSelActivateOps, NumSelActivateOps)       \
   X(std::uint64_t, numSelDeactivateOps, NumSelDeactivateOps)

// The link queues: element type, name, reactor suffix; `NameMetadata` is the queue's metadata
// value type. Status queues hold what to write once a batch is committed, deferred-free queues
// the addresses of data copies to free then.
#define CHIP_MBB_HELPER_QUEUES(X)                             \
   X(ChipEntryStatus, matPlcmtInfoStatus, MatPlcmtInfoStatus) \
   X(ChipEntryStatus, adtPlcmtInfoStatus, AdtPlcmtInfoStatus) \
   X(ChipEntryStatus, selPlcmtInfoStatus, SelPlcmtInfoStatus) \
   X(std::uint64_t, matDeferFree, MatDeferFree)               \
   X(std::uint64_t, adtDeferFree, AdtDeferFree)               \
   X(std::uint64_t, selDeferFree, SelDeferFree)

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

   class Notifiee : public MbbEngine::MbbEngineHelper::Notifiee {
    public:
      virtual void onMatTableStatus() {}
#define CHIP_MBB_HELPER_REACTOR(Type, name, Name) \
   virtual void on##Name() {}
      CHIP_MBB_HELPER_ATTRIBUTES(CHIP_MBB_HELPER_REACTOR)
      CHIP_MBB_HELPER_COUNTERS(CHIP_MBB_HELPER_REACTOR)
#undef CHIP_MBB_HELPER_REACTOR
#define CHIP_MBB_HELPER_QUEUE_REACTOR(Type, name, Name) \
   virtual void on##Name(std::uint32_t index) {}
      CHIP_MBB_HELPER_QUEUES(CHIP_MBB_HELPER_QUEUE_REACTOR)
#undef CHIP_MBB_HELPER_QUEUE_REACTOR
      virtual void onAdtBlobShadow(Vault::MbbEngine::EntryKey key) {}
   };

   // `matTableStatus` is the engine's status table too. Handles of 0 for both the ADT and the
   // selector make a single table; both non-zero a triple.
   ChipMbbEngineHelper(std::string name, Orb::Ptr<Vault::MbbEngine::TableStatus> matTableStatus,
                       Orb::Ptr<Vault::MbbEngine::TableStatus> adtTableStatus,
                       Orb::Ptr<Vault::MbbEngine::TableStatus> selGrpTableStatus,
                       Orb::Ptr<Vault::MbbEngine::TableStatus> selMbrTableStatus,
                       std::uint32_t sessionHandle, std::uint32_t matTableHandle,
                       std::uint32_t adtTableHandle, std::uint32_t selTableHandle,
                       std::uint32_t maxEntries, bool testmodeArg, std::uint32_t qtId);
   // Leaves an open batch and the data copies that wait for it alone: the SDK may still point
   // at them.
   ~ChipMbbEngineHelper() override;

   virtual std::string_view fwkType() const {
      return orbTypeName;
   }
   bool hasBackupSupport() const override {
      return false;
   }

   // Match-table operations; index 0x7FFFF sends an add or delete to the default entry.
   void addEntry(const Vault::MbbEngine::EntryConfig& entry) override;
   void deleteEntry(const Vault::MbbEngine::EntryConfig& entry) override;
   void deleteEntryDeadlock(const Vault::MbbEngine::EntryConfig& entry) override;
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
   bool hasMatBatch() const {
      return adtPlcmtInfo_ != nullptr;
   }
   p4_pd_plcmt_info_t* getAdtPlcmtInfo();
   void maybeProcessAdtPlcmtInfo();
   void processAdtPlcmtInfo();
   bool hasAdtBatch() const {
      return adtPlcmtInfo_ != nullptr;
   }
   p4_pd_plcmt_info_t* getSelPlcmtInfo();
   void maybeProcessSelPlcmtInfo();
   void processSelPlcmtInfo();
   bool hasSelBatch() const {
      return selPlcmtInfo_ != nullptr;
   }

   // The address of an installed ADT entry's data copy, 0 for a key without one.
   std::uint64_t adtBlobShadow(Vault::MbbEngine::EntryKey key) const;
   void adtBlobShadowIs(Vault::MbbEngine::EntryKey key, std::uint64_t value);
   void adtBlobShadowDel(Vault::MbbEngine::EntryKey key);
   // Forgets every shadow; the copies stay allocated.
   void adtBlobShadowDelAll();
   std::size_t adtBlobShadowSize() const {
      return adtBlobShadow_.size();
   }

   // The match table's status table, which is the engine's status table too.
   const Orb::Ptr<Vault::MbbEngine::TableStatus>& matTableStatus() const {
      return matTableStatus_;
   }
   void matTableStatusIs(const Orb::Ptr<Vault::MbbEngine::TableStatus>& value);

#define CHIP_MBB_HELPER_ATTRIBUTE(Type, name, Name) \
   Type const& name() const {                       \
      return name##_;                               \
   }                                                \
   void name##Is(Type const& value) {               \
      attrIs(name##_, value, &Notifiee::on##Name);  \
   }
   CHIP_MBB_HELPER_ATTRIBUTES(CHIP_MBB_HELPER_ATTRIBUTE)
#undef CHIP_MBB_HELPER_ATTRIBUTE

#define CHIP_MBB_HELPER_COUNTER(Type, name, Name)                  \
   Type name() const {                                             \
      return name##_;                                              \
   }                                                               \
   void name##Is(Type value) {                                     \
      attrIs(name##_, value, &Notifiee::on##Name);                 \
   }                                                               \
   void name##Inc(Type delta) {                                    \
      attrIs(name##_, Type(name##_ + delta), &Notifiee::on##Name); \
   }
   CHIP_MBB_HELPER_COUNTERS(CHIP_MBB_HELPER_COUNTER)
#undef CHIP_MBB_HELPER_COUNTER

   // Per queue: read at an index (empty value if absent), append, take the head (empty value
   // when the queue is empty), set or insert at an index, remove one or all, and the metadata.
   // Appending to a queue whose index space is full throws Brio::RangeException.
#define CHIP_MBB_HELPER_QUEUE(Type, name, Name)             \
   Type name(std::uint32_t index) const {                   \
      return name##_.at(index);                             \
   }                                                        \
   std::uint32_t name##Enq(Type const& value) {             \
      return queueEnq(name##_, value, &Notifiee::on##Name); \
   }                                                        \
   Type name##Deq() {                                       \
      return queueDeq(name##_, &Notifiee::on##Name);        \
   }                                                        \
   void name##Is(std::uint32_t index, Type const& value) {  \
      queueIs(name##_, index, value, &Notifiee::on##Name);  \
   }                                                        \
   void name##Del(std::uint32_t index) {                    \
      queueDel(name##_, index, &Notifiee::on##Name);        \
   }                                                        \
   void name##DelAll() {                                    \
      queueDelAll(name##_, &Notifiee::on##Name);            \
   }                                                        \
   std::size_t name##Size() const {                         \
      return name##_.size();                                \
   }                                                        \
   Name##Metadata name##Metadata() const {                  \
      return Name##Metadata(name##_.metadata());            \
   }                                                        \
   void name##MetadataIs(const Name##Metadata& metadata) {  \
      name##_.metadataIs(metadata.linkQueueMetadata());     \
   }
   CHIP_MBB_HELPER_QUEUES(CHIP_MBB_HELPER_QUEUE)
#undef CHIP_MBB_HELPER_QUEUE

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
   template <class T>
   void attrIs(T& member, const T& value, void (Notifiee::*reactor)()) {
      if (member == value) return;
      member = value;
      notify(reactor);
   }
   template <class T>
   std::uint32_t queueEnq(Orb::LinkQueue<T>& queue, const T& value,
                          void (Notifiee::*reactor)(std::uint32_t));
   template <class T>
   T queueDeq(Orb::LinkQueue<T>& queue, void (Notifiee::*reactor)(std::uint32_t));
   template <class T>
   void queueIs(Orb::LinkQueue<T>& queue, std::uint32_t index, const T& value,
                void (Notifiee::*reactor)(std::uint32_t));
   template <class T>
   void queueDel(Orb::LinkQueue<T>& queue, std::uint32_t index,
                 void (Notifiee::*reactor)(std::uint32_t));
   template <class T>
   void queueDelAll(Orb::LinkQueue<T>& queue, void (Notifiee::*reactor)(std::uint32_t));

   static p4_pd_plcmt_info_t* plcmtInfoNew();
   // Commits a batch to the SDK unless in test mode; false when the commit was skipped, else
   // `processed` is the number of operations the SDK applied.
   bool sdkCommit(std::uint32_t tblHdl, p4_pd_plcmt_info_t* info, std::uint32_t& processed);
   void deferFreeDrain(Orb::LinkQueue<std::uint64_t>& queue,
                       void (Notifiee::*reactor)(std::uint32_t));
   void statusWrite(Vault::MbbEngine::TableStatus& table, std::uint32_t tblHdl,
                    const ChipEntryStatus& status);

   // The steps a match operation shares: the data copy, the multi-index check, the record's
   // outcome and the commit.
   const void* matDataCopy(const Vault::MbbEngine::EntryConfig& entry);
   void matSingleIndexCheck(const Vault::MbbEngine::EntryConfig& entry);
   void matOpTrace(const char* op, const Vault::MbbEngine::EntryConfig& entry, bool withOpId);
   void matInBatchNotify(Vault::MbbEngine::EntryKey key);
   void matOpRecorded(bf_status_t status, const Vault::MbbEngine::EntryConfig& entry,
                      bool removeFromStatus);
   void matStatusWrite(const ChipEntryStatus& status);

   void adtOpTrace(const char* op, const ChipMbbShared::AdtEntryConfig& adtEntry);
   void adtOpRecorded(bf_status_t status, const ChipMbbShared::AdtEntryConfig& adtEntry,
                      bool removeFromStatus);
   void adtStatusWrite(const ChipEntryStatus& status);
   void selOpTrace(const char* op, const ChipMbbShared::SelMbrEntryConfig& mbrEntry,
                   std::optional<std::uint32_t> grpHdl, std::uint32_t mbrHdl);
   void selOpRecorded(bf_status_t status, const ChipMbbShared::SelMbrEntryConfig& mbrEntry,
                      bool queueStatus, bool removeFromStatus);
   void selStatusWrite(const ChipEntryStatus& status);

#define CHIP_MBB_HELPER_MEMBER(Type, name, Name) Type name##_{};
   CHIP_MBB_HELPER_ATTRIBUTES(CHIP_MBB_HELPER_MEMBER)
   CHIP_MBB_HELPER_COUNTERS(CHIP_MBB_HELPER_MEMBER)
#undef CHIP_MBB_HELPER_MEMBER
#define CHIP_MBB_HELPER_QUEUE_MEMBER(Type, name, Name) Orb::LinkQueue<Type> name##_;
   CHIP_MBB_HELPER_QUEUES(CHIP_MBB_HELPER_QUEUE_MEMBER)
#undef CHIP_MBB_HELPER_QUEUE_MEMBER
   Orb::Ptr<Vault::MbbEngine::TableStatus> matTableStatus_;
   std::unordered_map<Vault::MbbEngine::EntryKey, std::uint64_t> adtBlobShadow_;
};

template <class... Params, class... Args>
void ChipMbbEngineHelper::notifyAll(void (Notifiee::*reactor)(Params...), const Args&... args) {
   notifieeList().forEach([&](MbbEngine::MbbEngineHelper::Notifiee& notifiee) {
      if (auto* own = dynamic_cast<Notifiee*>(&notifiee)) (own->*reactor)(args...);
   });
}

template <class T>
std::uint32_t ChipMbbEngineHelper::queueEnq(Orb::LinkQueue<T>& queue, const T& value,
                                            void (Notifiee::*reactor)(std::uint32_t)) {
   std::uint32_t index = queue.enq(value);
   notify(reactor, index);
   return index;
}

template <class T>
T ChipMbbEngineHelper::queueDeq(Orb::LinkQueue<T>& queue,
                                void (Notifiee::*reactor)(std::uint32_t)) {
   if (queue.empty()) return T{};
   std::uint32_t index = queue.metadata().head;
   T value = queue.deq();
   notify(reactor, index);
   return value;
}

template <class T>
void ChipMbbEngineHelper::queueIs(Orb::LinkQueue<T>& queue, std::uint32_t index, const T& value,
                                  void (Notifiee::*reactor)(std::uint32_t)) {
   queue.is(index, value);
   notify(reactor, index);
}

template <class T>
void ChipMbbEngineHelper::queueDel(Orb::LinkQueue<T>& queue, std::uint32_t index,
                                   void (Notifiee::*reactor)(std::uint32_t)) {
   if (queue.del(index)) notify(reactor, index);
}

template <class T>
void ChipMbbEngineHelper::queueDelAll(Orb::LinkQueue<T>& queue,
                                      void (Notifiee::*reactor)(std::uint32_t)) {
   while (!queue.empty()) queueDeq(queue, reactor);
}

}  // namespace ChipMbbSlice
