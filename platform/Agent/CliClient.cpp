#include "Agent/CliClient.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Agent {

namespace {

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

bool sendAll(int fd, std::string_view text) {
   while (!text.empty()) {
      const ssize_t n = send(fd, text.data(), text.size(), MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      text.remove_prefix(static_cast<std::size_t>(n));
   }
   return true;
}

}  // namespace

CliAnswer cliCommand(const std::string& path, const std::string& line,
                     const std::function<void(std::string_view)>& sink,
                     const std::function<void(std::string_view)>& refusalSink, std::string& error) {
   const int fd = connectTo(path);
   if (fd < 0 || !sendAll(fd, line + "\n")) {
      error = "no host serves " + path + ": " + std::strerror(errno);
      if (fd >= 0) close(fd);
      return CliAnswer::noHost;
   }
   shutdown(fd, SHUT_WR);
   // The answer is a refusal when it starts with the refusal's mark; until enough has come
   // to tell, it is held back.
   std::string head;
   bool decided = false;
   bool refused = false;
   char buf[1 << 16];
   for (;;) {
      const ssize_t n = read(fd, buf, sizeof buf);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      std::string_view got(buf, static_cast<std::size_t>(n));
      if (!decided) {
         head.append(got);
         if (head.size() < refusal.size() && refusal.starts_with(head)) continue;
         decided = true;
         refused = head.starts_with(refusal);
         got = head;
      }
      (refused ? refusalSink : sink)(got);
   }
   close(fd);
   if (!decided && !head.empty()) sink(head);
   return refused ? CliAnswer::refused : CliAnswer::answered;
}

}  // namespace Agent
