#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "Orb/Parser.h"

namespace Orb {

// An enumeration takes part in printing and parsing by specialising EnumInfo:
//
//   template <> struct Orb::EnumInfo<Color> {
//      static constexpr std::string_view typeName = "NS::Color";
//      static constexpr std::array<std::pair<Color, std::string_view>, 2> values{
//         {{Color::red, "red"}, {Color::green, "green"}}};
//   };
template <class E>
struct EnumInfo;

template <class E>
concept RegisteredEnum = requires {
   EnumInfo<E>::typeName;
   EnumInfo<E>::values;
};

// The name of a value; a number that has no name prints as its number.
template <RegisteredEnum E>
std::string enumName(E value) {
   for (const auto& [v, name] : EnumInfo<E>::values) {
      if (v == value) return std::string(name);
   }
   return std::to_string(static_cast<std::int64_t>(value));
}

template <RegisteredEnum E>
E enumFromName(std::string_view name) {
   for (const auto& [v, n] : EnumInfo<E>::values) {
      if (n == name) return v;
   }
   throw ParseError("unknown name '" + std::string(name) + "' for enumeration " +
                    std::string(EnumInfo<E>::typeName));
}

template <RegisteredEnum E>
E enumFromNumber(std::int64_t number) {
   for (const auto& [v, n] : EnumInfo<E>::values) {
      if (static_cast<std::int64_t>(v) == number) return v;
   }
   throw ParseError("unknown value " + std::to_string(number) + " for enumeration " +
                    std::string(EnumInfo<E>::typeName));
}

}  // namespace Orb
