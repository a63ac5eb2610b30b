#include "SliceSystem/Args.h"

#include <grp.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <iostream>

#include "Vault/ShmTable.h"

namespace SliceSystem {

namespace {

bool countParse(const std::string& text, std::uint64_t& value) {
   if (text.empty() || text.front() == '-' || text.front() == '+' || std::isspace(text.front())) {
      return false;
   }
   char* end = nullptr;
   errno = 0;
   value = std::strtoull(text.c_str(), &end, 0);
   return errno == 0 && *end == '\0';
}

}  // namespace

CLI::Validator numberIn(double min, double max) {
   auto check = [min, max](std::string& text) -> std::string {
      char* end = nullptr;
      errno = 0;
      double value = std::strtod(text.c_str(), &end);
      if (text.empty() || *end != '\0' || errno != 0 || !std::isfinite(value)) {
         return "'" + text + "' is not a finite number";
      }
      if (!(value >= min && value <= max)) {
         return text + " is outside " + CLI::detail::to_string(min) + " to " +
                CLI::detail::to_string(max);
      }
      return "";
   };
   return CLI::Validator(check, "NUMBER in [" + CLI::detail::to_string(min) + ", " +
                                    CLI::detail::to_string(max) + "]");
}

CLI::Validator countIn(std::uint64_t min, std::uint64_t max) {
   auto check = [min, max](std::string& text) -> std::string {
      std::uint64_t value = 0;
      if (!countParse(text, value)) return "'" + text + "' is not a whole number that fits";
      if (value < min || value > max) {
         return text + " is outside " + std::to_string(min) + " to " + std::to_string(max);
      }
      return "";
   };
   return CLI::Validator(check,
                         "COUNT in [" + std::to_string(min) + ", " + std::to_string(max) + "]");
}

CLI::Validator plainName(std::size_t maxSize) {
   auto check = [maxSize](std::string& text) -> std::string {
      const bool plain = std::all_of(text.begin(), text.end(), [](char c) {
         return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-';
      });
      if (text.empty() || text.size() > maxSize || !plain) {
         return "'" + text + "' is not 1 to " + std::to_string(maxSize) +
                " letters, digits, '_' or '-'";
      }
      return "";
   };
   return CLI::Validator(check, "NAME");
}

std::optional<int> argsParse(CLI::App& app, int argc, char** argv) {
   try {
      app.parse(argc, argv);
   } catch (const CLI::CallForHelp&) {
      std::cout << app.help();
      return 0;
   } catch (const CLI::ParseError& e) {
      std::cerr << app.get_name() << ": " << e.what() << "\n" << app.help();
      return 2;
   }
   return std::nullopt;
}

bool trustedGroupNamed(const std::string& name, std::string& error) {
   const struct group* entry = ::getgrnam(name.c_str());
   if (!entry) {
      error = "no group '" + name + "'";
      return false;
   }
   Vault::shmTrustedGroupIs(entry->gr_gid);
   return true;
}

}  // namespace SliceSystem
