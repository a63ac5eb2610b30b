#include <gtest/gtest.h>

#include <map>
#include <set>
#include <vector>

#include "ChipModel/ChipProfile.h"
#include "SliceSystem/Routes.h"
#include "SliceSystem/TablePlan.h"
#include "SliceSystem/TableRequests.h"

namespace {

using SliceSystem::ChangeKind;
using SliceSystem::TablePlan;

// What the chip would refuse or the engine could never settle: two live entries on one index,
// an index outside the table or outside the entry's ATCAM partition, a handle used twice.
void expectPlacementSound(const TablePlan& plan, std::set<std::uint32_t>& handlesEver) {
   const auto& spec = plan.spec();
   std::uint32_t per = spec.partitions ? (spec.size + spec.partitions - 1) / spec.partitions : 0;
   std::set<std::uint32_t> indices;
   std::size_t live = 0;
   for (std::size_t i = 0; i < plan.entries().size(); ++i) {
      const TablePlan::Entry& e = plan.entries()[i];
      if (!e.live) {
         EXPECT_EQ(plan.config(i), Vault::MbbEngine::EntryConfig());
         continue;
      }
      ++live;
      EXPECT_TRUE(indices.insert(e.index).second) << "index " << e.index << " twice";
      EXPECT_LT(e.index, spec.size);
      if (per) {
         EXPECT_EQ(e.index / per, e.partition);
         EXPECT_LT(e.partition, spec.partitions);
      }
      handlesEver.insert(e.handle);
      Vault::MbbEngine::EntryConfig config = plan.config(i);
      EXPECT_EQ(config.key().value(), e.key);
      EXPECT_EQ(config.opId().value(), e.opId);
      EXPECT_EQ(config.index(), e.index);
      EXPECT_EQ(config.priorityGroup(), e.partition);
      EXPECT_EQ(config.entryHandle(), e.handle);
      EXPECT_EQ(plan.expectedOpId(i), e.opId);
   }
   EXPECT_EQ(live, plan.numLive());
}

TEST(TablePlan, ChurnKeepsIndicesHandlesAndPartitionsSound) {
   for (std::uint32_t partitions : {0u, 16u}) {
      SliceSystem::TableSpec spec{"t", 0x01000002, 4096, partitions, 3000};
      TablePlan plan(spec, SliceSystem::syntheticRoutes(3000, 7), 1);
      SliceSystem::OpIdSource opIds(100);
      std::set<std::uint32_t> handles;
      std::set<std::uint64_t> keys;

      auto added = plan.initial(opIds);
      EXPECT_EQ(added.size(), 3000u);
      for (const auto& e : plan.entries()) keys.insert(e.key);
      EXPECT_EQ(keys.size(), 3000u);
      expectPlacementSound(plan, handles);

      std::uint64_t lastOpId = 100 + 3000;
      std::map<ChangeKind, std::size_t> kinds;
      std::set<std::uint32_t> changed;
      for (const auto& change : plan.churn(0.2, opIds)) {
         ++kinds[change.kind];
         EXPECT_TRUE(changed.insert(change.entry).second) << "an entry changed twice";
         EXPECT_GE(plan.entries()[change.entry].opId, lastOpId);
      }
      for (ChangeKind kind : {ChangeKind::modify, ChangeKind::move, ChangeKind::swap,
                              ChangeKind::replace, ChangeKind::del}) {
         EXPECT_GT(kinds[kind], 0u) << SliceSystem::changeKindName(kind);
      }
      EXPECT_EQ(plan.numLive(), 3000 - kinds[ChangeKind::del]);
      std::size_t handlesBefore = handles.size();
      expectPlacementSound(plan, handles);
      // Every replace brought a handle never seen before.
      EXPECT_EQ(handles.size(), handlesBefore + kinds[ChangeKind::replace]);

      auto readded = plan.readd(opIds);
      EXPECT_EQ(readded.size(), kinds[ChangeKind::del]);
      EXPECT_EQ(plan.numLive(), 3000u);
      expectPlacementSound(plan, handles);
   }
}

// Every index of the table but the default entry's, each once, in no particular order.
TEST(TablePlan, NeverPlacesAnEntryOnTheDefaultEntryIndex) {
   constexpr std::uint32_t size = Vault::MbbEngine::EntryConfig::defaultEntryIndex + 1;
   TablePlan plan({"big", 0x01000001, size, 0, size}, SliceSystem::syntheticRoutes(size, 5), 1);
   SliceSystem::OpIdSource opIds;
   EXPECT_EQ(plan.initial(opIds).size(), size - 1);
   std::vector<bool> used(size);
   std::uint32_t inOrder = 0;
   for (std::size_t i = 0; i < plan.entries().size(); ++i) {
      const auto& e = plan.entries()[i];
      if (!e.live) continue;
      ASSERT_LT(e.index, size);
      EXPECT_FALSE(used[e.index]) << e.index;
      used[e.index] = true;
      inOrder += e.index == i;
   }
   EXPECT_FALSE(used[Vault::MbbEngine::EntryConfig::defaultEntryIndex]);
   EXPECT_LT(inOrder, size / 100);
}

TEST(TablePlan, RoutesAndTableSpecs) {
   auto routes = SliceSystem::syntheticRoutes(500, 3);
   std::set<std::uint64_t> keys;
   for (const auto& r : routes) {
      EXPECT_TRUE(keys.insert(r.key()).second);
      EXPECT_GE(r.len, 16);
      EXPECT_LE(r.len, 32);
   }
   EXPECT_EQ(routes, SliceSystem::syntheticRoutes(500, 3));
   EXPECT_NE(routes, SliceSystem::syntheticRoutes(500, 4));

   std::string source;
   EXPECT_EQ(SliceSystem::routesLoad("synthetic", 10, source).size(), 10u);
   EXPECT_EQ(source, "generator");

   ChipModel::ChipProfile profile = ChipModel::ChipProfile::defaultProfile();
   std::vector<SliceSystem::TableSpec> specs;
   std::string error;
   ASSERT_TRUE(SliceSystem::tableSpecsFor(profile, {}, 100000, specs, error));
   ASSERT_EQ(specs.size(), 3u);  // the single tables; the triple's head is not one
   EXPECT_EQ(specs[1].name, "ipv4_lpm");
   EXPECT_EQ(specs[1].partitions, 16u);
   EXPECT_EQ(specs[1].numEntries, 16384u / 4 * 3);
   ASSERT_TRUE(SliceSystem::tableSpecsFor(profile, {"acl_ingress:7"}, 100, specs, error));
   EXPECT_EQ(specs.at(0).numEntries, 7u);
   EXPECT_FALSE(SliceSystem::tableSpecsFor(profile, {"nexthop_ecmp"}, 100, specs, error));
   EXPECT_FALSE(SliceSystem::tableSpecsFor(profile, {"acl_ingress:99999"}, 100, specs, error));
   EXPECT_FALSE(SliceSystem::tableSpecsFor(profile, {"nope"}, 100, specs, error));
}

TEST(TablePlan, PrefixFileIsReadWhenPresent) {
   std::string path = SliceSystem::defaultPrefixesPath();
   if (path.empty()) GTEST_SKIP() << "no routing table snapshot beside the repository";
   std::vector<SliceSystem::Route> routes;
   std::string error;
   ASSERT_TRUE(SliceSystem::routesFromFile(path, 2000, routes, error)) << error;
   EXPECT_EQ(routes.size(), 2000u);
   std::set<std::uint64_t> keys;
   for (const auto& r : routes) keys.insert(r.key());
   EXPECT_EQ(keys.size(), routes.size());
   EXPECT_FALSE(SliceSystem::routesFromFile("/nonexistent", 10, routes, error));
}

}  // namespace
