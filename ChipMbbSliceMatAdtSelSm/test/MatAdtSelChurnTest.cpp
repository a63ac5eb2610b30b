#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "ChipMbbSliceMatAdtSelSm/test/EngineTestUtil.h"

// A router's churn against the engine and the chip model, its hitless checker fatal: next hops,
// groups of one or two vectors with their members, routes on groups and on next hops directly.
// Each phase changes the wanted configuration and writes the difference in a random order,
// deletes as tombstones or erasures. Once the engine has settled, every status must equal its
// configuration and the engine's counts must equal the chip's; throughout, no status may appear
// before hardware has it, and a route's status never goes back.

namespace ChipMbbSlice::Test {
namespace {

using ChipMbbShared::AdtEntryConfig;
using ChipMbbShared::SelGrpEntryConfig;
using ChipMbbShared::SelMbrEntryConfig;
using Vault::MbbEngine::delAckOpId;
using Vault::MbbEngine::EntryConfig;
using Vault::MbbEngine::EntryStatus;

constexpr std::uint32_t numSlots = 6;
constexpr std::uint32_t maxVectors = 2;
constexpr std::uint32_t numRoutes = 20;
constexpr std::uint32_t subIndices = 5;

// A status, whenever written, must describe what the chip holds at that moment.
class StatusCheck : public Vault::MbbEngine::TableStatus::Notifiee {
 public:
   StatusCheck(std::function<std::string(EntryKey, EntryStatus)> check,
               std::vector<std::string>& violations)
       : check_(std::move(check)), violations_(violations) {}
   void onEntry(const EntryKey& key) override {
      const EntryStatus written = notifier()->entry(key);
      if (written == EntryStatus() || written.opId() == delAckOpId) return;
      const std::string problem = check_(key, written);
      if (!problem.empty()) violations_.push_back(problem + " key " + Orb::toString(key));
   }

 private:
   std::function<std::string(EntryKey, EntryStatus)> check_;
   std::vector<std::string>& violations_;
};

class Churn {
 public:
   explicit Churn(unsigned seed) : rng_(seed) {
      w.start();
      watch(w.matStatus, [this](EntryKey key, EntryStatus s) { return routeProblem(key, s); });
      watch(w.adtStatus, [this](EntryKey key, EntryStatus) {
         const Orb::Ptr<AdtState> as = w.impl->currentAdt(key);
         return std::string(as && w.adtTable().entry(as->mbrHdl()) ? ""
                                                                   : "adt status before hardware");
      });
      watch(w.mbrStatus, [this](EntryKey key, EntryStatus s) {
         const SelMbrEntryKey mk(key.value());
         const Orb::Ptr<SelGrpState> sgs = w.impl->currentSelGrp(mk.selGrp());
         if (w.mbrConfig->entry(mk).isDel() || !sgs) return std::string();
         const auto* hw = w.selTable().member(0, sgs->baseIndex() + mk.vector(), mk.subIndex());
         return std::string(hw ? "" : "member status before hardware");
      });
   }
   ~Churn() {
      for (auto& check : checks_) check->notifierIs(nullptr);
   }

   void build() {
      for (int i = 0; i < 10; ++i) nhAdd();
      for (std::uint32_t s = 0; s < numSlots; ++s) groupNew(s, 1 + rng_() % maxVectors);
      for (std::uint32_t r = 0; r < numRoutes; ++r) routePoint(r);
      publish();
   }

   void churn() {
      const int changes = 2 + rng_() % 6;
      replaced_.clear();
      for (int i = 0; i < changes; ++i) {
         using Change = void (Churn::*)();
         static constexpr Change kinds[] = {
             &Churn::memberFlap,   &Churn::memberRepoint, &Churn::memberRepoint, &Churn::memberAdd,
             &Churn::memberRemove, &Churn::routeRepoint,  &Churn::groupReplace,  &Churn::nhReplace};
         (this->*kinds[rng_() % 8])();
      }
      publish();
   }

   void teardown() {
      for (auto& entry : routes_) entry.second = EntryConfig();
      for (auto& entry : mbrs_) entry.second = SelMbrEntryConfig();
      for (auto& entry : grps_) entry.second = SelGrpEntryConfig();
      for (auto& entry : nhs_) entry.second = AdtEntryConfig();
      directNh_.clear();
      publish();
   }

   // Lets the loop turn, and the retry timer fire, until nothing waits.
   void settle() {
      for (int i = 0; i < 10 && (w.impl->numPending() != 0 || w.impl->numReofferDue() != 0); ++i) {
         w.turn();
         w.retryTurn();
      }
   }

   void checkAgreement() {
      ASSERT_TRUE(violations.empty()) << violations.front();
      ASSERT_EQ(w.chip.numViolations(), 0u);
      ASSERT_EQ(w.impl->numPending(), 0u);
      statusesMatch(w.matStatus, routes_);
      statusesMatch(w.adtStatus, nhs_);
      statusesMatch(w.grpStatus, grps_);
      statusesMatch(w.mbrStatus, mbrs_);
      std::map<EntryKey, std::uint32_t> directUsers;
      for (const auto& [route, nh] : directNh_) ++directUsers[nh];
      for (const auto& [key, as] : w.impl->currentAdts()) {
         const auto* hw = w.adtTable().entry(as->mbrHdl());
         ASSERT_NE(hw, nullptr);
         // A route holds one reference for its pending and one for its issued configuration.
         ASSERT_EQ(as->matRefCnt(), 2 * directUsers[key]) << "adt " << key;
         ASSERT_EQ(as->refCnt() + directUsers[key], hw->refCount) << "adt " << key;
      }
      for (const auto& [key, sgs] : w.impl->currentSelGrps()) {
         if (sgs->numVectors() == 0) continue;
         ASSERT_EQ(sgs->refCnt(), 2 * w.selTable().vector(0, sgs->baseIndex())->matRefs) << key;
         ASSERT_TRUE(sgs->referable());
      }
   }

   Testing::TripleWorld w{Testing::TripleSizes{64, 64, 64}};
   std::vector<std::string> violations;

 private:
   template <class Fn>
   void watch(const Orb::Ptr<Vault::MbbEngine::TableStatus>& status, Fn fn) {
      checks_.push_back(std::make_unique<StatusCheck>(fn, violations));
      checks_.back()->notifierIs(status.get());
   }

   std::string routeProblem(EntryKey key, EntryStatus written) {
      const EntryConfig c = w.matConfig->entry(key);
      if (written.opId() < lastRouteOpId_[key]) return "route status went back";
      lastRouteOpId_[key] = written.opId();
      if (c.isDel()) return "";
      const auto* hw = w.matTable().entry(c.entryHandle());
      return hw && hw->data == c.plcmtData() ? "" : "route status before hardware";
   }

   template <class Map>
   void statusesMatch(const Orb::Ptr<Vault::MbbEngine::TableStatus>& status, const Map& wanted) {
      for (const auto& [key, c] : wanted) {
         const OpId got = status->entry(EntryKey(key)).opId();
         if (c.isDel()) {
            ASSERT_TRUE(got == OpId() || got == c.opId() || got == delAckOpId) << EntryKey(key);
         } else {
            ASSERT_EQ(got, c.opId()) << "status of key " << EntryKey(key);
         }
      }
   }

   // Writes what differs from the tables in a random order.
   void publish() {
      std::vector<std::function<void()>> writes;
      diff(w.adtConfig, nhs_, writes);
      diff(w.grpConfig, grps_, writes);
      diff(w.mbrConfig, mbrs_, writes);
      diff(w.matConfig, routes_, writes);
      std::shuffle(writes.begin(), writes.end(), rng_);
      for (auto& write : writes) write();
      settle();
   }
   template <class Table, class Map>
   void diff(const Orb::Ptr<Table>& table, Map& wanted,
             std::vector<std::function<void()>>& writes) {
      using Config = typename Map::mapped_type;
      for (auto& [key, c] : wanted) {
         if (c == Config() && table->present(key)) {
            if (table->entry(key).isDel()) {
               c = table->entry(key);
               continue;
            }
            if (rng_() % 2) {
               c = Config::deletion(key, ++opIds_);
            } else {
               writes.push_back([table, key] { table->entryDel(key); });
               continue;
            }
         }
         if (c != Config() && !(table->entry(key) == c))
            writes.push_back([table, c] { table->entryIs(c); });
      }
   }

   template <class Map>
   static std::vector<typename Map::key_type> liveKeys(const Map& m) {
      std::vector<typename Map::key_type> keys;
      for (const auto& [key, c] : m) {
         if (!(c == typename Map::mapped_type()) && !c.isDel()) keys.push_back(key);
      }
      return keys;
   }
   template <class T>
   T pick(const std::vector<T>& from) {
      return from[rng_() % from.size()];
   }

   EntryKey nhAdd() {
      const EntryKey key = nextNh_++;
      nhs_[key] = AdtEntryConfig(key, ++opIds_, nextMbrHdl_++,
                                 ChipSdk::PlcmtDataBuilder().payload(&key, 1).block());
      return key;
   }
   // A next hop goes after its last user, and another one comes.
   void nhReplace() {
      std::set<EntryKey> used;
      for (const auto& key : liveKeys(mbrs_)) used.insert(mbrs_[key].adtKey());
      for (const auto& [route, nh] : directNh_) used.insert(nh);
      std::vector<EntryKey> unused;
      for (const auto& key : liveKeys(nhs_)) {
         if (!used.count(key)) unused.push_back(key);
      }
      if (!unused.empty()) nhs_[pick(unused)] = AdtEntryConfig();
      nhAdd();
   }

   void groupNew(std::uint32_t slot, std::uint32_t numVectors) {
      const EntryKey key = nextGrp_++;
      const std::uint32_t region = (slotGen_[slot]++ % 2);
      const std::uint32_t base = (slot * 2 + region) * maxVectors;
      grps_[key] = SelGrpEntryConfig(key, ++opIds_, 0x2000 + key.value(), numVectors, base, 64);
      slotGrp_[slot] = key;
      const auto nhs = liveKeys(nhs_);
      for (std::uint32_t v = 0; v < numVectors; ++v) {
         for (std::uint32_t s = 0; s < 1 + rng_() % 3; ++s) {
            memberIs(SelMbrEntryKey(key, v, s), pick(nhs), s == 0 || rng_() % 2);
         }
      }
   }
   void groupReplace() {
      // A slot's two regions alternate: its old group keeps one until it has gone.
      const std::uint32_t slot = rng_() % numSlots;
      if (!replaced_.insert(slot).second) return;
      const EntryKey old = slotGrp_[slot];
      groupNew(slot, grps_[old].numVectors());
      for (const auto& key : liveKeys(routes_)) {
         if (routes_[key].selGrpKey() == old) routePointAt(key, slotGrp_[slot]);
      }
      grps_[old] = SelGrpEntryConfig();
      for (auto& [key, c] : mbrs_) {
         if (key.selGrp() == old) c = SelMbrEntryConfig();
      }
   }

   // The configured active members of `of`'s vector.
   std::size_t activeIn(SelMbrEntryKey of) {
      std::size_t n = 0;
      for (const auto& key : liveKeys(mbrs_)) {
         n += key.selGrp() == of.selGrp() && key.vector() == of.vector() && mbrs_[key].active();
      }
      return n;
   }
   void memberIs(SelMbrEntryKey key, EntryKey nh, bool active) {
      mbrs_[key] =
          SelMbrEntryConfig(key, ++opIds_, nh, active, ChipSdk::PlcmtDataBuilder().block());
   }
   void memberFlap() {
      const auto keys = liveKeys(mbrs_);
      const SelMbrEntryKey key = pick(keys);
      SelMbrEntryConfig& c = mbrs_[key];
      if (c.active() && activeIn(key) == 1) return;
      memberIs(key, c.adtKey(), !c.active());
   }
   void memberRepoint() {
      const SelMbrEntryKey key = pick(liveKeys(mbrs_));
      memberIs(key, pick(liveKeys(nhs_)), mbrs_[key].active());
   }
   void memberAdd() {
      const EntryKey grp = slotGrp_[rng_() % numSlots];
      const SelMbrEntryKey key(grp, rng_() % grps_[grp].numVectors(), rng_() % subIndices);
      if (!(mbrs_[key] == SelMbrEntryConfig()) && !mbrs_[key].isDel()) return;
      memberIs(key, pick(liveKeys(nhs_)), rng_() % 2);
   }
   void memberRemove() {
      const SelMbrEntryKey key = pick(liveKeys(mbrs_));
      if (mbrs_[key].active() && activeIn(key) == 1) return;
      mbrs_[key] = SelMbrEntryConfig();
   }

   void routeRepoint() { routePoint(rng_() % numRoutes); }
   void routePoint(std::uint32_t r) {
      const EntryKey key = 0x100 + r;
      if (rng_() % 4 == 0) {
         const EntryKey nh = pick(liveKeys(nhs_));
         directNh_[key] = nh;
         routes_[key] =
             EntryConfig(key, ++opIds_, 0x10 + r, 0, 0, 1, r, 0, 0,
                         ChipSdk::PlcmtDataBuilder().adtMember(nhs_[nh].mbrHdl()).block());
      } else {
         routePointAt(key, slotGrp_[rng_() % numSlots]);
      }
   }
   void routePointAt(EntryKey key, EntryKey grp) {
      const SelGrpEntryConfig& g = grps_[grp];
      const std::uint32_t r = static_cast<std::uint32_t>(key.value() - 0x100);
      directNh_.erase(key);
      routes_[key] =
          EntryConfig(key, ++opIds_, 0x10 + r, 0, 0, 1, r, g.baseIndex(), 0,
                      ChipSdk::PlcmtDataBuilder()
                          .selGroup(grp.value(), static_cast<std::uint8_t>(g.numVectors()))
                          .block());
   }

   std::mt19937 rng_;
   std::vector<std::unique_ptr<StatusCheck>> checks_;
   std::map<EntryKey, AdtEntryConfig> nhs_;
   std::map<EntryKey, SelGrpEntryConfig> grps_;
   std::map<SelMbrEntryKey, SelMbrEntryConfig> mbrs_;
   std::map<EntryKey, EntryConfig> routes_;
   std::map<EntryKey, EntryKey> directNh_;
   std::map<EntryKey, OpId> lastRouteOpId_;
   std::map<std::uint32_t, EntryKey> slotGrp_;
   std::map<std::uint32_t, std::uint32_t> slotGen_;
   std::set<std::uint32_t> replaced_;
   std::uint64_t opIds_ = 0;
   std::uint64_t nextNh_ = 0xA000;
   std::uint32_t nextMbrHdl_ = 0x100;
   std::uint64_t nextGrp_ = 0x40;
};

TEST(MatAdtSelChurn, EveryStatusAndCountAgreesWithTheChipAfterEveryPhase) {
   std::uint64_t deadlockBreaks = 0;
   for (unsigned seed = 1; seed <= 40; ++seed) {
      Churn churn(seed);
      churn.build();
      churn.checkAgreement();
      for (int phase = 0; phase < 25 && !::testing::Test::HasFatalFailure(); ++phase) {
         churn.churn();
         churn.checkAgreement();
      }
      churn.teardown();
      churn.checkAgreement();
      if (::testing::Test::HasFatalFailure()) {
         ADD_FAILURE() << "seed " << seed;
         return;
      }
      EXPECT_TRUE(churn.w.chipEmpty());
      deadlockBreaks += churn.w.impl->numDeadlockBreakOps();
   }
   EXPECT_GT(deadlockBreaks, 10u) << "the churn re-pointed vectors' only active members";
}

}  // namespace
}  // namespace ChipMbbSlice::Test
