#pragma once

// Collects DualLog lines in memory, for tests that check trace texts:
//
//    DualLog::CaptureSink capture;
//    capture.levelIs("ChipMbbSlice", 9);
//    ... run the code ...
//    EXPECT_TRUE(capture.contains("handleTableMount ignoring existing foo"));
//
// While it lives it receives every enabled line instead of the normal output; when it goes,
// the previous output and every facility's levels are restored.

#include <string>
#include <string_view>
#include <vector>

#include "FlashLog/DualLog.h"
#include "FlashLog/detail/DualLogRegistry.h"

namespace DualLog {

class CaptureSink : public Sink {
 public:
   struct Line {
      std::string facility;
      unsigned level;
      std::string text;
   };

   CaptureSink();
   ~CaptureSink() override;
   CaptureSink(const CaptureSink&) = delete;
   CaptureSink& operator=(const CaptureSink&) = delete;

   // Enables levels 0..level of every facility called `name`, for as long as the capture lives.
   void levelIs(std::string_view name, int level) { DualLog::levelIs(name, level); }

   const std::vector<Line>& lines() const { return lines_; }
   // The texts alone, in order.
   std::vector<std::string> texts() const;
   // Whether some line's text is exactly `text`.
   bool contains(std::string_view text) const;
   void clear() { lines_.clear(); }

   void write(const Facility& facility, unsigned level, std::string_view text) override;

 private:
   Registry::Snapshot saved_;
   Sink* previous_;
   std::vector<Line> lines_;
};

}  // namespace DualLog
