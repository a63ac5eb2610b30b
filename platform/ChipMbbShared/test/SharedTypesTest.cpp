#include <gtest/gtest.h>
#include <unistd.h>

#include <sstream>

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

TEST(ChipMbbSharedTypes, ConfigurationsRoundTripAndKnowDeletes) {
   auto block = ChipSdk::PlcmtDataBuilder().adtMember(9).block();
   AdtEntryConfig adt(0x10, 0x2, 9, block);
   EXPECT_EQ(Orb::fromString<AdtEntryConfig>(Orb::toString(adt)), adt);
   EXPECT_FALSE(adt.isDel());
   EXPECT_TRUE(AdtEntryConfig::deletion(0x10, 3).isDel());

   SelGrpEntryConfig grp(0x20, 4, 0x100, 2, 64, 8);
   EXPECT_EQ(Orb::fromString<SelGrpEntryConfig>(Orb::toString(grp)), grp);
   EXPECT_TRUE(SelGrpEntryConfig::deletion(0x20, 5).isDel());

   SelMbrEntryConfig mbr(SelMbrEntryKey(0x20, 1, 5), 6, 0x10, true, block);
   EXPECT_EQ(Orb::fromString<SelMbrEntryConfig>(Orb::toString(mbr)), mbr);
   EXPECT_FALSE(mbr.isDel());
   EXPECT_TRUE(SelMbrEntryConfig::deletion(mbr.key(), 7).isDel());
}

TableConfigMountKey keyOf(std::uint8_t dev, std::uint16_t pipe, std::string name,
                          std::uint32_t id) {
   return TableConfigMountKey(ChipDriver::ChipDevTgt{dev, pipe}, std::move(name), id);
}

TEST(ChipMbbSharedTypes, MountKeysOrderHashAndPrint) {
   auto a = keyOf(0, 0xFFFF, "ingress.acl", 0x01000010);
   EXPECT_LT(keyOf(0, 1, "z", 9), keyOf(1, 0, "a", 0));
   EXPECT_LT(keyOf(0, 1, "a", 9), keyOf(0, 1, "b", 0));
   EXPECT_LT(keyOf(0, 1, "a", 1), keyOf(0, 1, "a", 2));
   EXPECT_EQ(std::hash<TableConfigMountKey>()(a),
             std::hash<TableConfigMountKey>()(keyOf(0, 0xFFFF, "ingress.acl", 0x01000010)));

   std::ostringstream os;
   os << a;
   EXPECT_EQ(os.str(), "ingress.acl dev:0 pipe:0xffff id:0x01000010");
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
   EXPECT_TRUE(TableConfigMountEntry().empty());
   EXPECT_TRUE(MatAdtSelTableConfigMountEntry().empty());
   auto entry = singleEntry("acl");
   EXPECT_FALSE(entry.empty());
   EXPECT_EQ(Orb::fromString<TableConfigMountEntry>(Orb::toString(entry)), entry);

   MatAdtSelTableConfigMountEntry triple;
   triple.matConfigPathIs("m/c");
   triple.adtConfigPathIs("a/c");
   triple.selGrpConfigPathIs("g/c");
   triple.selMbrConfigPathIs("s/c");
   triple.matStatusPathIs("m/s");
   triple.adtStatusPathIs("a/s");
   triple.selGrpStatusPathIs("g/s");
   triple.selMbrStatusPathIs("s/s");
   triple.adtTableIdIs(0x20);
   triple.selTableIdIs(0x30);
   triple.tableSizeIs(100);
   triple.instanceIdIs(2);
   EXPECT_EQ(Orb::fromString<MatAdtSelTableConfigMountEntry>(Orb::toString(triple)), triple);

   std::string root = "chipshared-" + std::to_string(::getpid());
   Atlas::EntityManager publisher(root);
   Atlas::EntityManager agent(root);
   auto singles = publisher.mount<TableConfigMountInfo>("singles", Atlas::MountMode::writer, 4);
   auto triples =
       publisher.mount<MatAdtSelTableConfigMountInfo>("triples", Atlas::MountMode::writer, 4);
   auto key = keyOf(1, 0xFFFF, "ingress.acl", 0x10);
   singles->entryIs(key, entry);
   triples->entryIs(key, triple);
   auto singlesRead = std::dynamic_pointer_cast<TableConfigMountInfo>(
       agent.mount("singles", "ChipMbbShared::TableConfigMountInfo", Atlas::MountMode::reader));
   auto triplesRead =
       agent.mount<MatAdtSelTableConfigMountInfo>("triples", Atlas::MountMode::reader);
   ASSERT_TRUE(singlesRead);
   EXPECT_EQ(singlesRead->entry(key), entry);
   EXPECT_EQ(triplesRead->entry(key), triple);

   // A path too long for the table is refused, and nothing changes.
   auto tooLong = entry;
   tooLong.configPathIs(std::string(300, 'x'));
   EXPECT_THROW(singles->entryIs(key, tooLong), Brio::RangeException);
   EXPECT_EQ(singlesRead->entry(key), entry);
   EXPECT_THROW(singles->entryIs(keyOf(1, 0, std::string(200, 'n'), 1), entry),
                Brio::RangeException);
   EXPECT_EQ(singles->size(), 1u);
}

TEST(ChipMbbSharedTypes, ConfigurationCollectionsMountByTypeName) {
   std::string root = "chipshared-cfg-" + std::to_string(::getpid());
   Atlas::EntityManager publisher(root);
   Atlas::EntityManager agent(root);
   auto adt = publisher.mount<AdtTableConfig>("adt", Atlas::MountMode::writer, 8);
   auto grp = publisher.mount<SelGrpTableConfig>("grp", Atlas::MountMode::writer, 8);
   auto mbr = publisher.mount<SelMbrTableConfig>("mbr", Atlas::MountMode::writer, 8);
   adt->entryIs(AdtEntryConfig(1, 1, 11));
   grp->entryIs(SelGrpEntryConfig(2, 1, 22, 1, 0, 4));
   SelMbrEntryKey mbrKey(2, 0, 0);
   mbr->entryIs(SelMbrEntryConfig(mbrKey, 1, 1, true));

   auto adtRead = agent.mount<AdtTableConfig>("adt", Atlas::MountMode::reader);
   auto grpRead = std::dynamic_pointer_cast<SelGrpTableConfig>(
       agent.mount("grp", "ChipMbbShared::SelGrpTableConfig", Atlas::MountMode::reader));
   auto mbrRead = agent.mount<SelMbrTableConfig>("mbr", Atlas::MountMode::reader);
   ASSERT_TRUE(grpRead);
   EXPECT_EQ(adtRead->entry(1).mbrHdl(), 11u);
   EXPECT_EQ(grpRead->entry(2).grpHdl(), 22u);
   EXPECT_TRUE(mbrRead->entry(mbrKey).active());
   EXPECT_THROW(agent.mount<AdtTableConfig>("grp", Atlas::MountMode::reader),
                Vault::MountException);
}

}  // namespace
