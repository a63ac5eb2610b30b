#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <sstream>

#include "ChipMbbSlice/ChipMbbSlice.h"
#include "ChipModel/testing/ChipTestUtil.h"
#include "Orb/Orb.h"

namespace ChipMbbSlice {
namespace {

using Vault::MbbEngine::EntryStatus;

TEST(ChipEntryStatus, PrintsParsesAndCompares) {
   ChipEntryStatus empty;
   EXPECT_EQ(Orb::toString(empty),
             "Value('ChipMbbSlice::ChipEntryStatus', ** {'entryStatus': "
             "Value('Vault::MbbEngine::EntryStatus', ** {'key': 0x0, 'opId': "
             "0x0000000000000000}), 'removeFromStatus': False})");

   ChipEntryStatus status(EntryStatus(0x1234, 0x55), true);
   std::string text = Orb::toString(status);
   EXPECT_EQ(text,
             "Value('ChipMbbSlice::ChipEntryStatus', ** {'entryStatus': "
             "Value('Vault::MbbEngine::EntryStatus', ** {'key': 0x1234, 'opId': "
             "0x0000000000000055}), 'removeFromStatus': True})");
   EXPECT_EQ(Orb::fromString<ChipEntryStatus>(text), status);
   std::ostringstream stream;
   stream << status;
   EXPECT_EQ(stream.str(), text);

   EXPECT_NE(status, ChipEntryStatus(EntryStatus(0x1234, 0x55), false));
   EXPECT_NE(status, ChipEntryStatus(EntryStatus(0x1234, 0x56), true));
   EXPECT_EQ(status, ChipEntryStatus(EntryStatus(0x1234, 0x55), true));
   EXPECT_THROW(Orb::fromString<ChipEntryStatus>("Value('ChipMbbSlice::Other', ** {})"),
                Orb::ParseError);
}

TEST(LinkQueueMetadataValue, EachQueueHasItsOwnNamedValue) {
   MatDeferFreeMetadata metadata(3, 9);
   std::string text = Orb::toString(metadata);
   EXPECT_EQ(text, "Value('ChipMbbSlice::MatDeferFreeMetadata', ** {'head': 3, 'next': 9})");
   EXPECT_EQ(Orb::fromString<MatDeferFreeMetadata>(text), metadata);
   EXPECT_NE(metadata, MatDeferFreeMetadata(3, 10));
   EXPECT_NE(metadata, MatDeferFreeMetadata(4, 9));
   // Another queue's metadata is another type and does not parse from this form.
   EXPECT_THROW(Orb::fromString<AdtDeferFreeMetadata>(text), Orb::ParseError);
   EXPECT_EQ(SelPlcmtInfoStatusMetadata::orbTypeName, "ChipMbbSlice::SelPlcmtInfoStatusMetadata");
}

TEST(ModuleTypes, RegisteredAtLoad) {
   const auto& registry = Orb::TypeRegistry::instance();
   for (const char* name :
        {"ChipMbbSlice::ChipEntryStatus", "ChipMbbSlice::MatPlcmtInfoStatusMetadata",
         "ChipMbbSlice::AdtPlcmtInfoStatusMetadata", "ChipMbbSlice::SelPlcmtInfoStatusMetadata",
         "ChipMbbSlice::MatDeferFreeMetadata", "ChipMbbSlice::AdtDeferFreeMetadata",
         "ChipMbbSlice::SelDeferFreeMetadata", "ChipMbbSlice::ChipMbbEngineHelper"}) {
      EXPECT_TRUE(registry.has(name)) << name;
   }
}

TEST(PlcmtDataCopy, CopiesAsMuchAsTheBlockSays) {
   std::uint8_t payload[5] = {1, 2, 3, 4, 5};
   ChipSdk::PlcmtDataBlock block = ChipSdk::PlcmtDataBuilder().payload(payload, 5).block();
   Vault::MbbEngine::EntryConfig entry(1, 1, 0x11, 0, 0, 1, 0, 0, 0, block);
   const void* inside = getMatDataPtr(entry);
   EXPECT_EQ(inside, entry.plcmtData().data());

   void* copy = allocateAndCopyData(inside);
   ASSERT_NE(copy, inside);
   EXPECT_EQ(std::memcmp(copy, block.data(), ChipSdk::plcmtDataHeaderSize + 5), 0);
   ChipSdk::PlcmtDataView view = ChipSdk::plcmtDataParse(copy, ChipSdk::plcmtDataHeaderSize + 5);
   EXPECT_TRUE(view.ok());
   std::free(copy);
}

}  // namespace
}  // namespace ChipMbbSlice
