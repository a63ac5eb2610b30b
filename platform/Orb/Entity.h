#pragma once

#include <memory>
#include <string>

#include "Orb/Notifiee.h"

namespace Orb {

// Root of every entity, so that directories can hold entities of different kinds and tell
// them apart with a dynamic cast.
class Object {
 public:
   explicit Object(std::string name = {}) : name_(std::move(name)) {}
   Object(const Object&) = delete;
   Object& operator=(const Object&) = delete;
   virtual ~Object() = default;

   const std::string& name() const { return name_; }

 private:
   std::string name_;
};

// A named, reference-counted object with a list of notifiees. Concrete entities declare a
// nested `class Notifiee : public Orb::BaseNotifiee<Self>` with virtual reactors (`onMode()`),
// and deliver with `notifieeList().notify(&Notifiee::onMode)`.
template <class Self>
class Entity : public Object, public std::enable_shared_from_this<Self> {
 public:
   explicit Entity(std::string name = {}) : Object(std::move(name)) {}

   NotifieeList<Self>& notifieeList() { return notifiees_; }

 private:
   NotifieeList<Self> notifiees_;
};

}  // namespace Orb
