#pragma once

// The stored form of a value type, built from its field list: each field kept in a fixed
// number of bytes, the widest-aligned fields first so that the form has no holes. Decoding
// accepts any bytes at all: a segment may hold anything.

#include <array>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

#include "Brio/Brio.h"
#include "Orb/Value.h"

namespace Vault::Shm {

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

template <class T>
struct FieldCodec;

// How one field of type M is kept: `size` bytes aligned to `align`.
template <class M, std::size_t Bound>
struct FieldStorage {
   static_assert(std::is_trivially_copyable_v<M>, "a stored field must be trivially copyable");
   static constexpr std::size_t size = sizeof(M);
   static constexpr std::size_t align = alignof(M);
   static void encode(const M& value, unsigned char* at) { std::memcpy(at, &value, size); }
   static void decode(const unsigned char* at, M& value) {
      std::memcpy(static_cast<void*>(&value), at, size);
   }
};

// A byte, since not every byte is a valid bool.
template <std::size_t Bound>
struct FieldStorage<bool, Bound> {
   static constexpr std::size_t size = 1;
   static constexpr std::size_t align = 1;
   static void encode(bool value, unsigned char* at) { *at = value ? 1 : 0; }
   static void decode(const unsigned char* at, bool& value) { value = *at != 0; }
};

template <std::size_t Bound>
struct FieldStorage<std::string, Bound> {
   static_assert(Bound > 0, "a stored string field needs a bound: Orb::field<Bound>(...)");
   using Stored = BoundedString<Bound + 1>;
   static constexpr std::size_t size = sizeof(Stored);
   static constexpr std::size_t align = 1;
   static void encode(const std::string& value, unsigned char* at) {
      Stored stored;
      stored.assign(value);
      std::memcpy(at, &stored, size);
   }
   static void decode(const unsigned char* at, std::string& value) {
      Stored stored;
      std::memcpy(&stored, at, size);
      value = stored.str();
   }
};

// A value type inside another is kept by its own field list.
template <Orb::ValueType M, std::size_t Bound>
struct FieldStorage<M, Bound> {
   using Codec = FieldCodec<M>;
   static constexpr std::size_t size = Codec::size;
   static constexpr std::size_t align = Codec::align;
   static void encode(const M& value, unsigned char* at) { Codec::encodeAt(value, at); }
   static void decode(const unsigned char* at, M& value) { Codec::decodeAt(at, value); }
};

template <class T>
struct FieldCodec {
   using Fields = decltype(T::orbFields());
   static constexpr Fields fields = T::orbFields();
   static constexpr std::size_t count = std::tuple_size_v<Fields>;
   static_assert(count > 0, "a stored value type needs fields");

   template <std::size_t I>
   using FieldAt = std::tuple_element_t<I, Fields>;
   template <std::size_t I>
   using StorageAt = FieldStorage<typename FieldAt<I>::Member, FieldAt<I>::bound>;

   template <class Fn>
   static constexpr void forEach(Fn&& fn) {
      [&]<std::size_t... I>(std::index_sequence<I...>) {
         (fn(std::integral_constant<std::size_t, I>()), ...);
      }
      (std::make_index_sequence<count>());
   }

   static constexpr std::array<std::size_t, count> aligns = [] {
      std::array<std::size_t, count> a{};
      forEach([&](auto i) { a[i] = StorageAt<i>::align; });
      return a;
   }();
   static constexpr std::size_t align = [] {
      std::size_t widest = 1;
      for (std::size_t a : aligns) widest = a > widest ? a : widest;
      return widest;
   }();
   // Every size is a multiple of its alignment, so placing the widest first leaves no holes.
   static constexpr std::array<std::size_t, count> offsets = [] {
      std::array<std::size_t, count> sizes{};
      forEach([&](auto i) { sizes[i] = StorageAt<i>::size; });
      std::array<std::size_t, count> at{};
      std::size_t next = 0;
      for (std::size_t a = align; a > 0; a /= 2) {
         for (std::size_t i = 0; i < count; ++i) {
            if (aligns[i] != a) continue;
            at[i] = next;
            next += sizes[i];
         }
      }
      return at;
   }();
   static constexpr std::size_t size = [] {
      std::size_t end = 0;
      forEach([&](auto i) {
         std::size_t fieldEnd = offsets[i] + StorageAt<i>::size;
         end = fieldEnd > end ? fieldEnd : end;
      });
      return (end + align - 1) / align * align;
   }();

   struct Stored {
      alignas(align) unsigned char bytes[size];
   };

   static void encodeAt(const T& value, unsigned char* at) {
      encodeFields(value, at, std::make_index_sequence<count>());
   }
   static void decodeAt(const unsigned char* at, T& value) {
      decodeFields(at, value, std::make_index_sequence<count>());
   }
   static void encode(const T& value, Stored& stored) { encodeAt(value, stored.bytes); }
   // Every listed field is written, so `value` need not be empty.
   static void decode(const Stored& stored, T& value) { decodeAt(stored.bytes, value); }

 private:
   template <std::size_t... I>
   static void encodeFields(const T& value, unsigned char* at, std::index_sequence<I...>) {
      (StorageAt<I>::encode(std::get<I>(fields).of(value), at + offsets[I]), ...);
   }
   template <std::size_t... I>
   static void decodeFields(const unsigned char* at, T& value, std::index_sequence<I...>) {
      (StorageAt<I>::decode(at + offsets[I], std::get<I>(fields).of(value)), ...);
   }
};

}  // namespace Vault::Shm
