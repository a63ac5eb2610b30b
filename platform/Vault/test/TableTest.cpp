#include <gtest/gtest.h>

#include <map>
#include <random>
#include <vector>

#include "SampleTables.h"
#include "Vault/Vault.h"

namespace {

using VaultTest::Part;
using VaultTest::partOf;
using VaultTest::PartTable;

struct Recorder : PartTable::Notifiee {
   void onEntry(const std::uint64_t& key) override { keys.push_back(key); }
   void onEntry() override { ++wholeTable; }
   std::vector<std::uint64_t> keys;
   int wholeTable = 0;
};

std::vector<std::uint64_t> keysOf(const PartTable& table) {
   std::vector<std::uint64_t> keys;
   for (const auto& [key, value] : table) keys.push_back(key);
   return keys;
}

TEST(VaultTable, WritesReadsAndNotifiesPerKey) {
   auto table = Vault::localTableNew<PartTable>("parts");
   Recorder recorder;
   recorder.notifierIs(table.get());

   table->mountedIs(true);
   EXPECT_EQ(recorder.wholeTable, 1);

   EXPECT_EQ(table->entry(7), Part());
   table->entryIs(partOf(7, 1));
   table->entryIs(partOf(3, 1));
   EXPECT_EQ(table->entry(7), partOf(7, 1));
   EXPECT_EQ(table->size(), 2u);

   // The same value again is no change.
   table->entryIs(partOf(7, 1));
   table->entryIs(9, partOf(9, 1));
   table->entryDel(3);
   table->entryDel(3);
   EXPECT_EQ(recorder.keys, (std::vector<std::uint64_t>{7, 3, 9, 3}));
   EXPECT_FALSE(table->present(3));

   table->entryDelAll();
   EXPECT_EQ(table->size(), 0u);
   EXPECT_EQ(recorder.keys.size(), 6u);
}

TEST(VaultTable, WalksInKeyOrderFromAnyKeyAndSurvivesChanges) {
   auto table = Vault::localTableNew<PartTable>("parts");
   for (std::uint64_t key : {50, 10, 40, 20, 30}) table->entryIs(partOf(key, 1));
   EXPECT_EQ(keysOf(*table), (std::vector<std::uint64_t>{10, 20, 30, 40, 50}));

   std::vector<std::uint64_t> from;
   for (auto it = table->iter(25); it != table->end(); ++it) from.push_back(it->first);
   EXPECT_EQ(from, (std::vector<std::uint64_t>{30, 40, 50}));
   EXPECT_EQ(table->iterAfter(30)->first, 40u);
   EXPECT_EQ(table->iter(51), table->end());

   // Deleting the current key and adding one ahead during a walk.
   std::vector<std::uint64_t> seen;
   for (auto it = table->begin(); it != table->end(); ++it) {
      seen.push_back(it->first);
      if (it->first == 20) {
         table->entryDel(20);
         table->entryDel(30);
         table->entryIs(partOf(45, 1));
      }
   }
   EXPECT_EQ(seen, (std::vector<std::uint64_t>{10, 20, 40, 45, 50}));
}

// Walks between changes, after bursts of changes and after bursts of deletes, checked against
// a tree: the order is kept lazily, so each of these takes another way to bring it up to date.
TEST(VaultTable, WalksAgreeWithATreeUnderEveryMixOfChanges) {
   auto table = Vault::localTableNew<PartTable>("parts");
   std::map<std::uint64_t, std::uint64_t> model;
   std::mt19937_64 random(7);
   auto check = [&] {
      std::vector<std::uint64_t> expected;
      for (const auto& [key, version] : model) expected.push_back(key);
      ASSERT_EQ(keysOf(*table), expected);
      ASSERT_EQ(table->size(), model.size());
   };
   for (int burst : {1, 1, 3, 50, 2000, 1, 5000, 7, 1}) {
      for (int round = 0; round < 20; ++round) {
         for (int i = 0; i < burst; ++i) {
            const std::uint64_t key = random() % 3000 + 1;
            if (random() % 3 == 0) {
               table->entryDel(key);
               model.erase(key);
            } else {
               table->entryIs(partOf(key, round + 1));
               model[key] = round + 1;
            }
         }
         check();
         const std::uint64_t from = random() % 3000;
         auto it = table->iterAfter(from);
         auto want = model.upper_bound(from);
         ASSERT_EQ(it == table->end(), want == model.end());
         if (want != model.end()) {
            EXPECT_EQ(it->second, partOf(want->first, want->second));
         }
      }
   }
}

TEST(VaultTable, FullTableRefusesNewKeysAndStaysAsItWas) {
   auto table = Vault::localTableNew<PartTable>("small", Vault::MapDescriptor{2});
   table->entryIs(partOf(1, 1));
   table->entryIs(partOf(2, 1));
   try {
      table->entryIs(partOf(3, 1));
      FAIL() << "a third key fit into a table of two";
   } catch (const Vault::TableFullException& e) {
      EXPECT_NE(std::string(e.what()).find("small"), std::string::npos) << e.what();
   }
   // Existing keys can still change, and a freed place can be reused.
   table->entryIs(partOf(2, 5));
   table->entryDel(1);
   table->entryIs(partOf(3, 1));
   EXPECT_EQ(keysOf(*table), (std::vector<std::uint64_t>{2, 3}));
}

}  // namespace
