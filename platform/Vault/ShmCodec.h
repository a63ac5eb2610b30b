#pragma once

#include <string>
#include <type_traits>

#include "Orb/Value.h"
#include "Vault/detail/FieldCodec.h"

namespace Vault {

// How a key or value type is kept in a segment: as `Stored`, a trivially copyable type of
// fixed size, written by encode(value, stored) and read back by decode(stored, value). Value types
// are kept field by field from their field list, the list that also prints them, so that whatever
// prints is stored; their string fields declare the bound they are kept in. Other plain types are
// stored as they are. A type may specialise the codec; decode must then accept any bytes at all.
template <class T>
struct ShmCodec;

template <class T>
requires(std::is_trivially_copyable_v<T> && !Orb::ValueType<T>) struct ShmCodec<T> {
   using Stored = T;
   static void encode(const T& value, Stored& stored) { stored = value; }
   static void decode(const Stored& stored, T& value) { value = stored; }
};

template <Orb::ValueType T>
struct ShmCodec<T> : Shm::FieldCodec<T> {};

// Strings as keys or values of their own: up to 255 characters.
template <>
struct ShmCodec<std::string> {
   using Stored = Shm::BoundedString<256>;
   static void encode(const std::string& value, Stored& stored) { stored.assign(value); }
   static void decode(const Stored& stored, std::string& value) { value = stored.str(); }
};

template <class T>
concept ShmStorable = std::is_trivially_copyable_v<typename ShmCodec<T>::Stored> &&
    (alignof(typename ShmCodec<T>::Stored) <= 8);

}  // namespace Vault
