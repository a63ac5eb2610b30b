#include <gtest/gtest.h>

#include "Brio/Brio.h"
#include "ChipModel/ChipModel.h"
#include "ChipModel/testing/ChipTestUtil.h"

namespace {

using namespace ChipModel;
using namespace ChipSdk;
using namespace ChipTestUtil;

class MatOps : public ::testing::Test {
 protected:
   // The refused operation left the table as it was: entry 0x10 at index 3, nothing else.
   void expectUntouched(std::uint32_t tblHdl = singleHdl) {
      const MatTable* mat = chip.matTable(0, tblHdl);
      ASSERT_NE(mat, nullptr);
      EXPECT_EQ(mat->numEntries(0), 1u);
      ASSERT_NE(mat->entry(0x10), nullptr);
      EXPECT_EQ(mat->entry(0x10)->index, 3u);
      EXPECT_EQ(mat->entry(0x10)->data, plainBlock(1));
   }

   InstalledChip chip{testProfile()};
};

TEST_F(MatOps, RefusalsLeaveTheTableAsItWas) {
   ASSERT_EQ(matAdd(singleHdl, 0x10, 3, plainBlock(1)), BF_SUCCESS);
   std::uint64_t refusedBefore = chip.numRefusedOps();

   EXPECT_EQ(matAdd(singleHdl, 0x10, 4, plainBlock(2)), BF_ALREADY_EXISTS);  // duplicate handle
   EXPECT_NE(chip.lastError().find("entry handle 0x10 exists"), std::string::npos);
   EXPECT_EQ(matAdd(singleHdl, 0x11, 3, plainBlock(2)), BF_ALREADY_EXISTS);  // occupied index
   EXPECT_NE(chip.lastError().find("held by entry 0x10"), std::string::npos);
   EXPECT_EQ(matAdd(singleHdl, 0x11, 16, plainBlock(2)), BF_INVALID_ARG);    // out of range
   EXPECT_EQ(matAdd(singleHdl, 0, 5, plainBlock(2)), BF_INVALID_ARG);        // handle 0
   EXPECT_EQ(matAdd(singleHdl, 0x11, 5, plainBlock(2), 0), BF_INVALID_ARG);  // pipe vs scope
   EXPECT_EQ(matAdd(singleHdl, 0x11, 5, adtBlock(1)), BF_INVALID_ARG);       // no ADT here
   EXPECT_EQ(matAdd(singleHdl, 0x11, 5, grpBlock(1, 1)), BF_INVALID_ARG);    // no selector

   PlcmtDataBlock data = plainBlock(9);
   auto record = [&](auto op) { return commit(singleHdl, op); };
   EXPECT_EQ(record([&](auto* info) {
                return p4_pd_set_one_plcmt_op_mat_mov(info, 0x99, 5, 0, 0, data.data());
             }),
             BF_OBJECT_NOT_FOUND);
   EXPECT_EQ(record([&](auto* info) {
                return p4_pd_set_one_plcmt_op_mat_mod(info, 0x99, 0, 0, data.data());
             }),
             BF_OBJECT_NOT_FOUND);
   EXPECT_EQ(record([](auto* info) { return p4_pd_set_one_plcmt_op_mat_del(info, 0x99); }),
             BF_OBJECT_NOT_FOUND);
   EXPECT_EQ(record([](auto* info) { return p4_pd_set_one_plcmt_op_mat_clr_dflt(info, 0x10); }),
             BF_INVALID_ARG);  // not the default entry
   EXPECT_EQ(record([&](auto* info) {
                return p4_pd_set_one_plcmt_op_mat_mov(info, 0x10, 99, 0, 0, data.data());
             }),
             BF_INVALID_ARG);
   EXPECT_EQ(record([&](auto* info) {
                return p4_pd_set_one_plcmt_op_adt_add(info, 5, allPipes, data.data());
             }),
             BF_INVALID_ARG);  // an ADT operation on a match table
   EXPECT_EQ(chip.numRefusedOps() - refusedBefore, 13u);
   expectUntouched();

   // Unknown device or table, null batch: clear codes, nothing applied.
   p4_pd_plcmt_info_t* info = p4_pd_create_plcmt_info();
   ASSERT_EQ(p4_pd_set_one_plcmt_op_mat_del(info, 0x10), BF_SUCCESS);
   std::uint32_t processed = 7;
   EXPECT_EQ(p4_pd_process_plcmt_info(1, 2, singleHdl, info, 0, &processed), BF_INVALID_ARG);
   EXPECT_EQ(processed, 0u);
   EXPECT_NE(chip.lastError().find("device 2"), std::string::npos);
   EXPECT_EQ(p4_pd_process_plcmt_info(1, 0, 0xBAD, info, 0, &processed), BF_TABLE_NOT_FOUND);
   EXPECT_NE(chip.lastError().find("0xbad"), std::string::npos);
   EXPECT_EQ(p4_pd_process_plcmt_info(1, 0, singleHdl, nullptr, 0, &processed), BF_INVALID_ARG);
   EXPECT_EQ(chip.lastError(), "process: null batch");
   EXPECT_EQ(p4_pd_set_one_plcmt_op_mat_del(nullptr, 0x10), BF_INVALID_ARG);
   EXPECT_EQ(p4_pd_destroy_plcmt_info(info), BF_SUCCESS);
   expectUntouched();

   // A block whose header lies is refused when recorded.
   PlcmtDataBlock lies = plainBlock(3);
   lies.bytes[1] = plcmtDataMaxSize;
   info = p4_pd_create_plcmt_info();
   EXPECT_EQ(p4_pd_set_one_plcmt_op_mat_add(info, 0x12, allPipes, 6, 0, 0, lies.data()),
             BF_INVALID_ARG);
   EXPECT_EQ(chip.lastError(), "mat_add: bad checksum");
   EXPECT_EQ(p4_pd_set_one_plcmt_op_mat_add(info, 0x12, allPipes, 6, 0, 0, nullptr),
             BF_INVALID_ARG);
   EXPECT_EQ(p4_pd_process_plcmt_info(1, 0, singleHdl, info, 0, &processed), BF_SUCCESS);
   EXPECT_EQ(processed, 0u);
   p4_pd_destroy_plcmt_info(info);
   expectUntouched();
}

TEST_F(MatOps, BatchAppliesInOrderAndStopsAtTheFirstRefusal) {
   PlcmtDataBlock a = plainBlock(1);
   PlcmtDataBlock b = plainBlock(2);
   std::uint32_t processed = 0;
   bf_status_t status = commit(
       singleHdl,
       [&](p4_pd_plcmt_info_t* info) {
          p4_pd_set_one_plcmt_op_mat_add(info, 0x10, allPipes, 3, 0, 0, a.data());
          p4_pd_set_one_plcmt_op_mat_add(info, 0x11, allPipes, 4, 0, 0, a.data());
          p4_pd_set_one_plcmt_op_mat_mov(info, 0x10, 5, 0, 0, b.data());
          p4_pd_set_one_plcmt_op_mat_add(info, 0x12, allPipes, 4, 0, 0, a.data());  // refused
          return p4_pd_set_one_plcmt_op_mat_del(info, 0x11);
       },
       &processed);
   EXPECT_EQ(status, BF_ALREADY_EXISTS);
   EXPECT_EQ(processed, 3u);
   const MatTable* mat = chip.matTable(0, singleHdl);
   EXPECT_EQ(mat->entry(0x10)->index, 5u);
   EXPECT_EQ(mat->entry(0x10)->data, b);
   EXPECT_NE(mat->entry(0x11), nullptr);
   EXPECT_EQ(mat->entry(0x12), nullptr);
   EXPECT_EQ(chip.numOps(OpKind::matAdd), 2u);
   EXPECT_EQ(chip.numOps(OpKind::matMov), 1u);
   EXPECT_EQ(chip.numOps(OpKind::matDel), 0u);
   EXPECT_EQ(chip.numCommits(), 1u);

   // The freed index takes a new entry; modify keeps the index and changes the data.
   EXPECT_EQ(matAdd(singleHdl, 0x13, 3, a), BF_SUCCESS);
   EXPECT_EQ(commit(singleHdl,
                    [&](auto* info) {
                       return p4_pd_set_one_plcmt_op_mat_mod(info, 0x13, 0, 7, b.data());
                    }),
             BF_SUCCESS);
   EXPECT_EQ(mat->entry(0x13)->index, 3u);
   EXPECT_EQ(mat->entry(0x13)->adtIndex, 7u);
   EXPECT_EQ(mat->entry(0x13)->data, b);
}

TEST_F(MatOps, DefaultEntryOnePerInstance) {
   PlcmtDataBlock a = plainBlock(1);
   PlcmtDataBlock b = plainBlock(2);
   auto setDflt = [&](std::uint32_t hdl, const PlcmtDataBlock& data) {
      return commit(singleHdl, [&](auto* info) {
         return p4_pd_set_one_plcmt_op_mat_set_dflt(info, hdl, allPipes, 0, 0, data.data());
      });
   };
   std::uint32_t hdl = 0;
   EXPECT_EQ(chip.defaultEntryHdl(0, allPipes, singleHdl, hdl), BF_OBJECT_NOT_FOUND);
   ASSERT_EQ(setDflt(0x50, a), BF_SUCCESS);
   EXPECT_EQ(setDflt(0x50, b), BF_SUCCESS);  // the same handle rewrites it
   EXPECT_EQ(chip.matTable(0, singleHdl)->entry(0x50)->data, b);
   EXPECT_EQ(setDflt(0x51, a), BF_ALREADY_EXISTS);
   EXPECT_EQ(chip.defaultEntryHdl(0, 1, singleHdl, hdl), BF_SUCCESS);  // any pipe reads it
   EXPECT_EQ(hdl, 0x50u);
   ASSERT_EQ(matAdd(singleHdl, 0x10, 3, a), BF_SUCCESS);
   EXPECT_EQ(setDflt(0x10, a), BF_ALREADY_EXISTS);

   // Default entries are not among the entry handles, and are removed only as defaults.
   std::vector<std::uint32_t> hdls;
   EXPECT_EQ(chip.nextHdls(0, allPipes, singleHdl, 0, 10, hdls), BF_SUCCESS);
   EXPECT_EQ(hdls, std::vector<std::uint32_t>{0x10});
   EXPECT_EQ(
       commit(singleHdl, [](auto* info) { return p4_pd_set_one_plcmt_op_mat_del(info, 0x50); }),
       BF_INVALID_ARG);
   EXPECT_EQ(commit(singleHdl,
                    [](auto* info) { return p4_pd_set_one_plcmt_op_mat_clr_dflt(info, 0x50); }),
             BF_SUCCESS);
   EXPECT_EQ(chip.defaultEntryHdl(0, allPipes, singleHdl, hdl), BF_OBJECT_NOT_FOUND);
   EXPECT_EQ(setDflt(0x51, a), BF_SUCCESS);
}

TEST_F(MatOps, AtcamMovesStayInTheirPartition) {
   PlcmtDataBlock a = plainBlock(1);
   ASSERT_EQ(matAdd(atcamHdl, 0x10, 5, a), BF_SUCCESS);  // partition 1 holds indices 4..7
   auto mov = [&](std::uint32_t index) {
      return commit(atcamHdl, [&](auto* info) {
         return p4_pd_set_one_plcmt_op_mat_mov(info, 0x10, index, 0, 0, a.data());
      });
   };
   EXPECT_EQ(mov(8), BF_INVALID_ARG);
   EXPECT_NE(chip.lastError().find("partition 1 to partition 2"), std::string::npos);
   EXPECT_EQ(mov(3), BF_INVALID_ARG);
   EXPECT_EQ(chip.matTable(0, atcamHdl)->entry(0x10)->index, 5u);
   EXPECT_EQ(mov(7), BF_SUCCESS);
   EXPECT_EQ(mov(4), BF_SUCCESS);
   EXPECT_EQ(chip.matTable(0, atcamHdl)->entry(0x10)->index, 4u);
}

TEST_F(MatOps, EntryScopeMakesOneInstancePerPipe) {
   PlcmtDataBlock a = plainBlock(1);
   EXPECT_EQ(pipe_mgr_tbl_set_property(1, 0, singleHdl, PIPE_MGR_TBL_PROP_ENTRY_SCOPE, 2, 0),
             BF_INVALID_ARG);
   EXPECT_EQ(pipe_mgr_tbl_set_property(1, 0, singleHdl, 7, 1, 0), BF_NOT_SUPPORTED);
   EXPECT_EQ(pipe_mgr_tbl_set_property(1, 5, singleHdl, PIPE_MGR_TBL_PROP_ENTRY_SCOPE, 1, 0),
             BF_INVALID_ARG);
   EXPECT_EQ(pipe_mgr_tbl_set_property(1, 0, 0xBAD, PIPE_MGR_TBL_PROP_ENTRY_SCOPE, 1, 0),
             BF_TABLE_NOT_FOUND);
   ASSERT_EQ(pipe_mgr_tbl_set_property(1, 0, singleHdl, PIPE_MGR_TBL_PROP_ENTRY_SCOPE,
                                       PIPE_MGR_ENTRY_SCOPE_SINGLE_PIPELINE, 0),
             BF_SUCCESS);

   // The same index on two pipes; handles stay unique across pipes.
   EXPECT_EQ(matAdd(singleHdl, 0x10, 3, a, 0), BF_SUCCESS);
   EXPECT_EQ(matAdd(singleHdl, 0x11, 3, a, 1), BF_SUCCESS);
   EXPECT_EQ(matAdd(singleHdl, 0x10, 4, a, 1), BF_ALREADY_EXISTS);
   EXPECT_EQ(matAdd(singleHdl, 0x12, 4, a, allPipes), BF_INVALID_ARG);
   EXPECT_EQ(matAdd(singleHdl, 0x12, 4, a, 2), BF_INVALID_ARG);
   std::vector<std::uint32_t> hdls;
   EXPECT_EQ(chip.nextHdls(0, 1, singleHdl, 0, 10, hdls), BF_SUCCESS);
   EXPECT_EQ(hdls, std::vector<std::uint32_t>{0x11});
   EXPECT_EQ(chip.nextHdls(0, allPipes, singleHdl, 0, 10, hdls), BF_INVALID_ARG);

   // A table with entries keeps its scope; the other device is a chip of its own.
   EXPECT_EQ(pipe_mgr_tbl_set_property(1, 0, singleHdl, PIPE_MGR_TBL_PROP_ENTRY_SCOPE, 0, 0),
             BF_IN_USE);
   EXPECT_EQ(pipe_mgr_tbl_set_property(1, 0, singleHdl, PIPE_MGR_TBL_PROP_ENTRY_SCOPE, 1, 0),
             BF_SUCCESS);
   EXPECT_EQ(pipe_mgr_tbl_set_property(1, 1, singleHdl, PIPE_MGR_TBL_PROP_ENTRY_SCOPE, 0, 0),
             BF_SUCCESS);
   EXPECT_EQ(chip.table(1, singleHdl)->entryScope(), 0u);
   EXPECT_EQ(chip.table(0, singleHdl)->entryScope(), 1u);
}

// The placement calls go to the one chip installed, and nothing else slips in or out unseen.
TEST(ChipInstall, OneChipAtATimeExplicitly) {
   Chip spare(testProfile());
   {
      InstalledChip chip(testProfile());
      EXPECT_EQ(assertionOf([&] { sdkImplIs(spare); }),
                "!installedImpl && \"another chip SDK implementation is installed\"");
      EXPECT_EQ(assertionOf([&] { sdkImplDel(spare); }),
                "installedImpl == &impl && \"not the installed chip SDK implementation\"");
      ASSERT_EQ(matAdd(singleHdl, 0x10, 3, plainBlock(1)), BF_SUCCESS);
      EXPECT_NE(chip.matTable(0, singleHdl)->entry(0x10), nullptr);
      EXPECT_EQ(spare.matTable(0, singleHdl)->entry(0x10), nullptr);
      chip.inSimulationIs(false);
      EXPECT_FALSE(inSimulation());
   }
   EXPECT_EQ(sdkImpl(), nullptr);
   EXPECT_EQ(assertionOf([] { p4_pd_create_plcmt_info(); }),
             "installedImpl && \"no chip SDK implementation installed\"");

   sdkImplIs(spare);
   EXPECT_EQ(matAdd(singleHdl, 0x10, 3, plainBlock(1)), BF_SUCCESS);
   EXPECT_TRUE(inSimulation());
   sdkImplDel(spare);
}

}  // namespace
