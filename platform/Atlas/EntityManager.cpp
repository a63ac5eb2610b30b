#include "Atlas/EntityManager.h"

#include <sys/stat.h>

#include <charconv>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <optional>

#include "Brio/Brio.h"
#include "Keel/EventLoop.h"
#include "Vault/Errors.h"

namespace Atlas {

namespace {

constexpr std::size_t maxShmName = 200;

bool plainChar(char c) {
   return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
          c == '-';
}

// Characters that a segment name cannot hold, and the dots that separate root from path,
// are spelled %XX, so that two paths never share a name.
std::string escaped(const std::string& text) {
   std::string out;
   for (char c : text) {
      if (plainChar(c)) {
         out += c;
      } else {
         char buf[4];
         std::snprintf(buf, sizeof buf, "%%%02X", static_cast<unsigned char>(c));
         out += buf;
      }
   }
   return out;
}

// The path a readable segment name spells, or nothing for a name that is not one of ours: a
// stray character, a bad escape, or the dot that starts the hash of a long name.
std::optional<std::string> unescaped(std::string_view name) {
   std::string out;
   for (std::size_t i = 0; i < name.size(); ++i) {
      if (plainChar(name[i])) {
         out += name[i];
         continue;
      }
      unsigned value = 0;
      if (name[i] != '%' || i + 2 >= name.size() ||
          std::from_chars(name.data() + i + 1, name.data() + i + 3, value, 16).ptr !=
              name.data() + i + 3) {
         return std::nullopt;
      }
      out += static_cast<char>(value);
      i += 2;
   }
   return out;
}

const char* modeName(MountMode mode) {
   return mode == MountMode::reader ? "reader" : "writer";
}

}  // namespace

EntityManager::EntityManager(std::string root, Keel::EventLoop* eventLoop)
    : Orb::Entity<EntityManager>(root), root_(std::move(root)), eventLoop_(eventLoop) {
   if (root_.empty()) throw Vault::MountException("an entity manager needs a root");
}

EntityManager::~EntityManager() {
   unmountAll();
}

std::string EntityManager::shmName(const std::string& path) const {
   std::string name = "/" + escaped(root_) + "." + escaped(path);
   if (name.size() <= maxShmName) return name;
   // Long names keep a readable start and a hash of the whole.
   char hash[24];
   std::snprintf(hash, sizeof hash, ".%016zx", std::hash<std::string>()(name));
   return name.substr(0, maxShmName - 17) + hash;
}

std::vector<std::string> EntityManager::paths(const std::string& prefix) const {
   const std::string stem = shmName(prefix).substr(1);
   const std::size_t rootPart = escaped(root_).size() + 1;
   std::vector<std::string> found;
   std::error_code ec;
   for (const auto& file : std::filesystem::directory_iterator("/dev/shm", ec)) {
      const std::string name = file.path().filename().string();
      if (!name.starts_with(stem)) continue;
      if (auto path = unescaped(std::string_view(name).substr(rootPart))) {
         found.push_back(std::move(*path));
      }
   }
   return found;
}

Orb::Ptr<Orb::Object> EntityManager::mount(const std::string& path, const std::string& typeName,
                                           MountMode mode, std::uint32_t capacity) {
   if (auto it = mounts_.find(path); it != mounts_.end()) {
      if (it->second.typeName != typeName || it->second.mode != mode) {
         throw Vault::MountException(path + " is mounted as " + it->second.typeName + " " +
                                     modeName(it->second.mode) + ", not as " + typeName + " " +
                                     modeName(mode));
      }
      return it->second.table.entity;
   }
   const Vault::TableTypes::Type* type = Vault::TableTypes::instance().type(typeName);
   if (!type) throw Vault::MountException("unknown table type " + typeName + " for " + path);
   if (mode == MountMode::writer && capacity == 0) {
      throw Vault::MountException("a writer of " + path + " needs a capacity");
   }
   Mount mount{typeName, mode, {}};
   try {
      mount.table = mode == MountMode::writer ? type->writerNew(path, shmName(path), capacity)
                                              : type->readerNew(path, shmName(path));
   } catch (const Brio::CorruptionDetectedException& e) {
      mountRefused(path, e.what());
      throw;
   } catch (const Vault::ForeignSegmentException& e) {
      mountRefused(path, e.what());
      throw;
   }
   refused_.erase(path);
   mount.table.corruptionHandlerIs([this, path](const std::string& reason) {
      if (corruptionHandler_) corruptionHandler_(path, reason);
   });
   auto entity = mount.table.entity;
   auto [it, inserted] = mounts_.emplace(path, std::move(mount));
   watch(path, it->second);
   return entity;
}

// Said once per segment: whoever mounts keeps trying, and the answer is the same until the
// segment is replaced.
void EntityManager::mountRefused(const std::string& path, const std::string& reason) {
   struct stat st {};
   std::pair<std::uint64_t, std::uint64_t> file{0, 0};
   if (::stat(("/dev/shm" + shmName(path)).c_str(), &st) == 0) file = {st.st_dev, st.st_ino};
   auto [it, inserted] = refused_.try_emplace(path, file);
   if (!inserted && it->second == file) return;
   it->second = file;
   ++numMountsRefused_;
   if (corruptionHandler_) corruptionHandler_(path, reason);
}

std::unique_ptr<MountGroup> EntityManager::mountGroupNew() {
   return std::make_unique<MountGroup>(*this);
}

void EntityManager::unmount(const std::string& path) {
   auto it = mounts_.find(path);
   if (it == mounts_.end()) return;
   unwatch(it->second);
   it->second.table.retire();
   mounts_.erase(it);
}

void EntityManager::unmountAll() {
   while (!mounts_.empty()) unmount(mounts_.begin()->first);
}

Orb::Ptr<Orb::Object> EntityManager::entity(const std::string& path) const {
   auto it = mounts_.find(path);
   return it == mounts_.end() ? nullptr : it->second.table.entity;
}

void EntityManager::watch(const std::string& path, const Mount& mount) {
   if (eventLoop_ && mount.mode == MountMode::writer) {
      // Readers are rung once at the end of the turn that wrote, however many changes it made.
      mount.table.announceDeferIs([this, path, alive = std::weak_ptr<bool>(alive_)] {
         eventLoop_->runSoon([this, path, alive] {
            if (alive.expired()) return;
            auto it = mounts_.find(path);
            if (it != mounts_.end() && it->second.mode == MountMode::writer) {
               it->second.table.changesAnnounce();
            }
         });
      });
   }
   int fd = mount.table.changeFd();
   if (!eventLoop_ || fd < 0) return;
   std::function<void()> drain = mount.table.changesDrain;
   eventLoop_->fdReadHandlerIs(fd, [this, fd, drain] {
      try {
         drain();
      } catch (const Brio::CorruptionDetectedException&) {
         // The table has run its corruption handling; reading it further would only fail
         // again, so it is fed no more.
         ++numCorruptionDetectedOps_;
         eventLoop_->fdReadHandlerDel(fd);
      }
   });
}

void EntityManager::unwatch(const Mount& mount) {
   // Whoever still holds the table goes on writing it without this manager's loop.
   if (eventLoop_ && mount.mode == MountMode::writer) mount.table.announceDeferIs(nullptr);
   int fd = mount.table.changeFd();
   if (eventLoop_ && fd >= 0) eventLoop_->fdReadHandlerDel(fd);
}

void MountGroup::mount(const std::string& path, const std::string& typeName, MountMode mode,
                       std::uint32_t capacity) {
   BRIO_ASSERT(!closed_ && "mount group already closed");
   requests_.push_back({path, typeName, mode, capacity});
}

void MountGroup::close() {
   BRIO_ASSERT(!closed_ && "mount group already closed");
   closed_ = true;
   std::vector<std::string> made;
   try {
      for (const Request& r : requests_) {
         bool already = entityManager_.entity(r.path) != nullptr;
         entityManager_.mount(r.path, r.typeName, r.mode, r.capacity);
         if (!already) made.push_back(r.path);
      }
   } catch (...) {
      for (const std::string& path : made) entityManager_.unmount(path);
      throw;
   }
}

}  // namespace Atlas
