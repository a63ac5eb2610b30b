#include <set>
#include <vector>

#include <gtest/gtest.h>

#include "HwPd/HwPd.h"

namespace {

using HwPd::HwPdTableIterator;

// One table whose handles the test changes underneath the walk.
class TableOfHandles : public HwPd::HwPdIntf {
 public:
   bf_status_t entryHdlsNext(std::uint32_t, std::uint8_t, std::uint16_t, std::uint32_t,
                             std::uint32_t after, std::uint32_t count,
                             std::vector<std::uint32_t>& out) const override {
      out.clear();
      for (auto it = hdls.upper_bound(after); it != hdls.end() && out.size() < count; ++it) {
         out.push_back(*it);
      }
      return out.empty() ? BF_OBJECT_NOT_FOUND : BF_SUCCESS;
   }
   bf_status_t adtMbrHdlsNext(std::uint32_t, std::uint8_t, std::uint16_t, std::uint32_t,
                              std::uint32_t, std::uint32_t,
                              std::vector<std::uint32_t>&) const override {
      return BF_OBJECT_NOT_FOUND;
   }
   bf_status_t defaultEntryHdl(std::uint32_t, std::uint8_t, std::uint16_t, std::uint32_t,
                               std::uint32_t&) const override {
      return BF_OBJECT_NOT_FOUND;
   }
   bool entryIsEqual(std::uint32_t, std::uint8_t, std::uint16_t, std::uint32_t, std::uint32_t,
                     const void*) const override {
      return false;
   }
   bf_status_t selMbr(std::uint32_t, std::uint8_t, std::uint16_t, std::uint32_t, std::uint32_t,
                      std::uint32_t, HwPd::SelMbrValue&) const override {
      return BF_OBJECT_NOT_FOUND;
   }
   bf_status_t selVectorMbrs(std::uint32_t, std::uint8_t, std::uint16_t, std::uint32_t,
                             std::uint32_t, std::vector<HwPd::SelMbrValue>&) const override {
      return BF_OBJECT_NOT_FOUND;
   }
   bool selMbrIsEqual(std::uint32_t, std::uint8_t, std::uint16_t, std::uint32_t, std::uint32_t,
                      std::uint32_t, const void*) const override {
      return false;
   }
   std::string cliSchema(std::uint8_t, std::uint32_t) const override { return ""; }
   std::string entryValue(std::uint32_t, std::uint8_t, std::uint16_t, std::uint32_t,
                          std::uint32_t) const override {
      return "";
   }
   bool plcmtDataPrint(int, std::uint32_t, std::uint32_t, const void*) const override {
      return false;
   }

   std::set<std::uint32_t> hdls;
};

std::vector<std::uint32_t> rest(HwPdTableIterator& it) {
   std::vector<std::uint32_t> seen;
   for (; !it.end(); it.next()) seen.push_back(it.entryHdl());
   return seen;
}

TEST(HwPdTableIterator, ReadsAheadInBatchesAndFlushCacheSeesTheChipAsItIsNow) {
   auto table = std::make_shared<TableOfHandles>();
   HwPdTableIterator empty(table, 1, 0, 0, 7);
   empty.next();
   empty.flushCache();
   EXPECT_TRUE(empty.end());

   for (std::uint32_t i = 0; i < 50; ++i) table->hdls.insert(1000 - 7 * i);
   HwPdTableIterator batches(table, 1, 0, 0, 7, 16);
   EXPECT_EQ(rest(batches), std::vector<std::uint32_t>(table->hdls.begin(), table->hdls.end()));
   // 16 + 16 + 16 + 2 handles, and the read that found none.
   EXPECT_EQ(batches.numSdkReads(), 5u);

   // Read ahead, the walk does not see changes behind its cache...
   table->hdls = {10, 20, 30, 40};
   HwPdTableIterator it(table, 1, 0, 0, 7);
   table->hdls.insert(15);
   table->hdls.erase(30);
   it.next();
   it.next();
   EXPECT_EQ(it.entryHdl(), 30u);

   // ...until the cache is dropped: the walk goes on after where it stands.
   table->hdls.insert(35);
   it.flushCache();
   std::uint64_t reads = it.numSdkReads();
   EXPECT_EQ(rest(it), (std::vector<std::uint32_t>{30, 35, 40}));
   EXPECT_EQ(it.numSdkReads(), reads + 2);
}

}  // namespace
