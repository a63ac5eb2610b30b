#include "Orb/Parser.h"

#include <cctype>
#include <charconv>
#include <cstdlib>

namespace Orb {

void Parser::skipBlanks() {
   while (pos_ < text_.size() && std::isspace(static_cast<unsigned char>(text_[pos_]))) ++pos_;
}

bool Parser::atEnd() {
   skipBlanks();
   return pos_ == text_.size();
}

void Parser::fail(std::string_view expected) const {
   throw ParseError("expected " + std::string(expected) + " at offset " + std::to_string(pos_) +
                    " in \"" + std::string(text_) + "\"");
}

bool Parser::consume(std::string_view token) {
   skipBlanks();
   if (text_.substr(pos_, token.size()) != token) return false;
   pos_ += token.size();
   return true;
}

void Parser::expect(std::string_view token) {
   if (!consume(token)) fail("'" + std::string(token) + "'");
}

std::string Parser::quoted() {
   skipBlanks();
   if (pos_ >= text_.size() || text_[pos_] != '\'') fail("a quoted string");
   std::string out;
   for (std::size_t i = pos_ + 1; i < text_.size(); ++i) {
      char c = text_[i];
      if (c == '\'') {
         pos_ = i + 1;
         return out;
      }
      if (c == '\\') {
         if (++i == text_.size()) break;
         c = text_[i];
      }
      out.push_back(c);
   }
   fail("a closing quote");
}

std::string_view Parser::identifier() {
   skipBlanks();
   std::size_t end = pos_;
   while (end < text_.size()) {
      char c = text_[end];
      if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_' && c != ':') break;
      ++end;
   }
   if (end == pos_) fail("a name");
   std::string_view name = text_.substr(pos_, end - pos_);
   pos_ = end;
   return name;
}

std::uint64_t Parser::unsignedNumber() {
   skipBlanks();
   int base = 10;
   std::size_t start = pos_;
   if (text_.substr(pos_, 2) == "0x" || text_.substr(pos_, 2) == "0X") {
      base = 16;
      start += 2;
   }
   std::uint64_t value = 0;
   const char* first = text_.data() + start;
   const char* last = text_.data() + text_.size();
   auto [ptr, ec] = std::from_chars(first, last, value, base);
   if (ec != std::errc() || ptr == first) fail("an unsigned number");
   pos_ = ptr - text_.data();
   return value;
}

std::int64_t Parser::signedNumber() {
   skipBlanks();
   bool negative = consume("-");
   std::uint64_t magnitude = unsignedNumber();
   std::uint64_t limit = negative ? std::uint64_t{1} << 63 : (std::uint64_t{1} << 63) - 1;
   if (magnitude > limit) fail("a number in range");
   return negative ? static_cast<std::int64_t>(0 - magnitude)
                   : static_cast<std::int64_t>(magnitude);
}

double Parser::floating() {
   skipBlanks();
   // strtod needs a terminated buffer; numbers are short, so copy the candidate characters.
   std::size_t end = pos_;
   while (end < text_.size() && (std::isalnum(static_cast<unsigned char>(text_[end])) ||
                                 text_[end] == '.' || text_[end] == '-' || text_[end] == '+')) {
      ++end;
   }
   std::string candidate(text_.substr(pos_, end - pos_));
   char* stop = nullptr;
   double value = std::strtod(candidate.c_str(), &stop);
   if (candidate.empty() || stop != candidate.c_str() + candidate.size()) fail("a number");
   pos_ = end;
   return value;
}

void Parser::expectEnd() {
   if (!atEnd()) fail("the end of the text");
}

}  // namespace Orb
