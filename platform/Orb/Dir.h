#pragma once

#include <map>
#include <string>

#include "Orb/Entity.h"
#include "Orb/Ptr.h"

namespace Orb {

// Named entities of any kind. Watchers learn of every add, replacement and removal through
// onEntityPtr(name) and look the entity up again to tell which it was.
class Dir : public Entity<Dir> {
 public:
   class Notifiee : public BaseNotifiee<Dir> {
    public:
      virtual void onEntityPtr(const std::string& name) {}
   };

   using Entity::Entity;

   Ptr<Object> entity(const std::string& name) const {
      auto it = entities_.find(name);
      return it == entities_.end() ? nullptr : it->second;
   }
   void entityIs(const std::string& name, Ptr<Object> entity) {
      entities_[name] = std::move(entity);
      notifieeList().notify(&Notifiee::onEntityPtr, name);
   }
   void entityDel(const std::string& name) {
      if (entities_.erase(name) == 0) return;
      notifieeList().notify(&Notifiee::onEntityPtr, name);
   }
   std::size_t size() const { return entities_.size(); }
   const std::map<std::string, Ptr<Object>>& entities() const { return entities_; }

 private:
   std::map<std::string, Ptr<Object>> entities_;
};

}  // namespace Orb
