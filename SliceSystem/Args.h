#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace SliceSystem {

// The command line of the tools: "--name value" options, "--flag" switches and nothing else.
// A malformed line is reported through error() rather than thrown, so mains print it with
// their usage.
class Args {
 public:
   Args(int argc, char** argv);

   // Takes the value of an option given once; `fallback` when it is absent.
   std::string text(const std::string& name, const std::string& fallback = "");
   double number(const std::string& name, double fallback);
   std::uint64_t count(const std::string& name, std::uint64_t fallback);
   // Every value of an option that may repeat.
   std::vector<std::string> texts(const std::string& name);
   bool flag(const std::string& name);

   // What was not understood: unknown options, missing values, bad numbers.
   std::string error() const;

 private:
   struct Item {
      std::string name;
      std::string value;
      bool hasValue = false;
      bool used = false;
   };
   Item* find(const std::string& name);

   std::vector<Item> items_;
   std::string error_;
};

}  // namespace SliceSystem
