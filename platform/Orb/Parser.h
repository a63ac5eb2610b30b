#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Orb {

// A printed value did not parse. The message names what was expected and where.
class ParseError : public std::invalid_argument {
 public:
   using std::invalid_argument::invalid_argument;
};

// A cursor over the printed form of values. Every read skips leading blanks first and throws
// ParseError on a mismatch; callers parse into temporaries so a failure changes nothing.
class Parser {
 public:
   explicit Parser(std::string_view text) : text_(text) {}

   bool atEnd();
   // Consumes `token` if it comes next.
   bool consume(std::string_view token);
   void expect(std::string_view token);
   // A single-quoted string with \\ and \' escapes.
   std::string quoted();
   // Letters, digits, '_' and ':'.
   std::string_view identifier();
   // Decimal, or hexadecimal with a 0x prefix.
   std::uint64_t unsignedNumber();
   std::int64_t signedNumber();
   double floating();
   void expectEnd();

   [[noreturn]] void fail(std::string_view expected) const;

 private:
   void skipBlanks();

   std::string_view text_;
   std::size_t pos_ = 0;
};

}  // namespace Orb
