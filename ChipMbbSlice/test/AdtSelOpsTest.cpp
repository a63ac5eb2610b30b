// ADT and selector operations of the placement helper against the chip model.

#include "ChipMbbSlice/test/HelperTestUtil.h"
#include "FlashLog/CaptureSink.h"

namespace ChipMbbSlice::Test {
namespace {

using ChipTestUtil::plainBlock;

constexpr std::uint32_t grpHdl = 0x77;
constexpr std::uint32_t baseIndex = 4;
constexpr EntryKey grpKey = 0x5;
constexpr EntryKey fallbackGrpKey = 0x1FFFFFA11BACC;

// Counts how the ADT's data copies come and go, against the chip's commits.
class CopyWatch : public ChipMbbEngineHelper::Notifiee {
 public:
   CopyWatch(ChipMbbEngineHelper& helper, const ChipModel::Chip& model)
       : helper_(helper), model_(model) {
      notifierIs(&helper);
   }
   void onAdtDeferFree(std::uint32_t) override {
      events.push_back("deferFree size=" + std::to_string(helper_.adtDeferFreeSize()) +
                       " commits=" + std::to_string(model_.numCommits()));
   }
   std::vector<std::string> events;

 private:
   ChipMbbEngineHelper& helper_;
   const ChipModel::Chip& model_;
};

using AdtSelOps = HelperTest;

TEST_F(AdtSelOps, AdtShadowKeepsOneLiveCopyAndFreesEachOldOneAfterItsCommit) {
   auto helper = tripleHelper();
   CopyWatch copies(*helper, *model);
   // The dependency engine hears of each key once its status is written and its copies freed.
   std::vector<std::string> heard;
   engine.observer = [&](const std::string& call) {
      heard.push_back(call + " status=" + Orb::toString(adtStatus->entry(0xA1).opId()) +
                      " copies=" + std::to_string(helper->adtDeferFreeSize()) +
                      " batch=" + (helper->hasAdtBatch() ? "open" : "none"));
   };

   helper->addAdtEntry(adtEntry(0xA1, 0x10, 1, 1));
   ASSERT_NE(adtTable().entry(1), nullptr);
   EXPECT_EQ(adtTable().entry(1)->data, plainBlock(1));
   EXPECT_EQ(adtStatus->entry(0xA1), EntryStatus(0xA1, 0x10));
   EXPECT_TRUE(copies.events.empty());

   helper->updateAdtEntry(adtEntry(0xA1, 0x11, 1, 2));
   helper->updateAdtEntry(adtEntry(0xA1, 0x12, 1, 3));
   EXPECT_EQ(helper->adtBlobShadowSize(), 1u);
   EXPECT_EQ(adtTable().entry(1)->data, plainBlock(3));
   EXPECT_EQ(adtStatus->entry(0xA1), EntryStatus(0xA1, 0x12));
   // Each replaced copy waited for the commit of the modify that replaced it.
   EXPECT_EQ(copies.events, (std::vector<std::string>{
                                "deferFree size=1 commits=1", "deferFree size=0 commits=2",
                                "deferFree size=1 commits=2", "deferFree size=0 commits=3"}));

   helper->delAdtEntry(AdtEntryConfig(0xA1, 0x12, 1));
   EXPECT_EQ(adtTable().entry(1), nullptr);
   EXPECT_EQ(helper->adtBlobShadowSize(), 0u);
   EXPECT_FALSE(adtStatus->present(0xA1));
   EXPECT_EQ(copies.events.back(), "deferFree size=0 commits=4");
   EXPECT_EQ(heard, (std::vector<std::string>{
                        "processedAdt 0xa1 status=0x0000000000000010 copies=0 batch=open",
                        "processedAdt 0xa1 status=0x0000000000000011 copies=0 batch=open",
                        "processedAdt 0xa1 status=0x0000000000000012 copies=0 batch=open",
                        "processedAdt 0xa1 status=0x0000000000000000 copies=0 batch=open"}));

   // A delete whose configuration is deleted writes the delete's op id.
   helper->addAdtEntry(adtEntry(0xA1, 0x20, 1));
   helper->delAdtEntry(AdtEntryConfig::deletion(0xA1, 0x21));
   EXPECT_EQ(adtStatus->entry(0xA1), EntryStatus(0xA1, 0x21));
}

TEST_F(AdtSelOps, SelectorOperationsReachTheChipAndWriteMemberStatus) {
   auto helper = tripleHelper();
   helper->addAdtEntry(adtEntry(0xA1, 0x1, 1));
   helper->addAdtEntry(adtEntry(0xA2, 0x1, 2));
   engine.calls.clear();
   const SelMbrEntryKey key(grpKey, 1, 3);
   const ChipModel::SelTable& sel = selTable();

   helper->addSelEntry(mbrEntry(key, 0x10, 0xA1, 7), grpHdl, baseIndex, 1, false);
   const ChipModel::SelMember* member = sel.member(0, baseIndex + 1, 3);
   ASSERT_NE(member, nullptr);
   EXPECT_EQ(std::tuple(member->mbrHdl, member->grpHdl, member->active),
             std::tuple(1u, grpHdl, true));
   EXPECT_EQ(member->data, plainBlock(7));
   EXPECT_EQ(selMbrStatus->entry(key), EntryStatus(key, 0x10));

   helper->deactivateSelEntry(mbrEntry(key, 0x11, 0xA1), grpHdl, baseIndex, 1);
   EXPECT_FALSE(member->active);
   EXPECT_EQ(selMbrStatus->entry(key), EntryStatus(key, 0x11));
   helper->activateSelEntry(mbrEntry(key, 0x12, 0xA1), grpHdl, baseIndex, 1);
   EXPECT_TRUE(member->active);
   EXPECT_EQ(selMbrStatus->entry(key), EntryStatus(key, 0x12));

   // Deadlock breaking reaches the chip but writes no status.
   const SelMbrEntryKey breaker(grpKey, 1, 0);
   helper->addSelEntry(mbrEntry(breaker, 0x20, 0xA2), grpHdl, baseIndex, 2, true);
   ASSERT_NE(sel.member(0, baseIndex + 1, 0), nullptr);
   helper->delSelEntry(mbrEntry(breaker, 0x20, 0xA2), grpHdl, baseIndex, 2, true);
   EXPECT_EQ(sel.member(0, baseIndex + 1, 0), nullptr);
   EXPECT_FALSE(selMbrStatus->present(breaker));

   const SelMbrEntryKey fallback(fallbackGrpKey, 0, 0);
   helper->setFallbackSelEntry(mbrEntry(fallback, 0x30, 0xA2, 9), 2);
   EXPECT_EQ(std::tuple(sel.fallback(0).set, sel.fallback(0).mbrHdl), std::tuple(true, 2u));
   EXPECT_EQ(sel.fallback(0).data, plainBlock(9));
   EXPECT_EQ(selMbrStatus->entry(fallback), EntryStatus(fallback, 0x30));
   helper->clrFallbackSelEntry(SelMbrEntryConfig::deletion(fallback, 0x31), 2);
   EXPECT_FALSE(sel.fallback(0).set);
   EXPECT_EQ(selMbrStatus->entry(fallback), EntryStatus(fallback, 0x31));

   // A delete of a configured member removes its status, one of a deleted member writes it.
   helper->delSelEntry(mbrEntry(key, 0x12, 0xA1), grpHdl, baseIndex, 1, false);
   EXPECT_EQ(sel.member(0, baseIndex + 1, 3), nullptr);
   EXPECT_FALSE(selMbrStatus->present(key));
   helper->addSelEntry(mbrEntry(key, 0x13, 0xA1), grpHdl, baseIndex, 1, false);
   helper->delSelEntry(SelMbrEntryConfig::deletion(key, 0x14), grpHdl, baseIndex, 1, false);
   EXPECT_EQ(sel.member(0, baseIndex + 1, 3), nullptr);
   EXPECT_EQ(selMbrStatus->entry(key), EntryStatus(key, 0x14));

   EXPECT_EQ(std::vector<std::string>(10, "processedSel"), engine.calls);
   // A data copy for each add and set-fallback, each freed at its commit.
   EXPECT_EQ(helper->selDeferFreeMetadata(), SelDeferFreeMetadata(4, 4));
   helper->delAdtEntry(AdtEntryConfig(0xA1, 0x1, 1));
   helper->delAdtEntry(AdtEntryConfig(0xA2, 0x1, 2));
}

TEST_F(AdtSelOps, SelectorEngineHearsOfTheCommitBeforeMemberStatuses) {
   auto helper = tripleHelper();
   helper->addAdtEntry(adtEntry(0xA1, 0x1, 1));
   const SelMbrEntryKey key(grpKey, 0, 0);
   std::vector<std::string> seen;
   engine.observer = [&](const std::string& call) {
      if (call != "processedSel") return;
      seen.push_back("member=" + std::to_string(selTable().member(0, baseIndex, 0) != nullptr) +
                     " copies=" + std::to_string(helper->selDeferFreeSize()) +
                     " status=" + std::to_string(selMbrStatus->present(key)));
   };
   helper->addSelEntry(mbrEntry(key, 0x10, 0xA1), grpHdl, baseIndex, 1, false);
   EXPECT_EQ(seen, (std::vector<std::string>{"member=1 copies=0 status=0"}));
   EXPECT_TRUE(selMbrStatus->present(key));
   helper->delSelEntry(mbrEntry(key, 0x10, 0xA1), grpHdl, baseIndex, 1, false);
   helper->delAdtEntry(AdtEntryConfig(0xA1, 0x1, 1));
}

TEST_F(AdtSelOps, WithoutMemberStatusTableSelectorOperationsStillReachTheChip) {
   auto helper = tripleHelper();
   helper->selMbrTableStatusIs(nullptr);
   helper->addAdtEntry(adtEntry(0xA1, 0x1, 1));
   helper->addSelEntry(mbrEntry(SelMbrEntryKey(grpKey, 0, 0), 0x10, 0xA1), grpHdl, baseIndex, 1,
                       false);
   helper->setFallbackSelEntry(mbrEntry(SelMbrEntryKey(fallbackGrpKey, 0, 0), 0x11, 0xA1), 1);
   EXPECT_NE(selTable().member(0, baseIndex, 0), nullptr);
   EXPECT_TRUE(selTable().fallback(0).set);
   EXPECT_EQ(helper->selPlcmtInfoStatusMetadata().next(), 0u);
   helper->clrFallbackSelEntry(mbrEntry(SelMbrEntryKey(fallbackGrpKey, 0, 0), 0x11, 0xA1), 1);
   helper->delSelEntry(mbrEntry(SelMbrEntryKey(grpKey, 0, 0), 0x10, 0xA1), grpHdl, baseIndex, 1,
                       false);
   helper->delAdtEntry(AdtEntryConfig(0xA1, 0x1, 1));
}

TEST_F(AdtSelOps, ShadowAndTableAssertions) {
   auto helper = tripleHelper();
   EXPECT_EQ(assertionOf([&] { helper->updateAdtEntry(adtEntry(0xA1, 0x1, 1)); }),
             "adtBlobShadow( entry.key() ) != 0");
   helper->processAdtPlcmtInfo();
   EXPECT_EQ(assertionOf([&] { helper->delAdtEntry(AdtEntryConfig(0xA1, 0x1, 1)); }),
             "adtBlobShadow( entry.key() ) != 0");
   helper->processAdtPlcmtInfo();

   helper->addAdtEntry(adtEntry(0xA1, 0x1, 1));
   EXPECT_EQ(assertionOf([&] { helper->addAdtEntry(adtEntry(0xA1, 0x2, 1)); }),
             "adtBlobShadow( entry.key() ) == 0");
   helper->processAdtPlcmtInfo();
   EXPECT_EQ(assertionOf([&] { helper->processAdtPlcmtInfo(); }),
             "info != __null && \"nothing to process\"");
   EXPECT_EQ(assertionOf([&] { helper->processSelPlcmtInfo(); }),
             "info != __null && \"nothing to process\"");

   // The status of an ADT operation is queued without a status table; the commit needs it.
   // The batch ends with the failed commit, its copies freed and its status dropped.
   helper->adtTableStatusIs(nullptr);
   EXPECT_EQ(assertionOf([&] { helper->delAdtEntry(AdtEntryConfig(0xA1, 0x1, 1)); }),
             "adtTableStatus() && \"no ADT status table\"");
   EXPECT_EQ(adtTable().entry(1), nullptr);
   EXPECT_EQ(helper->adtBlobShadowSize() + helper->adtDeferFreeSize(), 0u);
   EXPECT_FALSE(helper->hasAdtBatch());
}

TEST_F(AdtSelOps, TracesNameTheHandles) {
   DualLog::CaptureSink capture;
   capture.levelIs("ChipMbbSlice", 5);
   auto helper = tripleHelper();
   const SelMbrEntryKey key(grpKey, 0, 0);
   helper->addAdtEntry(adtEntry(0xA1, 0x1, 1));
   helper->addSelEntry(mbrEntry(key, 0x10, 0xA1), grpHdl, baseIndex, 1, false);
   helper->setFallbackSelEntry(mbrEntry(SelMbrEntryKey(fallbackGrpKey, 0, 0), 0x11, 0xA1), 1);
   helper->clrFallbackSelEntry(mbrEntry(SelMbrEntryKey(fallbackGrpKey, 0, 0), 0x11, 0xA1), 1);
   helper->delSelEntry(mbrEntry(key, 0x10, 0xA1), grpHdl, baseIndex, 1, false);
   helper->delAdtEntry(AdtEntryConfig(0xA1, 0x1, 1));
   for (const char* text : {
            "Set plcmt op: adt_add, tblHdl=0x301, entHdl=0x1, opId=0x0000000000000001",
            "Set plcmt op: sel_add, tblHdl=0x302, grpHdl=0x77, mbrHdl=0x1, "
            "opId=0x0000000000000010",
            "Set plcmt op: sel_set_fallback, tblHdl=0x302, mbrHdl=0x1, opId=0x0000000000000011",
            "Set plcmt op: sel_clr_fallback, tblHdl=0x302, mbrHdl=0x1, opId=0x0000000000000011",
            "Set plcmt op: sel_del, tblHdl=0x302, grpHdl=0x77, mbrHdl=0x1, "
            "opId=0x0000000000000010",
            "Delete status for: tblHdl=0x302, key=0x28000",
            "Set plcmt op: adt_del, tblHdl=0x301, entHdl=0x1, opId=0x0000000000000001",
            "Delete status for: tblHdl=0x301, key=0xa1",
        }) {
      EXPECT_TRUE(capture.contains(text)) << text;
   }
}

}  // namespace
}  // namespace ChipMbbSlice::Test
