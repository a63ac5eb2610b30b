#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include "Atlas/EntityManager.h"
#include "ChipMbbShared/MountInfo.h"
#include "ChipMbbShared/TableInfoDir.h"
#include "ChipMbbSliceTableMgr/ChipSliceMatAdtSelTableMgrSm.h"
#include "ChipMbbSliceTableMgr/ChipSliceTableMgrSm.h"
#include "Keel/EventLoop.h"
#include "Orb/Ptr.h"
#include "SliceSystem/EcmpWorkload.h"
#include "SliceSystem/HostCounters.h"
#include "SliceSystem/SegmentId.h"
#include "Vault/MbbEngine/Tables.h"

namespace SliceSystem {

class AgentHost;

// Where a publisher's tables go: the mount-info collections it announces them in (one for
// single tables, one for triples, each an entity of the published table directory), their
// configuration collections, which it writes, and the status collections and host counters,
// which it reads.
class PublishTarget {
 public:
   using Key = ChipMbbShared::TableConfigMountKey;
   using MountEntry = ChipMbbShared::TableConfigMountEntry;
   using TripleEntry = ChipMbbShared::MatAdtSelTableConfigMountEntry;

   virtual ~PublishTarget() = default;

   virtual Keel::EventLoop& loop() = 0;
   // Whether the collections are shared tables found by path (an announcement can then name a
   // path that is not there).
   virtual bool shared() const = 0;
   virtual ChipMbbShared::TableConfigMountInfo& tableMountInfo() = 0;
   // The configuration collection of a table about to be announced, ready for writing; null
   // when it cannot be had. The announcement itself is the publisher's, except in test mode,
   // where the manager makes the collection when it sees the announcement.
   virtual Orb::Ptr<Vault::MbbEngine::TableConfig> configTable(const Key& key,
                                                               const MountEntry& entry) = 0;
   // Lets the configuration collection go, so that the next configTable() makes it afresh.
   virtual void configDrop(const Key& key, const MountEntry& entry) {}
   // The paths of this publisher's collections found damaged since the last call.
   virtual std::set<std::string> damagedTake() { return {}; }
   // The status collection, null while the host has not made it. A different pointer than
   // before means that the host made it afresh.
   virtual Orb::Ptr<Vault::MbbEngine::TableStatus> statusTable(const Key& key,
                                                               const MountEntry& entry) = 0;
   virtual Orb::Ptr<HostCountersTable> hostCounters() = 0;
   // Puts a collection of another type than a table configuration at `path`, for an
   // announcement that names the wrong type. Only shared targets have paths.
   virtual void decoyIs(const std::string& path) {}

   // Where triples are announced; null when the target has no place for them.
   virtual ChipMbbShared::MatAdtSelTableConfigMountInfo* tripleMountInfo() { return nullptr; }
   // The four configuration collections of a triple about to be announced, each with room for
   // as many keys as `capacity` says; incomplete when they cannot be had. As for single tables,
   // in test mode the announcement is made here, since the manager makes the collections.
   virtual EcmpTableSink tripleConfigTables(const Key& key, const TripleEntry& entry,
                                            const EcmpCapacities& capacity) {
      return {};
   }
   // The triple's status collection at `path`, null while the host has not made it.
   virtual Orb::Ptr<Vault::MbbEngine::TableStatus> tripleStatusTable(const Key& key,
                                                                     const std::string& path) {
      return nullptr;
   }
};

// The names under which a publisher announces its single tables and its triples.
inline std::string singlesName(const std::string& publisher) {
   return publisher;
}
inline std::string triplesName(const std::string& publisher) {
   return publisher + "-triples";
}

// Shared tables under a root, through this process's own entity manager. The publisher's
// directory is `<dirPrefix><name>`; it is there from the start, and each mount-info collection
// is announced in it when first used. A publisher that stops leaves its tables published: its
// segments go with it, which the host takes as the publisher gone, not as the tables withdrawn.
class ShmPublishTarget : public PublishTarget {
 public:
   ShmPublishTarget(Keel::EventLoop& loop, const std::string& root,
                    const std::string& name = "slicepub",
                    const std::string& dirPrefix = "mbb/publishers/",
                    const std::string& countersPath = "mbb/hostCounters");
   ~ShmPublishTarget() override;

   Keel::EventLoop& loop() override { return loop_; }
   bool shared() const override { return true; }
   ChipMbbShared::TableConfigMountInfo& tableMountInfo() override;
   Orb::Ptr<Vault::MbbEngine::TableConfig> configTable(const Key& key,
                                                       const MountEntry& entry) override;
   void configDrop(const Key& key, const MountEntry& entry) override;
   std::set<std::string> damagedTake() override { return std::exchange(damaged_, {}); }
   Orb::Ptr<Vault::MbbEngine::TableStatus> statusTable(const Key& key,
                                                       const MountEntry& entry) override;
   Orb::Ptr<HostCountersTable> hostCounters() override;
   void decoyIs(const std::string& path) override;
   // Made on first use, so that a publisher of single tables only announces no triples.
   ChipMbbShared::MatAdtSelTableConfigMountInfo* tripleMountInfo() override;
   EcmpTableSink tripleConfigTables(const Key& key, const TripleEntry& entry,
                                    const EcmpCapacities& capacity) override;
   Orb::Ptr<Vault::MbbEngine::TableStatus> tripleStatusTable(const Key& key,
                                                             const std::string& path) override;
   Atlas::EntityManager& entityManager() { return entityManager_; }

 private:
   // Mounts `path` for reading, again when its segment was replaced; null when it is not there.
   template <class T>
   Orb::Ptr<T> readerMount(const std::string& path);

   Keel::EventLoop& loop_;
   Atlas::EntityManager entityManager_;
   std::string name_;
   std::string countersPath_;
   std::unique_ptr<ChipMbbShared::TableInfoPublisher> dir_;
   Orb::Ptr<ChipMbbShared::TableConfigMountInfo> tableMountInfo_;
   Orb::Ptr<ChipMbbShared::MatAdtSelTableConfigMountInfo> tripleMountInfo_;
   std::map<std::string, SegmentId> readers_;
   std::set<std::string> damaged_;
};

// The tables of an agent host in this same process, in test mode: the mount-info collections
// are made here and put into the host's directory under the publisher's names.
class LocalPublishTarget : public PublishTarget {
 public:
   explicit LocalPublishTarget(AgentHost& host, std::string name = "slicepub");

   Keel::EventLoop& loop() override;
   bool shared() const override { return false; }
   ChipMbbShared::TableConfigMountInfo& tableMountInfo() override;
   Orb::Ptr<Vault::MbbEngine::TableConfig> configTable(const Key& key,
                                                       const MountEntry& entry) override;
   Orb::Ptr<Vault::MbbEngine::TableStatus> statusTable(const Key& key,
                                                       const MountEntry& entry) override;
   Orb::Ptr<HostCountersTable> hostCounters() override;
   ChipMbbShared::MatAdtSelTableConfigMountInfo* tripleMountInfo() override;
   EcmpTableSink tripleConfigTables(const Key& key, const TripleEntry& entry,
                                    const EcmpCapacities& capacity) override;
   Orb::Ptr<Vault::MbbEngine::TableStatus> tripleStatusTable(const Key& key,
                                                             const std::string& path) override;

 private:
   Orb::Ptr<ChipMbbSlice::ChipSliceTableMgrSm> tableMgr() const;
   Orb::Ptr<ChipMbbSlice::ChipSliceMatAdtSelTableMgrSm> tripleMgr() const;

   AgentHost& host_;
   std::string name_;
   Orb::Ptr<ChipMbbShared::TableConfigMountInfo> tableMountInfo_;
   Orb::Ptr<ChipMbbShared::MatAdtSelTableConfigMountInfo> tripleMountInfo_;
};

}  // namespace SliceSystem
