// Match-table operations of the placement helper against the chip model.

#include <unistd.h>

#include <filesystem>

#include "ChipMbbSlice/test/HelperTestUtil.h"
#include "FlashLog/CaptureSink.h"
#include "FlashLog/Decoder.h"

namespace ChipMbbSlice::Test {
namespace {

using ChipTestUtil::plainBlock;

constexpr std::uint32_t dflt = EntryConfig::defaultEntryIndex;

using MatOps = HelperTest;

TEST_F(MatOps, EachOperationReachesTheChipIsCountedAndWritesStatus) {
   auto helper = singleHelper();
   const ChipModel::MatTable& table = matTable();

   helper->addEntry(matEntry(0x1, 0x10, 0x11, 3, plainBlock(1), 1, 2, 4));
   const ChipModel::MatEntry* entry = table.entry(0x11);
   ASSERT_NE(entry, nullptr);
   EXPECT_EQ(std::tuple(entry->index, entry->selIndex, entry->adtIndex), std::tuple(3u, 2u, 4u));
   EXPECT_EQ(entry->data, plainBlock(1));
   EXPECT_EQ(matStatus->entry(0x1), EntryStatus(0x1, 0x10));

   helper->moveEntry(matEntry(0x1, 0x11, 0x11, 5, plainBlock(2), 1, 6, 7));
   EXPECT_EQ(std::tuple(entry->index, entry->selIndex, entry->adtIndex), std::tuple(5u, 6u, 7u));
   EXPECT_EQ(matStatus->entry(0x1), EntryStatus(0x1, 0x11));

   helper->updateEntry(matEntry(0x1, 0x12, 0x11, 5, plainBlock(3), 1, 8, 9));
   EXPECT_EQ(std::tuple(entry->selIndex, entry->adtIndex), std::tuple(8u, 9u));
   EXPECT_EQ(entry->data, plainBlock(3));
   EXPECT_EQ(matStatus->entry(0x1), EntryStatus(0x1, 0x12));

   // The engine deletes an entry whose key is still configured: the status goes with it.
   helper->deleteEntry(matEntry(0x1, 0x12, 0x11, 5));
   EXPECT_EQ(table.entry(0x11), nullptr);
   EXPECT_FALSE(matStatus->present(0x1));

   // Index 0x7FFFF sends an add and a delete to the default entry, counted as such only.
   helper->addEntry(matEntry(0x2, 0x20, 0x21, dflt, plainBlock(4), 2, 1, 1));
   EXPECT_EQ(table.defaultHdl(0), 0x21u);
   EXPECT_EQ(matStatus->entry(0x2), EntryStatus(0x2, 0x20));
   helper->deleteEntry(matEntry(0x2, 0x20, 0x21, dflt));
   EXPECT_EQ(table.defaultHdl(0), 0u);
   EXPECT_FALSE(matStatus->present(0x2));

   helper->addEntry(matEntry(0x3, 0x30, 0x31, 7));
   helper->deleteEntryDeadlock(matEntry(0x3, 0x30, 0x31, 7));
   EXPECT_EQ(table.entry(0x31), nullptr);

   EXPECT_EQ(std::vector<std::uint64_t>({helper->numMatAddOps(), helper->numMatMovOps(),
                                         helper->numMatModOps(), helper->numMatDelOps(),
                                         helper->numMatSetDfltOps(), helper->numMatClrDfltOps(),
                                         helper->numMatDelDeadlockOps()}),
             std::vector<std::uint64_t>({2, 1, 1, 2, 1, 1, 1}));
   // One batch per operation, each released with nothing left behind.
   EXPECT_EQ(model->numCommits(), 8u);
   EXPECT_EQ(helper->matDeferFreeSize() + helper->matPlcmtInfoStatusSize(), 0u);
}

TEST_F(MatOps, TestModeSkipsTheCommitAndStillWritesStatus) {
   DualLog::CaptureSink capture;
   capture.levelIs("ChipMbbSlice", 5);
   auto helper = singleHelper(true);
   helper->addEntry(matEntry(0x1, 0x10, 0x11, 3));
   helper->addEntry(matEntry(0x2, 0x20, 0x21, dflt));
   EXPECT_EQ(model->numCommits(), 0u);
   EXPECT_EQ(matTable().entry(0x11), nullptr);
   EXPECT_EQ(matStatus->entry(0x1), EntryStatus(0x1, 0x10));
   EXPECT_TRUE(capture.contains("testmode, skipping SDK call"));

   // A delete that carries a deleted configuration writes the delete's op id; one of a
   // configured entry removes the status.
   helper->deleteEntry(EntryConfig::deletion(0x1, 0x12));
   EXPECT_EQ(matStatus->entry(0x1), EntryStatus(0x1, 0x12));
   helper->deleteEntry(matEntry(0x2, 0x20, 0x21, 4));
   EXPECT_FALSE(matStatus->present(0x2));

   // Without a status table operations are still committed.
   singleHelper(false, false)->addEntry(matEntry(0x3, 0x30, 0x31, 4));
   EXPECT_NE(matTable().entry(0x31), nullptr);
}

TEST_F(MatOps, BrokenInvariantsAndRefusalsAreAssertions) {
   for (auto [adtHdl, selHdl] : {std::pair{3u, 0u}, std::pair{0u, 3u}}) {
      EXPECT_EQ(assertionOf([&] {
                   Orb::ptrNew<ChipMbbEngineHelper>("t", nullptr, nullptr, nullptr, nullptr, 1, 2,
                                                    adtHdl, selHdl, 4, false, 3);
                }),
                "adtTableHandle() != 0 && selTableHandle() != 0 && \"need both tables\"");
   }

   auto helper = singleHelper();
   const std::string multiIndex = "false && \"Multi index is not supported yet\"";
   EXPECT_EQ(assertionOf([&] { helper->addEntry(matEntry(0x1, 0x10, 0x11, 3, plainBlock(), 2)); }),
             multiIndex);
   helper->processMatPlcmtInfo();  // the open batch is empty and commits

   helper->addEntry(matEntry(0x1, 0x10, 0x11, 3));
   EXPECT_EQ(assertionOf([&] { helper->moveEntry(matEntry(0x1, 0x11, 0x11, 4, plainBlock(), 2)); }),
             multiIndex);
   helper->processMatPlcmtInfo();
   EXPECT_EQ(
       assertionOf([&] { helper->updateEntry(matEntry(0x1, 0x11, 0x11, 3, plainBlock(), 0)); }),
       multiIndex);
   helper->processMatPlcmtInfo();
   EXPECT_EQ(assertionOf([&] { helper->processMatPlcmtInfo(); }),
             "info != __null && \"nothing to process\"");

   // Index 99 is past the end of the table: the chip refuses the commit. The batch is released
   // all the same, so that the next operation starts a fresh one.
   EXPECT_EQ(assertionOf([&] { helper->addEntry(matEntry(0x3, 0x30, 0x31, 99)); }),
             "status == BF_SUCCESS && \"Not succesful status\"");
   EXPECT_EQ(helper->matDeferFreeSize() + helper->matPlcmtInfoStatusSize(), 0u);
   helper->addEntry(matEntry(0x3, 0x30, 0x31, 5));
   EXPECT_EQ(matStatus->entry(0x3), EntryStatus(0x3, 0x30));

   // A block that is no placement data is refused when recorded.
   EXPECT_EQ(assertionOf([&] {
                helper->addEntry(matEntry(0x4, 0x40, 0x41, 6, ChipSdk::PlcmtDataBlock()));
             }),
             "status == BF_SUCCESS");
   helper->processMatPlcmtInfo();
}

TEST_F(MatOps, FullStatusTableLeavesTheKeyWithoutStatusAndTheHelperGoesOn) {
   DualLog::CaptureSink capture;
   capture.levelIs("ChipMbbSlice", 0);
   matStatus = statusTableNew("one-slot", 1);
   auto helper = singleHelper();
   helper->addEntry(matEntry(0x1, 0x10, 0x11, 1));
   helper->addEntry(matEntry(0x2, 0x20, 0x21, 2));
   EXPECT_NE(matTable().entry(0x21), nullptr);
   EXPECT_FALSE(matStatus->present(0x2));
   EXPECT_TRUE(capture.contains(
       "No room for status: tblHdl=0x100, key=0x2, opId=0x0000000000000020: one-slot: table full: "
       "all 1 entries in use"));

   // The next operations get batches of their own; a key the table holds is still rewritten.
   helper->updateEntry(matEntry(0x1, 0x11, 0x11, 1, plainBlock(5)));
   EXPECT_EQ(matStatus->entry(0x1), EntryStatus(0x1, 0x11));
   helper->deleteEntry(matEntry(0x1, 0x11, 0x11, 1));
   helper->updateEntry(matEntry(0x2, 0x21, 0x21, 2));
   EXPECT_EQ(matStatus->entry(0x2), EntryStatus(0x2, 0x21));
   EXPECT_EQ(model->numCommits(), 5u);

   // On the action-data side the dependency engine still hears of the key.
   adtStatus = statusTableNew("one-slot-adt", 1);
   auto triple = tripleHelper();
   triple->addAdtEntry(adtEntry(0xA1, 0x1, 1));
   triple->addAdtEntry(adtEntry(0xA2, 0x1, 2));
   EXPECT_FALSE(adtStatus->present(0xA2));
   EXPECT_EQ(engine.calls, (std::vector<std::string>{"processedAdt 0xa1", "processedAdt 0xa2"}));
   triple->delAdtEntry(AdtEntryConfig(0xA1, 0x1, 1));
   triple->delAdtEntry(AdtEntryConfig(0xA2, 0x1, 2));
}

TEST_F(MatOps, CommitStepsComeInOrder) {
   class BatchWatch : public ChipMbbEngineHelper::Notifiee {
    public:
      explicit BatchWatch(std::function<void(const std::string&)> log) : log_(std::move(log)) {}
      void onMatPlcmtInfo() override { log_("batch"); }
      void onMatDeferFree(std::uint32_t) override { log_("copy queue"); }
      void onMatPlcmtInfoStatus(std::uint32_t) override { log_("status queue"); }

    private:
      std::function<void(const std::string&)> log_;
   };

   auto helper = tripleHelper();
   std::vector<std::string> events;
   auto log = [&](const std::string& what) {
      p4_pd_plcmt_info_t* info = helper->matPlcmtInfo();
      events.push_back(what +
                       (info ? " ops=" + std::to_string(model->plcmtInfoSize(info)) : " none") +
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
                         "batch ops=0 commits=0 copies=0 statuses=0",
                         "copy queue ops=0 commits=0 copies=1 statuses=0",
                         "matInBatch 0x1 ops=0 commits=0 copies=1 statuses=0",
                         "status queue ops=1 commits=0 copies=1 statuses=0",
                         "copy queue ops=1 commits=1 copies=0 statuses=0",
                         "processedMat ops=1 commits=1 copies=0 statuses=0",
                         "status queue ops=1 commits=1 copies=0 statuses=0",
                         "status 0x1 ops=1 commits=1 copies=0 statuses=1",
                         "batch none commits=1 copies=0 statuses=1",
                     }));

   // A single table never calls a dependency engine.
   engine.observer = nullptr;
   engine.calls.clear();
   auto single = singleHelper();
   single->implIs(&engine);
   single->addEntry(matEntry(0x1, 0x10, 0x11, 3));
   EXPECT_TRUE(engine.calls.empty());
}

TEST_F(MatOps, TracesNameEachStep) {
   DualLog::CaptureSink capture;
   capture.levelIs("ChipMbbSlice", 5);
   auto helper = singleHelper();
   helper->addEntry(matEntry(0x1, 0x10, 0x11, 3));
   helper->deleteEntry(matEntry(0x1, 0x10, 0x11, 3));
   helper->addEntry(matEntry(0x2, 0x20, 0x21, dflt));
   helper->deleteEntry(matEntry(0x2, 0x20, 0x21, dflt));
   EXPECT_EQ(capture.texts(),
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
}

TEST_F(MatOps, FlushLooksAtTheAdtBatchForTheMatchOne) {
   auto helper = tripleHelper();
   // A match batch left open is not seen by hasMatBatch...
   helper->getMatPlcmtInfo();
   EXPECT_FALSE(helper->hasMatBatch());
   helper->flush();
   EXPECT_NE(helper->matPlcmtInfo(), nullptr);
   helper->processMatPlcmtInfo();

   // ...while an open ADT batch makes flush commit the match batch, which is not there.
   helper->getAdtPlcmtInfo();
   EXPECT_TRUE(helper->hasMatBatch());
   EXPECT_EQ(assertionOf([&] { helper->flush(); }), "info != __null && \"nothing to process\"");
   helper->processAdtPlcmtInfo();

   helper->getSelPlcmtInfo();
   helper->flush();
   EXPECT_FALSE(helper->hasSelBatch());
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
   helper->deleteEntry(matEntry(0x1, 0x11, 0x11, 5));
   std::string path = handle.path();
   handle.close();
   std::vector<std::string> texts;
   for (const auto& record : FlashLog::decodeFile(path).records) texts.push_back(record.text);
   std::filesystem::remove_all(dir);

   ASSERT_EQ(texts.size(), 6u);
   EXPECT_EQ(texts[0], "42:add key:0x1 hdl:0x11 index:3 selindex:2 adtindex:4");
   EXPECT_EQ(texts[1], "42:mat status key:0x1 opId:0x10");
   EXPECT_TRUE(texts[2].starts_with("42:processMatPlcmtInfo tblHdl:0x100 ns:")) << texts[2];
   EXPECT_EQ(texts[3], "42:del key:0x1 hdl:0x11");
   EXPECT_EQ(texts[4], "42:mat status del key:0x1");
}

}  // namespace
}  // namespace ChipMbbSlice::Test
