#include "Agent/AgentCommand.h"

#include <charconv>

namespace Agent {

namespace {

constexpr std::string_view devPrefix = "dev ";

bool printable(std::string_view text) {
   for (char c : text) {
      if (c < 0x20 || c > 0x7e) return false;
   }
   return true;
}

}  // namespace

std::string agentCommandRequestParse(std::string_view line, AgentCommandRequest& request) {
   if (!printable(line)) return "malformed command line (control or non-ASCII characters)";
   request.devId = 0;
   if (line.starts_with(devPrefix)) {
      line.remove_prefix(devPrefix.size());
      unsigned dev = 0;
      auto [end, ec] = std::from_chars(line.data(), line.data() + line.size(), dev);
      if (ec != std::errc() || dev > 255 || end == line.data() + line.size() || *end != ' ') {
         return "malformed device: expected 'dev N COMMAND' with N from 0 to 255";
      }
      request.devId = static_cast<std::uint8_t>(dev);
      line.remove_prefix(static_cast<std::size_t>(end - line.data()) + 1);
   }
   while (!line.empty() && line.front() == ' ') line.remove_prefix(1);
   while (!line.empty() && line.back() == ' ') line.remove_suffix(1);
   if (line.empty()) return "empty command";
   request.command = std::string(line);
   return {};
}

void agentCommandDispatch(const AgentCommandRequest& request, AgentCommandCallback& callback) {
   if (request.hwCommand()) {
      callback.handleHwCommand(request.socket, request.command, request.devId);
   } else {
      callback.handleCommand(request.socket, request.command);
   }
}

}  // namespace Agent
