#include "FlashLog/CaptureSink.h"

#include <algorithm>

namespace DualLog {

CaptureSink::CaptureSink() : saved_(Registry::instance().snapshot()), previous_(sinkIs(this)) {}

CaptureSink::~CaptureSink() {
   sinkIs(previous_);
   Registry::instance().restore(saved_);
}

std::vector<std::string> CaptureSink::texts() const {
   std::vector<std::string> out;
   for (const Line& line : lines_) out.push_back(line.text);
   return out;
}

bool CaptureSink::contains(std::string_view text) const {
   return std::any_of(lines_.begin(), lines_.end(),
                      [&](const Line& line) { return line.text == text; });
}

void CaptureSink::write(const Facility& facility, unsigned level, std::string_view text) {
   lines_.push_back(Line{facility.name(), level, std::string(text)});
}

}  // namespace DualLog
