#pragma once

// How each argument of a trace record is described in the format table and packed into the
// record. String literals are labels: their text goes into the format once, never into a
// record. Every other argument is a value whose raw bytes go into each record.

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

#include "FlashLog/Types.h"
#include "FlashLog/detail/FileLayout.h"

namespace FlashLog {

// A moment in ticks of the record clock (see TraceClock.h); the decoder prints the nanoseconds
// from it to the time of the record that carries it. A duration that ends with its record thus
// costs one clock read, not two.
struct Since {
   std::uint64_t ticks;
};

namespace detail {

inline char* putBytes(char* p, const void* src, std::size_t n) {
   if (n != 0) std::memcpy(p, src, n);  // an empty string_view may have no data at all
   return p + n;
}

template <class T>
constexpr ArgType integerType() {
   constexpr bool isSigned = std::is_signed_v<T>;
   if constexpr (sizeof(T) == 1) return isSigned ? ArgType::i8 : ArgType::u8;
   if constexpr (sizeof(T) == 2) return isSigned ? ArgType::i16 : ArgType::u16;
   if constexpr (sizeof(T) == 4) return isSigned ? ArgType::i32 : ArgType::u32;
   if constexpr (sizeof(T) == 8) return isSigned ? ArgType::i64 : ArgType::u64;
}

template <class T>
struct StoredOf {
   using type = T;
};
template <class T>
requires std::is_enum_v<T>
struct StoredOf<T> {
   using type = std::underlying_type_t<T>;
};
template <class T>
requires std::is_floating_point_v<T>
struct StoredOf<T> {
   using type = double;
};

// Fixed-size values: stored as their own bytes, except enumerations (their underlying integer)
// and floating point (as double).
template <class T>
struct FixedCodec {
   using Stored = typename StoredOf<T>::type;

   static constexpr ArgType type() {
      if constexpr (std::is_same_v<Stored, bool>)
         return ArgType::boolean;
      else if constexpr (std::is_same_v<Stored, char>)
         return ArgType::character;
      else if constexpr (std::is_same_v<Stored, double>)
         return ArgType::f64;
      else if constexpr (std::is_same_v<Stored, Hex>)
         return ArgType::hex64;
      else if constexpr (std::is_same_v<Stored, Since>)
         return ArgType::since;
      else
         return integerType<Stored>();
   }
   static constexpr std::size_t size(const T&, std::uint32_t) { return sizeof(Stored); }
   static char* put(char* p, const T& v, std::uint32_t) {
      const Stored stored = static_cast<Stored>(v);
      return putBytes(p, &stored, sizeof stored);
   }
};

// Strings: a u16 length, then at most the handle's maximum string length of bytes.
struct StringCodec {
   static constexpr ArgType type() { return ArgType::string; }
   static std::string_view view(const char* s, std::uint32_t max) {
      return s ? std::string_view(s, strnlen(s, max)) : std::string_view();
   }
   static std::string_view view(std::string_view s, std::uint32_t max) { return s.substr(0, max); }
   template <class S>
   static std::size_t size(const S& s, std::uint32_t max) {
      return sizeof(std::uint16_t) + view(s, max).size();
   }
   template <class S>
   static char* put(char* p, const S& s, std::uint32_t max) {
      const std::string_view v = view(s, max);
      const auto len = static_cast<std::uint16_t>(v.size());
      p = putBytes(p, &len, sizeof len);
      return putBytes(p, v.data(), v.size());
   }
};

template <class T>
concept Fixed = std::is_arithmetic_v<T> || std::is_enum_v<T> || std::is_same_v<T, Hex> ||
    std::is_same_v<T, Since>;
template <class T>
concept Text = std::is_same_v<T, const char*> || std::is_same_v<T, char*> ||
    std::is_same_v<T, std::string> || std::is_same_v<T, std::string_view>;

template <class T>
struct CodecOf;
template <Fixed T>
struct CodecOf<T> {
   using type = FixedCodec<T>;
};
template <Text T>
struct CodecOf<T> {
   using type = StringCodec;
};

// The helpers below take A as the argument was forwarded, reference and const included: only
// a const char array (a string literal) is a label; a writable char buffer is a value like any
// other string.
template <class A>
using Plain = std::remove_reference_t<A>;

template <class A>
constexpr bool isLabel =
    std::is_array_v<Plain<A>>&& std::is_same_v<std::remove_extent_t<Plain<A>>, const char>;

template <class A>
using Codec = typename CodecOf<std::decay_t<A>>::type;

template <class A>
std::size_t valueSize(const Plain<A>& a, std::uint32_t max) {
   if constexpr (isLabel<A>)
      return 0;
   else
      return Codec<A>::size(a, max);
}

template <class A>
char* putValue(char* p, const Plain<A>& a, std::uint32_t max) {
   if constexpr (isLabel<A>)
      return p;
   else
      return Codec<A>::put(p, a, max);
}

template <class A>
void describe(std::string& out, const Plain<A>& a) {
   if constexpr (isLabel<A>) {
      const std::string_view text(a, strnlen(a, std::extent_v<Plain<A>>));
      out.push_back(static_cast<char>(ArgType::label));
      const auto len = static_cast<std::uint16_t>(text.size());
      out.append(reinterpret_cast<const char*>(&len), sizeof len);
      out.append(text);
   } else {
      out.push_back(static_cast<char>(Codec<A>::type()));
   }
}

// The format table body of a call site: u16 item count, then the items.
template <class... A>
std::string describeFormat(const Plain<A>&... args) {
   std::string out;
   const auto count = static_cast<std::uint16_t>(sizeof...(A));
   out.append(reinterpret_cast<const char*>(&count), sizeof count);
   (describe<A>(out, args), ...);
   return out;
}

}  // namespace detail
}  // namespace FlashLog
