#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>

#include "Agent/Agent.h"

namespace {

// Answers every command with `rows` numbered lines, a batch per loop turn, pausing while the
// client lags, as a long dump does.
class DumpCallback : public Agent::AgentCommandCallback {
 public:
   explicit DumpCallback(Keel::EventLoop& loop) : loop_(loop) {}

   void handleCommand(int socket, const std::string& command) override {
      commands.push_back(command);
      step(socket, 0);
   }
   void handleHwCommand(int socket, const std::string& command, std::uint8_t devId) override {
      commands.push_back(command + " @" + std::to_string(devId));
      step(socket, 0);
   }

   static std::string row(int i) { return "row " + std::to_string(i) + "\n"; }

   int rows = 3;
   std::vector<std::string> commands;
   bool writeFailed = false;
   int numDone = 0;

 private:
   void step(int socket, int from) {
      int i = from;
      for (; i < rows && i < from + 500 && !Agent::outputBacklogged(socket); ++i) {
         if (!Agent::outputWrite(socket, row(i))) {
            writeFailed = true;
            i = rows;
         }
      }
      if (i < rows) {
         loop_.runSoon([this, socket, i] { step(socket, i); });
         return;
      }
      close(socket);
      ++numDone;
   }

   Keel::EventLoop& loop_;
};

std::string expectedRows(int rows) {
   std::string all;
   for (int i = 0; i < rows; ++i) all += DumpCallback::row(i);
   return all;
}

struct CliServerTest : ::testing::Test {
   CliServerTest() {
      options.path = Agent::socketPathFor("agent-test-" + std::to_string(getpid()));
      options.commands = {"mbb agents", "hw table"};
      options.maxLineLength = 64;
   }

   int connectClient() {
      const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
      sockaddr_un addr{};
      addr.sun_family = AF_UNIX;
      std::strcpy(addr.sun_path, options.path.c_str());
      EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
      return fd;
   }

   // Runs the loop, reading at most `perTurn` bytes a turn, until the server closes.
   std::string exchange(const std::string& line, std::size_t perTurn = 1 << 16) {
      const int fd = connectClient();
      EXPECT_EQ(send(fd, line.data(), line.size(), 0), static_cast<ssize_t>(line.size()));
      // Done sending; the answer still comes.
      shutdown(fd, SHUT_WR);
      std::string got;
      char buf[1 << 16];
      for (int turn = 0; turn < 10000000; ++turn) {
         loop.runOnce(0);
         const ssize_t n = recv(fd, buf, std::min(perTurn, sizeof buf), 0);
         if (n == 0) break;
         if (n > 0) got.append(buf, static_cast<std::size_t>(n));
      }
      close(fd);
      return got;
   }

   Keel::EventLoop loop;
   DumpCallback callback{loop};
   Agent::CliServerOptions options;
};

TEST_F(CliServerTest, PrivateSocketRefusesBadLinesAndKeepsServing) {
   Agent::CliServer server(loop, &callback, options);
   struct stat st {};
   ASSERT_EQ(stat(options.path.c_str(), &st), 0);
   EXPECT_EQ(st.st_mode & 0777, 0600u);
   ASSERT_EQ(stat(std::string(options.path, 0, options.path.rfind('/')).c_str(), &st), 0);
   EXPECT_EQ(st.st_mode & 0777, 0700u);
   EXPECT_THROW(Agent::CliServer(loop, &callback, options), std::runtime_error);

   EXPECT_EQ(exchange(std::string(100, 'x') + "\n"),
             "error: command line longer than 64 characters\n");
   EXPECT_EQ(exchange("mbb \x01\xff\n"),
             "error: malformed command line (control or non-ASCII characters)\n");
   EXPECT_EQ(exchange("dev 300 hw table t\n"),
             "error: malformed device: expected 'dev N COMMAND' with N from 0 to 255\n");
   EXPECT_EQ(exchange("mbb agentsx\n"),
             "error: unknown command 'mbb agentsx' (known: mbb agents, hw table)\n");
   EXPECT_EQ(exchange("\r\n"), "error: empty command\n");
   EXPECT_EQ(server.numRefused(), 5u);

   EXPECT_EQ(exchange("mbb agents\r\n"), expectedRows(3));
   EXPECT_EQ(exchange("dev 2 hw table t pipe 0"), expectedRows(3));
   EXPECT_EQ(callback.commands, (std::vector<std::string>{"mbb agents", "hw table t pipe 0 @2"}));
   EXPECT_EQ(server.numConnections(), 0u);
}

TEST_F(CliServerTest, SlowReaderGetsTheWholeAnswer) {
   Agent::CliServer server(loop, &callback, options);
   callback.rows = 200000;  // a few megabytes, more than every buffer on the way
   const std::string got = exchange("mbb agents\n", 997);
   EXPECT_EQ(got.size(), expectedRows(callback.rows).size());
   EXPECT_TRUE(got == expectedRows(callback.rows));
   EXPECT_FALSE(callback.writeFailed);
}

TEST_F(CliServerTest, ClientThatLeavesEndsTheCommand) {
   Agent::CliServer server(loop, &callback, options);
   callback.rows = 1000000;
   const int fd = connectClient();
   ASSERT_EQ(send(fd, "hw table t\n", 11, 0), 11);
   char buf[4096];
   ssize_t got = 0;
   while (got < 100000) {
      loop.runOnce(0);
      got += std::max<ssize_t>(0, recv(fd, buf, sizeof buf, 0));
   }
   close(fd);
   for (int turn = 0; turn < 100000 && callback.numDone == 0; ++turn) loop.runOnce(0);
   EXPECT_EQ(callback.numDone, 1);
   EXPECT_TRUE(callback.writeFailed);
   EXPECT_EQ(server.numClientsGone(), 1u);
   EXPECT_EQ(server.numConnections(), 0u);
}

}  // namespace
