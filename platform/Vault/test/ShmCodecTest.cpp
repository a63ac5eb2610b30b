#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "SampleTables.h"
#include "Vault/Vault.h"

namespace {

using VaultTest::Part;
using Codec = Vault::ShmCodec<Part>;

Part decoded(const Codec::Stored& stored) {
   Part part;
   Codec::decode(stored, part);
   return part;
}

TEST(VaultShmCodec, ValueTypesAreKeptByTheListThatPrintsThem) {
   Part part = VaultTest::partOf(0x1234, 7);
   part.label = std::string(Part::labelBound, 'x');
   Codec::Stored stored{};
   Codec::encode(part, stored);
   EXPECT_EQ(decoded(stored), part);

   // Widest fields first: three 8-byte numbers, the depth, the width, the flag, the label of
   // 15 characters and its terminator, with no holes between them.
   EXPECT_EQ(sizeof(Codec::Stored), 48u);

   // The embedded value's fields print where the list puts them, as the record's own.
   EXPECT_EQ(Orb::toString(part),
             "Value('VaultTest::Part', ** {'id': 4660, 'spare': False, 'label': "
             "'xxxxxxxxxxxxxxx', 'width': 4660, 'weight': 2330, 'depth': 7, 'version': 7})");
   EXPECT_EQ(Orb::fromString<Part>(Orb::toString(part)), part);

   part.label += 'x';
   EXPECT_THROW(Codec::encode(part, stored), Brio::RangeException);
}

TEST(VaultShmCodec, AnyBytesDecodeToSomeValue) {
   std::mt19937_64 random(11);
   for (int i = 0; i < 2000; ++i) {
      Codec::Stored stored;
      for (auto& byte : stored.bytes) byte = static_cast<unsigned char>(random());
      // A label without a terminator is read up to the end of its place, one character
      // past the bound, which a writer would refuse.
      Part part = decoded(stored);
      ASSERT_LE(part.label.size(), Part::labelBound + 1);
      (void)Orb::toString(part);
      if (part.label.size() > Part::labelBound) {
         EXPECT_THROW(Codec::encode(part, stored), Brio::RangeException);
         continue;
      }
      Codec::Stored again{};
      Codec::encode(part, again);
      Part reread = decoded(again);
      // A NaN weight never compares equal, not even to itself.
      if (part.weight != part.weight) continue;
      EXPECT_EQ(reread, part);
   }
}

}  // namespace
