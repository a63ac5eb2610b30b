#pragma once

// Value types print in the reflection form
//   Value('NS::Type', ** {'field': value, ...})
// and parse back from it. A value type opts in by naming itself and listing its fields:
//
//   struct EntryStatus : Orb::ValueBase {
//      static constexpr std::string_view orbTypeName = "Vault::MbbEngine::EntryStatus";
//      static constexpr auto orbFields() {
//         return std::make_tuple(Orb::field("key", &EntryStatus::key_), ...);
//      }
//   };
//
// Scalars print as Python would read them: decimal integers, True/False, repr-precision
// doubles and single-quoted strings; enumerations by name. A type can print differently
// (hexadecimal keys, say) by specialising ValueTraits. Deriving from the empty ValueBase lets
// argument-dependent lookup find the stream operator from any namespace.

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <ostream>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>

#include "Orb/Enum.h"
#include "Orb/Parser.h"

namespace Orb {

template <class T, class Enable = void>
struct ValueTraits;

// Empty; compares equal so that value types can default their comparisons.
struct ValueBase {
   bool operator==(const ValueBase&) const = default;
   auto operator<=>(const ValueBase&) const = default;
};

// A field of C by name; C may be a base that value types share, whose fields each of them
// lists where it wants them. Where values are kept at a fixed size (a shared table's slot),
// a string field is kept in `Bound` characters at most; other fields have no bound.
template <class C, class M, std::size_t Bound = 0>
struct Field {
   using Member = M;
   static constexpr std::size_t bound = Bound;
   std::string_view name;
   M C::*member;

   constexpr const M& of(const C& value) const { return value.*member; }
   constexpr M& of(C& value) const { return value.*member; }
};

template <class C, class M>
constexpr Field<C, M> field(std::string_view name, M C::*member) {
   return {name, member};
}
template <std::size_t Bound, class C, class M>
constexpr Field<C, M, Bound> field(std::string_view name, M C::*member) {
   return {name, member};
}

template <class T>
concept ValueType = requires {
   T::orbTypeName;
   T::orbFields();
};

template <class T>
void printValue(std::string& out, const T& value) {
   ValueTraits<T>::print(out, value);
}

template <class T>
T parseValue(Parser& parser) {
   return ValueTraits<T>::parse(parser);
}

template <class T>
std::string toString(const T& value) {
   std::string out;
   printValue(out, value);
   return out;
}

// Parses the whole text as one T; throws ParseError and leaves nothing half-built.
template <class T>
T fromString(std::string_view text) {
   Parser parser(text);
   T value = parseValue<T>(parser);
   parser.expectEnd();
   return value;
}

template <>
struct ValueTraits<bool> {
   static void print(std::string& out, bool v) { out += v ? "True" : "False"; }
   static bool parse(Parser& p) {
      if (p.consume("True") || p.consume("true")) return true;
      if (p.consume("False") || p.consume("false")) return false;
      p.fail("True or False");
   }
};

template <class T>
struct ValueTraits<T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>>> {
   static void print(std::string& out, T v) { out += std::to_string(v); }
   static T parse(Parser& p) {
      if constexpr (std::is_signed_v<T>) {
         std::int64_t v = p.signedNumber();
         if (v < std::numeric_limits<T>::min() || v > std::numeric_limits<T>::max()) {
            p.fail("a number that fits");
         }
         return static_cast<T>(v);
      } else {
         std::uint64_t v = p.unsignedNumber();
         if (v > std::numeric_limits<T>::max()) p.fail("a number that fits");
         return static_cast<T>(v);
      }
   }
};

template <class T>
struct ValueTraits<T, std::enable_if_t<std::is_floating_point_v<T>>> {
   static void print(std::string& out, T v) {
      char buf[32];
      std::snprintf(buf, sizeof buf, "%.17g", static_cast<double>(v));
      out += buf;
   }
   static T parse(Parser& p) { return static_cast<T>(p.floating()); }
};

template <>
struct ValueTraits<std::string> {
   static void print(std::string& out, const std::string& v) {
      out += '\'';
      for (char c : v) {
         if (c == '\'' || c == '\\') out += '\\';
         out += c;
      }
      out += '\'';
   }
   static std::string parse(Parser& p) { return p.quoted(); }
};

template <class E>
struct ValueTraits<E, std::enable_if_t<std::is_enum_v<E>>> {
   static void print(std::string& out, E v) { out += enumName(v); }
   static E parse(Parser& p) {
      std::string_view name = p.identifier();
      if (!name.empty() && (std::isdigit(static_cast<unsigned char>(name[0])))) {
         return enumFromNumber<E>(std::stoll(std::string(name)));
      }
      return enumFromName<E>(name);
   }
};

template <ValueType T>
struct ValueTraits<T> {
   static void print(std::string& out, const T& v) {
      out += "Value('";
      out += T::orbTypeName;
      out += "', ** {";
      bool first = true;
      std::apply(
          [&](const auto&... f) {
             ((out += first ? "'" : ", '", first = false, out += f.name,
               out += "': ", printValue(out, f.of(v))),
              ...);
          },
          T::orbFields());
      out += "})";
   }

   // Fields may come in any order; a missing field keeps its default value.
   static T parse(Parser& p) {
      p.expect("Value(");
      if (p.quoted() != T::orbTypeName) p.fail("type name '" + std::string(T::orbTypeName) + "'");
      p.expect(",");
      p.expect("**");
      p.expect("{");
      T value{};
      if (!p.consume("}")) {
         do {
            std::string name = p.quoted();
            p.expect(":");
            parseField(p, value, name);
         } while (p.consume(","));
         p.expect("}");
      }
      p.expect(")");
      return value;
   }

 private:
   static void parseField(Parser& p, T& value, const std::string& name) {
      bool found = false;
      std::apply(
          [&](const auto&... f) {
             ((!found && f.name == name
                   ? (f.of(value) =
                          parseValue<typename std::remove_cvref_t<decltype(f)>::Member>(p),
                      found = true)
                   : false),
              ...);
          },
          T::orbFields());
      if (!found) p.fail("a field of " + std::string(T::orbTypeName) + ", not '" + name + "'");
   }
};

// Equality of value types is field by field.
template <ValueType T>
bool fieldsEqual(const T& a, const T& b) {
   return std::apply([&](const auto&... f) { return ((f.of(a) == f.of(b)) && ...); },
                     T::orbFields());
}

template <ValueType T>
requires std::is_base_of_v<ValueBase, T> std::ostream& operator<<(std::ostream& os,
                                                                  const T& value) {
   return os << toString(value);
}

}  // namespace Orb
