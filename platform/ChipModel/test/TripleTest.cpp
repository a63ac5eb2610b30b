#include <gtest/gtest.h>

#include "Brio/Brio.h"
#include "ChipModel/ChipModel.h"
#include "ChipModel/testing/ChipTestUtil.h"

namespace {

using namespace ChipModel;
using namespace ChipSdk;
using namespace ChipTestUtil;

constexpr std::uint32_t grpHdl = 0x77;
constexpr std::uint64_t grpKey = 0xABCDEF01;

bf_status_t selOp(OpKind kind, std::uint32_t grp, std::uint32_t mbrHdl, std::uint32_t selIndex,
                  std::uint32_t subIndex) {
   return commit(routeSelHdl, [&](p4_pd_plcmt_info_t* info) {
      switch (kind) {
         case OpKind::selDel:
            return p4_pd_set_one_plcmt_op_sel_del(info, grp, mbrHdl, allPipes, selIndex, subIndex);
         case OpKind::selActivate:
            return p4_pd_set_one_plcmt_op_sel_activate(info, grp, mbrHdl, allPipes, selIndex,
                                                       subIndex);
         default:
            return p4_pd_set_one_plcmt_op_sel_deactivate(info, grp, mbrHdl, allPipes, selIndex,
                                                         subIndex);
      }
   });
}

bf_status_t simple(std::uint32_t tblHdl, bf_status_t (*record)(p4_pd_plcmt_info_t*, uint32_t),
                   std::uint32_t hdl) {
   return commit(tblHdl, [&](p4_pd_plcmt_info_t* info) { return record(info, hdl); });
}

bf_status_t fallback(std::uint32_t mbrHdl) {
   PlcmtDataBlock data = plainBlock();
   return commit(routeSelHdl, [&](p4_pd_plcmt_info_t* info) {
      return mbrHdl ? p4_pd_set_one_plcmt_op_sel_set_fallback(info, mbrHdl, allPipes, data.data())
                    : p4_pd_set_one_plcmt_op_sel_clr_fallback(info, allPipes);
   });
}

class Triple : public ::testing::Test {
 protected:
   InstalledChip chip{testProfile()};
   Brio::ScopedThrowingAsserts throwing;
};

TEST_F(Triple, CheckerCatchesAnEntryOnAGroupWithAnEmptyVector) {
   ASSERT_EQ(adtAdd(1), BF_SUCCESS);
   ASSERT_EQ(selAdd(grpHdl, 1, 4, 0), BF_SUCCESS);  // vector 1 (index 5) stays empty
   EXPECT_EQ(matAdd(routeHdl, 0x10, 0, grpBlock(grpKey, 2), allPipes, 4), BF_SUCCESS);
   EXPECT_EQ(chip.numViolations(ViolationKind::matGroupVectorEmpty), 1u);
   EXPECT_NE(chip.lastError().find("1 of 2 vectors empty"), std::string::npos) << chip.lastError();

   // Fatal: the first violation stops the caller, with the entry programmed as the chip would.
   chip.hitlessFatalIs(true);
   EXPECT_EQ(assertionOf([&] { matAdd(routeHdl, 0x11, 1, grpBlock(grpKey, 2), allPipes, 4); }),
             "!hitlessFatal() && \"hitless violation\"");
   EXPECT_NE(chip.matTable(0, routeHdl)->entry(0x11), nullptr);
   EXPECT_EQ(chip.numOps(OpKind::matAdd), 2u);
   EXPECT_EQ(chip.numViolations(ViolationKind::matGroupVectorEmpty), 2u);

   // A member in vector 1 repairs both entries; losing the last active member breaks them.
   ASSERT_EQ(selAdd(grpHdl, 1, 5, 0), BF_SUCCESS);
   chip.hitlessFatalIs(false);
   EXPECT_EQ(selOp(OpKind::selDeactivate, grpHdl, 1, 5, 0), BF_SUCCESS);
   EXPECT_EQ(chip.numViolations(ViolationKind::matGroupVectorEmpty), 3u);
   EXPECT_EQ(selOp(OpKind::selActivate, grpHdl, 1, 5, 0), BF_SUCCESS);
   EXPECT_EQ(selOp(OpKind::selDel, grpHdl, 1, 4, 0), BF_SUCCESS);
   EXPECT_EQ(chip.numViolations(ViolationKind::matGroupVectorEmpty), 4u);

   // The pipe's fallback member covers empty vectors until it is cleared.
   ASSERT_EQ(fallback(1), BF_SUCCESS);
   EXPECT_EQ(matAdd(routeHdl, 0x12, 2, grpBlock(grpKey, 2), allPipes, 4), BF_SUCCESS);
   EXPECT_EQ(chip.numViolations(ViolationKind::matGroupVectorEmpty), 4u);
   EXPECT_EQ(fallback(0), BF_SUCCESS);
   EXPECT_EQ(chip.numViolations(ViolationKind::matGroupVectorEmpty), 5u);
   EXPECT_EQ(fallback(0), BF_SUCCESS);  // nothing to clear is no change
   EXPECT_EQ(chip.numViolations(ViolationKind::matGroupVectorEmpty), 5u);

   // Once no entry uses the vector, nothing is broken any more.
   for (std::uint32_t hdl : {0x10u, 0x11u, 0x12u}) {
      ASSERT_EQ(simple(routeHdl, p4_pd_set_one_plcmt_op_mat_del, hdl), BF_SUCCESS);
   }
   EXPECT_EQ(chip.selTable(0, routeSelHdl)->numBrokenVectors(0), 0u);

   chip.hitlessCheckIs(false);
   EXPECT_EQ(matAdd(routeHdl, 0x13, 3, grpBlock(grpKey, 2), allPipes, 4), BF_SUCCESS);
   EXPECT_EQ(chip.numViolations(), 5u);
}

TEST_F(Triple, AdtDeleteUnderALiveMemberIsRefusedAndCaught) {
   ASSERT_EQ(adtAdd(1), BF_SUCCESS);
   ASSERT_EQ(adtAdd(2), BF_SUCCESS);
   ASSERT_EQ(selAdd(grpHdl, 1, 4, 0), BF_SUCCESS);
   ASSERT_EQ(selOp(OpKind::selDeactivate, grpHdl, 1, 4, 0), BF_SUCCESS);  // inactive, still a user
   ASSERT_EQ(matAdd(routeHdl, 0x10, 0, adtBlock(2)), BF_SUCCESS);
   EXPECT_EQ(chip.numViolations(), 0u);

   EXPECT_EQ(simple(routeAdtHdl, p4_pd_set_one_plcmt_op_adt_del, 1), BF_IN_USE);
   EXPECT_EQ(simple(routeAdtHdl, p4_pd_set_one_plcmt_op_adt_del, 2), BF_IN_USE);
   EXPECT_EQ(chip.numViolations(ViolationKind::adtDelInUse), 2u);
   EXPECT_EQ(chip.lastError(),
             "BF_IN_USE: adt_del: member handle 0x2 of route_adt still has 1 users");
   EXPECT_NE(chip.adtTable(0, routeAdtHdl)->entry(1), nullptr);
   EXPECT_NE(chip.adtTable(0, routeAdtHdl)->entry(2), nullptr);

   chip.hitlessFatalIs(true);
   EXPECT_THROW(simple(routeAdtHdl, p4_pd_set_one_plcmt_op_adt_del, 1), Brio::AssertionFailure);
   chip.hitlessFatalIs(false);

   ASSERT_EQ(selOp(OpKind::selDel, grpHdl, 1, 4, 0), BF_SUCCESS);
   EXPECT_EQ(simple(routeAdtHdl, p4_pd_set_one_plcmt_op_adt_del, 1), BF_SUCCESS);
   EXPECT_EQ(simple(routeAdtHdl, p4_pd_set_one_plcmt_op_adt_del, 1), BF_OBJECT_NOT_FOUND);

   // References to action data that is not there are violations until it is added.
   EXPECT_EQ(selAdd(grpHdl, 9, 4, 0), BF_SUCCESS);
   EXPECT_EQ(matAdd(routeHdl, 0x11, 1, adtBlock(9)), BF_SUCCESS);
   EXPECT_EQ(fallback(8), BF_SUCCESS);
   EXPECT_EQ(chip.numViolations(ViolationKind::mbrAdtMissing), 2u);
   EXPECT_EQ(chip.numViolations(ViolationKind::matAdtMissing), 1u);
   EXPECT_EQ(adtAdd(9), BF_SUCCESS);
   EXPECT_EQ(simple(routeAdtHdl, p4_pd_set_one_plcmt_op_adt_del, 9), BF_IN_USE);
}

TEST_F(Triple, SelectorAndAdtRefusals) {
   ASSERT_EQ(adtAdd(1), BF_SUCCESS);
   ASSERT_EQ(selAdd(grpHdl, 1, 4, 0), BF_SUCCESS);
   std::uint64_t applied = chip.numOps(OpKind::selAdd);
   EXPECT_EQ(selAdd(grpHdl, 1, 4, 0), BF_ALREADY_EXISTS);  // slot taken
   EXPECT_EQ(selAdd(0x79, 1, 4, 1), BF_IN_USE);            // vector of another group
   EXPECT_EQ(selAdd(grpHdl, 1, 4, selVectorMembers), BF_INVALID_ARG);
   EXPECT_EQ(selAdd(grpHdl, 1, 32, 0), BF_INVALID_ARG);
   EXPECT_EQ(selAdd(grpHdl, 0, 4, 1), BF_INVALID_ARG);
   EXPECT_EQ(selAdd(grpHdl, 1, 4, 1, 0), BF_INVALID_ARG);              // pipe of another scope
   EXPECT_EQ(selOp(OpKind::selDel, grpHdl, 2, 4, 0), BF_INVALID_ARG);  // other member
   EXPECT_EQ(selOp(OpKind::selDel, 0x79, 1, 4, 0), BF_INVALID_ARG);    // other group
   EXPECT_EQ(selOp(OpKind::selActivate, grpHdl, 1, 4, 5), BF_OBJECT_NOT_FOUND);
   EXPECT_EQ(chip.numOps(OpKind::selAdd), applied);
   const SelVector* vec = chip.selTable(0, routeSelHdl)->vector(0, 4);
   EXPECT_EQ(vec->numMembers, 1u);
   EXPECT_EQ(vec->activeCount, 1u);

   // A group reaching past the selector table is refused when an entry points at it.
   EXPECT_EQ(matAdd(routeHdl, 0x10, 0, grpBlock(grpKey, 2), allPipes, 31), BF_INVALID_ARG);
   EXPECT_EQ(matAdd(routeHdl, 0x10, 0, adtBlock(0)), BF_INVALID_ARG);

   for (std::uint32_t hdl = 2; hdl <= 8; ++hdl) ASSERT_EQ(adtAdd(hdl), BF_SUCCESS);
   EXPECT_EQ(adtAdd(9), BF_NO_SPACE);
   EXPECT_EQ(adtAdd(8), BF_ALREADY_EXISTS);
   EXPECT_EQ(adtAdd(0), BF_INVALID_ARG);
   PlcmtDataBlock data = plainBlock(5);
   EXPECT_EQ(
       commit(routeAdtHdl,
              [&](auto* info) { return p4_pd_set_one_plcmt_op_adt_mod(info, 0x99, data.data()); }),
       BF_OBJECT_NOT_FOUND);
   EXPECT_EQ(
       commit(routeAdtHdl,
              [&](auto* info) { return p4_pd_set_one_plcmt_op_adt_mod(info, 8, data.data()); }),
       BF_SUCCESS);
   EXPECT_EQ(chip.adtTable(0, routeAdtHdl)->entry(8)->data, data);
}

TEST_F(Triple, EntryScopeCoversTheWholeTriple) {
   ASSERT_EQ(pipe_mgr_tbl_set_property(1, 0, routeHdl, PIPE_MGR_TBL_PROP_ENTRY_SCOPE,
                                       PIPE_MGR_ENTRY_SCOPE_SINGLE_PIPELINE, 0),
             BF_SUCCESS);
   EXPECT_EQ(chip.table(0, routeSelHdl)->entryScope(), PIPE_MGR_ENTRY_SCOPE_SINGLE_PIPELINE);
   EXPECT_EQ(chip.table(0, routeAdtHdl)->entryScope(), PIPE_MGR_ENTRY_SCOPE_SINGLE_PIPELINE);

   // Pipe 1's entry sees pipe 1's selector only.
   ASSERT_EQ(adtAdd(1, 0), BF_SUCCESS);
   ASSERT_EQ(selAdd(grpHdl, 1, 4, 0, 0), BF_SUCCESS);
   EXPECT_EQ(matAdd(routeHdl, 0x10, 0, grpBlock(grpKey, 1), 1, 4), BF_SUCCESS);
   EXPECT_EQ(chip.numViolations(ViolationKind::matGroupVectorEmpty), 1u);
   EXPECT_EQ(matAdd(routeHdl, 0x11, 0, grpBlock(grpKey, 1), 0, 4), BF_SUCCESS);
   EXPECT_EQ(chip.numViolations(ViolationKind::matGroupVectorEmpty), 1u);
   EXPECT_EQ(pipe_mgr_tbl_set_property(1, 0, routeSelHdl, PIPE_MGR_TBL_PROP_ENTRY_SCOPE, 0, 0),
             BF_IN_USE);
}

// Faults change what the chip holds without an operation; the audits' tests show each kind
// being found. What they cannot show: corrupted data still reads as a valid block, so that
// only a comparison finds it, and a fault on nothing is refused.
TEST_F(Triple, FaultsChangeTheChipBehindTheOperationsBack) {
   chip.hitlessFatalIs(true);
   ASSERT_EQ(adtAdd(1), BF_SUCCESS);
   ASSERT_EQ(selAdd(grpHdl, 1, 4, 0), BF_SUCCESS);
   auto fault = [&](FaultKind kind, std::uint32_t tblHdl, std::uint32_t hdl,
                    std::uint32_t index = 0) {
      return chip.faultInject(Fault{kind, 0, allPipes, tblHdl, hdl, index, 0, 0});
   };
   const PlcmtDataBlock before = chip.adtTable(0, routeAdtHdl)->entry(1)->data;
   EXPECT_EQ(fault(FaultKind::corrupt, routeAdtHdl, 1), BF_SUCCESS);
   const PlcmtDataBlock& after = chip.adtTable(0, routeAdtHdl)->entry(1)->data;
   EXPECT_NE(after, before);
   EXPECT_TRUE(plcmtDataParse(after.data(), plcmtDataMaxSize).ok());
   EXPECT_EQ(fault(FaultKind::drop, routeSelHdl, 1, 4), BF_SUCCESS);
   EXPECT_EQ(fault(FaultKind::drop, routeSelHdl, 1, 4), BF_OBJECT_NOT_FOUND);
   EXPECT_EQ(fault(FaultKind::drop, routeAdtHdl, 1), BF_SUCCESS);
   EXPECT_EQ(chip.numFaults(), 3u);
   EXPECT_EQ(chip.numOps(OpKind::adtDel) + chip.numOps(OpKind::selDel), 0u);
}

}  // namespace
