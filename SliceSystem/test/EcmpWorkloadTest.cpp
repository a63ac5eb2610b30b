#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "ChipSdk/PlcmtData.h"
#include "SliceSystem/EcmpWorkload.h"

namespace {

using namespace SliceSystem;

// What the chip would refuse or break if it held the collections as they stand: a dangling
// reference, a referenced group with a vector that has no active member, a handle or selector
// vector given twice.
std::vector<std::string> problems(const EcmpState& s, std::uint32_t selectorIndices) {
   std::vector<std::string> out;
   std::set<std::uint32_t> mbrHdls, grpHdls, routeHandles, routeIndices;
   std::vector<int> vectorOwners(selectorIndices);
   for (const auto& [key, nh] : s.nextHops) {
      if (!mbrHdls.insert(nh.mbrHdl()).second) out.push_back("next hop handle twice");
   }
   std::map<std::uint64_t, std::vector<int>> active;  // per group, active members per vector
   for (const auto& [key, g] : s.groups) {
      if (!grpHdls.insert(g.grpHdl()).second) out.push_back("group handle twice");
      for (std::uint32_t v = g.baseIndex(); v < g.baseIndex() + g.numVectors(); ++v) {
         if (v >= selectorIndices || vectorOwners[v]++) out.push_back("selector vector taken");
      }
      active[key].resize(g.numVectors());
   }
   for (const auto& [key, m] : s.members) {
      auto g = active.find(m.key().selGrp().value());
      if (g == active.end() || m.key().vector() >= g->second.size()) {
         out.push_back("member without its group or vector");
      } else if (m.active()) {
         ++g->second[m.key().vector()];
      }
      if (!s.nextHops.count(m.adtKey().value())) out.push_back("member without its next hop");
   }
   for (const auto& [key, r] : s.routes) {
      if (!routeHandles.insert(r.entryHandle()).second || !routeIndices.insert(r.index()).second)
         out.push_back("route handle or index twice");
      ChipSdk::PlcmtDataView action = ChipSdk::plcmtDataParse(r.plcmtData());
      if (action.action == ChipSdk::PlcmtAction::adtMember) {
         if (!mbrHdls.count(action.adtMbrHdl)) out.push_back("route without its next hop");
         continue;
      }
      auto g = s.groups.find(action.selGrpKey);
      if (g == s.groups.end() || g->second.numVectors() != action.numVectors ||
          g->second.baseIndex() != r.selectorIndex()) {
         out.push_back("route without its group");
         continue;
      }
      for (int n : active[action.selGrpKey]) {
         if (n == 0) out.push_back("referenced group with a vector without an active member");
      }
   }
   return out;
}

// Keeps the collections as written and, when asked, checks them after every write.
struct CheckingSink : EcmpSink {
   EcmpState state;
   bool checkEachWrite = false;
   std::uint32_t selectorIndices = 0;
   std::vector<std::string> found;

   template <class M, class V>
   void put(M& map, std::uint64_t key, const V* value) {
      value ? void(map[key] = *value) : void(map.erase(key));
      if (checkEachWrite && found.empty()) found = problems(state, selectorIndices);
   }
   void nextHopIs(const ChipMbbShared::AdtEntryConfig& c) override {
      put(state.nextHops, c.key().value(), &c);
   }
   void nextHopDel(Vault::MbbEngine::EntryKey k) override {
      put(state.nextHops, k.value(), static_cast<ChipMbbShared::AdtEntryConfig*>(nullptr));
   }
   void groupIs(const ChipMbbShared::SelGrpEntryConfig& c) override {
      put(state.groups, c.key().value(), &c);
   }
   void groupDel(Vault::MbbEngine::EntryKey k) override {
      put(state.groups, k.value(), static_cast<ChipMbbShared::SelGrpEntryConfig*>(nullptr));
   }
   void memberIs(const ChipMbbShared::SelMbrEntryConfig& c) override {
      put(state.members, c.key().value(), &c);
   }
   void memberDel(ChipMbbShared::SelMbrEntryKey k) override {
      put(state.members, k.value(), static_cast<ChipMbbShared::SelMbrEntryConfig*>(nullptr));
   }
   void routeIs(const Vault::MbbEngine::EntryConfig& c) override {
      put(state.routes, c.key().value(), &c);
   }
   void routeDel(Vault::MbbEngine::EntryKey k) override {
      put(state.routes, k.value(), static_cast<Vault::MbbEngine::EntryConfig*>(nullptr));
   }
};

// Small, with groups of several vectors and a wide one among them.
EcmpOptions small(std::uint64_t seed, EcmpOrder order) {
   EcmpOptions options;
   options.sizes = {.numNextHops = 24,
                    .numGroups = 12,
                    .numMembers = 120,
                    .maxGroupMembers = 40,
                    .vectorMembers = 6,
                    .numRoutes = 80,
                    .directRouteShare = 0.25,
                    .routeIndices = 100,
                    .selectorIndices = 64};
   options.seed = seed;
   options.order = order;
   options.churnFraction = 0.25;
   return options;
}

std::vector<EcmpPhaseKind> everyPhase() {
   std::vector<EcmpPhaseKind> kinds{EcmpPhaseKind::build};
   for (int round = 0; round < 2; ++round)
      kinds.insert(kinds.end(), ecmpChurnPhases.begin(), ecmpChurnPhases.end());
   kinds.push_back(EcmpPhaseKind::teardown);
   return kinds;
}

TEST(EcmpWorkload, WritesKeepReferencesValidAndPhaseEndsMatchTheExpectedState) {
   for (EcmpOrder order : {EcmpOrder::dependencies, EcmpOrder::shuffled}) {
      for (std::uint64_t seed = 1; seed <= 6; ++seed) {
         EcmpWorkload workload(small(seed, order));
         CheckingSink sink;
         sink.selectorIndices = workload.sizes().selectorIndices;
         // Written in dependency order, adds before deletes, every step is programmable.
         sink.checkEachWrite = order == EcmpOrder::dependencies;
         for (EcmpPhaseKind kind : everyPhase()) {
            EcmpPhase phase = workload.phase(kind);
            std::set<std::pair<EcmpTable, std::uint64_t>> keys;
            for (const EcmpWrite& w : phase.writes) {
               EXPECT_TRUE(keys.insert({w.table, w.key}).second) << phase.name;
            }
            EXPECT_EQ(phase.counts.total(), phase.writes.size());
            workload.apply(phase, sink);
            EXPECT_EQ(sink.found, std::vector<std::string>()) << phase.name << " seed " << seed;
            EXPECT_EQ(problems(sink.state, sink.selectorIndices), std::vector<std::string>());
            EcmpState expected = workload.state();
            EXPECT_TRUE(
                sink.state.nextHops == expected.nextHops && sink.state.groups == expected.groups &&
                sink.state.members == expected.members && sink.state.routes == expected.routes)
                << phase.name << " seed " << seed;
         }
         EXPECT_TRUE(sink.state.nextHops.empty() && sink.state.groups.empty() &&
                     sink.state.members.empty() && sink.state.routes.empty());
      }
   }
}

TEST(EcmpWorkload, SameSeedSameWritesOtherSeedOthers) {
   auto run = [](std::uint64_t seed) {
      EcmpWorkload workload(small(seed, EcmpOrder::shuffled));
      std::vector<std::tuple<EcmpTable, EcmpChange, std::uint64_t, std::uint64_t>> writes;
      for (EcmpPhaseKind kind : everyPhase()) {
         for (const EcmpWrite& w : workload.phase(kind).writes)
            writes.emplace_back(w.table, w.change, w.key, w.opId);
      }
      return writes;
   };
   EXPECT_EQ(run(7), run(7));
   EXPECT_NE(run(7), run(8));
}

TEST(EcmpWorkload, PhasesMakeTheChangesOfTheirKind) {
   using T = EcmpTable;
   using C = EcmpChange;
   EcmpWorkload workload(small(3, EcmpOrder::dependencies));
   EcmpCounts build = workload.phase(EcmpPhaseKind::build).counts;
   EXPECT_EQ(build.text(), "next hop add 24, group add 12, member add 120, route add 80");

   EcmpCounts flap = workload.phase(EcmpPhaseKind::flap).counts;
   EXPECT_GT(flap.of(T::member, C::deactivate), 0u);
   // The flaps left vectors with one active member; their re-point needs the new member in
   // before the old one goes.
   EcmpCounts repoint = workload.phase(EcmpPhaseKind::repoint).counts;
   EXPECT_GT(repoint.of(T::member, C::repointSole), 0u);
   EXPECT_GT(repoint.of(T::route, C::repoint), 0u);

   EcmpCounts resize = workload.phase(EcmpPhaseKind::resize).counts;
   EXPECT_GT(resize.of(T::member, C::add), 0u);
   EXPECT_GT(resize.of(T::member, C::del), 0u);

   std::size_t members = workload.numLive(T::member);
   EcmpCounts replace = workload.phase(EcmpPhaseKind::replace).counts;
   EXPECT_GT(replace.of(T::group, C::del), 0u);
   EXPECT_EQ(replace.of(T::group, C::add), replace.of(T::group, C::del));
   EXPECT_EQ(replace.of(T::member, C::add), replace.of(T::member, C::del));
   EXPECT_EQ(workload.numLive(T::member), members);

   EcmpCounts retire = workload.phase(EcmpPhaseKind::retire).counts;
   EXPECT_GT(retire.of(T::nextHop, C::del), 0u);
   EXPECT_EQ(retire.of(T::nextHop, C::add), retire.of(T::nextHop, C::del));
   EXPECT_GT(retire.of(T::nextHop, C::modify), 0u);
   EXPECT_EQ(workload.numLive(T::nextHop), 24u);

   std::size_t live = workload.numLive(T::nextHop) + workload.numLive(T::group) +
                      workload.numLive(T::member) + workload.numLive(T::route);
   EXPECT_EQ(workload.phase(EcmpPhaseKind::teardown).counts.total(), live);
}

TEST(EcmpWorkload, LargeRouterHasWideGroupsInSeveralVectors) {
   EcmpOptions options;
   options.sizes = EcmpSizes::largeRouter();
   EcmpWorkload workload(options);
   EcmpCounts build = workload.phase(EcmpPhaseKind::build).counts;
   EXPECT_EQ(build.of(EcmpTable::group, EcmpChange::add), 3968u);
   EXPECT_EQ(build.of(EcmpTable::member, EcmpChange::add), 49152u);
   EcmpState state = workload.state();
   std::map<std::uint64_t, std::uint32_t> perGroup;
   for (const auto& [key, m] : state.members) ++perGroup[m.key().selGrp().value()];
   std::uint32_t widest = 0;
   for (const auto& [key, n] : perGroup) widest = std::max(widest, n);
   EXPECT_EQ(widest, 512u);
   std::uint32_t multiVector = 0;
   for (const auto& [key, g] : state.groups) multiVector += g.numVectors() > 1;
   EXPECT_GT(multiVector, 0u);
   EXPECT_EQ(problems(state, options.sizes.selectorIndices), std::vector<std::string>());
}

}  // namespace
