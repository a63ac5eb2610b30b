#include <cstdlib>
#include <cstring>
#include <memory>

#include <gtest/gtest.h>

#include "ChipSdk/ChipSdk.h"

namespace {

using namespace ChipSdk;

TEST(PlcmtData, BuiltBlocksReadBackTheirActionAndPayload) {
   const char payload[] = "10.0.0.0/8";
   PlcmtDataBlock group = PlcmtDataBuilder()
                              .selGroup(0x1234567890ABCDEFull, 16)
                              .payload(payload, sizeof(payload))
                              .block();
   PlcmtDataView view = plcmtDataParse(group);
   ASSERT_TRUE(view.ok());
   EXPECT_EQ(view.action, PlcmtAction::selGroup);
   EXPECT_EQ(view.selGrpKey, 0x1234567890ABCDEFull);
   EXPECT_EQ(view.numVectors, 16);
   EXPECT_EQ(view.length, plcmtDataHeaderSize + sizeof(payload));
   ASSERT_EQ(view.payloadSize, sizeof(payload));
   EXPECT_EQ(std::memcmp(view.payload, payload, sizeof(payload)), 0);
   EXPECT_EQ(plcmtDataSelGrpKey(group), 0x1234567890ABCDEFull);

   PlcmtDataView direct = plcmtDataParse(PlcmtDataBuilder().adtMember(0xCAFE).block());
   ASSERT_TRUE(direct.ok());
   EXPECT_EQ(direct.action, PlcmtAction::adtMember);
   EXPECT_EQ(direct.adtMbrHdl, 0xCAFEu);
   EXPECT_EQ(direct.length, plcmtDataHeaderSize);
   EXPECT_EQ(plcmtDataSelGrpKey(PlcmtDataBuilder().adtMember(0xCAFE).block()), 0u);

   // Equal contents give equal blocks, different payloads do not.
   EXPECT_EQ(PlcmtDataBuilder().payload("a", 1).block(),
             PlcmtDataBuilder().payload("a", 1).block());
   EXPECT_NE(PlcmtDataBuilder().payload("a", 1).block(),
             PlcmtDataBuilder().payload("b", 1).block());

   std::uint32_t size = 0;
   EXPECT_EQ(p4_pd_plcmt_data_size(group.data(), &size), BF_SUCCESS);
   EXPECT_EQ(size, plcmtDataHeaderSize + sizeof(payload));
}

TEST(PlcmtData, BuilderRefusesWhatDoesNotFit) {
   std::uint8_t big[plcmtDataMaxPayload + 1] = {};
   PlcmtDataBuilder tooLong;
   tooLong.payload(big, sizeof(big));
   EXPECT_FALSE(tooLong.valid());
   EXPECT_FALSE(plcmtDataParse(tooLong.block()).ok());

   PlcmtDataBuilder full;
   full.payload(big, plcmtDataMaxPayload);
   EXPECT_EQ(full.size(), plcmtDataMaxSize);
   std::uint8_t small[plcmtDataMaxSize - 1];
   EXPECT_EQ(full.writeTo(small, sizeof(small)), 0u);

   PlcmtDataBuilder tooManyVectors;
   tooManyVectors.selGroup(1, plcmtDataMaxVectors + 1);
   EXPECT_FALSE(tooManyVectors.valid());
}

TEST(PlcmtData, BrokenBlocksAreRefusedWithoutReadingPastThem) {
   PlcmtDataBlock block = PlcmtDataBuilder().adtMember(7).payload("xyz", 3).block();
   std::size_t length = block.claimedSize();

   // An exact-size heap copy whose header claims the maximum: refused on the length alone,
   // without a read past the copy (the sanitizer build would report one).
   std::unique_ptr<std::uint8_t[]> copy(new std::uint8_t[length]);
   std::memcpy(copy.get(), block.data(), length);
   copy[1] = plcmtDataMaxSize;
   EXPECT_EQ(plcmtDataParse(copy.get(), length).status, PlcmtDataStatus::badLength);

   PlcmtDataBlock lies = block;
   lies.bytes[1] = static_cast<std::uint8_t>(length + 4);  // within the capacity, but a lie
   EXPECT_EQ(plcmtDataParse(lies).status, PlcmtDataStatus::badChecksum);
   lies.bytes[1] = plcmtDataHeaderSize - 1;
   EXPECT_EQ(plcmtDataParse(lies).status, PlcmtDataStatus::badLength);
   lies.bytes[1] = plcmtDataMaxSize + 1;
   EXPECT_EQ(plcmtDataParse(lies).status, PlcmtDataStatus::badLength);

   PlcmtDataBlock torn = block;
   torn.bytes[plcmtDataHeaderSize + 1] ^= 0x40;
   EXPECT_EQ(plcmtDataParse(torn).status, PlcmtDataStatus::badChecksum);

   PlcmtDataBlock other = block;
   other.bytes[0] = 0;
   EXPECT_EQ(plcmtDataParse(other).status, PlcmtDataStatus::badMagic);
   EXPECT_EQ(plcmtDataParse(block.data(), plcmtDataHeaderSize - 1).status,
             PlcmtDataStatus::truncated);
   EXPECT_EQ(plcmtDataParse(nullptr, plcmtDataMaxSize).status, PlcmtDataStatus::truncated);
   EXPECT_EQ(plcmtDataParse(PlcmtDataBlock{}).status, PlcmtDataStatus::badMagic);

   // The size comes from the header: a torn payload still has its length, and the record
   // call refuses it later; a header that does not hold together is reported with a size that
   // a copy can be examined within.
   std::uint32_t size = 0;
   EXPECT_EQ(p4_pd_plcmt_data_size(torn.data(), &size), BF_SUCCESS);
   EXPECT_EQ(size, block.claimedSize());
   EXPECT_EQ(p4_pd_plcmt_data_size(lies.data(), &size), BF_INVALID_ARG);
   EXPECT_EQ(size, plcmtDataMaxSize);
   EXPECT_EQ(p4_pd_plcmt_data_size(other.data(), &size), BF_INVALID_ARG);
   EXPECT_EQ(size, plcmtDataMaxSize);
   EXPECT_EQ(p4_pd_plcmt_data_size(nullptr, &size), BF_INVALID_ARG);
   EXPECT_EQ(size, 0u);
}

}  // namespace
