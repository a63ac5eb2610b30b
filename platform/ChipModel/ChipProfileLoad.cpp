#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <sstream>

#include <nlohmann/json.hpp>

#include "ChipModel/ChipProfile.h"

namespace ChipModel {

namespace {

using Json = nlohmann::json;

// A field read failed; the message names the field.
struct FieldError {
   std::string text;
};

std::uint64_t readNumber(const Json& object, const char* field, std::uint64_t max,
                         std::uint64_t fallback, bool required) {
   auto it = object.find(field);
   if (it == object.end()) {
      if (required) throw FieldError{std::string("missing '") + field + "'"};
      return fallback;
   }
   std::uint64_t value = 0;
   if (it->is_number_unsigned()) {
      value = it->get<std::uint64_t>();
   } else if (it->is_string()) {
      const std::string& text = it->get_ref<const std::string&>();
      char* end = nullptr;
      errno = 0;
      value = std::strtoull(text.c_str(), &end, 0);
      if (text.empty() || *end != '\0' || errno != 0) {
         throw FieldError{std::string("'") + field + "' is not a number: " + text};
      }
   } else {
      throw FieldError{std::string("'") + field + "' must be an unsigned number"};
   }
   if (value > max) throw FieldError{std::string("'") + field + "' out of range"};
   return value;
}

ChipSdk::TableKind readKind(const Json& object) {
   auto it = object.find("kind");
   if (it == object.end() || !it->is_string()) throw FieldError{"missing 'kind'"};
   const std::string& kind = it->get_ref<const std::string&>();
   if (kind == "MAT") return ChipSdk::TableKind::mat;
   if (kind == "ADT") return ChipSdk::TableKind::adt;
   if (kind == "SEL") return ChipSdk::TableKind::sel;
   throw FieldError{"unknown kind '" + kind + "' (MAT, ADT or SEL)"};
}

TableProfile readTable(const Json& object) {
   if (!object.is_object()) throw FieldError{"a table must be an object"};
   constexpr std::uint64_t u32 = std::numeric_limits<std::uint32_t>::max();
   TableProfile table;
   auto name = object.find("name");
   if (name == object.end() || !name->is_string()) throw FieldError{"missing 'name'"};
   table.name = name->get<std::string>();
   try {
      table.handle = static_cast<std::uint32_t>(readNumber(object, "handle", u32, 0, true));
      table.kind = readKind(object);
      table.size = static_cast<std::uint32_t>(readNumber(object, "size", u32, 0, true));
      table.atcamPartitions =
          static_cast<std::uint32_t>(readNumber(object, "atcamPartitions", u32, 0, false));
      table.adtHandle = static_cast<std::uint32_t>(readNumber(object, "adt", u32, 0, false));
      table.selHandle = static_cast<std::uint32_t>(readNumber(object, "sel", u32, 0, false));
   } catch (const FieldError& error) {
      throw FieldError{"table '" + table.name + "': " + error.text};
   }
   return table;
}

ChipProfile readProfile(const Json& root) {
   if (!root.is_object()) throw FieldError{"the profile must be a JSON object"};
   ChipProfile profile;
   auto name = root.find("name");
   if (name != root.end()) {
      if (!name->is_string()) throw FieldError{"'name' must be a string"};
      profile.name = name->get<std::string>();
   }
   profile.numPipes = static_cast<std::uint16_t>(readNumber(root, "numPipes", maxPipes, 0, true));
   auto devices = root.find("devices");
   if (devices != root.end()) {
      if (!devices->is_array()) throw FieldError{"'devices' must be an array"};
      for (const Json& device : *devices) {
         if (!device.is_number_unsigned() || device.get<std::uint64_t>() >= maxDevices) {
            throw FieldError{"a device id must be a number below 32"};
         }
         profile.devices.push_back(device.get<std::uint8_t>());
      }
   }
   auto tables = root.find("tables");
   if (tables == root.end() || !tables->is_array()) throw FieldError{"missing 'tables' array"};
   for (const Json& table : *tables) profile.tables.push_back(readTable(table));
   return profile;
}

}  // namespace

bool chipProfileParse(const std::string& text, ChipProfile& profile, std::string& error) {
   Json root = Json::parse(text, nullptr, false);
   if (root.is_discarded()) {
      error = "chip profile: not valid JSON (malformed or truncated)";
      return false;
   }
   try {
      ChipProfile parsed = readProfile(root);
      if (std::string why = parsed.validate(); !why.empty()) {
         error = "chip profile: " + why;
         return false;
      }
      profile = std::move(parsed);
      return true;
   } catch (const FieldError& failure) {
      error = "chip profile: " + failure.text;
   } catch (const Json::exception& failure) {
      error = std::string("chip profile: ") + failure.what();
   }
   return false;
}

bool chipProfileLoad(const std::string& path, ChipProfile& profile, std::string& error) {
   std::ifstream file(path);
   if (!file) {
      error = "chip profile: cannot open '" + path + "'";
      return false;
   }
   std::ostringstream text;
   text << file.rdbuf();
   if (!chipProfileParse(text.str(), profile, error)) {
      error += " (" + path + ")";
      return false;
   }
   return true;
}

}  // namespace ChipModel
