#include "Brio/Brio.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace Brio {

namespace {

void defaultAssertHandler(const char* expr, const char* file, int line) {
   std::fprintf(stderr, "Failed(%s) %s:%d\n", expr, file, line);
   std::fflush(stderr);
   std::abort();
}

AssertHandler currentHandler = defaultAssertHandler;

}  // namespace

AssertHandler assertHandler() {
   return currentHandler;
}

AssertHandler assertHandlerIs(AssertHandler handler) {
   AssertHandler previous = currentHandler;
   currentHandler = handler ? handler : defaultAssertHandler;
   return previous;
}

void assertFailed(const char* expr, const char* file, int line) {
   currentHandler(expr, file, line);
   // A handler that returns would let the caller run on a broken invariant.
   std::abort();
}

void assertFailedMsg(const char* expr, const char* message, const char* file, int line) {
   const std::string text = std::string(expr) + ": " + message;
   assertFailed(text.c_str(), file, line);
}

void throwingAssertHandler(const char* expr, const char* file, int line) {
   throw AssertionFailure(expr, file, line);
}

AssertionFailure::AssertionFailure(std::string expr, std::string file, int line)
    : std::logic_error("Failed(" + expr + ") " + file + ":" + std::to_string(line)),
      expression_(std::move(expr)),
      file_(std::move(file)),
      line_(line) {}

}  // namespace Brio
