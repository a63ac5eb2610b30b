#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

#include "Brio/Brio.h"

namespace Vault {

// How a key or value type is kept in a segment: as `Stored`, a trivially copyable type of
// fixed size. Plain types are stored as they are. Types holding variable-size parts (strings)
// specialise the codec with a bounded form; decode must accept any bytes at all, since a
// segment may hold anything.
template <class T, class Enable = void>
struct ShmCodec;

template <class T>
struct ShmCodec<T, std::enable_if_t<std::is_trivially_copyable_v<T>>> {
   using Stored = T;
   static void encode(const T& value, Stored& stored) { stored = value; }
   static T decode(const Stored& stored) { return stored; }
};

// A string kept in N bytes, NUL-padded. A longer string is refused rather than cut, since a
// cut key would be another key. Decoding stops at the first NUL or at N bytes.
template <std::size_t N>
struct BoundedString {
   char bytes[N];

   void assign(std::string_view text) {
      if (text.size() >= N) {
         throw Brio::RangeException("string of " + std::to_string(text.size()) +
                                    " characters does not fit a table entry's " +
                                    std::to_string(N - 1));
      }
      std::memset(bytes, 0, N);
      std::memcpy(bytes, text.data(), text.size());
   }
   std::string str() const {
      const char* end = static_cast<const char*>(std::memchr(bytes, 0, N));
      return std::string(bytes, end ? static_cast<std::size_t>(end - bytes) : N);
   }
};

// Strings as keys or values of their own: up to 255 characters.
template <>
struct ShmCodec<std::string> {
   using Stored = BoundedString<256>;
   static void encode(const std::string& value, Stored& stored) { stored.assign(value); }
   static std::string decode(const Stored& stored) { return stored.str(); }
};

template <class T>
concept ShmStorable = std::is_trivially_copyable_v<typename ShmCodec<T>::Stored> &&
    (alignof(typename ShmCodec<T>::Stored) <= 8);

}  // namespace Vault
