#pragma once

// Internal to DualLog: the facilities, their configuration and the output, shared by
// DualLog.cpp and the capture sink.

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "FlashLog/DualLog.h"

namespace DualLog {

struct Config {
   std::map<std::string, std::uint32_t, std::less<>> masks;
   std::uint32_t defaultMask = 0;
   std::uint32_t maskFor(const std::string& name) const;
};

Config parseConfig(std::string_view text);
// The value of DUALLOG, empty when unset.
std::string_view envConfig();

class Registry {
 public:
   struct Snapshot {
      Config config;
      std::vector<std::pair<Facility*, std::uint32_t>> masks;
   };

   static Registry& instance();

   void facilityAdd(Facility* f);
   void facilityDel(Facility* f);
   void configIs(Config config);
   void levelIs(std::string_view name, int level);
   // What a capture takes on installation and puts back when it ends.
   Snapshot snapshot();
   void restore(const Snapshot& s);

   Sink* sinkIs(Sink* sink);
   bool outputFileIs(const std::string& path);
   void emit(const Facility& facility, unsigned level, std::string_view text);

 private:
   Registry();
   ~Registry();

   std::mutex mutex_;  // facilities and configuration
   std::vector<Facility*> facilities_;
   Config config_;
   std::mutex outputMutex_;
   std::unique_ptr<Sink> defaultSink_;
   Sink* sink_;
};

}  // namespace DualLog
