#include "SliceSystem/PublishTarget.h"

#include "Brio/Brio.h"
#include "SliceSystem/AgentHost.h"
#include "Vault/Errors.h"
#include "Vault/ShmTable.h"

namespace SliceSystem {

ShmPublishTarget::ShmPublishTarget(Keel::EventLoop& loop, const std::string& root,
                                   const std::string& name, const std::string& dirPrefix,
                                   const std::string& countersPath)
    : loop_(loop), entityManager_(root, &loop), name_(name), countersPath_(countersPath) {
   // What a publisher or host that died left under the root goes before anything is made.
   Vault::shmStaleSegmentsRemove(entityManager_.shmName(""));
   entityManager_.corruptionHandlerIs(
       [this](const std::string& path, const std::string&) { damaged_.insert(path); });
   dir_ = std::make_unique<ChipMbbShared::TableInfoPublisher>(
       entityManager_, dirPrefix + name_, 16, ChipMbbShared::TableInfoPublisher::OnExit::leave);
}

// The collections go with the directory, before the entity manager that holds them.
ShmPublishTarget::~ShmPublishTarget() {
   tableMountInfo_.reset();
   tripleMountInfo_.reset();
   dir_.reset();
}

ChipMbbShared::TableConfigMountInfo& ShmPublishTarget::tableMountInfo() {
   if (!tableMountInfo_) tableMountInfo_ = dir_->singleTableInfoIs(singlesName(name_), 64);
   return *tableMountInfo_;
}

Orb::Ptr<Vault::MbbEngine::TableConfig> ShmPublishTarget::configTable(const Key& key,
                                                                      const MountEntry& entry) {
   return entityManager_.mount<Vault::MbbEngine::TableConfig>(
       entry.configPath(), Atlas::MountMode::writer, entry.tableSize());
}

void ShmPublishTarget::configDrop(const Key& key, const MountEntry& entry) {
   entityManager_.unmount(entry.configPath());
}

template <class T>
Orb::Ptr<T> ShmPublishTarget::readerMount(const std::string& path) {
   SegmentId now = segmentId(entityManager_.shmName(path));
   auto it = readers_.find(path);
   if (it != readers_.end()) {
      if (it->second == now) return entityManager_.entity<T>(path);
      entityManager_.unmount(path);
      readers_.erase(it);
   }
   if (!now) return nullptr;
   try {
      auto table = entityManager_.mount<T>(path, Atlas::MountMode::reader);
      readers_[path] = now;
      return table;
   } catch (const Vault::MountException&) {
      return nullptr;
   } catch (const Brio::CorruptionDetectedException&) {
      return nullptr;
   }
}

Orb::Ptr<Vault::MbbEngine::TableStatus> ShmPublishTarget::statusTable(const Key& key,
                                                                      const MountEntry& entry) {
   return readerMount<Vault::MbbEngine::TableStatus>(entry.statusPath());
}

Orb::Ptr<HostCountersTable> ShmPublishTarget::hostCounters() {
   return readerMount<HostCountersTable>(countersPath_);
}

void ShmPublishTarget::decoyIs(const std::string& path) {
   entityManager_.mount<HostCountersTable>(path, Atlas::MountMode::writer, 1);
}

ChipMbbShared::MatAdtSelTableConfigMountInfo* ShmPublishTarget::tripleMountInfo() {
   if (!tripleMountInfo_) tripleMountInfo_ = dir_->tripleTableInfoIs(triplesName(name_), 64);
   return tripleMountInfo_.get();
}

EcmpTableSink ShmPublishTarget::tripleConfigTables(const Key& key, const TripleEntry& entry,
                                                   const EcmpCapacities& capacity) {
   EcmpTableSink sink;
   auto writer = Atlas::MountMode::writer;
   sink.mat = entityManager_.mount<Vault::MbbEngine::TableConfig>(entry.matConfigPath(), writer,
                                                                  capacity[EcmpTable::route]);
   sink.adt = entityManager_.mount<ChipMbbShared::AdtTableConfig>(entry.adtConfigPath(), writer,
                                                                  capacity[EcmpTable::nextHop]);
   sink.selGrp = entityManager_.mount<ChipMbbShared::SelGrpTableConfig>(
       entry.selGrpConfigPath(), writer, capacity[EcmpTable::group]);
   sink.selMbr = entityManager_.mount<ChipMbbShared::SelMbrTableConfig>(
       entry.selMbrConfigPath(), writer, capacity[EcmpTable::member]);
   return sink;
}

Orb::Ptr<Vault::MbbEngine::TableStatus> ShmPublishTarget::tripleStatusTable(
    const Key& key, const std::string& path) {
   return readerMount<Vault::MbbEngine::TableStatus>(path);
}

LocalPublishTarget::LocalPublishTarget(AgentHost& host, std::string name)
    : host_(host), name_(std::move(name)) {
   BRIO_ASSERT(host_.testmode() && "a local publisher needs a host in test mode");
}

Keel::EventLoop& LocalPublishTarget::loop() {
   return host_.loop();
}

Orb::Ptr<ChipMbbSlice::ChipSliceTableMgrSm> LocalPublishTarget::tableMgr() const {
   return host_.watcher()->tableMgr(singlesName(name_));
}

Orb::Ptr<ChipMbbSlice::ChipSliceMatAdtSelTableMgrSm> LocalPublishTarget::tripleMgr() const {
   return host_.watcher()->matAdtSelTableMgr(triplesName(name_));
}

ChipMbbShared::TableConfigMountInfo& LocalPublishTarget::tableMountInfo() {
   if (!tableMountInfo_) {
      tableMountInfo_ =
          Vault::localTableNew<ChipMbbShared::TableConfigMountInfo>(singlesName(name_));
      tableMountInfo_->mountedIs(true);
      host_.tableInfoDir()->entityIs(singlesName(name_), tableMountInfo_);
   }
   return *tableMountInfo_;
}

Orb::Ptr<Vault::MbbEngine::TableConfig> LocalPublishTarget::configTable(const Key& key,
                                                                        const MountEntry& entry) {
   tableMountInfo().entryIs(key, entry);
   const auto engine = tableMgr()->mbbEngineSm(key);
   return engine ? engine->tableConfig() : nullptr;
}

Orb::Ptr<Vault::MbbEngine::TableStatus> LocalPublishTarget::statusTable(const Key& key,
                                                                        const MountEntry& entry) {
   const auto mgr = tableMgr();
   const auto engine = mgr ? mgr->mbbEngineSm(key) : nullptr;
   return engine ? engine->tableStatus() : nullptr;
}

Orb::Ptr<HostCountersTable> LocalPublishTarget::hostCounters() {
   return host_.countersTable();
}

ChipMbbShared::MatAdtSelTableConfigMountInfo* LocalPublishTarget::tripleMountInfo() {
   if (!tripleMountInfo_) {
      tripleMountInfo_ =
          Vault::localTableNew<ChipMbbShared::MatAdtSelTableConfigMountInfo>(triplesName(name_));
      tripleMountInfo_->mountedIs(true);
      host_.tableInfoDir()->entityIs(triplesName(name_), tripleMountInfo_);
   }
   return tripleMountInfo_.get();
}

EcmpTableSink LocalPublishTarget::tripleConfigTables(const Key& key, const TripleEntry& entry,
                                                     const EcmpCapacities& capacity) {
   tripleMountInfo()->entryIs(key, entry);
   EcmpTableSink sink;
   Orb::Ptr<ChipMbbSlice::MatAdtSelSm> sm = tripleMgr()->matAdtSelSliceSm(key);
   if (!sm) return sink;
   sink.mat = sm->matTableConfig();
   sink.adt = sm->adtTableConfig();
   sink.selGrp = sm->selGrpTableConfig();
   sink.selMbr = sm->selMbrTableConfig();
   return sink;
}

Orb::Ptr<Vault::MbbEngine::TableStatus> LocalPublishTarget::tripleStatusTable(
    const Key& key, const std::string& path) {
   const auto mgr = tripleMgr();
   Orb::Ptr<ChipMbbSlice::MatAdtSelSm> sm = mgr ? mgr->matAdtSelSliceSm(key) : nullptr;
   if (!sm) return nullptr;
   const TripleEntry entry = mgr->mountInfo(key);
   if (path == entry.matStatusPath()) return sm->tableStatus();
   if (path == entry.adtStatusPath()) return sm->adtTableStatus();
   if (path == entry.selGrpStatusPath()) return sm->selGrpTableStatus();
   if (path == entry.selMbrStatusPath()) return sm->selMbrTableStatus();
   return nullptr;
}

}  // namespace SliceSystem
