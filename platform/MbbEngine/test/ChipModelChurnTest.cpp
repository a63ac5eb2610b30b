#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <vector>

#include "ChipModel/ChipModel.h"
#include "Keel/TimerWheel.h"
#include "MbbEngine/MbbEngine.h"
#include "MbbEngine/testing/ChipCommitHelper.h"

// The engine against the chip model under random churn: adds, modifies, moves (chains and
// cycles), index swaps, handle changes and swaps, deletes, the default entry, and changes
// that are overtaken before they settle. After every round hardware, engine and status must
// agree with the configuration, no configured key may have left hardware without a deadlock to
// break, and the chip's hitless checker is fatal throughout.

namespace {

using Vault::MbbEngine::EntryConfig;
using Vault::MbbEngine::EntryKey;
constexpr std::uint32_t dflt = EntryConfig::defaultEntryIndex;
constexpr std::uint32_t tableHdl = 0x01000100;
constexpr std::uint32_t tableSize = 96;
constexpr std::uint32_t partitions = 4;

struct Published {
   std::uint64_t opId = 0;
   std::uint32_t handle = 0;
   std::uint32_t index = 0;
   std::uint8_t data = 0;
};

// Every status written must describe what the hardware holds at that moment. A key's status
// only moves to a newer op id or to the key's delete: it vanishes while the key is configured
// only when the engine takes the key's entry out to break a deadlock.
class StatusWatch : public Vault::MbbEngine::TableStatus::Notifiee {
 public:
   void onEntry(const EntryKey& key) override {
      const auto written = status->entry(key);
      if (written == Vault::MbbEngine::EntryStatus()) {
         const EntryConfig left = config->entry(key);
         if (!(left == EntryConfig()) && !left.isDel() &&
             helper->numDeleteDeadlockOps() == deadlocksSeen) {
            violations.push_back("status of key " + Orb::toString(key) + " vanished");
         }
         deadlocksSeen = helper->numDeleteDeadlockOps();
         lastOpId.erase(key);
         return;
      }
      if (written.opId() == Vault::MbbEngine::delAckOpId) {
         lastOpId.erase(key);
         return;
      }
      if (written.opId() < lastOpId[key]) {
         violations.push_back("status of key " + Orb::toString(key) + " went back");
      }
      lastOpId[key] = written.opId();
      const EntryConfig configured = config->entry(key);
      if (configured.opId() != written.opId()) {
         violations.push_back("status of key " + Orb::toString(key) + " ahead of configuration");
         return;
      }
      if (configured.isDel()) return;
      const ChipModel::MatEntry* hw = mat->entry(configured.entryHandle());
      if (!hw || hw->data != configured.plcmtData()) {
         violations.push_back("status of key " + Orb::toString(key) + " ahead of hardware");
      }
   }
   Vault::MbbEngine::TableStatus* status = nullptr;
   Vault::MbbEngine::TableConfig* config = nullptr;
   const ChipModel::MatTable* mat = nullptr;
   const MbbEngine::Test::ChipCommitHelper* helper = nullptr;
   std::vector<std::string> violations;
   std::map<EntryKey, Vault::MbbEngine::OpId> lastOpId;
   std::uint64_t deadlocksSeen = 0;
};

class ChurnTest : public ::testing::TestWithParam<bool> {
 protected:
   void SetUp() override {
      ChipModel::ChipProfile profile;
      profile.name = "churn";
      profile.numPipes = 2;
      profile.devices = {0};
      profile.tables = {
          {"churn", tableHdl, ChipSdk::TableKind::mat, tableSize, atcam() ? partitions : 0, 0, 0}};
      chip = std::make_unique<ChipModel::InstalledChip>(profile);
      chip->hitlessFatalIs(true);
      config = Vault::MbbEngine::tableConfigFactory("churn");
      status = Vault::MbbEngine::tableStatusFactory("churn-status");
      config->mountedIs(true);
      status->mountedIs(true);
      helper =
          Orb::ptrNew<MbbEngine::Test::ChipCommitHelper>("churn", status, 0, tableHdl, tableSize);
      helper->watchedConfigIs(config);
      statusWatch.status = status.get();
      statusWatch.config = config.get();
      statusWatch.mat = chip->matTable(0, tableHdl);
      statusWatch.helper = helper.get();
      statusWatch.notifierIs(status.get());
      if (atcam()) {
         impl = Orb::ptrNew<MbbEngine::FastMbbEngineAtcamImpl>("churn", config, nullptr, nullptr,
                                                               helper, 1, partitions);
      } else {
         impl = Orb::ptrNew<MbbEngine::FastMbbEngineImpl>("churn", config, nullptr, nullptr, helper,
                                                          1);
      }
      sm = Orb::ptrNew<MbbEngine::MbbEngineSm>(config, status, nullptr, nullptr, impl, nullptr,
                                               &wheel);
   }
   void TearDown() override {
      helper->watchedConfigIs(nullptr);
      statusWatch.notifierIs(nullptr);
      sm.reset();
      EXPECT_EQ(chip->matTable(0, tableHdl)->numEntries(0), 0u);
   }

   bool atcam() const { return GetParam(); }
   std::uint32_t partitionOf(std::uint32_t index) const {
      return index == dflt ? 0 : index / (tableSize / partitions);
   }

   EntryConfig entry(std::uint64_t key, const Published& p) const {
      std::uint8_t payload[17];
      std::memcpy(payload, &key, 8);
      std::memcpy(payload + 8, &p.opId, 8);
      payload[16] = p.data;
      const auto block = ChipSdk::PlcmtDataBuilder().payload(payload, sizeof payload).block();
      return EntryConfig(key, p.opId, p.handle, atcam() ? partitionOf(p.index) : 0, 0, 1, p.index,
                         0, 0, block);
   }
   void publish(std::uint64_t key, const Published& p) { config->entryIs(entry(key, p)); }

   // One round: a consistent new configuration, published key by key in random order, some
   // keys passing through a random (possibly conflicting) configuration on the way.
   void round(std::mt19937& rng) {
      auto chance = [&](int percent) { return static_cast<int>(rng() % 100) < percent; };
      std::vector<std::uint64_t> keys;
      for (const auto& [key, p] : live) keys.push_back(key);
      std::shuffle(keys.begin(), keys.end(), rng);

      std::map<std::uint64_t, Published> next;
      std::vector<std::uint64_t> removed;
      std::vector<std::uint64_t> reindexed;
      std::vector<std::uint64_t> rehandled;
      for (std::uint64_t key : keys) {
         if (chance(10)) {
            removed.push_back(key);
            continue;
         }
         next[key] = live[key];
         if (chance(30)) reindexed.push_back(key);
         if (chance(15)) rehandled.push_back(key);
      }
      std::set<std::uint32_t> usedIndex;
      std::set<std::uint32_t> usedHandle;
      for (const auto& [key, p] : next) {
         usedIndex.insert(p.index);
         usedHandle.insert(p.handle);
      }
      std::vector<std::uint32_t> freeIndex;
      for (std::uint32_t i = 0; i < tableSize; ++i) {
         if (!usedIndex.count(i)) freeIndex.push_back(i);
      }
      if (!usedIndex.count(dflt)) freeIndex.push_back(dflt);
      std::shuffle(freeIndex.begin(), freeIndex.end(), rng);

      // Re-indexed keys share out their own indices and a few free ones: chains and cycles.
      std::vector<std::uint32_t> pool;
      for (std::uint64_t key : reindexed) pool.push_back(next[key].index);
      for (std::size_t i = 0; i < reindexed.size() / 3 && !freeIndex.empty(); ++i) {
         pool.push_back(freeIndex.back());
         freeIndex.pop_back();
      }
      std::shuffle(pool.begin(), pool.end(), rng);
      for (std::size_t i = 0; i < reindexed.size(); ++i) next[reindexed[i]].index = pool[i];
      for (std::size_t i = reindexed.size(); i < pool.size(); ++i) freeIndex.push_back(pool[i]);

      // Handles likewise, with handles freed by removed keys and fresh ones.
      std::vector<std::uint32_t> handles;
      for (std::uint64_t key : rehandled) handles.push_back(next[key].handle);
      for (std::uint64_t key : removed) handles.push_back(live[key].handle);
      for (std::size_t i = 0; i < rehandled.size() / 2 + 1; ++i) handles.push_back(nextHandle++);
      std::shuffle(handles.begin(), handles.end(), rng);
      for (std::uint64_t key : rehandled) {
         next[key].handle = handles.back();
         handles.pop_back();
      }

      // New keys take what is left.
      const std::size_t adds = rng() % 12;
      for (std::size_t i = 0; i < adds && !freeIndex.empty() && !handles.empty(); ++i) {
         Published p;
         p.index = freeIndex.back();
         freeIndex.pop_back();
         p.handle = handles.back();
         handles.pop_back();
         next[nextKey++] = p;
      }

      std::vector<std::uint64_t> order;
      for (auto& [key, p] : next) {
         const bool changed = !live.count(key) || live[key].index != p.index ||
                              live[key].handle != p.handle || chance(15);
         if (!changed) continue;
         p.data = static_cast<std::uint8_t>(rng());
         p.opId = ++opIds;
         order.push_back(key);
      }
      order.insert(order.end(), removed.begin(), removed.end());
      std::shuffle(order.begin(), order.end(), rng);

      for (std::uint64_t key : order) {
         if (chance(20)) {
            // A passing configuration, overtaken by the final one.
            Published passing;
            passing.opId = ++opIds;
            passing.index = chance(10) ? dflt : static_cast<std::uint32_t>(rng() % tableSize);
            passing.handle =
                chance(50) ? nextHandle++
                           : 0x1000 + static_cast<std::uint32_t>(rng() % (nextHandle - 0x1000));
            publish(key, passing);
         }
         if (next.count(key)) {
            if (next[key].opId <= opIdOf(key)) next[key].opId = ++opIds;
            publish(key, next[key]);
         } else if (chance(50)) {
            config->entryDel(key);
            tombstones.erase(key);
         } else {
            const std::uint64_t opId = ++opIds;
            config->entryIs(EntryConfig::deletion(key, opId));
            tombstones[key] = opId;
         }
      }
      live = next;
   }

   std::uint64_t opIdOf(std::uint64_t key) const { return config->entry(key).opId().value(); }

   void checkAgreement() {
      const ChipModel::MatTable* mat = chip->matTable(0, tableHdl);
      ASSERT_EQ(impl->numPending(), 0u);
      std::size_t inHardware = mat->numEntries(0) + (mat->defaultHdl(0) != 0);
      ASSERT_EQ(inHardware, live.size());
      ASSERT_EQ(impl->numCurrent(), live.size());
      for (const auto& [key, p] : live) {
         const EntryConfig expected = entry(key, p);
         ASSERT_EQ(config->entry(key), expected) << "key " << key;
         ASSERT_EQ(impl->currentOpId(key).value(), p.opId) << "key " << key;
         ASSERT_EQ(status->entry(key).opId().value(), p.opId) << "key " << key;
         ASSERT_EQ(impl->handleToKey(p.handle).value(), key);
         const ChipModel::MatEntry* hw = mat->entry(p.handle);
         ASSERT_NE(hw, nullptr) << "key " << key;
         ASSERT_EQ(hw->isDefault, p.index == dflt);
         if (p.index != dflt) {
            ASSERT_EQ(hw->index, p.index) << "key " << key;
         }
         ASSERT_EQ(hw->data, expected.plcmtData()) << "key " << key;
      }
      for (const auto& [key, opId] : tombstones) {
         if (live.count(key)) continue;
         const auto acked = status->entry(key).opId();
         ASSERT_TRUE(acked.value() == opId || acked == Vault::MbbEngine::delAckOpId) << key;
      }
      std::size_t statuses = live.size();
      for (const auto& [key, opId] : tombstones) statuses += !live.count(key);
      ASSERT_EQ(status->size(), statuses);
      ASSERT_TRUE(helper->violations().empty()) << helper->violations().front();
      ASSERT_TRUE(statusWatch.violations.empty()) << statusWatch.violations.front();
      ASSERT_EQ(chip->numViolations(), 0u);
   }

   std::unique_ptr<ChipModel::InstalledChip> chip;
   Keel::TimerWheel wheel{Orb::ptrNew<Orb::ManualTimeSource>(), 1, 100, true, 16};
   Orb::Ptr<Vault::MbbEngine::TableConfig> config;
   Orb::Ptr<Vault::MbbEngine::TableStatus> status;
   Orb::Ptr<MbbEngine::Test::ChipCommitHelper> helper;
   Orb::Ptr<MbbEngine::FastMbbEngineImpl> impl;
   Orb::Ptr<MbbEngine::MbbEngineSm> sm;
   StatusWatch statusWatch;
   std::map<std::uint64_t, Published> live;
   std::map<std::uint64_t, std::uint64_t> tombstones;
   std::uint64_t nextKey = 1;
   std::uint32_t nextHandle = 0x1000;
   std::uint64_t opIds = 0;
};

TEST_P(ChurnTest, HardwareEngineAndStatusAgreeWithTheConfigurationAfterEveryRound) {
   for (unsigned seed : {1u, 2u, 3u}) {
      std::mt19937 rng(seed);
      for (int r = 0; r < 150; ++r) {
         round(rng);
         checkAgreement();
         if (HasFatalFailure()) {
            ADD_FAILURE() << "seed " << seed << " round " << r;
            return;
         }
      }
   }
   // The churn exercised what it is meant to.
   EXPECT_GT(helper->numMoveOps(), 100u);
   EXPECT_GT(helper->numDeleteDeadlockOps(), 10u);
   EXPECT_GT(impl->numDeadlock(), 10u);
}

INSTANTIATE_TEST_SUITE_P(MbbEngine, ChurnTest, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Atcam" : "Plain"; });

}  // namespace
