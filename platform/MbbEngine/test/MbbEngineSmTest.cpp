#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <utility>
#include <vector>

#include "MbbEngine/test/RecordingHelper.h"

namespace {

using MbbEngine::PendingReason;
using MbbEngine::Test::EngineFixture;
using MbbEngine::Test::Op;
using Ops = std::vector<Op>;

// An engine whose dependant tables are ready only for the keys a test lets through.
class GatedEngine : public MbbEngine::FastMbbEngineImpl {
 public:
   using FastMbbEngineImpl::FastMbbEngineImpl;
   bool processDependantTables(const Vault::MbbEngine::EntryConfig& config,
                               const Vault::MbbEngine::EntryKey& key) override {
      ++asked[key.value()];
      return ready.count(key.value()) != 0;
   }
   std::set<std::uint64_t> ready;
   std::map<std::uint64_t, int> asked;
};

TEST(MbbEngineSm, KeysHeldBackByDependantTablesAreRetriedUntilReady) {
   EngineFixture<GatedEngine> f;
   f.publish(1, 1, 0x100, 5);
   f.publish(2, 1, 0x200, 6);
   EXPECT_TRUE(f.helper->take().empty());
   EXPECT_EQ(f.impl->pendingEntry(1)->reason, PendingReason::dependants);
   EXPECT_EQ(f.sm->numFailedKey(), 2u);
   const std::uint64_t ti1 = f.impl->pendingEntry(1)->ti;

   // Not yet due.
   f.advance(f.sm->retryPeriod() / 2);
   EXPECT_EQ(f.impl->asked[1], 1);
   // Due, still not ready: offered again, nothing issued, its change keeps its place.
   f.advance(f.sm->retryPeriod());
   EXPECT_EQ(f.impl->asked[1], 2);
   EXPECT_TRUE(f.helper->take().empty());
   EXPECT_EQ(f.impl->pendingEntry(1)->ti, ti1);

   f.impl->ready.insert(1);
   f.advance(f.sm->retryPeriod());
   EXPECT_EQ(f.helper->take(), (Ops{{"add", 1, 0x100, 5, 1}}));
   EXPECT_EQ(f.sm->numFailedKey(), 1u);

   // A retry offers at most retryDepsMaxCnt keys, oldest change first.
   f.publish(3, 1, 0x300, 7);
   f.impl->retryDepsMaxCntIs(1);
   f.impl->ready.insert({2, 3});
   f.advance(f.sm->retryPeriod());
   EXPECT_EQ(f.helper->take(), (Ops{{"add", 2, 0x200, 6, 1}}));
   f.advance(f.sm->retryPeriod());
   EXPECT_EQ(f.helper->take(), (Ops{{"add", 3, 0x300, 7, 1}}));
   EXPECT_EQ(f.sm->numFailedKey(), 0u);
   EXPECT_FALSE(f.sm->retryTimerSet());
}

TEST(MbbEngineSm, AKeyWhoseWayIsFreedStillAsksItsDependantTables) {
   EngineFixture<GatedEngine> f;
   f.impl->ready.insert({1, 2});
   f.publish(1, 1, 0x100, 5);
   f.publish(2, 1, 0x200, 5);
   EXPECT_EQ(f.helper->take(), (Ops{{"add", 1, 0x100, 5, 1}}));
   EXPECT_EQ(f.impl->pendingEntry(2)->reason, PendingReason::index);
   f.impl->ready.erase(2);
   f.config->entryDel(1);
   EXPECT_EQ(f.helper->take(), (Ops{{"del", 1, 0x100, 5, 1}}));
   EXPECT_EQ(f.impl->pendingEntry(2)->reason, PendingReason::dependants);
   EXPECT_EQ(f.sm->failedKey(2), f.impl->pendingEntry(2)->ti);
}

TEST(MbbEngineSm, WholeTablePassFlushesOnceAndCountsTheTableOnce) {
   auto config = Vault::MbbEngine::tableConfigFactory("acl");
   auto status = Vault::MbbEngine::tableStatusFactory("acl-status");
   status->mountedIs(true);
   auto helper = Orb::ptrNew<MbbEngine::Test::RecordingHelper>("helper", status, 64);
   auto impl =
       Orb::ptrNew<MbbEngine::FastMbbEngineImpl>("acl", config, nullptr, nullptr, helper, 3);
   auto flushStatus = Orb::ptrNew<MbbEngine::MbbEngineFlushStatus>();
   flushStatus->tableCounterIs(255);
   flushStatus->flushCounterIs(255);
   Keel::TimerWheel wheel(Orb::ptrNew<Orb::ManualTimeSource>(), 1, 100, true, 16);
   // Published before the table is mounted: the engine sees it in one pass.
   for (std::uint64_t k = 1; k <= 5; ++k) {
      config->entryIs(EngineFixture<>::entry(k, 1, 0x100 + k, 10 - k));
   }
   auto sm = Orb::ptrNew<MbbEngine::MbbEngineSm>(config, status, nullptr, nullptr, impl,
                                                 flushStatus, &wheel);
   EXPECT_EQ(flushStatus->tableCounter(), 0u);
   EXPECT_FALSE(flushStatus->allFlushed());
   EXPECT_TRUE(helper->ops.empty());

   config->mountedIs(true);
   EXPECT_EQ(helper->take().size(), 5u);
   EXPECT_EQ(helper->numFlushOps, 1);
   EXPECT_TRUE(flushStatus->allFlushed());

   // While notifications are off the configuration moves on: key 1 goes, key 2 changes, and
   // key 6 arrives. Switching them on catches up in one pass, without counting the table again.
   sm->hasNotificationActiveIs(false);
   config->entryDel(1);
   config->entryIs(EngineFixture<>::entry(2, 2, 0x102, 20));
   config->entryIs(EngineFixture<>::entry(6, 1, 0x106, 30));
   EXPECT_TRUE(helper->ops.empty());
   sm->hasNotificationActiveIs(true);
   EXPECT_EQ(helper->take(),
             (Ops{{"mov", 2, 0x102, 20, 2}, {"add", 6, 0x106, 30, 1}, {"del", 1, 0x101, 9, 1}}));
   EXPECT_EQ(helper->numFlushOps, 2);
   EXPECT_EQ(flushStatus->flushCounter(), 0u);

   // The engine going takes its table out of hardware.
   sm.reset();
   EXPECT_EQ(helper->take().size(), 5u);
   EXPECT_EQ(status->size(), 0u);
}

// A reader's store whose record of one key cannot be read, as a damaged shared segment would
// be. What another process writes comes with write() and reaches the table when it drains.
class DamagedStore
    : public Vault::HeapStore<Vault::MbbEngine::EntryKey, Vault::MbbEngine::EntryConfig> {
 public:
   void write(const Vault::MbbEngine::EntryConfig& config) {
      put(config.key(), config);
      written_.push_back(config.key());
   }
   void changesDrain(Vault::ChangeSink<Vault::MbbEngine::EntryKey>& sink) override {
      for (const auto& key : std::exchange(written_, {})) sink.keyChanged(key);
   }
   bool writable() const override { return false; }
   bool find(const Vault::MbbEngine::EntryKey& key,
             Vault::MbbEngine::EntryConfig& value) const override {
      if (key == damaged) throw Vault::StoreCorruption("bad checksum");
      return HeapStore::find(key, value);
   }
   std::optional<std::pair<Vault::MbbEngine::EntryKey, Vault::MbbEngine::EntryConfig>> next(
       const Vault::MbbEngine::EntryKey* from, bool inclusive) const override {
      auto entry = HeapStore::next(from, inclusive);
      if (entry && entry->first == damaged) throw Vault::StoreCorruption("bad checksum");
      return entry;
   }
   Vault::MbbEngine::EntryKey damaged = ~std::uint64_t{0};

 private:
   std::vector<Vault::MbbEngine::EntryKey> written_;
};

TEST(MbbEngineSm, ADamagedRecordIsSkippedAndTakesNothingOut) {
   auto store = std::make_unique<DamagedStore>();
   DamagedStore* damage = store.get();
   auto config = Orb::ptrNew<Vault::MbbEngine::TableConfig>("damaged", std::move(store));
   int reports = 0;
   config->corruptionHandlerIs([&](const std::string&) { ++reports; });
   for (std::uint64_t k = 1; k <= 3; ++k) damage->write(EngineFixture<>::entry(k, 1, 0x100 + k, k));
   config->changesDrain();
   auto helper = Orb::ptrNew<MbbEngine::Test::RecordingHelper>("helper", nullptr, 64);
   auto impl =
       Orb::ptrNew<MbbEngine::FastMbbEngineImpl>("damaged", config, nullptr, nullptr, helper, 5);
   auto flushStatus = Orb::ptrNew<MbbEngine::MbbEngineFlushStatus>();
   Keel::TimerWheel wheel(Orb::ptrNew<Orb::ManualTimeSource>(), 1, 100, true, 16);
   MbbEngine::MbbEngineSm sm(config, nullptr, nullptr, nullptr, impl, flushStatus, &wheel);

   // A first pass that cannot read every record does not count as the table's first pass.
   damage->damaged = 3;
   config->mountedIs(true);
   EXPECT_EQ(helper->take().size(), 2u);
   EXPECT_EQ(reports, 1);
   EXPECT_EQ(flushStatus->flushCounter(), 0u);
   damage->damaged = ~std::uint64_t{0};
   sm.handleEntryCollNotify();
   EXPECT_EQ(helper->take(), (Ops{{"add", 3, 0x103, 3, 1}}));
   EXPECT_EQ(flushStatus->flushCounter(), 1u);

   // A damaged key is skipped; a pass cut short by it takes no unread key out.
   damage->damaged = 2;
   damage->write(EngineFixture<>::entry(2, 2, 0x102, 9));
   config->changesDrain();
   EXPECT_TRUE(helper->take().empty());
   sm.handleEntryCollNotify();
   EXPECT_TRUE(helper->take().empty());
   EXPECT_EQ(impl->numCurrent(), 3u);
   EXPECT_EQ(reports, 3);

   // Without a status collection deletes still reach hardware, and acknowledge nothing.
   damage->write(Vault::MbbEngine::EntryConfig::deletion(1, 2));
   damage->write(Vault::MbbEngine::EntryConfig::deletion(4, 1));
   config->changesDrain();
   EXPECT_EQ(helper->take(), (Ops{{"del", 1, 0x101, 1, 2}}));
}

}  // namespace
