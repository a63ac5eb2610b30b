#include <gtest/gtest.h>

#include <sstream>
#include <unordered_set>

#include "Vault/MbbEngine/MbbEngine.h"

namespace {

using namespace Vault::MbbEngine;

ChipSdk::PlcmtDataBlock groupBlock(std::uint64_t grpKey) {
   const std::uint8_t payload[] = {1, 2, 3};
   return ChipSdk::PlcmtDataBuilder().selGroup(grpKey, 2).payload(payload, sizeof payload).block();
}

TEST(VaultMbbEngineTypes, KeysAndOpIdsPrintInHexadecimal) {
   EXPECT_EQ(Orb::toString(EntryKey(0xabc)), "0xabc");
   EXPECT_EQ(Orb::toString(OpId(0x12)), "0x0000000000000012");
   std::ostringstream os;
   os << EntryKey(255) << ' ' << delAckOpId;
   EXPECT_EQ(os.str(), "0xff 0xffffffffffff0000");
   EXPECT_LT(EntryKey(1), EntryKey(2));
   EXPECT_GT(OpId(3), OpId(2));

   // Keys that differ only above bit 15 still hash apart.
   std::unordered_set<std::size_t> hashes;
   for (std::uint64_t g = 0; g < 64; ++g) hashes.insert(std::hash<EntryKey>()(g << 15) % 64);
   EXPECT_GT(hashes.size(), 32u);
}

TEST(VaultMbbEngineTypes, EntryConfigRoundTripsAndKnowsDeletesAndGroups) {
   EntryConfig config(0x1234, 0x99, 7, 1, 2, 1, EntryConfig::defaultEntryIndex, 40, 41,
                      groupBlock(0xfeed));
   std::string text = Orb::toString(config);
   EXPECT_EQ(text.rfind("Value('Vault::MbbEngine::EntryConfig', ** {'key': 0x1234, 'opId': "
                        "0x0000000000000099, 'entryHandle': 7, 'priorityGroup': 1, 'priority': 2, "
                        "'indexCount': 1, 'index': 524287, 'selectorIndex': 40, 'adtIndex': 41, "
                        "'plcmtData': 'b713",
                        0),
             0u)
       << text;
   EXPECT_EQ(Orb::fromString<EntryConfig>(text), config);
   EXPECT_TRUE(config.isDefaultEntry());
   EXPECT_EQ(config.selGrpKey(), EntryKey(0xfeed));
   EXPECT_FALSE(config.isDel());

   EntryConfig direct = config;
   direct.plcmtDataIs(ChipSdk::PlcmtDataBuilder().adtMember(5).block());
   EXPECT_EQ(direct.selGrpKey(), EntryKey(0));

   EXPECT_FALSE(EntryConfig().isDel());
   EXPECT_TRUE(EntryConfig::deletion(0x1234, 0x9a).isDel());
   EXPECT_THROW(Orb::fromString<EntryConfig>(
                    "Value('Vault::MbbEngine::EntryConfig', ** {'plcmtData': 'b7x0'})"),
                Orb::ParseError);
}

TEST(VaultMbbEngineTypes, EntryStatusRoundTrips) {
   EntryStatus status(0x10, delAckOpId);
   EXPECT_EQ(
       Orb::toString(status),
       "Value('Vault::MbbEngine::EntryStatus', ** {'key': 0x10, 'opId': 0xffffffffffff0000})");
   EXPECT_EQ(Orb::fromString<EntryStatus>(Orb::toString(status)), status);
   std::ostringstream os;
   os << status;
   EXPECT_EQ(os.str(), Orb::toString(status));
}

}  // namespace
