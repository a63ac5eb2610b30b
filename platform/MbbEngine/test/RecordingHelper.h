#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "Keel/TimerWheel.h"
#include "MbbEngine/MbbEngine.h"
#include "Orb/Time.h"
#include "Vault/Vault.h"

namespace MbbEngine::Test {

// One operation the engine asked for.
struct Op {
   std::string kind;  // add, del, delDeadlock, mov, upd
   std::uint64_t key;
   std::uint32_t handle;
   std::uint32_t index;
   std::uint64_t opId;
   bool operator==(const Op&) const = default;
};

inline std::ostream& operator<<(std::ostream& os, const Op& op) {
   return os << op.kind << " key:" << op.key << " hdl:0x" << std::hex << op.handle << " index:0x"
             << op.index << std::dec << " opId:" << op.opId;
}

// Stands in for the slice's helper without hardware: records each operation and writes the
// status as the slice's helper would.
class RecordingHelper : public MbbEngineHelper {
 public:
   using MbbEngineHelper::MbbEngineHelper;

   void addEntry(const Vault::MbbEngine::EntryConfig& e) override { record("add", e, false); }
   void deleteEntry(const Vault::MbbEngine::EntryConfig& e) override {
      record("del", e, !e.isDel());
   }
   void deleteEntryDeadlock(const Vault::MbbEngine::EntryConfig& e) override {
      record("delDeadlock", e, !e.isDel());
   }
   void moveEntry(const Vault::MbbEngine::EntryConfig& e) override { record("mov", e, false); }
   void updateEntry(const Vault::MbbEngine::EntryConfig& e) override { record("upd", e, false); }
   void flush() override { ++numFlushOps; }

   // The operations since the last call.
   std::vector<Op> take() {
      std::vector<Op> taken;
      taken.swap(ops);
      return taken;
   }

   std::vector<Op> ops;
   int numFlushOps = 0;

 private:
   void record(const char* kind, const Vault::MbbEngine::EntryConfig& e, bool removeStatus) {
      ops.push_back(Op{kind, e.key().value(), e.entryHandle(), e.index(), e.opId().value()});
      if (!tableStatus()) return;
      if (removeStatus) {
         tableStatus()->entryDel(e.key());
      } else {
         tableStatus()->entryIs(Vault::MbbEngine::EntryStatus(e.key(), e.opId()));
      }
   }
};

// A table, its status, a recording helper, an engine and its state machine on a manual clock.
template <class Impl = FastMbbEngineImpl>
struct EngineFixture {
   template <class... ImplArgs>
   explicit EngineFixture(std::uint32_t maxEntries = 1024, ImplArgs... implArgs)
       : config(Vault::MbbEngine::tableConfigFactory("route")),
         status(Vault::MbbEngine::tableStatusFactory("route-status")),
         helper(Orb::ptrNew<RecordingHelper>("helper", status, maxEntries)),
         debugConfig(Orb::ptrNew<DebugConfig>("route")),
         debugStatus(Orb::ptrNew<DebugStatus>("route")),
         impl(Orb::ptrNew<Impl>("route", config, debugConfig, debugStatus, helper, 1, implArgs...)),
         flushStatus(Orb::ptrNew<MbbEngineFlushStatus>()),
         source(Orb::ptrNew<Orb::ManualTimeSource>()),
         wheel(source, 1, 1000, true, 16) {
      config->mountedIs(true);
      status->mountedIs(true);
      sm = Orb::ptrNew<MbbEngineSm>(config, status, debugConfig, debugStatus, impl, flushStatus,
                                    &wheel);
   }

   static Vault::MbbEngine::EntryConfig entry(std::uint64_t key, std::uint64_t opId,
                                              std::uint32_t handle, std::uint32_t index,
                                              std::uint32_t prioGrp = 0, std::uint8_t data = 0) {
      ChipSdk::PlcmtDataBuilder builder;
      builder.payload(&data, 1);
      return Vault::MbbEngine::EntryConfig(key, opId, handle, prioGrp, 0, 1, index, 0, 0,
                                           builder.block());
   }
   void publish(std::uint64_t key, std::uint64_t opId, std::uint32_t handle, std::uint32_t index,
                std::uint32_t prioGrp = 0, std::uint8_t data = 0) {
      config->entryIs(entry(key, opId, handle, index, prioGrp, data));
   }
   std::uint64_t statusOf(std::uint64_t key) const { return status->entry(key).opId().value(); }
   void advance(Orb::Seconds dt) {
      source->advance(dt);
      wheel.advance();
   }

   Orb::Ptr<Vault::MbbEngine::TableConfig> config;
   Orb::Ptr<Vault::MbbEngine::TableStatus> status;
   Orb::Ptr<RecordingHelper> helper;
   Orb::Ptr<DebugConfig> debugConfig;
   Orb::Ptr<DebugStatus> debugStatus;
   Orb::Ptr<Impl> impl;
   Orb::Ptr<MbbEngineFlushStatus> flushStatus;
   Orb::Ptr<Orb::ManualTimeSource> source;
   Keel::TimerWheel wheel;
   Orb::Ptr<MbbEngineSm> sm;
};

}  // namespace MbbEngine::Test
