#pragma once

// What applying one operation produced besides its status: why the chip refused it, and which
// hitless violations it caused. Texts are built only on a refusal or a violation.

#include <array>
#include <cstdint>
#include <string>

#include "ChipModel/ViolationKind.h"
#include "ChipSdk/PlcmtApi.h"

namespace ChipModel {

class OpContext {
 public:
   bf_status_t refuse(bf_status_t status, const char* format, ...)
       __attribute__((format(printf, 3, 4)));
   void violation(ViolationKind kind, const char* format, ...)
       __attribute__((format(printf, 3, 4)));

   bool hasViolation() const { return hasViolation_; }
   bool violated(ViolationKind kind) const { return violated_[static_cast<std::size_t>(kind)]; }
   const std::string& refusal() const { return refusal_; }
   const std::string& violationText() const { return violationText_; }

 private:
   std::array<bool, numViolationKinds> violated_{};
   bool hasViolation_ = false;
   std::string refusal_;
   std::string violationText_;
};

}  // namespace ChipModel
