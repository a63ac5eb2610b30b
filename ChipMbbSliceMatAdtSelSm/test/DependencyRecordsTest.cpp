#include <gtest/gtest.h>

#include <functional>
#include <sstream>

#include "Brio/Brio.h"
#include "ChipMbbSliceMatAdtSelSm/ChipMbbSliceMatAdtSelSm.h"
#include "ChipModel/testing/ChipTestUtil.h"

namespace ChipMbbSlice {
namespace {

using ChipMbbShared::SelMbrEntryKey;

std::string rangeErrorOf(const std::function<void()>& fn) {
   try {
      fn();
   } catch (const Brio::RangeException& e) {
      return e.what();
   }
   return "";
}

TEST(DependencyRecords, VectorsPastFifteenAreRefusedAlsoWhenParsed) {
   const std::string range = "VectorIndex::value < 0 or > 15 not allowed";
   EXPECT_EQ(rangeErrorOf([] { VectorIndex(16); }), range);
   EXPECT_EQ(
       rangeErrorOf([] {
          Orb::fromString<VectorIndex>("Value('ChipMbbSlice::VectorIndex', ** {'value': 16})");
       }),
       range);
}

TEST(DependencyRecords, DumpLines) {
   AdtState as(0x1234, 0x55, 0x7);
   as.refCntInc(2);
   as.refCntInc(~0u);
   EXPECT_EQ(as.refCnt(), 1u);
   as.referableIs(true);
   std::ostringstream os;
   as.dump(os);
   EXPECT_EQ(os.str(),
             "    mbrHdl: 0x55 adtKey: 0x1234 adtOpId: 0x0000000000000007 refCnt: 1 referable: 1 "
             "queueDelete: 0\n");
   as.matRefCntInc(1);
   os.str("");
   as.dump(os);
   EXPECT_NE(os.str().find("queueDelete: 0 matRefCnt: 1\n"), std::string::npos);
   SelGrpState grp(1, 2, 0x10, 2, 0x40);
   grp.issuedSelMbrIs(SelMbrEntryKey(1, 1, 3),
                      Orb::ptrNew<SelMbrState>(SelMbrEntryKey(1, 1, 3), 4, 0x77, 0x9, true));
   grp.activeMbrCntIs(VectorIndex(1), 1);
   os.str("");
   grp.dump(os);
   EXPECT_EQ(os.str(),
             "    grpKey: 0x1 opId: 0x0000000000000002 grpHdl: 0x00000010 numVectors: 2 "
             "baseIndex: 0x40 refCnt: 0 referable: 0\n"
             "Vector 0 active members 0:\n"
             "Vector 1 active members 1:\n"
             "1:3: opId: 0x0000000000000004 adtKey: 0x77 mbrHdl: 0x9 active:1\n");
}

TEST(DependencyRecords, GroupBecomesReferableOnlyWhenEveryVectorHasAnActiveMember) {
   SelGrpState none(1, 1, 0x10, 0, 0);
   none.updateReferable();
   EXPECT_TRUE(none.referable()) << "a group without vectors needs no member";

   SelGrpState grp(1, 2, 0x10, 2, 0x40);
   grp.activeMbrCntIs(VectorIndex(0), 1);
   grp.updateReferable();
   EXPECT_FALSE(grp.referable());
   grp.activeMbrCntIs(VectorIndex(1), 1);
   grp.updateReferable();
   EXPECT_TRUE(grp.referable());

   grp.activeMbrCntDel(VectorIndex(1));
   EXPECT_EQ(ChipTestUtil::assertionOf([&] { grp.updateReferable(); }),
             "!referable(): 0 mbrCnt but referable is set");

   SelGrpState tooWide(2, 1, 0x11, 17, 0);
   for (std::uint32_t v = 0; v < 16; ++v) tooWide.activeMbrCntIs(VectorIndex(v), 1);
   EXPECT_EQ(rangeErrorOf([&] { tooWide.updateReferable(); }),
             "VectorIndex::value < 0 or > 15 not allowed");
}

}  // namespace
}  // namespace ChipMbbSlice
