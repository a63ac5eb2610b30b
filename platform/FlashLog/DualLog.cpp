#include "FlashLog/DualLog.h"

#include <time.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <vector>

#include "FlashLog/Decoder.h"
#include "FlashLog/detail/DualLogRegistry.h"

namespace DualLog {

namespace {

std::uint32_t maskOf(int level) {
   if (level < 0) return 0;
   if (level >= numLevels) level = numLevels - 1;
   return (2u << level) - 1;
}

std::string_view trimmed(std::string_view s) {
   while (!s.empty() && s.front() == ' ') s.remove_prefix(1);
   while (!s.empty() && s.back() == ' ') s.remove_suffix(1);
   return s;
}

// Writes to stderr, or to the file given by DUALLOG_FILE or outputFileIs().
class StreamSink : public Sink {
 public:
   StreamSink() {
      if (const char* path = std::getenv("DUALLOG_FILE")) fileIs(path);
   }
   ~StreamSink() override {
      if (file_) std::fclose(file_);
   }
   bool fileIs(const std::string& path) {
      if (path.empty()) {
         if (file_) std::fclose(file_);
         file_ = nullptr;
         return true;
      }
      FILE* f = std::fopen(path.c_str(), "ae");
      if (!f) return false;
      if (file_) std::fclose(file_);
      file_ = f;
      return true;
   }
   void write(const Facility& facility, unsigned level, std::string_view text) override {
      timespec ts;
      clock_gettime(CLOCK_REALTIME, &ts);
      const std::uint64_t ns = static_cast<std::uint64_t>(ts.tv_sec) * 1000000000u +
                               static_cast<std::uint64_t>(ts.tv_nsec);
      FILE* out = file_ ? file_ : stderr;
      std::fprintf(out, "%s %s/%u %.*s\n", FlashLog::timeText(ns).c_str(), facility.name().c_str(),
                   level, static_cast<int>(text.size()), text.data());
      std::fflush(out);
   }

 private:
   FILE* file_ = nullptr;
};

}  // namespace

Config parseConfig(std::string_view text) {
   Config config;
   while (!text.empty()) {
      const std::size_t comma = text.find(',');
      const std::string_view entry = trimmed(text.substr(0, comma));
      text = comma == std::string_view::npos ? std::string_view() : text.substr(comma + 1);
      const std::size_t slash = entry.find('/');
      const std::string_view name = trimmed(entry.substr(0, slash));
      int level = numLevels - 1;
      if (slash != std::string_view::npos) {
         const std::string_view digits = trimmed(entry.substr(slash + 1));
         const auto [end, ec] =
             std::from_chars(digits.data(), digits.data() + digits.size(), level);
         if (ec != std::errc() || end != digits.data() + digits.size()) continue;
      }
      if (name.empty()) continue;
      if (name == "*")
         config.defaultMask = maskOf(level);
      else
         config.masks[std::string(name)] = maskOf(level);
   }
   return config;
}

std::uint32_t Config::maskFor(const std::string& name) const {
   const auto it = masks.find(name);
   return it == masks.end() ? defaultMask : it->second;
}

Registry& Registry::instance() {
   static Registry registry;
   return registry;
}

Registry::Registry() : defaultSink_(std::make_unique<StreamSink>()), sink_(defaultSink_.get()) {
   config_ = parseConfig(envConfig());
}

std::string_view envConfig() {
   const char* env = std::getenv("DUALLOG");
   return env ? env : "";
}

Registry::~Registry() = default;

void Registry::facilityAdd(Facility* f) {
   std::lock_guard lock(mutex_);
   facilities_.push_back(f);
   f->maskIs(config_.maskFor(f->name()));
}

void Registry::facilityDel(Facility* f) {
   std::lock_guard lock(mutex_);
   std::erase(facilities_, f);
}

void Registry::configIs(Config config) {
   std::lock_guard lock(mutex_);
   config_ = std::move(config);
   for (Facility* f : facilities_) f->maskIs(config_.maskFor(f->name()));
}

void Registry::levelIs(std::string_view name, int level) {
   std::lock_guard lock(mutex_);
   const std::uint32_t mask = maskOf(level);
   config_.masks[std::string(name)] = mask;
   for (Facility* f : facilities_) {
      if (f->name() == name) f->maskIs(mask);
   }
}

Registry::Snapshot Registry::snapshot() {
   std::lock_guard lock(mutex_);
   Snapshot s{config_, {}};
   for (Facility* f : facilities_) s.masks.emplace_back(f, f->mask());
   return s;
}

void Registry::restore(const Snapshot& s) {
   std::lock_guard lock(mutex_);
   config_ = s.config;
   for (Facility* f : facilities_) f->maskIs(config_.maskFor(f->name()));
   for (const auto& [f, mask] : s.masks) {
      if (std::find(facilities_.begin(), facilities_.end(), f) != facilities_.end()) {
         f->maskIs(mask);
      }
   }
}

Sink* Registry::sinkIs(Sink* sink) {
   std::lock_guard lock(outputMutex_);
   Sink* previous = sink_;
   sink_ = sink ? sink : defaultSink_.get();
   return previous;
}

bool Registry::outputFileIs(const std::string& path) {
   std::lock_guard lock(outputMutex_);
   return static_cast<StreamSink*>(defaultSink_.get())->fileIs(path);
}

void Registry::emit(const Facility& facility, unsigned level, std::string_view text) {
   std::lock_guard lock(outputMutex_);
   sink_->write(facility, level, text);
}

Facility::Facility(std::string name) : name_(std::move(name)) {
   Registry::instance().facilityAdd(this);
}

Facility::~Facility() {
   Registry::instance().facilityDel(this);
}

void Facility::levelIs(int level) {
   maskIs(maskOf(level));
}

Sink* sinkIs(Sink* sink) {
   return Registry::instance().sinkIs(sink);
}

void configIs(std::string_view config) {
   Registry::instance().configIs(parseConfig(config));
}

void configFromEnv() {
   configIs(envConfig());
}

void levelIs(std::string_view name, int level) {
   Registry::instance().levelIs(name, level);
}

bool outputFileIs(const std::string& path) {
   return Registry::instance().outputFileIs(path);
}

void emit(const Facility& facility, unsigned level, std::string_view text) {
   Registry::instance().emit(facility, level, text);
}

// Appends to a string whose capacity outlives each line, so that steady tracing does not
// allocate.
class LineBuf : public std::streambuf {
 public:
   std::string text;

 protected:
   int_type overflow(int_type c) override {
      if (!traits_type::eq_int_type(c, traits_type::eof())) text.push_back(static_cast<char>(c));
      return c;
   }
   std::streamsize xsputn(const char* s, std::streamsize n) override {
      text.append(s, static_cast<std::size_t>(n));
      return n;
   }
};

struct LineStream {
   LineBuf buf;
   std::ostream stream{&buf};
   bool busy = false;
};

namespace {

thread_local LineStream threadLine;

}  // namespace

LineBuilder::LineBuilder() {
   // A line built while another is being built (a trace inside an operator<<) gets its own.
   LineStream* line = threadLine.busy ? new LineStream : &threadLine;
   owned_ = line != &threadLine;
   line->busy = true;
   line->buf.text.clear();
   // Manipulators such as std::hex must not leak from one line into the next.
   line->stream.flags(std::ios_base::dec | std::ios_base::skipws);
   line->stream.precision(6);
   line->stream.fill(' ');
   line->stream.width(0);
   line->stream.clear();
   line_ = line;
}

LineBuilder::~LineBuilder() {
   if (owned_)
      delete line_;
   else
      line_->busy = false;
}

std::ostream& LineBuilder::stream() {
   return line_->stream;
}

void LineBuilder::emit(const Facility& facility, unsigned level) {
   DualLog::emit(facility, level, line_->buf.text);
}

}  // namespace DualLog
