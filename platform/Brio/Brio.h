#pragma once

// Assertions and the exceptions shared by every module.
//
// BRIO_ASSERT(expr) keeps the asserted expression's own text, string-literal parts included,
// because that text is the message operators search for in logs.

#include <stdexcept>
#include <string>

namespace Brio {

// Called with the expression text, source file and line of a failed assertion. The default
// prints "Failed(<expr>) <file>:<line>" to stderr and aborts; tests install one that throws.
using AssertHandler = void (*)(const char* expr, const char* file, int line);

AssertHandler assertHandler();
// Returns the previous handler; nullptr restores the default.
AssertHandler assertHandlerIs(AssertHandler handler);

[[gnu::cold]] void assertFailed(const char* expr, const char* file, int line);
// For an assertion that explains itself beside its expression: the handler is given
// "<expr>: <message>", so that both reach the log.
[[gnu::cold]] void assertFailedMsg(const char* expr, const char* message, const char* file,
                                   int line);

// The handler tests install: throws AssertionFailure carrying the expression text.
void throwingAssertHandler(const char* expr, const char* file, int line);

class AssertionFailure : public std::logic_error {
 public:
   AssertionFailure(std::string expr, std::string file, int line);
   const std::string& expression() const { return expression_; }
   const std::string& file() const { return file_; }
   int line() const { return line_; }

 private:
   std::string expression_;
   std::string file_;
   int line_;
};

// Installs the throwing handler for the lifetime of the object; tests use it to check texts.
class ScopedThrowingAsserts {
 public:
   ScopedThrowingAsserts() : previous_(assertHandlerIs(throwingAssertHandler)) {}
   ~ScopedThrowingAsserts() { assertHandlerIs(previous_); }
   ScopedThrowingAsserts(const ScopedThrowingAsserts&) = delete;
   ScopedThrowingAsserts& operator=(const ScopedThrowingAsserts&) = delete;

 private:
   AssertHandler previous_;
};

// A setter was handed a value outside what the attribute accepts, such as a null pointer for
// a collection member.
class RangeException : public std::range_error {
 public:
   using std::range_error::range_error;
};

// Data read from a shared segment does not hold together (bad magic, sizes, checksums).
class CorruptionDetectedException : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

}  // namespace Brio

#define BRIO_ASSERT(expr) \
   ((expr) ? static_cast<void>(0) : ::Brio::assertFailed(#expr, __FILE__, __LINE__))

#define BRIO_ASSERT_MSG(expr, message) \
   ((expr) ? static_cast<void>(0) : ::Brio::assertFailedMsg(#expr, (message), __FILE__, __LINE__))
