#include "SliceSystem/Args.h"

#include <cstdlib>

namespace SliceSystem {

Args::Args(int argc, char** argv) {
   for (int i = 1; i < argc; ++i) {
      std::string arg = argv[i];
      if (arg.rfind("--", 0) != 0) {
         error_ += "unexpected argument '" + arg + "'; ";
         continue;
      }
      Item item;
      item.name = arg.substr(2);
      if (auto eq = item.name.find('='); eq != std::string::npos) {
         item.value = item.name.substr(eq + 1);
         item.name.resize(eq);
         item.hasValue = true;
      } else if (i + 1 < argc && std::string(argv[i + 1]).rfind("--", 0) != 0) {
         item.value = argv[++i];
         item.hasValue = true;
      }
      items_.push_back(item);
   }
}

Args::Item* Args::find(const std::string& name) {
   Item* found = nullptr;
   for (Item& item : items_) {
      if (item.name != name) continue;
      item.used = true;
      found = &item;
   }
   return found;
}

std::string Args::text(const std::string& name, const std::string& fallback) {
   Item* item = find(name);
   if (!item) return fallback;
   if (!item->hasValue) error_ += "--" + name + " needs a value; ";
   return item->value;
}

double Args::number(const std::string& name, double fallback) {
   std::string value = text(name);
   if (value.empty()) return fallback;
   char* end = nullptr;
   double n = std::strtod(value.c_str(), &end);
   if (*end != '\0') error_ += "--" + name + " wants a number, not '" + value + "'; ";
   return n;
}

std::uint64_t Args::count(const std::string& name, std::uint64_t fallback) {
   std::string value = text(name);
   if (value.empty()) return fallback;
   char* end = nullptr;
   std::uint64_t n = std::strtoull(value.c_str(), &end, 0);
   if (*end != '\0') error_ += "--" + name + " wants a count, not '" + value + "'; ";
   return n;
}

std::vector<std::string> Args::texts(const std::string& name) {
   std::vector<std::string> values;
   for (Item& item : items_) {
      if (item.name != name) continue;
      item.used = true;
      if (!item.hasValue) error_ += "--" + name + " needs a value; ";
      values.push_back(item.value);
   }
   return values;
}

bool Args::flag(const std::string& name) {
   Item* item = find(name);
   if (item && item->hasValue) error_ += "--" + name + " takes no value; ";
   return item != nullptr;
}

std::string Args::error() const {
   std::string out = error_;
   for (const Item& item : items_) {
      if (!item.used) out += "unknown option --" + item.name + "; ";
   }
   return out;
}

}  // namespace SliceSystem
