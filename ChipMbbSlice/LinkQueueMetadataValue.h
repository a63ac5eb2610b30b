#pragma once

// The bookkeeping of the helper's link queues as value types, so that each queue's head and
// next index print and parse under a name of their own.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <tuple>

#include "Orb/LinkQueue.h"
#include "Orb/Value.h"

namespace ChipMbbSlice {

// A string literal usable as a template argument, to give each metadata type its name.
template <std::size_t N>
struct TypeNameLiteral {
   constexpr TypeNameLiteral(const char (&text)[N]) { std::copy_n(text, N, chars); }
   constexpr std::string_view view() const { return {chars, N - 1}; }
   char chars[N];
};

template <TypeNameLiteral Name>
class LinkQueueMetadataValue : public Orb::ValueBase {
 public:
   static constexpr std::string_view orbTypeName = Name.view();

   LinkQueueMetadataValue() = default;
   LinkQueueMetadataValue(std::uint32_t head, std::uint32_t next) : head_(head), next_(next) {}
   explicit LinkQueueMetadataValue(const Orb::LinkQueueMetadata& m)
       : head_(m.head), next_(m.next) {}

   // The index of the head element (of the next element to come when the queue is empty).
   std::uint32_t head() const { return head_; }
   // The next index to hand out.
   std::uint32_t next() const { return next_; }
   Orb::LinkQueueMetadata linkQueueMetadata() const { return {head_, next_}; }

   bool operator==(const LinkQueueMetadataValue&) const = default;

   static constexpr auto orbFields() {
      return std::make_tuple(Orb::field("head", &LinkQueueMetadataValue::head_),
                             Orb::field("next", &LinkQueueMetadataValue::next_));
   }

 private:
   std::uint32_t head_ = 0;
   std::uint32_t next_ = 0;
};

using MatPlcmtInfoStatusMetadata =
    LinkQueueMetadataValue<"ChipMbbSlice::MatPlcmtInfoStatusMetadata">;
using AdtPlcmtInfoStatusMetadata =
    LinkQueueMetadataValue<"ChipMbbSlice::AdtPlcmtInfoStatusMetadata">;
using SelPlcmtInfoStatusMetadata =
    LinkQueueMetadataValue<"ChipMbbSlice::SelPlcmtInfoStatusMetadata">;
using MatDeferFreeMetadata = LinkQueueMetadataValue<"ChipMbbSlice::MatDeferFreeMetadata">;
using AdtDeferFreeMetadata = LinkQueueMetadataValue<"ChipMbbSlice::AdtDeferFreeMetadata">;
using SelDeferFreeMetadata = LinkQueueMetadataValue<"ChipMbbSlice::SelDeferFreeMetadata">;

}  // namespace ChipMbbSlice
