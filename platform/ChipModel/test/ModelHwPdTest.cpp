#include <string>
#include <vector>

#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "ChipModel/ChipModel.h"
#include "ChipModel/testing/ChipTestUtil.h"

namespace {

using namespace ChipTestUtil;

class ModelHwPdTest : public ::testing::Test {
 protected:
   ChipModel::InstalledChip chip{testProfile()};
   std::shared_ptr<HwPd::HwPdIntf> hwPd = ChipModel::modelHwPdNew(chip);
};

std::string readAll(int fd) {
   std::string text;
   char buffer[256];
   ssize_t got;
   while ((got = ::read(fd, buffer, sizeof(buffer))) > 0) text.append(buffer, got);
   return text;
}

// The audits' tests read every answer back against faults of each kind; what they cannot
// show is what the model answers about what is not there, and about data whose header lies.
TEST_F(ModelHwPdTest, AnswersAboutWhatIsNotThere) {
   ChipSdk::PlcmtDataBlock data = plainBlock(5);
   ASSERT_EQ(matAdd(singleHdl, 0x10, 3, data), BF_SUCCESS);
   std::vector<std::uint32_t> hdls;
   EXPECT_NE(hwPd->entryHdlsNext(1, 0, 0, singleHdl, 0x10, 1, hdls), BF_SUCCESS);
   EXPECT_NE(hwPd->entryHdlsNext(1, 0, 0, 0xBAD, 0, 1, hdls), BF_SUCCESS);
   EXPECT_NE(hwPd->entryHdlsNext(1, 9, 0, singleHdl, 0, 1, hdls), BF_SUCCESS);
   EXPECT_NE(hwPd->adtMbrHdlsNext(1, 0, 0, routeHdl, 0, 8, hdls), BF_SUCCESS);
   std::uint32_t hdl = 0;
   EXPECT_NE(hwPd->defaultEntryHdl(1, 0, 0, singleHdl, hdl), BF_SUCCESS);

   EXPECT_TRUE(hwPd->entryIsEqual(1, 0, 0, singleHdl, 0x10, data.data()));
   EXPECT_FALSE(hwPd->entryIsEqual(1, 0, 0, singleHdl, 0x11, data.data()));
   ChipSdk::PlcmtDataBlock lies = data;
   lies.bytes[1] = ChipSdk::plcmtDataMaxSize;
   EXPECT_FALSE(hwPd->entryIsEqual(1, 0, 0, singleHdl, 0x10, lies.data()));

   ASSERT_EQ(adtAdd(1), BF_SUCCESS);
   ASSERT_EQ(selAdd(0x77, 1, 4, 5), BF_SUCCESS);
   HwPd::SelMbrValue mbr;
   EXPECT_EQ(hwPd->selMbr(1, 0, 0, routeSelHdl, 4, 3, mbr), BF_OBJECT_NOT_FOUND);
   EXPECT_NE(hwPd->selMbr(1, 0, 0, routeAdtHdl, 4, 5, mbr), BF_SUCCESS);
   std::vector<HwPd::SelMbrValue> mbrs(1);
   EXPECT_EQ(hwPd->selVectorMbrs(1, 0, 0, routeSelHdl, 5, mbrs), BF_OBJECT_NOT_FOUND);
   EXPECT_TRUE(mbrs.empty());
   EXPECT_FALSE(hwPd->selMbrIsEqual(1, 0, 0, routeSelHdl, 4, 3, plainBlock().data()));
}

TEST_F(ModelHwPdTest, PrintsSchemaEntriesAndPlacementData) {
   ASSERT_EQ(adtAdd(1), BF_SUCCESS);
   ASSERT_EQ(selAdd(0x77, 1, 4, 0), BF_SUCCESS);
   ASSERT_EQ(selAdd(0x77, 1, 4, 2), BF_SUCCESS);
   ASSERT_EQ(matAdd(routeHdl, 0x10, 3, grpBlock(0xAB, 1), allPipes, 4), BF_SUCCESS);

   EXPECT_EQ(hwPd->cliSchema(0, routeHdl),
             "route MAT size 64 scope all pipes: hdl -> {index, selIndex, adtIndex, pipe, "
             "action, payload}");
   EXPECT_EQ(hwPd->cliSchema(0, 0xBAD), "unknown table 0xbad");
   EXPECT_EQ(hwPd->entryValue(1, 0, 0, routeHdl, 0x10),
             "{index: 0x3, selIndex: 0x4, adtIndex: 0x0, pipe: 0xffff, action: group 0xab "
             "vectors 1, payload:}");
   EXPECT_EQ(hwPd->entryValue(1, 0, 0, routeHdl, 0x11), "");
   EXPECT_EQ(hwPd->entryValue(1, 0, 0, routeAdtHdl, 1),
             "{pipe: 0xffff, refs: 2, action: none, payload: 01}");
   EXPECT_EQ(hwPd->entryValue(1, 0, 0, routeSelHdl, 4 + 1),
             "{grpHdl: 0x77, active: 2 of 2, members: 0:0x1* 2:0x1*}");

   int fds[2];
   ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
   ChipSdk::PlcmtDataBlock torn = adtBlock(9);
   torn.bytes[9] ^= 1;
   EXPECT_TRUE(hwPd->plcmtDataPrint(fds[0], 1, routeHdl, adtBlock(9).data()));
   EXPECT_TRUE(hwPd->plcmtDataPrint(fds[0], 0, 0xBAD, torn.data()));
   ::shutdown(fds[0], SHUT_WR);
   EXPECT_EQ(readAll(fds[1]),
             "  plcmtData route: action: adt member 0x9, payload:\n"
             "plcmtData 0xbad: invalid placement data (bad checksum)\n");
   // The client went away: the write fails, without a signal.
   ::close(fds[1]);
   EXPECT_FALSE(hwPd->plcmtDataPrint(fds[0], 0, routeHdl, adtBlock(9).data()));
   ::close(fds[0]);
}

TEST(ModelResourceInfo, ResourcesByNameIndexAndHandle) {
   auto info = ChipModel::modelResourceInfoNew(testProfile());
   EXPECT_EQ(info->hwResourceIndex("route_sel"), 4u);
   EXPECT_EQ(info->hwResourceIndex("nope"), HwResourceInfo::unknownIndex);
   HwResourceInfo::HwResource route = info->hwResource(2);
   EXPECT_EQ(route, (HwResourceInfo::HwResource{"route", routeHdl, ChipSdk::TableKind::mat, 64,
                                                routeAdtHdl, routeSelHdl}));
   EXPECT_EQ(info->hwResourceByHandle(routeHdl), route);
   EXPECT_EQ(info->hwResourceByHandle(routeAdtHdl).kind, ChipSdk::TableKind::adt);
   EXPECT_FALSE(info->hwResourceByHandle(0xBAD).known());
   EXPECT_FALSE(info->hwResource(5).known());
}

}  // namespace
