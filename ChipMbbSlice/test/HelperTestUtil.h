#pragma once

// A small chip, status tables and a dependency engine that records what it is told, for the
// tests of the placement helper.

#include <gtest/gtest.h>

#include <stdlib.h>

#include <functional>
#include <string>
#include <vector>

#include "ChipMbbSlice/ChipMbbSlice.h"
#include "ChipModel/ChipModel.h"
#include "ChipModel/testing/ChipTestUtil.h"
#include "Vault/MbbEngine/Tables.h"

namespace ChipMbbSlice::Test {

using ChipMbbShared::AdtEntryConfig;
using ChipMbbShared::SelMbrEntryConfig;
using ChipMbbShared::SelMbrEntryKey;
using ChipTestUtil::assertionOf;
using Vault::MbbEngine::EntryConfig;
using Vault::MbbEngine::EntryKey;
using Vault::MbbEngine::EntryStatus;
using Vault::MbbEngine::OpId;
using Vault::MbbEngine::TableStatus;

// Stands in for the dependency engine of a triple table: keeps every call in order and lets a
// test look at the world at the moment of each call.
class RecordingEngine : public DependencyEngineIntf {
 public:
   void matInBatch(EntryKey matKey) override { event("matInBatch " + toHex(matKey)); }
   void processedMat() override { event("processedMat"); }
   void processedAdt(EntryKey adtKey) override { event("processedAdt " + toHex(adtKey)); }
   void processedSel() override { event("processedSel"); }

   std::vector<std::string> calls;
   std::function<void(const std::string&)> observer;

 private:
   void event(const std::string& call) {
      calls.push_back(call);
      if (observer) observer(call);
   }
};

// Collects, in order, the keys whose status changes.
class StatusWatch : public TableStatus::Notifiee {
 public:
   explicit StatusWatch(std::function<void(EntryKey)> onChange) : onChange_(std::move(onChange)) {}
   void onEntry(const EntryKey& key) override { onChange_(key); }

 private:
   std::function<void(EntryKey)> onChange_;
};

constexpr std::uint32_t sessionHdl = 7;
constexpr std::uint32_t qtIdOfTest = 42;

inline Orb::Ptr<TableStatus> statusTableNew(const std::string& name, std::size_t capacity = 0) {
   auto table = Vault::MbbEngine::tableStatusFactory(name, Vault::MapDescriptor{capacity});
   table->mountedIs(true);
   return table;
}

class HelperTest : public ::testing::Test {
 protected:
   void SetUp() override {
      // The helper opens the slice's trace file when it is created; these tests keep none.
      setenv("FLASHLOG_DISABLE", "", 1);
      model->hitlessFatalIs(true);
   }
   void TearDown() override { unsetenv("FLASHLOG_DISABLE"); }

   // A helper of the single table of the test chip, on device 0, all pipes.
   Orb::Ptr<ChipMbbEngineHelper> singleHelper(bool testmode = false, bool withStatus = true) {
      auto helper = Orb::ptrNew<ChipMbbEngineHelper>(
          "single", withStatus ? matStatus : nullptr, nullptr, nullptr, nullptr, sessionHdl,
          ChipTestUtil::singleHdl, 0, 0, 16, testmode, qtIdOfTest);
      helper->devTgtIs({0, ChipTestUtil::allPipes});
      return helper;
   }

   // A helper of the test chip's triple, its dependency engine the recording one.
   Orb::Ptr<ChipMbbEngineHelper> tripleHelper(bool testmode = false, bool withStatus = true) {
      auto helper = Orb::ptrNew<ChipMbbEngineHelper>(
          "route", withStatus ? matStatus : nullptr, withStatus ? adtStatus : nullptr,
          withStatus ? selGrpStatus : nullptr, withStatus ? selMbrStatus : nullptr, sessionHdl,
          ChipTestUtil::routeHdl, ChipTestUtil::routeAdtHdl, ChipTestUtil::routeSelHdl, 64,
          testmode, qtIdOfTest);
      helper->devTgtIs({0, ChipTestUtil::allPipes});
      helper->implIs(&engine);
      return helper;
   }

   static EntryConfig matEntry(EntryKey key, OpId opId, std::uint32_t hdl, std::uint32_t index,
                               const ChipSdk::PlcmtDataBlock& data = ChipTestUtil::plainBlock(),
                               std::uint32_t indexCount = 1, std::uint32_t selIndex = 0,
                               std::uint32_t adtIndex = 0) {
      return EntryConfig(key, opId, hdl, 0, 0, indexCount, index, selIndex, adtIndex, data);
   }

   static AdtEntryConfig adtEntry(EntryKey key, OpId opId, std::uint32_t mbrHdl,
                                  std::uint8_t tag = 0) {
      return AdtEntryConfig(key, opId, mbrHdl, ChipTestUtil::plainBlock(tag));
   }

   static SelMbrEntryConfig mbrEntry(SelMbrEntryKey key, OpId opId, EntryKey adtKey,
                                     std::uint8_t tag = 0) {
      return SelMbrEntryConfig(key, opId, adtKey, true, ChipTestUtil::plainBlock(tag));
   }

   const ChipModel::MatTable& matTable(std::uint32_t tblHdl = ChipTestUtil::singleHdl) const {
      return *model->matTable(0, tblHdl);
   }
   const ChipModel::AdtTable& adtTable() const {
      return *model->adtTable(0, ChipTestUtil::routeAdtHdl);
   }
   const ChipModel::SelTable& selTable() const {
      return *model->selTable(0, ChipTestUtil::routeSelHdl);
   }

   ChipModel::InstalledChip chip{ChipTestUtil::testProfile()};
   ChipModel::Chip* model = &chip;
   RecordingEngine engine;
   Orb::Ptr<TableStatus> matStatus = statusTableNew("mat-status");
   Orb::Ptr<TableStatus> adtStatus = statusTableNew("adt-status");
   Orb::Ptr<TableStatus> selGrpStatus = statusTableNew("selgrp-status");
   Orb::Ptr<TableStatus> selMbrStatus = statusTableNew("selmbr-status");
};

}  // namespace ChipMbbSlice::Test
