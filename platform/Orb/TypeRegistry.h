#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Orb {

// Types announce themselves when their module loads; the registry keeps the order in which
// they did, so start-up order can be checked.
class TypeRegistry {
 public:
   static TypeRegistry& instance();

   // Registering a name twice keeps its first place.
   void typeIs(std::string_view name);
   bool has(std::string_view name) const;
   const std::vector<std::string>& types() const { return types_; }

 private:
   std::vector<std::string> types_;
};

// Static objects of this type register a module's types, in the order given, at load time.
struct TypeRegistration {
   TypeRegistration(std::initializer_list<std::string_view> names);
};

// The text of the range error thrown when a mutator is handed a null pointer.
[[noreturn]] void throwNullParameter(std::string_view attribute, std::string_view owner);

}  // namespace Orb
