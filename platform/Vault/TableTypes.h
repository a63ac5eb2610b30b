#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "Orb/Entity.h"
#include "Orb/Ptr.h"
#include "Vault/ShmTable.h"

namespace Vault {

// A mounted table seen without its type: the entity, and what its mounter needs to keep it
// fed and to let it go.
struct MountedTable {
   Orb::Ptr<Orb::Object> entity;
   std::function<int()> changeFd;
   std::function<void()> changesDrain;
   std::function<void()> retire;
   // Store::announceDeferIs and Store::changesAnnounce.
   std::function<void(std::function<void()>)> announceDeferIs;
   std::function<void()> changesAnnounce;
   // Sets what the table calls when it finds its segment damaged (Table::corruptionHandlerIs).
   std::function<void(std::function<void(const std::string&)>)> corruptionHandlerIs;
};

// Shared-memory table types by name, so that tables can be mounted by the name a publisher
// announces. Table types register themselves where they are declared (registerTableType).
class TableTypes {
 public:
   struct Type {
      std::function<MountedTable(const std::string& name, const std::string& shmName,
                                 std::uint32_t capacity)>
          writerNew;
      std::function<MountedTable(const std::string& name, const std::string& shmName)> readerNew;
   };

   static TableTypes& instance();

   const Type* type(std::string_view name) const {
      auto it = types_.find(name);
      return it == types_.end() ? nullptr : &it->second;
   }
   void typeIs(std::string_view name, Type type) { types_[std::string(name)] = std::move(type); }

 private:
   std::map<std::string, Type, std::less<>> types_;
};

template <class T>
MountedTable mountedTable(Orb::Ptr<T> table) {
   T* raw = table.get();
   return {
       table,
       [raw] { return raw->changeFd(); },
       [raw] { raw->changesDrain(); },
       [raw] { raw->store().retire(); },
       [raw](std::function<void()> schedule) { raw->store().announceDeferIs(std::move(schedule)); },
       [raw] { raw->store().changesAnnounce(); },
       [raw](std::function<void(const std::string&)> handler) {
          raw->corruptionHandlerIs(std::move(handler));
       }};
}

// Registers T under T::vaultTypeName. Used as `inline const bool registered =
// registerTableType<T>();` beside the type, so every program that uses T knows its name.
template <class T>
bool registerTableType() {
   TableTypes::instance().typeIs(
       T::vaultTypeName,
       {[](const std::string& name, const std::string& shmName, std::uint32_t capacity) {
           return mountedTable(shmTableWriterNew<T>(name, shmName, capacity));
        },
        [](const std::string& name, const std::string& shmName) {
           return mountedTable(shmTableReaderNew<T>(name, shmName));
        }});
   return true;
}

}  // namespace Vault
