#pragma once

#include <map>
#include <memory>
#include <string_view>
#include <type_traits>
#include <utility>

#include "Orb/TypeRegistry.h"

namespace Orb {

template <class V>
constexpr bool nullableValue = std::is_pointer_v<V>;
template <class T>
constexpr bool nullableValue<std::shared_ptr<T>> = true;

// A keyed collection attribute of an entity (`x(key)`, `xIs(key, v)`, `xDel(key)`,
// `xDelAll()`). An absent key reads as the empty value. Every change is told with the key
// concerned; a pointer collection refuses a null value with the framework's range error, which
// names the collection and its owner.
template <class Key, class Value, class Map = std::map<Key, Value>>
class Collection {
 public:
   // `attribute` and `owner` ("NS::Class") name the collection in the range error.
   Collection(std::string_view attribute, std::string_view owner)
       : attribute_(attribute), owner_(owner) {}

   Value operator()(const Key& key) const {
      auto it = map_.find(key);
      return it == map_.end() ? Value{} : it->second;
   }
   bool has(const Key& key) const { return map_.find(key) != map_.end(); }
   std::size_t size() const { return map_.size(); }
   bool empty() const { return map_.empty(); }
   const Map& map() const { return map_; }
   auto begin() const { return map_.begin(); }
   auto end() const { return map_.end(); }

   // Inserts or replaces; an unchanged value leaves the collection as it is and tells nobody.
   template <class Notify>
   void is(const Key& key, Value value, Notify&& notify) {
      if constexpr (nullableValue<Value>) {
         if (!value) throwNullParameter(attribute_, owner_);
      }
      auto [it, added] = map_.try_emplace(key, std::move(value));
      if (!added) {
         if (it->second == value) return;
         it->second = std::move(value);
      }
      notify(key);
   }

   // The value leaves the collection before it is destroyed, so that whatever its destruction
   // sets off finds the key gone.
   template <class Notify>
   void del(const Key& key, Notify&& notify) {
      auto it = map_.find(key);
      if (it == map_.end()) return;
      const Key gone = it->first;
      map_.extract(it);
      notify(gone);
   }

   // One key after the other, each told as by del.
   template <class Notify>
   void delAll(Notify&& notify) {
      while (!map_.empty()) del(map_.begin()->first, notify);
   }

 private:
   Map map_;
   std::string_view attribute_;
   std::string_view owner_;
};

}  // namespace Orb
