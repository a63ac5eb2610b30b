#pragma once

// What the table-manager tests share: published entries, an audit manager that records what
// it is told, and a world of chip, mount-info collection, mount configuration, timer wheel and
// flush status around one manager, with its trace lines and records captured.

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Atlas/EntityManager.h"

#include "Brio/Brio.h"
#include "ChipMbbSliceTableMgr/ChipMbbSliceTableMgr.h"
#include "ChipModel/ChipModel.h"
#include "ChipSdk/PlcmtData.h"
#include "FlashLog/CaptureSink.h"
#include "FlashLog/Decoder.h"
#include "FlashLog/FlashLog.h"
#include "Keel/EventLoop.h"
#include "Keel/TimerWheel.h"
#include "Orb/Time.h"
#include "Vault/LocalTable.h"
#include "Vault/MbbEngine/EntryConfig.h"

namespace ChipMbbSlice::test {

using ChipMbbShared::MatAdtSelTableConfigMountEntry;
using ChipMbbShared::TableConfigMountEntry;
using ChipMbbShared::TableConfigMountInfo;
using ChipMbbShared::TableConfigMountKey;

// Tables of the chip model's default profile.
constexpr std::uint32_t hostHdl = 0x01000001;  // 65536 entries
constexpr std::uint32_t lpmHdl = 0x01000002;   // 16384 entries, ATCAM
constexpr std::uint32_t aclHdl = 0x01000003;   // 2048 entries
constexpr std::uint32_t hostSize = 65536;
// The default profile's triple; its action data table is a table but no match table.
constexpr std::uint32_t ecmpHdl = 0x01000010;
constexpr std::uint32_t ecmpAdtHdl = 0x02000010;
constexpr std::uint32_t ecmpSelHdl = 0x03000010;

constexpr double syncGenTime = 1234.5;
constexpr std::uint32_t sessHdl = 7;

// Published names share an 11-character prefix that trace records leave out.
inline const std::string namePrefix = "ChipMbbSlc_";

inline TableConfigMountKey mountKey(const std::string& name, std::uint32_t tableId,
                                    std::uint8_t devId = 0, std::uint16_t pipeId = 0xFFFF) {
   return TableConfigMountKey(ChipDriver::ChipDevTgt{devId, pipeId}, namePrefix + name, tableId);
}

inline TableConfigMountEntry published(const std::string& name, bool needStatus = true,
                                       std::uint32_t tableSize = 1024,
                                       std::uint16_t instanceId = 1) {
   TableConfigMountEntry entry;
   entry.configPathIs(name + "/config");
   entry.statusPathIs(name + "/status");
   entry.needStatusIs(needStatus);
   entry.tableSizeIs(tableSize);
   entry.configGenTimeIs(syncGenTime);
   entry.statusGenTimeIs(syncGenTime);
   entry.instanceIdIs(instanceId);
   return entry;
}

// The default profile's triple announced with its eight collections under `name`.
inline MatAdtSelTableConfigMountEntry triple(const std::string& name, bool needStatus = true,
                                             std::uint16_t instanceId = 1) {
   MatAdtSelTableConfigMountEntry entry;
   entry.matConfigPathIs(name + "/config");
   entry.adtConfigPathIs(name + "/adtConfig");
   entry.selGrpConfigPathIs(name + "/grpConfig");
   entry.selMbrConfigPathIs(name + "/mbrConfig");
   entry.matStatusPathIs(name + "/status");
   entry.adtStatusPathIs(name + "/adtStatus");
   entry.selGrpStatusPathIs(name + "/grpStatus");
   entry.selMbrStatusPathIs(name + "/mbrStatus");
   entry.needStatusIs(needStatus);
   entry.adtTableIdIs(ecmpAdtHdl);
   entry.selTableIdIs(ecmpSelHdl);
   entry.tableSizeIs(1024);
   entry.configGenTimeIs(syncGenTime);
   entry.statusGenTimeIs(syncGenTime);
   entry.instanceIdIs(instanceId);
   return entry;
}

inline Vault::MbbEngine::EntryConfig matEntry(std::uint64_t key, std::uint64_t opId,
                                              std::uint32_t handle, std::uint32_t index) {
   const std::uint8_t payload[8] = {1, 2, 3, 4, 5, 6, 7, static_cast<std::uint8_t>(key)};
   const auto block = ChipSdk::PlcmtDataBuilder().payload(payload, sizeof payload).block();
   return Vault::MbbEngine::EntryConfig(key, opId, handle, 0, 0, 1, index, 0, 0, block);
}

// Refers to the engines without keeping them, as the manager expects of an audit.
class RecordingAuditMgr : public TableAuditRegistry {
 public:
   void addTable(const TableConfigMountKey& key,
                 const Orb::WeakPtr<MbbEngine::MbbEngineSm>& engine) override {
      calls.push_back("add " + key.name());
      engines.push_back(engine);
   }
   void delTable(const TableConfigMountKey& key) override { calls.push_back("del " + key.name()); }
   void addMatAdtSelTable(const TableConfigMountKey& key,
                          const Orb::WeakPtr<MatAdtSelSm>&) override {
      calls.push_back("add triple " + key.name());
   }
   void delMatAdtSelTable(const TableConfigMountKey& key) override {
      calls.push_back("del triple " + key.name());
   }

   std::vector<std::string> calls;
   std::vector<std::weak_ptr<MbbEngine::MbbEngineSm>> engines;
};

// The trace file of this test process, in a directory of its own that goes with the process.
inline const FlashLog::Handle& traceFile() {
   struct TraceDirectory {
      TraceDirectory() {
         char pattern[] = "/tmp/tablemgr-test-XXXXXX";
         path = mkdtemp(pattern);
         unsetenv("FLASHLOG_DISABLE");
         setenv("FLASHLOGDIR", path.c_str(), 1);
         initQt();
      }
      ~TraceDirectory() { std::filesystem::remove_all(path); }
      std::string path;
   };
   static const TraceDirectory directory;
   return FlashLog::defaultHandle();
}

// Whether the trace file holds a record whose text is exactly `text`.
inline bool hasRecord(const std::string& text) {
   for (const auto& record : FlashLog::decodeFile(traceFile().path()).records) {
      if (record.text == text) return true;
   }
   return false;
}

// A publisher and an agent on one root, each with an entity manager of its own as two processes
// would have; the agent's is fed by the event loop. A world that derives from this before its
// managers' world lets its managers go first.
struct TwoProcesses {
   TwoProcesses()
       : root("tablemgrtest-" + std::to_string(::getpid()) + "-" + std::to_string(serial()++)),
         publisher(root),
         agent(Orb::ptrNew<Atlas::EntityManager>(root, &loop)) {}
   static int& serial() {
      static int n = 0;
      return n;
   }
   void settle(const std::function<bool()>& done) {
      for (int i = 0; i < 40 && !done(); ++i) loop.runOnce(0.05);
   }

   Keel::EventLoop loop;
   std::string root;
   Atlas::EntityManager publisher;
   Orb::Ptr<Atlas::EntityManager> agent;
};

struct World {
   World() {
      traceFile();
      capture.levelIs("ChipMbbSlice", 9);
      info->mountedIs(true);
   }

   Orb::Ptr<ChipSliceTableMgrSm> mgrNew(Orb::Ptr<Atlas::EntityManager> entityManager = nullptr) {
      mgr = Orb::ptrNew<ChipSliceTableMgrSm>(info, std::move(entityManager), supportedDevices,
                                             sessHdl, syncGenTime, wheel, flushStatus, mountConfig,
                                             ChipModel::modelResourceInfoNew(chip->profile()));
      return mgr;
   }
   // A chip of another profile in place of the default one; only before the manager exists.
   void chipIs(ChipModel::ChipProfile profile) {
      chip.reset();
      chip = std::make_unique<ChipModel::InstalledChip>(std::move(profile));
   }
   void publish(const TableConfigMountKey& key, const TableConfigMountEntry& entry) {
      info->entryIs(key, entry);
   }
   // Names of the tables with a running engine.
   std::vector<std::string> running() const {
      std::vector<std::string> names;
      if (mgr) {
         for (const auto& [key, engine] : mgr->mbbEngineSms()) names.push_back(key.name());
      }
      return names;
   }

   // Declared first, so that it outlives the manager's engines, which clear it as they go.
   std::unique_ptr<ChipModel::InstalledChip> chip = std::make_unique<ChipModel::InstalledChip>();
   DualLog::CaptureSink capture;
   Brio::ScopedThrowingAsserts asserts;
   std::uint32_t supportedDevices = 0x3;
   Orb::Ptr<TableConfigMountInfo> info =
       Vault::localTableNew<TableConfigMountInfo>("ChipMbbSlc_info");
   Orb::Ptr<MountConfig> mountConfig = Orb::ptrNew<MountConfig>(MountMode::mountAllTables);
   Orb::Ptr<Orb::ManualTimeSource> clock = Orb::ptrNew<Orb::ManualTimeSource>();
   Orb::Ptr<Keel::TimerWheel> wheel = Orb::ptrNew<Keel::TimerWheel>(clock, 1, 1024, true, 16);
   Orb::Ptr<MbbEngine::MbbEngineFlushStatus> flushStatus =
       Orb::ptrNew<MbbEngine::MbbEngineFlushStatus>("flushStatus");
   Orb::Ptr<ChipSliceTableMgrSm> mgr;
};

// One decision of a manager: what happens, and what it must leave behind. A case names only
// the fields it checks.
template <class W>
struct DecisionCase {
   std::string name;
   std::function<void(W&)> run;
   // The failed assertion's expression, empty when none may fail.
   std::string assertion;
   // Text traces that must have been written, exactly, and texts that must not have been.
   std::vector<std::string> traces;
   std::vector<std::string> absentTraces;
   // Ring-buffer records that must have been written, as the decoder prints them. A record
   // that starts "N:" with N above 0 carries the trace id of the case's Nth table: each case
   // starts the count from where the process is, so ids are compared by their offset.
   std::vector<std::string> records;
   // Tables running at the end.
   std::vector<std::string> running;
   std::function<void(W&)> check;
};

// Runs each case in a world of its own; `running(w)` names the tables running in it.
template <class W, class Running>
void runDecisionCases(const std::vector<DecisionCase<W>>& cases, Running running) {
   for (const DecisionCase<W>& c : cases) {
      SCOPED_TRACE(c.name);
      W w;
      const std::uint32_t firstQtId = getNextQtId() + 1;
      std::string failed;
      try {
         c.run(w);
      } catch (const Brio::AssertionFailure& e) {
         failed = e.expression();
      }
      EXPECT_EQ(failed, c.assertion);
      for (const std::string& text : c.traces) EXPECT_TRUE(w.capture.contains(text)) << text;
      for (const std::string& text : c.absentTraces) EXPECT_FALSE(w.capture.contains(text)) << text;
      for (std::string text : c.records) {
         const std::size_t colon = text.find(':');
         const std::uint32_t nth = std::stoul(text.substr(0, colon));
         if (nth > 0) text = std::to_string(firstQtId + nth - 1) + text.substr(colon);
         EXPECT_TRUE(hasRecord(text)) << text;
      }
      if (c.assertion.empty()) {
         EXPECT_EQ(running(w), c.running);
         if (c.check) c.check(w);
      }
   }
}

inline std::string p(const std::string& name) {
   return namePrefix + name;
}

}  // namespace ChipMbbSlice::test
