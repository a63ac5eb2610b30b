#pragma once

// Leveled text traces per facility.
//
//    inline DualLog::Facility vaultLog{"Vault"};
//    DUALLOG(vaultLog, 5, "mounting table for read " << name);
//
// A facility holds a bit mask of its enabled levels (0..9); a disabled level costs one load
// and one predictable branch, and its stream expression is never evaluated.
//
// Levels come from the environment variable DUALLOG, read when the first facility registers:
// comma-separated entries "Name/N" (levels 0..N of facility Name), "Name" (all levels),
// "*/N" (levels 0..N of every facility not named), "Name/-1" (none). Entries that do not parse
// are ignored. Enabled lines go to stderr, or appended to the file named by DUALLOG_FILE, as
// "<UTC time> <facility>/<level> <text>".

#include <atomic>
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>

namespace DualLog {

constexpr int numLevels = 10;

class Facility {
 public:
   // Registers the facility and takes its levels from the current configuration.
   explicit Facility(std::string name);
   ~Facility();
   Facility(const Facility&) = delete;
   Facility& operator=(const Facility&) = delete;

   const std::string& name() const { return name_; }
   bool enabled(unsigned level) const {
      return (mask_.load(std::memory_order_relaxed) >> level) & 1u;
   }
   std::uint32_t mask() const { return mask_.load(std::memory_order_relaxed); }
   void maskIs(std::uint32_t mask) { mask_.store(mask, std::memory_order_relaxed); }
   // Enables levels 0..level; -1 disables every level.
   void levelIs(int level);

 private:
   std::string name_;
   std::atomic<std::uint32_t> mask_{0};
};

// Where enabled lines go. Called with the output lock held, one line at a time.
class Sink {
 public:
   virtual ~Sink() = default;
   virtual void write(const Facility& facility, unsigned level, std::string_view text) = 0;
};

// Installs a sink and returns the previous one; nullptr restores the stderr or DUALLOG_FILE
// output.
Sink* sinkIs(Sink* sink);

// Replaces the configuration (same form as DUALLOG) and applies it to every facility,
// including those registered later.
void configIs(std::string_view config);
// Applies DUALLOG again, as read now.
void configFromEnv();
// Sets the levels of every facility called `name`, now and when registered later.
void levelIs(std::string_view name, int level);
// Sends the default output to the file at `path` (appended), or back to stderr when `path` is
// empty; false if the file cannot be opened.
bool outputFileIs(const std::string& path);

// Hands one line to the sink; what DUALLOG calls when the level is enabled.
void emit(const Facility& facility, unsigned level, std::string_view text);

struct LineStream;

// Builds one line in a per-thread stream that keeps its buffer between lines.
class LineBuilder {
 public:
   LineBuilder();
   ~LineBuilder();
   LineBuilder(const LineBuilder&) = delete;
   LineBuilder& operator=(const LineBuilder&) = delete;
   std::ostream& stream();
   void emit(const Facility& facility, unsigned level);

 private:
   LineStream* line_;
   bool owned_;
};

}  // namespace DualLog

#define DUALLOG(facility, level, expr)                          \
   do {                                                         \
      const ::DualLog::Facility& dualLogFacility_ = (facility); \
      if (dualLogFacility_.enabled(level)) [[unlikely]] {       \
         ::DualLog::LineBuilder dualLogLine_;                   \
         dualLogLine_.stream() << expr;                         \
         dualLogLine_.emit(dualLogFacility_, (level));          \
      }                                                         \
   } while (0)
