#include "ChipMbbSliceTableMgr/ChipSliceMatAdtSelTableMgrSm.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ChipMbbSlice/ChipMbbEngineHelper.h"
#include "ChipMbbSliceTableMgr/test/TableMgrWorld.h"

namespace ChipMbbSlice::test {
namespace {

#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

using ChipMbbShared::MatAdtSelTableConfigMountInfo;
using Vault::MbbEngine::TableStatus;

// The chip's resources, with the selector shrunk to a few vectors: the status capacities
// follow, while the chip itself still takes everything.
class ShrunkSelector : public HwResourceInfo::HwResourceInfoIntf {
 public:
   ShrunkSelector(std::shared_ptr<const HwResourceInfoIntf> chip, std::uint32_t vectors)
       : chip_(std::move(chip)), vectors_(vectors) {}
   std::uint32_t hwResourceIndex(const std::string& name) const override {
      return chip_->hwResourceIndex(name);
   }
   HwResourceInfo::HwResource hwResource(std::uint32_t index) const override {
      return chip_->hwResource(index);
   }
   HwResourceInfo::HwResource hwResourceByHandle(std::uint32_t handle) const override {
      HwResourceInfo::HwResource r = chip_->hwResourceByHandle(handle);
      if (handle == ecmpSelHdl) r.size = vectors_;
      return r;
   }

 private:
   std::shared_ptr<const HwResourceInfoIntf> chip_;
   std::uint32_t vectors_;
};

struct TripleMgrWorld : World {
   TripleMgrWorld() { tripleInfo->mountedIs(true); }
   ~TripleMgrWorld() { tmgr.reset(); }

   Orb::Ptr<ChipSliceMatAdtSelTableMgrSm> tmgrNew(Orb::Ptr<Atlas::EntityManager> em = nullptr) {
      Orb::Ptr<const HwResourceInfo::HwResourceInfoIntf> resources =
          ChipModel::modelResourceInfoNew(chip->profile());
      if (selVectors) resources = std::make_shared<ShrunkSelector>(resources, selVectors);
      tmgr = Orb::ptrNew<ChipSliceMatAdtSelTableMgrSm>(tripleInfo, std::move(em), supportedDevices,
                                                       sessHdl, syncGenTime, wheel, flushStatus,
                                                       mountConfig, resources);
      return tmgr;
   }
   void publish(const TableConfigMountKey& key, const MatAdtSelTableConfigMountEntry& entry) {
      tripleInfo->entryIs(key, entry);
   }
   std::vector<std::string> runningTriples() const {
      std::vector<std::string> names;
      for (const auto& [key, sm] : tmgr->matAdtSelSliceSms()) names.push_back(key.name());
      return names;
   }
   ChipMbbEngineHelper& helper(const TableConfigMountKey& key) const {
      return *std::dynamic_pointer_cast<ChipMbbEngineHelper>(
          tmgr->matAdtSelSliceSm(key)->mbbEngineImpl()->helper());
   }

   Orb::Ptr<MatAdtSelTableConfigMountInfo> tripleInfo =
       Vault::localTableNew<MatAdtSelTableConfigMountInfo>("ChipMbbSlc_triples");
   std::uint32_t selVectors = 0;
   Orb::Ptr<ChipSliceMatAdtSelTableMgrSm> tmgr;
};

const std::vector<DecisionCase<TripleMgrWorld>>& tripleCases() {
   static const std::vector<DecisionCase<TripleMgrWorld>> cases = {
       {.name = "a current triple is mounted with statuses sized by the chip",
        .run =
            [](TripleMgrWorld& w) {
               w.publish(mountKey("ecmp", ecmpHdl), triple("ecmp"));
               w.tmgrNew();
            },
        .traces = {"ChipSliceMatAdtSelTableMgrSm::handleTableMount",
                   "ChipSliceMatAdtSelTableMgrSm::handleTableMount " + p("ecmp") +
                       " dev:0 pipe:0xffff id:0x01000010",
                   "mounting table for read " + p("ecmp"), "mounting vault in test mode",
                   "status capacities of " + p("ecmp") +
                       " mat:16384 adt:65536 selGrp:8192 selMbr:983040",
                   "starting matAdtSliceSm for " + p("ecmp"),
                   "no audit manager, skipping audit for table with hdl:0x1000010"},
        .records = {"1:mounting table:ecmp", "1:mounting triple adt:0x2000010 sel:0x3000010"},
        .running = {p("ecmp")},
        .check =
            [](TripleMgrWorld& w) {
               const auto key = mountKey("ecmp", ecmpHdl);
               ChipMbbEngineHelper& helper = w.helper(key);
               EXPECT_EQ(std::tuple(helper.matTableHandle(), helper.adtTableHandle(),
                                    helper.selTableHandle(), helper.devTgt()),
                         std::tuple(ecmpHdl, ecmpAdtHdl, ecmpSelHdl, key.devTgt()));
               const auto sm = w.tmgr->matAdtSelSliceSm(key);
               EXPECT_EQ(helper.selMbrTableStatus(), sm->selMbrTableStatus());
               EXPECT_EQ(helper.selGrpTableStatus(), sm->selGrpTableStatus());
               EXPECT_EQ(w.tmgr->debug(key)->debugConfig()->name(), p("ecmp"));
               EXPECT_EQ(w.tmgr->mountInfo(key), triple("ecmp"));
            }},
       {.name = "without needStatus only the ADT and group statuses exist",
        .run =
            [](TripleMgrWorld& w) {
               w.publish(mountKey("nostatus", ecmpHdl), triple("nostatus", false));
               w.tmgrNew();
            },
        .running = {p("nostatus")},
        .check =
            [](TripleMgrWorld& w) {
               ChipMbbEngineHelper& helper = w.helper(mountKey("nostatus", ecmpHdl));
               EXPECT_EQ(helper.matTableStatus(), nullptr);
               EXPECT_EQ(helper.selMbrTableStatus(), nullptr);
               EXPECT_NE(helper.adtTableStatus(), nullptr);
               EXPECT_NE(helper.selGrpTableStatus(), nullptr);
            }},
       {.name = "a triple on one pipe or with foreign parts is not served",
        .run =
            [](TripleMgrWorld& w) {
               w.publish(mountKey("pipe1", ecmpHdl, 0, 1), triple("pipe1"));
               auto foreign = triple("foreign");
               foreign.adtTableIdIs(ecmpAdtHdl + 1);
               w.publish(mountKey("foreign", ecmpHdl), foreign);
               w.publish(mountKey("single", hostHdl), triple("single"));
               w.tmgrNew();
            },
        .traces = {"skipping " + p("pipe1") + ": a triple is served on all pipes only, pipe:1",
                   "skipping " + p("foreign") +
                       ": adt hdl:0x2000011 and sel hdl:0x3000010 are not the chip's triple of "
                       "hdl:0x1000010",
                   "skipping " + p("single") +
                       ": adt hdl:0x2000010 and sel hdl:0x3000010 are not the chip's triple of "
                       "hdl:0x1000001"},
        .records = {"0:skipping one-pipe triple:pipe1 pipe:1"},
        .check = [](TripleMgrWorld& w) { EXPECT_EQ(w.chip->numViolations(), 0u); }},
       {.name = "test mode keeps an unpublished triple running",
        .run =
            [](TripleMgrWorld& w) {
               w.publish(mountKey("kept", ecmpHdl), triple("kept"));
               w.tmgrNew();
               w.tmgr->allowUnmountIs(true);
               w.tripleInfo->entryDel(mountKey("kept", ecmpHdl));
            },
        .traces = {"unmounting table " + p("kept"), "No unmounting support in test mode"},
        .running = {p("kept")}},
   };
   return cases;
}

TEST(ChipSliceMatAdtSelTableMgrSmTest, DecisionSteps) {
   runDecisionCases(tripleCases(), [](const TripleMgrWorld& w) { return w.runningTriples(); });
}

// The agent's triple manager mounts what the publisher announces in "agent/triples".
struct MountedTripleWorld : TwoProcesses, TripleMgrWorld {
   MountedTripleWorld() {
      pubInfo = publisher.mount<MatAdtSelTableConfigMountInfo>("agent/triples",
                                                               Atlas::MountMode::writer, 8);
      tripleInfo =
          agent->mount<MatAdtSelTableConfigMountInfo>("agent/triples", Atlas::MountMode::reader);
   }
   void configsIs(const std::string& name) {
      const auto writer = Atlas::MountMode::writer;
      publisher.mount<Vault::MbbEngine::TableConfig>(name + "/config", writer, 64);
      publisher.mount<ChipMbbShared::AdtTableConfig>(name + "/adtConfig", writer, 64);
      publisher.mount<ChipMbbShared::SelGrpTableConfig>(name + "/grpConfig", writer, 64);
      publisher.mount<ChipMbbShared::SelMbrTableConfig>(name + "/mbrConfig", writer, 64);
   }

   Orb::Ptr<MatAdtSelTableConfigMountInfo> pubInfo;
};

TEST(ChipSliceMatAdtSelTableMgrMountTest, TripleIsMountedReplacedAndUnmounted) {
   MountedTripleWorld w;
   w.selVectors = 4;
   w.configsIs("t");
   w.tmgrNew(w.agent);
   auto audit = Orb::ptrNew<RecordingAuditMgr>();
   w.tmgr->tableAuditMgrSmIs(audit);
   w.tmgr->allowUnmountIs(true);

   const auto key = mountKey("t", ecmpHdl);
   w.pubInfo->entryIs(key, triple("t", true, 1));
   w.settle([&] { return w.tmgr->matAdtSelSliceSm(key) != nullptr; });
   ASSERT_NE(w.tmgr->matAdtSelSliceSm(key), nullptr);
   EXPECT_EQ(w.agent->numMounts(), 9u);
   // The publisher finds each status where it announced it, sized as the trace said.
   auto mbrStatus = w.publisher.mount<TableStatus>("t/mbrStatus", Atlas::MountMode::reader);
   EXPECT_EQ(mbrStatus->capacity(), 480u);
   EXPECT_TRUE(w.capture.contains("status capacities of " + p("t") +
                                  " mat:16384 adt:65536 selGrp:4 selMbr:480"));
   w.publisher.unmount("t/mbrStatus");

   // A new publisher instance retires the triple; its own announcement brings it back.
   w.pubInfo->entryIs(mountKey("other", ecmpHdl, 1), triple("other", true, 2));
   w.settle([&] { return w.tmgr->matAdtSelSliceSm(key) == nullptr; });
   EXPECT_TRUE(w.runningTriples().empty());
   w.pubInfo->entryIs(key, triple("t", true, 2));
   w.settle([&] { return w.tmgr->matAdtSelSliceSm(key) != nullptr; });
   EXPECT_EQ(w.runningTriples(), std::vector<std::string>{p("t")});

   w.pubInfo->entryDel(key);
   w.settle([&] { return w.tmgr->matAdtSelSliceSm(key) == nullptr; });
   EXPECT_EQ(w.tmgr->mountInfo(key), MatAdtSelTableConfigMountEntry());
   EXPECT_EQ(w.tmgr->debug(key), nullptr);
   EXPECT_EQ(w.agent->numMounts(), 1u);
   EXPECT_EQ(audit->calls.front(), "add triple " + p("t"));
   EXPECT_EQ(audit->calls.back(), "del triple " + p("t"));
}

// Any one of the eight collections that cannot be mounted takes the others back with it.
TEST(ChipSliceMatAdtSelTableMgrMountTest, FailedMountRollsBack) {
   MountedTripleWorld w;
   w.selVectors = 4;
   w.configsIs("cfg");
   w.configsIs("sts");
   // A status that another writer holds fails after every configuration is mounted.
   w.publisher.mount<TableStatus>("sts/grpStatus", Atlas::MountMode::writer, 4);
   w.pubInfo->entryIs(mountKey("cfg", ecmpHdl), triple("cfg"));
   w.pubInfo->entryIs(mountKey("missing", ecmpHdl, 1), triple("missing"));
   w.pubInfo->entryIs(mountKey("sts", ecmpHdl, 0), triple("sts"));
   w.publisher.unmount("cfg/mbrConfig");
   w.tmgrNew(w.agent);

   EXPECT_TRUE(w.runningTriples().empty());
   EXPECT_EQ(w.agent->numMounts(), 1u);
   for (const char* name : {"cfg", "missing", "sts"}) {
      EXPECT_TRUE(hasRecord("0:skipping unmountable:" + std::string(name))) << name;
   }
}

}  // namespace
}  // namespace ChipMbbSlice::test
