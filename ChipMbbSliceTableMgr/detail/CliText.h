#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>

#include "Agent/CliOutput.h"

namespace ChipMbbSlice {

// Text for a client, gathered so that a dump reaches the socket in large writes.
class CliText {
 public:
   static constexpr std::size_t flushBytes = 32 * 1024;

   CliText() = default;
   // Room for a full buffer and the line that made it full.
   explicit CliText(std::size_t reserved) { text_.reserve(reserved); }

   __attribute__((format(printf, 2, 3))) void add(const char* format, ...) {
      char line[512];
      va_list args;
      va_start(args, format);
      const int n = std::vsnprintf(line, sizeof line, format, args);
      va_end(args);
      if (n < 0) return;
      if (static_cast<std::size_t>(n) < sizeof line) {
         text_.append(line, static_cast<std::size_t>(n));
         return;
      }
      std::string big(static_cast<std::size_t>(n) + 1, '\0');
      va_start(args, format);
      std::vsnprintf(big.data(), big.size(), format, args);
      va_end(args);
      text_.append(big.data(), static_cast<std::size_t>(n));
   }
   void add(const std::string& text) { text_ += text; }
   // "0x%08x:" without the cost of a format, for the rows of a long dump.
   void addHandle(std::uint32_t handle) {
      static constexpr char digits[] = "0123456789abcdef";
      char text[11] = {'0', 'x'};
      for (int i = 0; i < 8; ++i) text[2 + i] = digits[(handle >> (28 - 4 * i)) & 0xF];
      text[10] = ':';
      text_.append(text, sizeof text);
   }
   void add(char c) { text_ += c; }
   std::string take() { return std::exchange(text_, {}); }
   bool full() const { return text_.size() >= flushBytes; }
   // False when the client went away.
   bool flush(int fd) {
      const bool ok = text_.empty() || Agent::outputWrite(fd, text_);
      text_.clear();
      return ok;
   }

 private:
   std::string text_;
};

}  // namespace ChipMbbSlice
