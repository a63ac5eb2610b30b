// Sends one show command to a running agent host and prints the answer. Exit status 0 when
// the host answered, 1 when no host serves the root, 2 when the host refused the command.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "Agent/CliServer.h"

namespace {

constexpr int exitNoHost = 1;
constexpr int exitRefused = 2;
constexpr std::string_view refusal = "error: ";

int connectTo(const std::string& path) {
   sockaddr_un addr{};
   addr.sun_family = AF_UNIX;
   if (path.size() >= sizeof addr.sun_path) {
      errno = ENAMETOOLONG;
      return -1;
   }
   std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
   const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
   if (fd < 0) return -1;
   if (connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
      const int error = errno;
      close(fd);
      errno = error;
      return -1;
   }
   return fd;
}

bool sendAll(int fd, const std::string& text) {
   std::size_t at = 0;
   while (at < text.size()) {
      const ssize_t n = send(fd, text.data() + at, text.size() - at, MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      at += static_cast<std::size_t>(n);
   }
   return true;
}

// Copies the answer to stdout as it comes; a refusal goes to stderr instead.
int relayAnswer(int fd) {
   std::string head;
   bool refused = false;
   bool decided = false;
   char buf[1 << 16];
   for (;;) {
      const ssize_t n = read(fd, buf, sizeof buf);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      if (!decided) {
         head.append(buf, static_cast<std::size_t>(n));
         if (head.size() < refusal.size() && refusal.starts_with(head)) continue;
         decided = true;
         refused = head.starts_with(refusal);
         (refused ? std::cerr : std::cout) << head;
         continue;
      }
      (refused ? std::cerr : std::cout).write(buf, n);
   }
   if (!decided) std::cout << head;
   std::cout.flush();
   return refused ? exitRefused : 0;
}

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
   const int fd = connectTo(socketPath);
   if (fd < 0) {
      std::cerr << "slicecli: no host serves " << socketPath << ": " << std::strerror(errno)
                << "\n";
      return exitNoHost;
   }
   if (!sendAll(fd, line + "\n")) {
      std::cerr << "slicecli: host went away: " << std::strerror(errno) << "\n";
      return exitNoHost;
   }
   shutdown(fd, SHUT_WR);
   const int status = relayAnswer(fd);
   close(fd);
   return status;
}
