#include "Agent/CliServer.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "Brio/Brio.h"

namespace Agent {

namespace {

// A command's answer may be large; the bigger its pipe, the less often a dump pauses.
constexpr int kPipeBytes = 1 << 20;
constexpr int kMaxEvents = 64;

std::runtime_error failure(const std::string& what, const std::string& path) {
   return std::runtime_error("cli socket " + path + ": " + what + ": " + std::strerror(errno));
}

void privateDirIs(const std::string& dir) {
   if (mkdir(dir.c_str(), 0700) == 0) return;
   if (errno != EEXIST) throw failure("cannot create directory", dir);
   struct stat st {};
   if (lstat(dir.c_str(), &st) != 0) throw failure("cannot inspect directory", dir);
   if (!S_ISDIR(st.st_mode) || st.st_uid != geteuid() || (st.st_mode & 077) != 0) {
      errno = EPERM;
      throw failure("directory is not private to this user", dir);
   }
}

sockaddr_un addressOf(const std::string& path) {
   sockaddr_un addr{};
   addr.sun_family = AF_UNIX;
   if (path.size() >= sizeof addr.sun_path) {
      errno = ENAMETOOLONG;
      throw failure("path too long", path);
   }
   std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
   return addr;
}

bool someoneListens(const sockaddr_un& addr) {
   const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
   if (fd < 0) return false;
   const bool listens = connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0;
   ::close(fd);
   return listens;
}

}  // namespace

struct CliServer::Connection {
   int client = -1;
   std::string line;
   bool readingLine = true;
   // The read end of the command's pipe; -1 once the command has closed its end.
   int output = -1;
   bool outputRead = false;
   std::uint32_t events = 0;
};

std::string socketPathFor(const std::string& root) {
   std::string name = root;
   std::replace(name.begin(), name.end(), '/', '_');
   return (std::filesystem::temp_directory_path() / ("slice-" + name) / "cli.sock").string();
}

CliServer::CliServer(Keel::EventLoop& loop, AgentCommandCallback* callback,
                     CliServerOptions options)
    : loop_(loop), callback_(callback), options_(std::move(options)) {
   BRIO_ASSERT(callback_ != nullptr);
   std::signal(SIGPIPE, SIG_IGN);
   listenOn();
   clientEpollFd_ = epoll_create1(EPOLL_CLOEXEC);
   BRIO_ASSERT(clientEpollFd_ >= 0);
   loop_.fdReadHandlerIs(listenFd_, [this] { handleListen(); });
   loop_.fdReadHandlerIs(clientEpollFd_, [this] { handleClients(); });
}

CliServer::~CliServer() {
   while (!connections_.empty()) close(connections_.begin()->first);
   loop_.fdReadHandlerDel(listenFd_);
   loop_.fdReadHandlerDel(clientEpollFd_);
   ::close(listenFd_);
   ::close(clientEpollFd_);
   unlink(options_.path.c_str());
   rmdir(std::filesystem::path(options_.path).parent_path().c_str());
}

void CliServer::listenOn() {
   const std::string& path = options_.path;
   privateDirIs(std::filesystem::path(path).parent_path().string());
   const sockaddr_un addr = addressOf(path);
   if (someoneListens(addr)) {
      errno = EADDRINUSE;
      throw failure("another host serves it", path);
   }
   unlink(path.c_str());
   listenFd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
   if (listenFd_ < 0) throw failure("cannot create socket", path);
   if (bind(listenFd_, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0 ||
       chmod(path.c_str(), 0600) != 0 || listen(listenFd_, 64) != 0) {
      const auto error = failure("cannot listen", path);
      ::close(listenFd_);
      throw error;
   }
}

void CliServer::handleListen() {
   for (;;) {
      const int client = accept4(listenFd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (client < 0) return;
      auto conn = std::make_unique<Connection>();
      conn->client = client;
      epoll_event event{};
      event.data.fd = client;
      const int rc = epoll_ctl(clientEpollFd_, EPOLL_CTL_ADD, client, &event);
      BRIO_ASSERT(rc == 0);
      Connection& added = *connections_.emplace(client, std::move(conn)).first->second;
      if (connections_.size() > options_.maxConnections) {
         refuse(added, "too many connections");
      } else {
         interestIs(added, EPOLLIN | EPOLLRDHUP);
      }
   }
}

void CliServer::handleClients() {
   epoll_event events[kMaxEvents];
   const int n = epoll_wait(clientEpollFd_, events, kMaxEvents, 0);
   for (int i = 0; i < n; ++i) {
      auto it = connections_.find(events[i].data.fd);
      if (it != connections_.end()) handleClientEvent(*it->second, events[i].events);
   }
}

void CliServer::handleClientEvent(Connection& conn, std::uint32_t events) {
   if (conn.readingLine) {
      handleLineInput(conn);
   } else if (events & (EPOLLHUP | EPOLLERR)) {
      ++numClientsGone_;
      close(conn.client);
   } else {
      relay(conn);
   }
}

void CliServer::handleLineInput(Connection& conn) {
   char buf[512];
   for (;;) {
      const std::size_t room = options_.maxLineLength + 1 - conn.line.size();
      const ssize_t n = recv(conn.client, buf, std::min(room, sizeof buf), 0);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && errno == EAGAIN) return;
      if (n <= 0) {
         // A client may end its line with the end of its sending instead of a newline.
         if (conn.line.empty()) {
            close(conn.client);
         } else {
            handleLine(conn, std::move(conn.line));
         }
         return;
      }
      const std::size_t before = conn.line.size();
      conn.line.append(buf, static_cast<std::size_t>(n));
      const std::size_t newline = conn.line.find('\n', before);
      if (newline != std::string::npos) {
         conn.line.resize(newline);
         if (conn.line.size() <= options_.maxLineLength) {
            handleLine(conn, std::move(conn.line));
            return;
         }
      }
      if (conn.line.size() > options_.maxLineLength) {
         refuse(conn, "command line longer than " + std::to_string(options_.maxLineLength) +
                          " characters");
         return;
      }
   }
}

void CliServer::handleLine(Connection& conn, std::string line) {
   conn.readingLine = false;
   if (!line.empty() && line.back() == '\r') line.pop_back();
   AgentCommandRequest request;
   const std::string problem = agentCommandRequestParse(line, request);
   if (!problem.empty()) {
      refuse(conn, problem);
   } else if (!knownCommand(request.command)) {
      std::string known;
      for (const std::string& c : options_.commands) known += (known.empty() ? "" : ", ") + c;
      refuse(conn, "unknown command '" + request.command + "' (known: " + known + ")");
   } else {
      commandStart(conn, request);
   }
}

bool CliServer::knownCommand(const std::string& command) const {
   return std::any_of(options_.commands.begin(), options_.commands.end(), [&](const auto& c) {
      return command.starts_with(c) && (command.size() == c.size() || command[c.size()] == ' ');
   });
}

void CliServer::commandStart(Connection& conn, const AgentCommandRequest& request) {
   int fds[2];
   if (pipe2(fds, O_NONBLOCK | O_CLOEXEC) != 0) {
      refuse(conn, std::string("cannot run the command: ") + std::strerror(errno));
      return;
   }
   fcntl(fds[1], F_SETPIPE_SZ, kPipeBytes);  // the default size serves too, paused more often
   conn.output = fds[0];
   interestIs(conn, 0);
   outputReadIs(conn, true);
   ++numCommands_;
   AgentCommandRequest handed = request;
   handed.socket = fds[1];
   // Run after this turn's handlers and timers, so that a command's first stretch of work
   // is the only work of its turn.
   loop_.runSoon([callback = callback_, alive = std::weak_ptr<bool>(alive_), handed] {
      if (alive.expired()) {
         ::close(handed.socket);
         return;
      }
      agentCommandDispatch(handed, *callback);
   });
}

void CliServer::refuse(Connection& conn, const std::string& reason) {
   ++numRefused_;
   const std::string text = "error: " + reason + "\n";
   // The socket's buffer is empty, so a short reply goes out whole or the client is gone.
   [[maybe_unused]] auto sent = send(conn.client, text.data(), text.size(), MSG_NOSIGNAL);
   close(conn.client);
}

void CliServer::handleOutput(int client) {
   auto it = connections_.find(client);
   if (it != connections_.end()) relay(*it->second);
}

// The answer goes from the command's pipe to the client inside the kernel, without passing
// through this process: relaying a long dump costs the loop a few system calls a turn rather
// than copies of everything the dump wrote. It stops when the pipe is empty (to wait for the
// command) or the client's socket is full (to wait for the client, the pipe holding the rest).
void CliServer::relay(Connection& conn) {
   for (;;) {
      const ssize_t n = splice(conn.output, nullptr, conn.client, nullptr, kPipeBytes,
                               SPLICE_F_NONBLOCK | SPLICE_F_MOVE);
      if (n > 0) continue;
      if (n == 0) {
         // The command has closed its end and everything it wrote has gone out.
         close(conn.client);
         return;
      }
      if (errno == EINTR) continue;
      if (errno != EAGAIN) {
         ++numClientsGone_;
         close(conn.client);
         return;
      }
      break;
   }
   int pending = 0;
   const bool clientFull = ioctl(conn.output, FIONREAD, &pending) == 0 && pending > 0;
   interestIs(conn, clientFull ? std::uint32_t{EPOLLOUT} : 0);
   outputReadIs(conn, !clientFull);
}

void CliServer::outputReadIs(Connection& conn, bool on) {
   if (on == conn.outputRead) return;
   conn.outputRead = on;
   if (on) {
      const int client = conn.client;
      loop_.fdReadHandlerIs(conn.output, [this, client] { handleOutput(client); });
   } else {
      loop_.fdReadHandlerDel(conn.output);
   }
}

void CliServer::interestIs(Connection& conn, std::uint32_t events) {
   if (events == conn.events) return;
   conn.events = events;
   epoll_event event{};
   event.events = events;
   event.data.fd = conn.client;
   const int rc = epoll_ctl(clientEpollFd_, EPOLL_CTL_MOD, conn.client, &event);
   BRIO_ASSERT(rc == 0);
}

void CliServer::close(int client) {
   auto it = connections_.find(client);
   if (it == connections_.end()) return;
   Connection& conn = *it->second;
   if (conn.output >= 0) {
      outputReadIs(conn, false);
      ::close(conn.output);
   }
   epoll_ctl(clientEpollFd_, EPOLL_CTL_DEL, client, nullptr);
   ::close(client);
   connections_.erase(it);
}

}  // namespace Agent
