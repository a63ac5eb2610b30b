#include "SliceSystem/ShowCommands.h"

#include <chrono>
#include <cstdio>
#include <string_view>
#include <thread>

#include "Agent/CliClient.h"

namespace SliceSystem {

namespace {

using Clock = std::chrono::steady_clock;

}  // namespace

std::string ShowAnswer::text() const {
   if (!answered) return "no answer";
   char text[160];
   const double rate = seconds > 0 ? static_cast<double>(rows ? rows : lines) / seconds : 0;
   std::snprintf(text, sizeof text, "%llu %s, %llu bytes in %.1f ms (%.0f %s/s)",
                 static_cast<unsigned long long>(rows ? rows : lines), rows ? "rows" : "lines",
                 static_cast<unsigned long long>(bytes), seconds * 1e3, rate,
                 rows ? "rows" : "lines");
   return text;
}

ShowAnswer showCommandAsk(const std::string& socketPath, const std::string& command) {
   ShowAnswer answer;
   char last = 0;
   auto count = [&](std::string_view text) {
      answer.bytes += text.size();
      for (char c : text) {
         answer.lines += c == '\n';
         // A hardware row is its handle, a colon and the entry's value in braces.
         answer.rows += last == ':' && c == '{';
         last = c;
      }
   };
   std::string error;
   const auto t0 = Clock::now();
   answer.answered =
       Agent::cliCommand(socketPath, command, count, count, error) == Agent::CliAnswer::answered;
   answer.seconds = std::chrono::duration<double>(Clock::now() - t0).count();
   return answer;
}

bool showCommandsRun(const std::string& socketPath, const std::string& table,
                     const std::function<bool()>& waiting,
                     const std::function<void(const std::string&)>& say) {
   const std::string listed = " table " + table + " ";
   std::string error;
   auto served = [&] {
      std::string agents;
      auto keep = [&](std::string_view text) { agents += text; };
      return Agent::cliCommand(socketPath, "mbb agents", keep, keep, error) ==
                 Agent::CliAnswer::answered &&
             agents.find(listed) != std::string::npos;
   };
   while (!served()) {
      if (!waiting()) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
   }
   for (const std::string command :
        {std::string("mbb agents"), "mbb table " + table + " pipe 0 key 0",
         "hw table " + table + " pipe 0"}) {
      say("'" + command + "': " + showCommandAsk(socketPath, command).text());
   }
   return true;
}

}  // namespace SliceSystem
