#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace SliceSystem {

// What one show command cost a client that reads as fast as it can.
struct ShowAnswer {
   bool answered = false;
   std::uint64_t bytes = 0;
   std::uint64_t lines = 0;
   // Hardware rows of a "hw table" dump.
   std::uint64_t rows = 0;
   double seconds = 0;

   std::string text() const;
};

// Sends one command to the host serving `socketPath` and counts its answer.
ShowAnswer showCommandAsk(const std::string& socketPath, const std::string& command);

// Runs "mbb agents", then the engine and hardware dumps of `table`, against a host while
// something else (a publisher) works on it, and says what each cost. Waits first, while
// `waiting()` holds, until the host serves `table`; false when it never did.
bool showCommandsRun(const std::string& socketPath, const std::string& table,
                     const std::function<bool()>& waiting,
                     const std::function<void(const std::string&)>& say);

}  // namespace SliceSystem
