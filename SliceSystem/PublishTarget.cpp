#include "SliceSystem/PublishTarget.h"

#include "Brio/Brio.h"
#include "SliceSystem/AgentHost.h"
#include "Vault/Errors.h"

namespace SliceSystem {

ShmPublishTarget::ShmPublishTarget(Keel::EventLoop& loop, const std::string& root,
                                   const std::string& tableInfoPath,
                                   const std::string& countersPath)
    : loop_(loop), entityManager_(root, &loop), countersPath_(countersPath) {
   tableMountInfo_ = entityManager_.mount<ChipMbbShared::TableConfigMountInfo>(
       tableInfoPath, Atlas::MountMode::writer, 64);
}

Orb::Ptr<Vault::MbbEngine::TableConfig> ShmPublishTarget::configTable(const Key& key,
                                                                      const MountEntry& entry) {
   return entityManager_.mount<Vault::MbbEngine::TableConfig>(
       entry.configPath(), Atlas::MountMode::writer, entry.tableSize());
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

LocalPublishTarget::LocalPublishTarget(AgentHost& host) : host_(host) {
   BRIO_ASSERT(host_.testmode() && "a local publisher needs a host in test mode");
}

Keel::EventLoop& LocalPublishTarget::loop() {
   return host_.loop();
}

ChipMbbShared::TableConfigMountInfo& LocalPublishTarget::tableMountInfo() {
   return *host_.tableMountInfo();
}

Orb::Ptr<Vault::MbbEngine::TableConfig> LocalPublishTarget::configTable(const Key& key,
                                                                        const MountEntry& entry) {
   tableMountInfo().entryIs(key, entry);
   auto engine = host_.tableMgr()->mbbEngineSms().find(key);
   if (engine == host_.tableMgr()->mbbEngineSms().end()) return nullptr;
   return engine->second->tableConfig();
}

Orb::Ptr<Vault::MbbEngine::TableStatus> LocalPublishTarget::statusTable(const Key& key,
                                                                        const MountEntry& entry) {
   auto engine = host_.tableMgr()->mbbEngineSms().find(key);
   if (engine == host_.tableMgr()->mbbEngineSms().end()) return nullptr;
   return engine->second->tableStatus();
}

Orb::Ptr<HostCountersTable> LocalPublishTarget::hostCounters() {
   return host_.countersTable();
}

}  // namespace SliceSystem
