#include <gtest/gtest.h>

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
