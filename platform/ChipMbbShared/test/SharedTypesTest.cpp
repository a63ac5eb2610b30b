#include <gtest/gtest.h>
#include <unistd.h>

#include "Atlas/Atlas.h"
#include "ChipMbbShared/ChipMbbShared.h"

namespace {

using namespace ChipMbbShared;
using Vault::MbbEngine::EntryKey;

TEST(ChipMbbSharedTypes, SelectorMemberKeysPackGroupVectorAndSubIndex) {
   EXPECT_EQ(SelMbrEntryKey(1, 0, 0).value(), 32768u);
   SelMbrEntryKey last(1, 15, 119);
   EXPECT_EQ(last.value(), 34807u);
   EXPECT_EQ(last.selGrp(), EntryKey(1));
   EXPECT_EQ(last.vector(), 15u);
   EXPECT_EQ(last.subIndex(), 119u);
   EXPECT_EQ(SelMbrEntryKey(0xABCDEF0123ULL, 7, 3).selGrp(), EntryKey(0xABCDEF0123ULL));
   EXPECT_THROW(SelMbrEntryKey(1, 16, 0), Brio::RangeException);
   EXPECT_THROW(SelMbrEntryKey(1, 0, 120), Brio::RangeException);
   // Members of one group sort together, by vector then sub-index.
   EXPECT_LT(SelMbrEntryKey(1, 0, 119), SelMbrEntryKey(1, 1, 0));
   EXPECT_LT(SelMbrEntryKey(1, 15, 119), SelMbrEntryKey(2, 0, 0));
   EXPECT_EQ(Orb::toString(last), "0x87f7");
   EXPECT_EQ(Orb::fromString<SelMbrEntryKey>("0x87f7"), last);
}

TableConfigMountKey keyOf(std::uint8_t dev, std::uint16_t pipe, std::string name,
                          std::uint32_t id) {
   return TableConfigMountKey(ChipDriver::ChipDevTgt{dev, pipe}, std::move(name), id);
}

TEST(ChipMbbSharedTypes, MountKeysOrderAndRoundTrip) {
   auto a = keyOf(0, 0xFFFF, "ingress.acl", 0x01000010);
   EXPECT_LT(keyOf(0, 1, "z", 9), keyOf(1, 0, "a", 0));
   EXPECT_LT(keyOf(0, 1, "a", 9), keyOf(0, 1, "b", 0));
   EXPECT_LT(keyOf(0, 1, "a", 1), keyOf(0, 1, "a", 2));
   EXPECT_EQ(Orb::fromString<TableConfigMountKey>(Orb::toString(a)), a);
}

TableConfigMountEntry singleEntry(const std::string& name) {
   TableConfigMountEntry e;
   e.configPathIs("config/" + name);
   e.statusPathIs("status/" + name);
   e.needStatusIs(true);
   e.tableSizeIs(4096);
   e.maxPartitionsIs(4);
   e.publisherIdIs(3);
   e.publisherNameIs("Acl");
   e.globalIs(true);
   e.configGenTimeIs(12.5);
   e.statusGenTimeIs(12.25);
   e.instanceIdIs(7);
   return e;
}

TEST(ChipMbbSharedTypes, MountInformationTravelsThroughSharedTables) {
   auto entry = singleEntry("acl");

   std::string root = "chipshared-" + std::to_string(::getpid());
   Atlas::EntityManager publisher(root);
   Atlas::EntityManager agent(root);
   auto singles = publisher.mount<TableConfigMountInfo>("singles", Atlas::MountMode::writer, 4);
   auto key = keyOf(1, 0xFFFF, "ingress.acl", 0x10);
   singles->entryIs(key, entry);
   auto singlesRead = std::dynamic_pointer_cast<TableConfigMountInfo>(
       agent.mount("singles", "ChipMbbShared::TableConfigMountInfo", Atlas::MountMode::reader));
   ASSERT_TRUE(singlesRead);
   EXPECT_EQ(singlesRead->entry(key), entry);

   // A path too long for the table is refused, and nothing changes.
   auto tooLong = entry;
   tooLong.configPathIs(std::string(300, 'x'));
   EXPECT_THROW(singles->entryIs(key, tooLong), Brio::RangeException);
   EXPECT_EQ(singlesRead->entry(key), entry);
   EXPECT_THROW(singles->entryIs(keyOf(1, 0, std::string(200, 'n'), 1), entry),
                Brio::RangeException);
   EXPECT_EQ(singles->size(), 1u);
}

}  // namespace
