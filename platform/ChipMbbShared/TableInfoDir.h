#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <tuple>

#include "Atlas/EntityManager.h"
#include "ChipMbbShared/MountInfo.h"
#include "Orb/Dir.h"
#include "Orb/Enum.h"
#include "Orb/Value.h"
#include "Vault/Table.h"
#include "Vault/TableTypes.h"

namespace ChipMbbShared {

// What a feature agent's mount-info collection holds: single tables or triples.
enum class TableInfoKind : std::uint8_t { single = 1, triple = 2 };

}  // namespace ChipMbbShared

template <>
struct Orb::EnumInfo<ChipMbbShared::TableInfoKind> {
   static constexpr std::string_view typeName = "ChipMbbShared::TableInfoKind";
   static constexpr std::array<std::pair<ChipMbbShared::TableInfoKind, std::string_view>, 2> values{
       {{ChipMbbShared::TableInfoKind::single, "single"},
        {ChipMbbShared::TableInfoKind::triple, "triple"}}};
};

namespace ChipMbbShared {

// One entry of the published table directory: a feature agent's mount-info collection. Each
// publication of a name gets a new generation, so that a reader that missed a removal still
// learns that the collection it holds is not the current one.
class TableInfoDirEntry : public Orb::ValueBase {
 public:
   static constexpr std::string_view orbTypeName = "ChipMbbShared::TableInfoDirEntry";
   // Longest feature agent name; the directory's keys, strings of their own, hold as much.
   static constexpr std::size_t nameBound = 255;

   TableInfoDirEntry() = default;
   TableInfoDirEntry(std::string name, TableInfoKind kind, std::uint32_t generation)
       : name_(std::move(name)), kind_(kind), generation_(generation) {}

   const std::string& name() const { return name_; }
   const std::string& key() const { return name_; }
   TableInfoKind kind() const { return kind_; }
   std::uint32_t generation() const { return generation_; }

   bool empty() const { return *this == TableInfoDirEntry(); }
   bool operator==(const TableInfoDirEntry&) const = default;

   static constexpr auto orbFields() {
      return std::make_tuple(Orb::field<nameBound>("name", &TableInfoDirEntry::name_),
                             Orb::field("kind", &TableInfoDirEntry::kind_),
                             Orb::field("generation", &TableInfoDirEntry::generation_));
   }

 private:
   std::string name_;
   TableInfoKind kind_ = TableInfoKind::single;
   std::uint32_t generation_ = 0;
};

// The published table directory, keyed by feature agent name.
class TableInfoDirTable : public Vault::Table<std::string, TableInfoDirEntry> {
 public:
   static constexpr std::string_view vaultTypeName = "ChipMbbShared::TableInfoDirTable";
   using Table::Table;
};

inline const bool tableInfoDirTableRegistered = Vault::registerTableType<TableInfoDirTable>();

// Where the mount-info collection of directory entry `name` is published.
inline std::string tableInfoPath(const std::string& dirPath, const std::string& name) {
   return dirPath + "/" + name;
}

// The publisher's side: owns the directory and the mount-info collections it announces. A
// collection is created before its directory entry is written and removed after the entry is
// deleted, so a reader never finds an entry whose collection was not there yet.
//
// When the publisher goes it either withdraws every entry first (readers see the tables
// unpublished) or leaves them: its segments simply go, as if it had died, and readers keep
// what they hold.
class TableInfoPublisher {
 public:
   enum class OnExit { withdraw, leave };

   TableInfoPublisher(Atlas::EntityManager& entityManager, std::string dirPath,
                      std::uint32_t capacity = 256, OnExit onExit = OnExit::withdraw);
   TableInfoPublisher(const TableInfoPublisher&) = delete;
   TableInfoPublisher& operator=(const TableInfoPublisher&) = delete;
   ~TableInfoPublisher();

   // Publishes (or publishes afresh, replacing) the collection `name` with room for
   // `capacity` tables, and returns it for the publisher to fill.
   Orb::Ptr<TableConfigMountInfo> singleTableInfoIs(const std::string& name,
                                                    std::uint32_t capacity);
   Orb::Ptr<MatAdtSelTableConfigMountInfo> tripleTableInfoIs(const std::string& name,
                                                             std::uint32_t capacity);
   void tableInfoDel(const std::string& name);

   const Orb::Ptr<TableInfoDirTable>& dirTable() const { return dirTable_; }

 private:
   void announce(const std::string& name, TableInfoKind kind);

   Atlas::EntityManager& entityManager_;
   std::string dirPath_;
   OnExit onExit_;
   Orb::Ptr<TableInfoDirTable> dirTable_;
   std::uint32_t nextGeneration_ = 1;
};

// The agent's side: an Orb::Dir that holds, under each published name, the mount-info
// collection (TableConfigMountInfo or MatAdtSelTableConfigMountInfo) mounted for reading, and
// follows the directory as the publisher adds and removes names. A collection that cannot be
// mounted is left out of the Dir, counted and told to `refused` with the reason (damage and
// other users' segments excepted: the entity manager says those).
//
// Several mirrors may fill one Dir, one per publisher's directory. A name that another mirror
// already put there stays with it: the later announcement is counted as a clash and left out
// (until handleTableInfoDir finds the name free), and a mirror removes only what it put in.
class TableInfoDirMirror : public TableInfoDirTable::Notifiee {
 public:
   using Refused = std::function<void(const std::string& name, const std::string& reason)>;
   TableInfoDirMirror(Atlas::EntityManager& entityManager, std::string dirPath,
                      Orb::Ptr<Orb::Dir> dir = Orb::ptrNew<Orb::Dir>("tableInfoDir"),
                      Refused refused = {});
   ~TableInfoDirMirror() override;

   const Orb::Ptr<Orb::Dir>& dir() const { return dir_; }
   const Orb::Ptr<TableInfoDirTable>& dirTable() const { return dirTable_; }
   std::size_t numMountFailures() const { return numMountFailures_; }
   std::size_t numNameClashes() const { return numNameClashes_; }
   // Names this mirror has put in the Dir.
   std::size_t size() const { return mounted_.size(); }
   bool holds(const std::string& name) const { return mounted_.contains(name); }

   void onEntry(const std::string& name) override { handleTableInfo(name); }
   void onEntry() override { handleTableInfoDir(); }
   // Decides every name again: a name left out for a clash is taken once it is free.
   void handleTableInfoDir();

 private:
   void handleTableInfo(const std::string& name);
   void forget(std::string name);

   Atlas::EntityManager& entityManager_;
   std::string dirPath_;
   Orb::Ptr<Orb::Dir> dir_;
   Orb::Ptr<TableInfoDirTable> dirTable_;
   Refused refused_;
   struct Mounted {
      TableInfoDirEntry entry;
      Orb::Ptr<Orb::Object> info;
   };
   std::map<std::string, Mounted> mounted_;
   std::size_t numMountFailures_ = 0;
   std::size_t numNameClashes_ = 0;
};

}  // namespace ChipMbbShared
