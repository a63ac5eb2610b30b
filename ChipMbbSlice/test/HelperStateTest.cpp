// The helper's bookkeeping as an entity: attributes, link queues and the ADT blob shadow, and
// what its notifiees hear of them.

#include <cstdlib>

#include "ChipMbbSlice/test/HelperTestUtil.h"

namespace ChipMbbSlice::Test {
namespace {

class Watcher : public ChipMbbEngineHelper::Notifiee {
 public:
   void onMatPlcmtInfoStatus(std::uint32_t index) override {
      log("status " + std::to_string(index));
   }
   void onAdtDeferFree(std::uint32_t index) override { log("adtFree " + std::to_string(index)); }
   void onAdtBlobShadow(EntryKey key) override { log("shadow " + toHex(key)); }
   void onNumMatAddOps() override { log("numMatAddOps"); }
   void onTestmode() override { log("testmode"); }
   void onDevTgt() override { log("devTgt"); }
   void onMatTableStatus() override { log("matTableStatus"); }
   void onTableStatus() override { log("tableStatus"); }

   std::vector<std::string> events;

 private:
   void log(std::string event) { events.push_back(std::move(event)); }
};

using HelperState = HelperTest;

TEST_F(HelperState, ConstructionStoresArgumentsAndTellsTriplesFromSingles) {
   auto single = singleHelper();
   EXPECT_EQ(single->name(), "single");
   EXPECT_EQ(single->fwkType(), "ChipMbbSlice::ChipMbbEngineHelper");
   EXPECT_EQ(single->matTableStatus(), matStatus);
   EXPECT_EQ(single->tableStatus(), matStatus);
   EXPECT_EQ(single->sessionHandle(), sessionHdl);
   EXPECT_EQ(single->matTableHandle(), ChipTestUtil::singleHdl);
   EXPECT_EQ(single->maxEntries(), 16u);
   EXPECT_EQ(single->qtId(), qtIdOfTest);
   EXPECT_TRUE(single->initialized());
   EXPECT_FALSE(single->isTripleTable());
   EXPECT_FALSE(single->testmode());
   EXPECT_FALSE(single->hasBackupSupport());
   EXPECT_EQ(single->matPlcmtInfo(), nullptr);

   auto fresh = Orb::ptrNew<ChipMbbEngineHelper>("t", nullptr, nullptr, nullptr, nullptr, 1, 2, 0,
                                                 0, 4, true, 3);
   EXPECT_EQ(fresh->devTgt(), (ChipDriver::ChipDevTgt{8, 0}));
   EXPECT_TRUE(fresh->testmode());

   auto triple = tripleHelper();
   EXPECT_TRUE(triple->isTripleTable());
   EXPECT_TRUE(triple->initialized());
   EXPECT_EQ(triple->adtTableStatus(), adtStatus);
   EXPECT_EQ(triple->selMbrTableStatus(), selMbrStatus);
   EXPECT_EQ(triple->impl(), &engine);
   EXPECT_EQ(getImpl(triple->impl()), &engine);

   const char* needBoth = "adtTableHandle() != 0 && selTableHandle() != 0 && \"need both tables\"";
   EXPECT_EQ(assertionOf([] {
                Orb::ptrNew<ChipMbbEngineHelper>("t", nullptr, nullptr, nullptr, nullptr, 1, 2, 3,
                                                 0, 4, false, 3);
             }),
             needBoth);
   EXPECT_EQ(assertionOf([] {
                Orb::ptrNew<ChipMbbEngineHelper>("t", nullptr, nullptr, nullptr, nullptr, 1, 2, 0,
                                                 3, 4, false, 3);
             }),
             needBoth);
}

TEST_F(HelperState, SettersNotifyOnlyOnChange) {
   auto helper = singleHelper();
   Watcher watcher;
   watcher.notifierIs(helper.get());
   helper->testmodeIs(false);
   helper->testmodeIs(true);
   helper->devTgtIs({0, ChipTestUtil::allPipes});
   helper->devTgtIs({1, 0});
   helper->numMatAddOpsInc(2);
   helper->numMatAddOpsIs(2);
   EXPECT_EQ(helper->numMatAddOps(), 2u);
   helper->matTableStatusIs(nullptr);
   EXPECT_EQ(helper->tableStatus(), nullptr);
   EXPECT_EQ(watcher.events, (std::vector<std::string>{"testmode", "devTgt", "numMatAddOps",
                                                       "tableStatus", "matTableStatus"}));
}

TEST_F(HelperState, LinkQueuesHandOutGrowingIndicesAndNotifyEachChange) {
   auto helper = singleHelper();
   Watcher watcher;
   watcher.notifierIs(helper.get());
   ChipEntryStatus a(EntryStatus(1, 10), false), b(EntryStatus(2, 20), true);

   EXPECT_EQ(helper->matPlcmtInfoStatusDeq(), ChipEntryStatus());
   EXPECT_EQ(helper->matPlcmtInfoStatusEnq(a), 0u);
   EXPECT_EQ(helper->matPlcmtInfoStatusEnq(b), 1u);
   EXPECT_EQ(helper->matPlcmtInfoStatus(1), b);
   EXPECT_EQ(helper->matPlcmtInfoStatus(7), ChipEntryStatus());
   EXPECT_EQ(helper->matPlcmtInfoStatusMetadata(), MatPlcmtInfoStatusMetadata(0, 2));
   EXPECT_EQ(helper->matPlcmtInfoStatusDeq(), a);
   EXPECT_EQ(helper->matPlcmtInfoStatusDeq(), b);
   EXPECT_EQ(helper->matPlcmtInfoStatusSize(), 0u);
   // Drained, the queue still hands out indices above every one it handed out before.
   EXPECT_EQ(helper->matPlcmtInfoStatusEnq(a), 2u);
   helper->matPlcmtInfoStatusIs(5, b);
   EXPECT_EQ(helper->matPlcmtInfoStatusEnq(a), 6u);
   helper->matPlcmtInfoStatusDel(5);
   helper->matPlcmtInfoStatusDel(5);  // absent: nothing to tell
   EXPECT_EQ(helper->matPlcmtInfoStatusSize(), 2u);
   helper->matPlcmtInfoStatusDelAll();
   EXPECT_EQ(helper->matPlcmtInfoStatusSize(), 0u);
   EXPECT_EQ(watcher.events, (std::vector<std::string>{
                                 "status 0", "status 1", "status 0", "status 1", "status 2",
                                 "status 5", "status 6", "status 5", "status 2", "status 6"}));

   watcher.events.clear();
   EXPECT_EQ(helper->adtDeferFreeDeq(), 0u);
   helper->adtDeferFreeMetadataIs(AdtDeferFreeMetadata(100, 100));
   EXPECT_EQ(helper->adtDeferFreeEnq(0xBEEF), 100u);
   EXPECT_EQ(helper->adtDeferFree(100), 0xBEEFu);
   EXPECT_EQ(helper->adtDeferFreeDeq(), 0xBEEFu);
   EXPECT_EQ(watcher.events, (std::vector<std::string>{"adtFree 100", "adtFree 100"}));

   // An append whose index would run into the head's is refused.
   helper->selDeferFreeIs(5, 1);
   helper->selDeferFreeMetadataIs(SelDeferFreeMetadata(5, 4));
   try {
      helper->selDeferFreeEnq(2);
      ADD_FAILURE() << "append into a full index space";
   } catch (const Brio::RangeException& e) {
      EXPECT_STREQ(e.what(), "linkqueue index space full");
   }
   EXPECT_EQ(helper->selDeferFreeSize(), 1u);
   helper->selDeferFreeDelAll();
}

TEST_F(HelperState, AdtBlobShadowReadsZeroForMissingKeysAndNeverFreesOnDelete) {
   auto helper = tripleHelper();
   Watcher watcher;
   watcher.notifierIs(helper.get());
   EXPECT_EQ(helper->adtBlobShadow(0x5), 0u);
   void* copy = std::malloc(16);
   auto address = reinterpret_cast<std::uint64_t>(copy);
   helper->adtBlobShadowIs(0x5, address);
   helper->adtBlobShadowIs(0x5, address);  // unchanged: the map stays as it is
   helper->adtBlobShadowIs(0x6, 0x1000);
   EXPECT_EQ(helper->adtBlobShadow(0x5), address);
   EXPECT_EQ(helper->adtBlobShadowSize(), 2u);
   helper->adtBlobShadowDel(0x6);
   helper->adtBlobShadowDel(0x6);
   helper->adtBlobShadowIs(0x7, 0x2000);
   helper->adtBlobShadowDelAll();
   EXPECT_EQ(helper->adtBlobShadowSize(), 0u);
   EXPECT_EQ(helper->adtBlobShadow(0x5), 0u);
   ASSERT_EQ(watcher.events.size(), 6u);
   EXPECT_EQ(std::vector<std::string>(watcher.events.begin(), watcher.events.begin() + 4),
             (std::vector<std::string>{"shadow 0x5", "shadow 0x6", "shadow 0x6", "shadow 0x7"}));
   // The copy the shadow pointed at is still the caller's to free.
   static_cast<char*>(copy)[15] = 1;
   std::free(copy);
}

}  // namespace
}  // namespace ChipMbbSlice::Test
