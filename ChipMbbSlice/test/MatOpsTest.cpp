// Match-table operations of the placement helper against the chip model.

#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "ChipMbbSlice/test/HelperTestUtil.h"
#include "FlashLog/CaptureSink.h"
#include "FlashLog/Decoder.h"

namespace ChipMbbSlice::Test {
namespace {

using ChipSdk::OpKind;
using ChipTestUtil::plainBlock;
using ChipTestUtil::singleHdl;

constexpr std::uint32_t dflt = EntryConfig::defaultEntryIndex;

// Gives up a batch whose commit failed, as a process that survived the failure would have to.
void abandonMatBatch(ChipMbbEngineHelper& helper) {
   while (helper.matDeferFreeSize() != 0) {
      std::free(reinterpret_cast<void*>(helper.matDeferFreeDeq()));
   }
   helper.matPlcmtInfoStatusDelAll();
   p4_pd_destroy_plcmt_info(helper.matPlcmtInfo());
   helper.matPlcmtInfoIs(nullptr);
   helper.matPlcmtInfoSizeIs(0);
}

void expectPlaced(const ChipModel::MatEntry& entry, std::uint32_t index, std::uint32_t selIndex,
                  std::uint32_t adtIndex, std::uint8_t dataTag) {
   EXPECT_EQ(entry.index, index);
   EXPECT_EQ(entry.selIndex, selIndex);
   EXPECT_EQ(entry.adtIndex, adtIndex);
   EXPECT_EQ(entry.data, plainBlock(dataTag));
}

using MatOps = HelperTest;

TEST_F(MatOps, EachOperationReachesTheChipIsCountedAndWritesStatus) {
   auto helper = singleHelper();
   const ChipModel::MatTable& table = matTable();

   helper->addEntry(matEntry(0x1, 0x10, 0x11, 3, plainBlock(1), 1, 2, 4));
   const ChipModel::MatEntry* entry = table.entry(0x11);
   ASSERT_NE(entry, nullptr);
   EXPECT_EQ(entry->instance, 0);
   EXPECT_FALSE(entry->isDefault);
   expectPlaced(*entry, 3, 2, 4, 1);
   EXPECT_EQ(matStatus->entry(0x1), EntryStatus(0x1, 0x10));
   EXPECT_EQ(helper->numMatAddOps(), 1u);

   helper->moveEntry(matEntry(0x1, 0x11, 0x11, 5, plainBlock(2), 1, 6, 7));
   expectPlaced(*entry, 5, 6, 7, 2);
   EXPECT_EQ(matStatus->entry(0x1), EntryStatus(0x1, 0x11));
   EXPECT_EQ(helper->numMatMovOps(), 1u);

   helper->updateEntry(matEntry(0x1, 0x12, 0x11, 5, plainBlock(3), 1, 8, 9));
   expectPlaced(*entry, 5, 8, 9, 3);
   EXPECT_EQ(matStatus->entry(0x1), EntryStatus(0x1, 0x12));
   EXPECT_EQ(helper->numMatModOps(), 1u);

   // The engine deletes an entry whose key is still configured: the status goes with it.
   helper->deleteEntry(matEntry(0x1, 0x12, 0x11, 5));
   EXPECT_EQ(table.entry(0x11), nullptr);
   EXPECT_FALSE(matStatus->present(0x1));
   EXPECT_EQ(helper->numMatDelOps(), 1u);

   // The default entry: an add and a delete at index 0x7FFFF are redirected.
   helper->addEntry(matEntry(0x2, 0x20, 0x21, dflt, plainBlock(4), 2, 1, 1));
   EXPECT_EQ(table.defaultHdl(0), 0x21u);
   ASSERT_NE(table.entry(0x21), nullptr);
   EXPECT_TRUE(table.entry(0x21)->isDefault);
   EXPECT_EQ(table.entry(0x21)->data, plainBlock(4));
   EXPECT_EQ(matStatus->entry(0x2), EntryStatus(0x2, 0x20));
   EXPECT_EQ(helper->numMatSetDfltOps(), 1u);
   EXPECT_EQ(helper->numMatAddOps(), 1u);
   helper->deleteEntry(matEntry(0x2, 0x20, 0x21, dflt));
   EXPECT_EQ(table.defaultHdl(0), 0u);
   EXPECT_FALSE(matStatus->present(0x2));
   EXPECT_EQ(helper->numMatClrDfltOps(), 1u);
   EXPECT_EQ(helper->numMatDelOps(), 1u);

   helper->addEntry(matEntry(0x3, 0x30, 0x31, 7));
   helper->deleteEntryDeadlock(matEntry(0x3, 0x30, 0x31, 7));
   EXPECT_EQ(table.entry(0x31), nullptr);
   EXPECT_EQ(helper->numMatDelDeadlockOps(), 1u);
   EXPECT_EQ(helper->numMatDelOps(), 2u);

   for (OpKind kind : {OpKind::matMov, OpKind::matMod, OpKind::matSetDflt, OpKind::matClrDflt}) {
      EXPECT_EQ(model->numOps(kind), 1u) << ChipSdk::opKindName(kind);
   }
   EXPECT_EQ(model->numOps(OpKind::matAdd), 2u);
   EXPECT_EQ(model->numOps(OpKind::matDel), 2u);
   // One batch per operation, each released with nothing left behind.
   EXPECT_EQ(model->numCommits(), 8u);
   EXPECT_EQ(helper->matPlcmtInfo(), nullptr);
   EXPECT_EQ(helper->matPlcmtInfoSize(), 0u);
   EXPECT_EQ(helper->matDeferFreeSize(), 0u);
   EXPECT_EQ(helper->matPlcmtInfoStatusSize(), 0u);
   // A data copy for each operation that sends data: add, move, modify, set default, add.
   EXPECT_EQ(helper->matDeferFreeMetadata().next(), 5u);
}

TEST_F(MatOps, TestModeSkipsTheCommitAndStillWritesStatus) {
   DualLog::CaptureSink capture;
   capture.levelIs("ChipMbbSlice", 5);
   auto helper = singleHelper(true);
   helper->addEntry(matEntry(0x1, 0x10, 0x11, 3));
   helper->updateEntry(matEntry(0x1, 0x11, 0x11, 3));
   helper->addEntry(matEntry(0x2, 0x20, 0x21, dflt));
   EXPECT_EQ(model->numCommits(), 0u);
   EXPECT_EQ(matTable().entry(0x11), nullptr);
   EXPECT_EQ(matStatus->entry(0x1), EntryStatus(0x1, 0x11));
   EXPECT_EQ(matStatus->entry(0x2), EntryStatus(0x2, 0x20));
   EXPECT_TRUE(capture.contains("testmode, skipping SDK call"));

   // A delete that carries a deleted configuration writes the delete's op id; one of a
   // configured entry removes the status.
   helper->deleteEntry(EntryConfig::deletion(0x1, 0x12));
   EXPECT_EQ(matStatus->entry(0x1), EntryStatus(0x1, 0x12));
   helper->deleteEntry(matEntry(0x2, 0x20, 0x21, 4));
   EXPECT_FALSE(matStatus->present(0x2));
   EXPECT_EQ(helper->numMatAddOps(), 1u);
   EXPECT_EQ(helper->numMatModOps(), 1u);
   EXPECT_EQ(helper->numMatSetDfltOps(), 1u);
   EXPECT_EQ(helper->numMatDelOps(), 2u);
   EXPECT_EQ(helper->matDeferFreeSize(), 0u);
}

TEST_F(MatOps, WithoutStatusTableOperationsAreCommittedAndNoStatusIsQueued) {
   auto helper = singleHelper(false, false);
   helper->addEntry(matEntry(0x1, 0x10, 0x11, 3));
   helper->deleteEntry(matEntry(0x1, 0x10, 0x11, 3));
   helper->addEntry(matEntry(0x1, 0x11, 0x12, 4));
   EXPECT_NE(matTable().entry(0x12), nullptr);
   EXPECT_EQ(model->numCommits(), 3u);
   EXPECT_EQ(matStatus->size(), 0u);
   EXPECT_EQ(helper->matPlcmtInfoStatusMetadata(), MatPlcmtInfoStatusMetadata(0, 0));
}

TEST_F(MatOps, BrokenInvariantsAndRefusalsAreAssertions) {
   auto helper = singleHelper();
   const std::string multiIndex = "false && \"Multi index is not supported yet\"";
   EXPECT_EQ(assertionOf([&] { helper->addEntry(matEntry(0x1, 0x10, 0x11, 3, plainBlock(), 2)); }),
             multiIndex);
   // The counter, the batch and the data copy stay as the failure found them.
   EXPECT_EQ(helper->numMatAddOps(), 1u);
   EXPECT_NE(helper->matPlcmtInfo(), nullptr);
   EXPECT_EQ(helper->matDeferFreeSize(), 1u);
   helper->processMatPlcmtInfo();  // an empty batch commits and frees the copy
   EXPECT_EQ(helper->matDeferFreeSize(), 0u);
   EXPECT_EQ(helper->matPlcmtInfo(), nullptr);

   helper->addEntry(matEntry(0x1, 0x10, 0x11, 3));
   EXPECT_EQ(assertionOf([&] { helper->moveEntry(matEntry(0x1, 0x11, 0x11, 4, plainBlock(), 2)); }),
             multiIndex);
   helper->processMatPlcmtInfo();
   EXPECT_EQ(
       assertionOf([&] { helper->updateEntry(matEntry(0x1, 0x11, 0x11, 3, plainBlock(), 0)); }),
       multiIndex);
   helper->processMatPlcmtInfo();
   // The default entry has no index count to check.
   EXPECT_EQ(
       assertionOf([&] { helper->addEntry(matEntry(0x2, 0x20, 0x21, dflt, plainBlock(), 2)); }),
       "");
   EXPECT_EQ(matTable().defaultHdl(0), 0x21u);

   EXPECT_EQ(assertionOf([&] { helper->processMatPlcmtInfo(); }),
             "info != __null && \"nothing to process\"");

   // Index 99 is past the end of the table: the chip refuses the commit.
   EXPECT_EQ(assertionOf([&] { helper->addEntry(matEntry(0x3, 0x30, 0x31, 99)); }),
             "status == BF_SUCCESS && \"Not succesful status\"");
   EXPECT_FALSE(matStatus->present(0x3));
   abandonMatBatch(*helper);
   // A block that is no placement data is refused when recorded.
   EXPECT_EQ(assertionOf([&] {
                helper->addEntry(matEntry(0x3, 0x30, 0x31, 5, ChipSdk::PlcmtDataBlock()));
             }),
             "status == BF_SUCCESS");
   abandonMatBatch(*helper);
}

TEST_F(MatOps, CommitStepsComeInOrder) {
   class BatchWatch : public ChipMbbEngineHelper::Notifiee {
    public:
      explicit BatchWatch(std::function<void(const std::string&)> log) : log_(std::move(log)) {}
      void onMatPlcmtInfo() override {
         log_(notifier() && static_cast<ChipMbbEngineHelper*>(notifier())->matPlcmtInfo()
                  ? "batch open"
                  : "batch released");
      }
      void onMatDeferFree(std::uint32_t) override { log_("copy queue"); }
      void onMatPlcmtInfoStatus(std::uint32_t) override { log_("status queue"); }

    private:
      std::function<void(const std::string&)> log_;
   };

   auto helper = tripleHelper();
   std::vector<std::string> events;
   auto log = [&](const std::string& what) {
      p4_pd_plcmt_info_t* info = helper->matPlcmtInfo();
      events.push_back(what + " ops=" + std::to_string(model->plcmtInfoSize(info)) +
                       " commits=" + std::to_string(model->numCommits()) +
                       " copies=" + std::to_string(helper->matDeferFreeSize()) +
                       " statuses=" + std::to_string(matStatus->size()));
   };
   BatchWatch batchWatch(log);
   batchWatch.notifierIs(helper.get());
   StatusWatch statusWatch([&](EntryKey key) { log("status " + toHex(key)); });
   statusWatch.notifierIs(matStatus.get());
   engine.observer = log;

   helper->addEntry(matEntry(0x1, 0x10, 0x11, 3));
   EXPECT_EQ(events, (std::vector<std::string>{
                         "batch open ops=0 commits=0 copies=0 statuses=0",
                         "copy queue ops=0 commits=0 copies=1 statuses=0",
                         "matInBatch 0x1 ops=0 commits=0 copies=1 statuses=0",
                         "status queue ops=1 commits=0 copies=1 statuses=0",
                         "copy queue ops=1 commits=1 copies=0 statuses=0",
                         "processedMat ops=1 commits=1 copies=0 statuses=0",
                         "status queue ops=1 commits=1 copies=0 statuses=0",
                         "status 0x1 ops=1 commits=1 copies=0 statuses=1",
                         "batch released ops=0 commits=1 copies=0 statuses=1",
                     }));

   // A delete tells the dependency engine as well; a single table never does.
   engine.calls.clear();
   helper->deleteEntry(matEntry(0x1, 0x10, 0x11, 3));
   EXPECT_EQ(engine.calls, (std::vector<std::string>{"matInBatch 0x1", "processedMat"}));
   engine.observer = nullptr;
   engine.calls.clear();
   auto single = singleHelper();
   single->implIs(&engine);
   single->addEntry(matEntry(0x1, 0x10, 0x11, 3));
   EXPECT_TRUE(engine.calls.empty());
}

TEST_F(MatOps, TracesNameEachStep) {
   DualLog::CaptureSink capture;
   capture.levelIs("ChipMbbSlice", 9);
   auto helper = singleHelper();
   helper->addEntry(matEntry(0x1, 0x10, 0x11, 3));
   helper->deleteEntry(matEntry(0x1, 0x10, 0x11, 3));
   helper->addEntry(matEntry(0x2, 0x20, 0x21, dflt));
   helper->deleteEntry(matEntry(0x2, 0x20, 0x21, dflt));
   std::vector<std::string> level5;
   for (const auto& line : capture.lines()) {
      if (line.level == 5) level5.push_back(line.text);
   }
   EXPECT_EQ(level5,
             (std::vector<std::string>{
                 "Set plcmt op: mat_add, tblHdl=0x100, entHdl=0x11, opId=0x0000000000000010",
                 "Processed 1 entries, tblHdl=0x100",
                 "Setting status for: tblHdl=0x100, key=0x1, opId=0x0000000000000010",
                 "Set plcmt op: mat_del, tblHdl=0x100, entHdl=0x11",
                 "Processed 1 entries, tblHdl=0x100",
                 "Delete status for: tblHdl=0x100, key=0x1",
                 "Set plcmt op: mat_set_dflt, tblHdl=0x100, entHdl=0x21, opId=0x0000000000000020",
                 "Processed 1 entries, tblHdl=0x100",
                 "Setting status for: tblHdl=0x100, key=0x2, opId=0x0000000000000020",
                 "Set plcmt op: mat_clr_dflt, tblHdl=0x100, entHdl=0x21, opId=0x0000000000000020",
                 "Processed 1 entries, tblHdl=0x100",
                 "Delete status for: tblHdl=0x100, key=0x2",
             }));
   EXPECT_TRUE(
       capture.contains("virtual void ChipMbbSlice::ChipMbbEngineHelper::addEntry(const "
                        "Vault::MbbEngine::EntryConfig&)"));
   EXPECT_TRUE(capture.contains("void ChipMbbSlice::ChipMbbEngineHelper::processMatPlcmtInfo()"));
}

TEST_F(MatOps, FlushCommitsPendingBatchesAndLooksAtTheAdtBatchForTheMatchOne) {
   DualLog::CaptureSink capture;
   capture.levelIs("ChipMbbSlice", 8);
   auto helper = tripleHelper();
   helper->flush();  // nothing pending
   EXPECT_EQ(model->numCommits(), 0u);

   // A match batch left open is not seen by hasMatBatch...
   helper->getMatPlcmtInfo();
   EXPECT_FALSE(helper->hasMatBatch());
   helper->flush();
   EXPECT_NE(helper->matPlcmtInfo(), nullptr);
   helper->processMatPlcmtInfo();

   // ...while an open ADT batch makes flush commit the match batch, which is not there.
   helper->getAdtPlcmtInfo();
   EXPECT_TRUE(helper->hasMatBatch());
   EXPECT_TRUE(helper->hasAdtBatch());
   EXPECT_EQ(assertionOf([&] { helper->flush(); }), "info != __null && \"nothing to process\"");
   EXPECT_TRUE(
       capture.contains("virtual void ChipMbbSlice::ChipMbbEngineHelper::flush() hasMatBatch"));
   helper->processAdtPlcmtInfo();

   helper->getSelPlcmtInfo();
   EXPECT_TRUE(helper->hasSelBatch());
   EXPECT_FALSE(helper->hasAdtBatch());
   helper->flush();
   EXPECT_FALSE(helper->hasSelBatch());
   EXPECT_TRUE(
       capture.contains("virtual void ChipMbbSlice::ChipMbbEngineHelper::flush() hasSelBatch"));
   EXPECT_EQ(engine.calls, (std::vector<std::string>{"processedMat", "processedSel"}));
}

TEST_F(MatOps, FlashLogRecordsCarryTheTraceIdAndRawValues) {
   auto dir = std::filesystem::temp_directory_path() / ("helper-qt-" + std::to_string(getpid()));
   std::filesystem::create_directories(dir);
   FlashLog::Handle& handle = FlashLog::defaultHandle();
   ASSERT_TRUE(handle.open((dir / "helper.qt").string(),
                           FlashLog::LevelSizes{64, 64, 64, 64, 64, 64, 64, 64, 64, 64}));
   auto helper = singleHelper();
   helper->addEntry(matEntry(0x1, 0x10, 0x11, 3, plainBlock(), 1, 2, 4));
   helper->moveEntry(matEntry(0x1, 0x11, 0x11, 5));
   helper->deleteEntry(matEntry(0x1, 0x11, 0x11, 5));
   std::string path = handle.path();
   handle.close();
   std::vector<std::string> texts;
   for (const auto& record : FlashLog::decodeFile(path).records) texts.push_back(record.text);
   std::filesystem::remove_all(dir);

   ASSERT_EQ(texts.size(), 9u);
   EXPECT_EQ(texts[0], "42:add key:0x1 hdl:0x11 index:3 selindex:2 adtindex:4");
   EXPECT_EQ(texts[1], "42:mat status key:0x1 opId:0x10");
   EXPECT_EQ(texts[2].rfind("42:processMatPlcmtInfo tblHdl:0x100 ns:", 0), 0u) << texts[2];
   EXPECT_EQ(texts[3], "42:mov key:0x1 hdl:0x11 index:5 selindex:0 adtindex:0");
   EXPECT_EQ(texts[6], "42:del key:0x1 hdl:0x11");
   EXPECT_EQ(texts[7], "42:mat status del key:0x1");
}

}  // namespace
}  // namespace ChipMbbSlice::Test
