// Sends one show command to a running agent host and prints the answer. Exit status 0 when
// the host answered, 1 when no host serves the root, 2 when the host refused the command.

#include <CLI/CLI.hpp>
#include <iostream>
#include <string>
#include <vector>

#include "Agent/Agent.h"

namespace {

constexpr int exitNoHost = 1;
constexpr int exitRefused = 2;

}  // namespace

int main(int argc, char** argv) {
   CLI::App app{
       "Sends one show command to the agent host serving a root and prints the answer.\n"
       "Commands: 'mbb agents', 'mbb table NAME pipe N key K' (key 0: every entry),\n"
       "'hw table NAME pipe N'.\n"
       "Exit status: 0 answered, 1 no host, 2 command refused.",
       "slicecli"};
   std::string root;
   std::string socketPath;
   int dev = -1;
   std::vector<std::string> words;
   auto* rootOpt = app.add_option("--root", root, "root of the host's shared tables");
   app.add_option("--socket", socketPath, "the host's command socket, in place of --root")
       ->excludes(rootOpt);
   app.add_option("--dev", dev, "chip device the command addresses (default 0)")
       ->check(CLI::Range(0, 255));
   app.add_option("command", words, "the command, for example: hw table ipv4_host pipe 0")
       ->required()
       ->expected(-1);
   CLI11_PARSE(app, argc, argv);
   if (socketPath.empty()) {
      if (root.empty()) {
         std::cerr << "slicecli: --root or --socket is required\n" << app.help();
         return exitNoHost;
      }
      socketPath = Agent::socketPathFor(root);
   }

   std::string line = dev >= 0 ? "dev " + std::to_string(dev) + " " : "";
   for (std::size_t i = 0; i < words.size(); ++i) line += (i ? " " : "") + words[i];
   std::string error;
   char last = '\n';
   const Agent::CliAnswer answer = Agent::cliCommand(
       socketPath, line,
       [&last](std::string_view text) {
          std::cout << text;
          if (!text.empty()) last = text.back();
       },
       [](std::string_view text) { std::cerr << text; }, error);
   // A hardware dump ends without a newline; the shell's prompt should not follow it on the
   // same line.
   if (last != '\n') std::cout << '\n';
   std::cout.flush();
   if (answer == Agent::CliAnswer::noHost) {
      std::cerr << "slicecli: " << error << "\n";
      return exitNoHost;
   }
   return answer == Agent::CliAnswer::refused ? exitRefused : 0;
}
