#include "ChipMbbShared/TableInfoDir.h"

#include "Vault/Errors.h"

namespace ChipMbbShared {

TableInfoPublisher::TableInfoPublisher(Atlas::EntityManager& entityManager, std::string dirPath,
                                       std::uint32_t capacity, OnExit onExit)
    : entityManager_(entityManager), dirPath_(std::move(dirPath)), onExit_(onExit) {
   dirTable_ =
       entityManager_.mount<TableInfoDirTable>(dirPath_, Atlas::MountMode::writer, capacity);
}

TableInfoPublisher::~TableInfoPublisher() {
   std::vector<std::string> names;
   for (const auto& [name, entry] : *dirTable_) names.push_back(name);
   for (const std::string& name : names) {
      if (onExit_ == OnExit::withdraw) dirTable_->entryDel(name);
      entityManager_.unmount(tableInfoPath(dirPath_, name));
   }
   entityManager_.unmount(dirPath_);
}

Orb::Ptr<TableConfigMountInfo> TableInfoPublisher::singleTableInfoIs(const std::string& name,
                                                                     std::uint32_t capacity) {
   tableInfoDel(name);
   auto info = entityManager_.mount<TableConfigMountInfo>(tableInfoPath(dirPath_, name),
                                                          Atlas::MountMode::writer, capacity);
   announce(name, TableInfoKind::single);
   return info;
}

Orb::Ptr<MatAdtSelTableConfigMountInfo> TableInfoPublisher::tripleTableInfoIs(
    const std::string& name, std::uint32_t capacity) {
   tableInfoDel(name);
   auto info = entityManager_.mount<MatAdtSelTableConfigMountInfo>(
       tableInfoPath(dirPath_, name), Atlas::MountMode::writer, capacity);
   announce(name, TableInfoKind::triple);
   return info;
}

void TableInfoPublisher::announce(const std::string& name, TableInfoKind kind) {
   try {
      dirTable_->entryIs(TableInfoDirEntry(name, kind, nextGeneration_++));
   } catch (...) {
      entityManager_.unmount(tableInfoPath(dirPath_, name));
      throw;
   }
}

void TableInfoPublisher::tableInfoDel(const std::string& name) {
   dirTable_->entryDel(name);
   entityManager_.unmount(tableInfoPath(dirPath_, name));
}

TableInfoDirMirror::TableInfoDirMirror(Atlas::EntityManager& entityManager, std::string dirPath,
                                       Orb::Ptr<Orb::Dir> dir, Refused refused)
    : entityManager_(entityManager),
      dirPath_(std::move(dirPath)),
      dir_(std::move(dir)),
      refused_(std::move(refused)) {
   dirTable_ = entityManager_.mount<TableInfoDirTable>(dirPath_, Atlas::MountMode::reader);
   notifierIs(dirTable_.get());
   handleTableInfoDir();
}

TableInfoDirMirror::~TableInfoDirMirror() {
   notifierIs(nullptr);
   while (!mounted_.empty()) forget(mounted_.begin()->first);
   entityManager_.unmount(dirPath_);
}

void TableInfoDirMirror::handleTableInfo(const std::string& name) {
   TableInfoDirEntry entry = dirTable_->entry(name);
   auto it = mounted_.find(name);
   if (it != mounted_.end() && it->second.entry == entry) return;
   if (it != mounted_.end()) forget(name);
   if (entry.empty()) return;
   if (dir_->entity(name)) {
      ++numNameClashes_;
      if (refused_) refused_(name, "the name is another publisher's");
      return;
   }
   std::string path = tableInfoPath(dirPath_, name);
   Orb::Ptr<Orb::Object> info;
   try {
      info = entry.kind() == TableInfoKind::triple
                 ? entityManager_.mount(path,
                                        std::string(MatAdtSelTableConfigMountInfo::vaultTypeName),
                                        Atlas::MountMode::reader)
                 : entityManager_.mount(path, std::string(TableConfigMountInfo::vaultTypeName),
                                        Atlas::MountMode::reader);
   } catch (const Vault::MountException& e) {
      // Missing, of another type, or gone again before we got to it (its removal then on its
      // way).
      ++numMountFailures_;
      if (refused_) refused_(name, e.what());
      return;
   } catch (const Brio::CorruptionDetectedException&) {
      ++numMountFailures_;
      return;
   }
   mounted_[name] = {entry, info};
   dir_->entityIs(name, info);
}

void TableInfoDirMirror::handleTableInfoDir() {
   std::vector<std::string> names;
   for (const auto& [name, entry] : mounted_) names.push_back(name);
   for (const auto& [name, entry] : *dirTable_) names.push_back(name);
   for (const std::string& name : names) handleTableInfo(name);
}

void TableInfoDirMirror::forget(std::string name) {
   auto it = mounted_.find(name);
   const Orb::Ptr<Orb::Object> info = it->second.info;
   mounted_.erase(it);
   if (dir_->entity(name) == info) dir_->entityDel(name);
   entityManager_.unmount(tableInfoPath(dirPath_, name));
}

}  // namespace ChipMbbShared
