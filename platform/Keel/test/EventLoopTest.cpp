#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "Keel/Keel.h"

namespace {

using Keel::EventLoop;
using Orb::kInfinity;

struct Pipe {
   Pipe() { EXPECT_EQ(pipe(fds), 0); }
   ~Pipe() {
      close(fds[0]);
      close(fds[1]);
   }
   int readFd() const { return fds[0]; }
   void send() const { EXPECT_EQ(write(fds[1], "x", 1), 1); }
   void drain() const {
      char c;
      EXPECT_EQ(read(fds[0], &c, 1), 1);
   }
   int fds[2];
};

class LambdaTimer : public Keel::TimerWheel::Timer {
 public:
   LambdaTimer(Keel::TimerWheel* wheel, std::function<void()> fn) : Timer(wheel), fn_(fn) {}
   void onTime() override { fn_(); }

 private:
   std::function<void()> fn_;
};

double secondsSince(std::chrono::steady_clock::time_point start) {
   return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

TEST(KeelEventLoop, ReadableDescriptorsCallTheirHandlersUntilRemoved) {
   EventLoop loop(Orb::ptrNew<Orb::ManualTimeSource>());
   Pipe a, b;
   std::vector<std::string> log;
   loop.fdReadHandlerIs(a.readFd(), [&] {
      a.drain();
      log.push_back("a");
   });
   EXPECT_EQ(loop.runOnce(0), 0u);
   a.send();
   EXPECT_EQ(loop.runOnce(5.0), 1u);
   EXPECT_EQ(log, (std::vector<std::string>{"a"}));

   // Whichever of two readable descriptors goes first removes the other.
   int ran = 0;
   loop.fdReadHandlerIs(a.readFd(), [&] {
      ++ran;
      loop.fdReadHandlerDel(b.readFd());
      loop.fdReadHandlerDel(a.readFd());
   });
   loop.fdReadHandlerIs(b.readFd(), [&] {
      ++ran;
      loop.fdReadHandlerDel(a.readFd());
      loop.fdReadHandlerDel(b.readFd());
   });
   a.send();
   b.send();
   EXPECT_EQ(loop.runOnce(5.0), 1u);
   EXPECT_EQ(ran, 1);
   EXPECT_EQ(loop.numFdReadHandlers(), 0u);
}

TEST(KeelEventLoop, RunSoonCallbacksRunInOrderAndRequeuedOnesNextTurn) {
   EventLoop loop(Orb::ptrNew<Orb::ManualTimeSource>());
   std::vector<std::string> log;
   loop.runSoon([&] {
      log.push_back("first");
      loop.runSoon([&] { log.push_back("requeued"); });
   });
   loop.runSoon([&] { log.push_back("second"); });
   EXPECT_EQ(loop.runOnce(0), 2u);
   EXPECT_EQ(log, (std::vector<std::string>{"first", "second"}));
   // Pending callbacks keep the loop from sleeping.
   auto start = std::chrono::steady_clock::now();
   EXPECT_EQ(loop.runOnce(30.0), 1u);
   EXPECT_LT(secondsSince(start), 10.0);
   EXPECT_EQ(log.back(), "requeued");
}

TEST(KeelEventLoop, ManualTimeTimersFireOnlyWhenTheTestAdvancesTime) {
   auto source = Orb::ptrNew<Orb::ManualTimeSource>(100.0);
   EventLoop loop(source);
   Keel::TimerWheel external(source, 1, 100, true, 8);
   loop.timerWheelAdd(&external);
   std::vector<std::string> log;
   LambdaTimer own(&loop.timerWheel(), [&] {
      log.push_back("own");
      loop.runSoon([&] { log.push_back("soon"); });
   });
   LambdaTimer other(&external, [&] { log.push_back("other"); });
   own.timeMinIs(101.0);
   other.timeMinIs(5000.0);
   // A far manual expiry does not stretch the wait, a short maxWait is honoured.
   auto start = std::chrono::steady_clock::now();
   EXPECT_EQ(loop.runOnce(0.01), 0u);
   EXPECT_LT(secondsSince(start), 10.0);
   source->nowIs(101.0);
   // Already due: no sleep at all.
   EXPECT_EQ(loop.runOnce(30.0), 2u);
   EXPECT_EQ(log, (std::vector<std::string>{"own", "soon"}));
   source->nowIs(6000.0);
   EXPECT_EQ(loop.runOnce(0), 1u);
   EXPECT_EQ(log.back(), "other");
   loop.timerWheelDel(&external);
   other.timeMinIs(0);
   EXPECT_EQ(loop.runOnce(0), 0u);
}

TEST(KeelEventLoop, RealTimerWakesTheLoopAfterItsExpiryAndStopEndsRun) {
   auto source = Orb::ptrNew<Orb::RealTimeSource>();
   EventLoop loop(source);
   Orb::Seconds firedAt = kInfinity;
   LambdaTimer timer(&loop.timerWheel(), [&] { firedAt = source->now(); });
   const Orb::Seconds due = source->now() + 0.003;
   timer.timeMinIs(due);
   int turns = 0;
   while (firedAt == kInfinity && turns < 100) {
      loop.runOnce(kInfinity);
      ++turns;
   }
   EXPECT_GE(firedAt, due);
   // The wait is rounded up, so the loop does not spin before the expiry.
   EXPECT_LE(turns, 2);

   LambdaTimer stopper(&loop.timerWheel(), [&] { loop.stop(); });
   stopper.timeMinIs(source->now() + 0.001);
   loop.run();

   // Nothing armed: only a wake-up or a stop from another thread ends the wait.
   std::thread([&] { loop.wake(); }).join();
   EXPECT_EQ(loop.runOnce(kInfinity), 0u);
   std::thread([&] { loop.stop(); }).join();
   loop.run();
}

}  // namespace
