#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <unordered_map>
#include <vector>

#include "Keel/TimerWheel.h"
#include "Orb/Ptr.h"
#include "Orb/Time.h"

namespace Keel {

// The one thread's loop: file descriptors through epoll, the timers of its wheels and "run
// soon" callbacks. One turn waits for readable descriptors (no longer than the next timer
// expiry), calls their handlers, fires due timers, then runs the callbacks queued so far.
//
// Everything here belongs to the loop's thread except wake() and stop(), which any thread may
// call.
class EventLoop {
 public:
   using Callback = std::function<void()>;

   // The loop's own wheel ticks every millisecond over `timeSource`.
   explicit EventLoop(Orb::Ptr<Orb::TimeSource> timeSource = Orb::activityTimeSource());
   EventLoop(const EventLoop&) = delete;
   EventLoop& operator=(const EventLoop&) = delete;
   ~EventLoop();

   TimerWheel& timerWheel() { return ownWheel_; }
   // Further wheels that this loop services, owned elsewhere. On a manual time source a
   // wheel's timers never make the loop sleep: due ones fire, the others wait for the test.
   void timerWheelAdd(TimerWheel* timerWheel);
   void timerWheelDel(TimerWheel* timerWheel);

   // Calls `onReadable` whenever `fd` is readable or hung up; setting it again replaces the
   // handler. Handlers may add or remove any descriptor, their own included.
   void fdReadHandlerIs(int fd, Callback onReadable);
   void fdReadHandlerDel(int fd);
   bool fdReadHandler(int fd) const { return fdHandlers_.contains(fd); }
   std::size_t numFdReadHandlers() const { return fdHandlers_.size(); }

   // Runs `callback` at the end of this turn, or of the next one when queued by a run-soon
   // callback; the loop does not sleep while any is waiting.
   void runSoon(Callback callback);
   std::size_t numRunSoon() const { return runSoon_.size(); }

   // One turn waiting at most `maxWait` seconds (infinity: until something happens); returns
   // how many handlers, timers and callbacks ran.
   std::size_t runOnce(Orb::Seconds maxWait);
   // Turns until stop().
   void run();
   void stop();
   // Interrupts a turn that is waiting.
   void wake();

 private:
   struct FdHandler {
      std::uint32_t serial;
      Callback onReadable;
   };
   struct Wheel {
      TimerWheel* timerWheel;
      bool manualTime;
   };

   int waitMsecs(Orb::Seconds maxWait) const;
   std::size_t dispatchFds(int timeoutMsecs);
   std::size_t runTimers();
   std::size_t runSoonBatch();
   void drainWake();

   int epollFd_ = -1;
   int wakeFd_ = -1;
   TimerWheel ownWheel_;
   std::vector<Wheel> wheels_;
   std::unordered_map<int, Orb::Ptr<FdHandler>> fdHandlers_;
   std::uint32_t nextSerial_ = 1;
   std::vector<Callback> runSoon_;
   std::vector<Callback> runSoonRunning_;
   std::atomic<bool> stopRequested_{false};
};

}  // namespace Keel
