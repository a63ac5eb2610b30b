#include "Orb/TypeRegistry.h"

#include <algorithm>

#include "Brio/Brio.h"

namespace Orb {

TypeRegistry& TypeRegistry::instance() {
   static TypeRegistry registry;
   return registry;
}

void TypeRegistry::typeIs(std::string_view name) {
   if (!has(name)) types_.emplace_back(name);
}

bool TypeRegistry::has(std::string_view name) const {
   return std::find(types_.begin(), types_.end(), name) != types_.end();
}

TypeRegistration::TypeRegistration(std::initializer_list<std::string_view> names) {
   for (auto name : names) TypeRegistry::instance().typeIs(name);
}

void throwNullParameter(std::string_view attribute, std::string_view owner) {
   throw Brio::RangeException("null _" + std::string(attribute) + " parameter to mutator for " +
                              std::string(owner) + "::" + std::string(attribute) + " not allowed");
}

}  // namespace Orb
