#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace Agent {

// One command as a client sent it: the command text, the device it addresses and the
// descriptor the answer is written to.
struct AgentCommandRequest {
   int socket = -1;
   std::string command;
   std::uint8_t devId = 0;

   bool hwCommand() const { return command.starts_with("hw "); }
   bool operator==(const AgentCommandRequest&) const = default;
};

// Whoever answers commands. The callback owns the descriptor it is handed: it writes the
// answer there, at once or over later turns of the loop, and closes it when done.
class AgentCommandCallback {
 public:
   virtual ~AgentCommandCallback() = default;
   virtual void handleCommand(int socket, const std::string& command) = 0;
   virtual void handleHwCommand(int socket, const std::string& command, std::uint8_t devId) = 0;
};

// Reads a command line: an optional "dev N " prefix choosing the device, then the command.
// Returns the reason when the line is not a command (empty text for a good one); the
// request's socket is left alone.
std::string agentCommandRequestParse(std::string_view line, AgentCommandRequest& request);

// Hands the request to the callback's entry for its kind.
void agentCommandDispatch(const AgentCommandRequest& request, AgentCommandCallback& callback);

}  // namespace Agent
