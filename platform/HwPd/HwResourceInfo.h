#pragma once

// The chip's tables as resources: found by name, by position, or by SDK table handle.

#include <cstdint>
#include <string>

#include "ChipSdk/OpKind.h"

namespace HwResourceInfo {

// What hwResourceIndex answers for a name the chip does not have.
constexpr std::uint32_t unknownIndex = 0x0FFFFFFF;

struct HwResource {
   std::string name;  // empty for an unknown resource
   std::uint32_t handle = 0;
   ChipSdk::TableKind kind = ChipSdk::TableKind::mat;
   std::uint32_t size = 0;
   // The action data and selector tables of a triple's match table, else 0.
   std::uint32_t adtHandle = 0;
   std::uint32_t selHandle = 0;

   bool known() const { return !name.empty(); }
   bool operator==(const HwResource&) const = default;
};

class HwResourceInfoIntf {
 public:
   virtual ~HwResourceInfoIntf() = default;
   virtual std::uint32_t hwResourceIndex(const std::string& name) const = 0;
   // The unknown (empty) resource for an index or handle the chip does not have.
   virtual HwResource hwResource(std::uint32_t index) const = 0;
   virtual HwResource hwResourceByHandle(std::uint32_t handle) const = 0;
};

}  // namespace HwResourceInfo
