#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Orb/Entity.h"
#include "Orb/Ptr.h"
#include "Vault/TableTypes.h"

namespace Keel {
class EventLoop;
}

namespace Atlas {

enum class MountMode : std::uint8_t { reader, writer };

class MountGroup;

// Mounts shared tables by path, type name and mode. Every segment lives under the manager's
// root, so managers with different roots (independent systems, tests) never share one.
// Readers are fed from the event loop, when one is given: each reader's change descriptor
// is watched and its changes drained there. Writers remove their segments when unmounted;
// everything still mounted is unmounted when the manager goes.
class EntityManager : public Orb::Entity<EntityManager> {
 public:
   explicit EntityManager(std::string root, Keel::EventLoop* eventLoop = nullptr);
   ~EntityManager();

   const std::string& root() const { return root_; }
   Keel::EventLoop* eventLoop() const { return eventLoop_; }

   // Mounts `path` as the table type `typeName`. A writer creates the table with room for
   // `capacity` entries; a reader maps the one a writer created. Mounting a path again with
   // the same type and mode gives the same entity. Throws Vault::MountException (unknown
   // type, wrong type or layout, missing table, second writer, path mounted otherwise) or
   // Brio::CorruptionDetectedException.
   Orb::Ptr<Orb::Object> mount(const std::string& path, const std::string& typeName, MountMode mode,
                               std::uint32_t capacity = 0);
   template <class T>
   Orb::Ptr<T> mount(const std::string& path, MountMode mode, std::uint32_t capacity = 0) {
      return std::static_pointer_cast<T>(
          mount(path, std::string(T::vaultTypeName), mode, capacity));
   }
   // Mounts made through a group take effect together when it is closed.
   std::unique_ptr<MountGroup> mountGroupNew();

   // Unmounting a path that is not mounted does nothing.
   void unmount(const std::string& path);
   void unmountAll();

   Orb::Ptr<Orb::Object> entity(const std::string& path) const;
   template <class T>
   Orb::Ptr<T> entity(const std::string& path) const {
      return std::dynamic_pointer_cast<T>(entity(path));
   }
   std::size_t numMounts() const { return mounts_.size(); }
   // The name of the segment that holds `path`.
   std::string shmName(const std::string& path) const;
   // The paths starting with `prefix` that have a segment under this root now, whoever wrote
   // them. A path too long to be spelled out in a segment name is not found.
   std::vector<std::string> paths(const std::string& prefix) const;
   // Called with the path and the reason when a mounted table finds its segment damaged, from
   // inside the access that found it (the handler must not unmount anything there), and when a
   // mount is refused because the segment is damaged or another user's, once per segment.
   using CorruptionHandler = std::function<void(const std::string& path, const std::string&)>;
   void corruptionHandlerIs(CorruptionHandler handler) { corruptionHandler_ = std::move(handler); }
   // Readers dropped from the event loop because their segment turned out corrupt.
   std::size_t numCorruptionDetectedOps() const { return numCorruptionDetectedOps_; }
   // Segments refused at mount, damaged or another user's, each counted once.
   std::size_t numMountsRefused() const { return numMountsRefused_; }

 private:
   struct Mount {
      std::string typeName;
      MountMode mode;
      Vault::MountedTable table;
   };

   void watch(const std::string& path, const Mount& mount);
   void mountRefused(const std::string& path, const std::string& reason);
   void unwatch(const Mount& mount);

   std::string root_;
   Keel::EventLoop* eventLoop_;
   std::map<std::string, Mount> mounts_;
   std::size_t numCorruptionDetectedOps_ = 0;
   std::size_t numMountsRefused_ = 0;
   // The file last refused at each path, by device and inode.
   std::map<std::string, std::pair<std::uint64_t, std::uint64_t>> refused_;
   CorruptionHandler corruptionHandler_;
   // Expires with the manager, so that an announcement it queued on the loop does nothing
   // once it is gone.
   std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

// Mount requests gathered and carried out at close(): all of them, or, when one fails, none
// (those made are unmounted again and the failure is thrown).
class MountGroup {
 public:
   explicit MountGroup(EntityManager& entityManager) : entityManager_(entityManager) {}

   void mount(const std::string& path, const std::string& typeName, MountMode mode,
              std::uint32_t capacity = 0);
   void close();
   bool closed() const { return closed_; }

 private:
   struct Request {
      std::string path;
      std::string typeName;
      MountMode mode;
      std::uint32_t capacity;
   };

   EntityManager& entityManager_;
   std::vector<Request> requests_;
   bool closed_ = false;
};

}  // namespace Atlas
