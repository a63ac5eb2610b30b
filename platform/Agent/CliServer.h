#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "Agent/AgentCommand.h"
#include "Keel/EventLoop.h"

namespace Agent {

struct CliServerOptions {
   // The socket; its directory is made private to this user if it does not exist.
   std::string path;
   // Commands served, by their first words ("mbb agents"); any other is refused.
   std::vector<std::string> commands;
   std::size_t maxLineLength = 1024;
   std::size_t maxConnections = 64;
};

// Where a host of this root serves its commands.
std::string socketPathFor(const std::string& root);

// Serves commands on a Unix stream socket from the event loop: one command line per
// connection, answered and closed. Each command gets a pipe whose write end is handed to
// the callback as the client's socket; the server relays the pipe to the client as fast as
// the client reads, the pipe holding what the client has not read yet, so a slow client never
// blocks the loop and a dump (which pauses while the pipe is half full) is never cut short by
// it. A client that goes away closes the pipe, so the callback's next write fails and the
// command ends. Writing to a closed pipe must fail rather than kill the process, so the
// server ignores SIGPIPE.
class CliServer {
 public:
   // Throws std::runtime_error when the socket cannot be set up, or another host serves it.
   CliServer(Keel::EventLoop& loop, AgentCommandCallback* callback, CliServerOptions options);
   CliServer(const CliServer&) = delete;
   CliServer& operator=(const CliServer&) = delete;
   ~CliServer();

   const CliServerOptions& options() const { return options_; }
   std::size_t numConnections() const { return connections_.size(); }
   std::uint64_t numCommands() const { return numCommands_; }
   std::uint64_t numRefused() const { return numRefused_; }
   std::uint64_t numClientsGone() const { return numClientsGone_; }

 private:
   struct Connection;

   void listenOn();
   void handleListen();
   void handleClients();
   void handleClientEvent(Connection& conn, std::uint32_t events);
   void handleLineInput(Connection& conn);
   void handleLine(Connection& conn, std::string line);
   void handleOutput(int client);
   void commandStart(Connection& conn, const AgentCommandRequest& request);
   void refuse(Connection& conn, const std::string& reason);
   void relay(Connection& conn);
   void outputReadIs(Connection& conn, bool on);
   void interestIs(Connection& conn, std::uint32_t events);
   void close(int client);
   bool knownCommand(const std::string& command) const;

   Keel::EventLoop& loop_;
   AgentCommandCallback* callback_;
   CliServerOptions options_;
   int listenFd_ = -1;
   // Client sockets wait here, so that their writability reaches the loop as one readable
   // descriptor.
   int clientEpollFd_ = -1;
   std::unordered_map<int, std::unique_ptr<Connection>> connections_;
   std::uint64_t numCommands_ = 0;
   std::uint64_t numRefused_ = 0;
   std::uint64_t numClientsGone_ = 0;
   // Commands waiting to be handed over check that the server is still there.
   std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace Agent
