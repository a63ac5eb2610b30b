#include "ChipModel/detail/OpContext.h"

#include <cstdarg>
#include <cstdio>

#include "ChipSdk/OpKind.h"

namespace ChipModel {

namespace {

std::string formatText(const char* format, va_list args) {
   char text[256];
   std::vsnprintf(text, sizeof(text), format, args);
   return text;
}

}  // namespace

bf_status_t OpContext::refuse(bf_status_t status, const char* format, ...) {
   va_list args;
   va_start(args, format);
   refusal_ = std::string(ChipSdk::statusName(status)) + ": " + formatText(format, args);
   va_end(args);
   return status;
}

void OpContext::violation(ViolationKind kind, const char* format, ...) {
   va_list args;
   va_start(args, format);
   if (!violationText_.empty()) violationText_ += "; ";
   violationText_ += std::string(violationKindName(kind)) + ": " + formatText(format, args);
   va_end(args);
   violated_[static_cast<std::size_t>(kind)] = true;
   hasViolation_ = true;
}

}  // namespace ChipModel
