#include <gtest/gtest.h>

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
   EXPECT_THROW(Orb::fromString<ChipEntryStatus>("Value('ChipMbbSlice::Other', ** {})"),
                Orb::ParseError);
}

TEST(LinkQueueMetadataValue, EachQueueHasItsOwnNamedValue) {
   MatDeferFreeMetadata metadata(3, 9);
   std::string text = Orb::toString(metadata);
   EXPECT_EQ(text, "Value('ChipMbbSlice::MatDeferFreeMetadata', ** {'head': 3, 'next': 9})");
   EXPECT_EQ(Orb::fromString<MatDeferFreeMetadata>(text), metadata);
   // Another queue's metadata is another type and does not parse from this form.
   EXPECT_THROW(Orb::fromString<AdtDeferFreeMetadata>(text), Orb::ParseError);
}

}  // namespace
}  // namespace ChipMbbSlice
