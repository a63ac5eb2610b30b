#include "Keel/EventLoop.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>

#include "Brio/Brio.h"

namespace Keel {

namespace {

// An epoll token carries the descriptor and the serial of its registration, so an event
// reported for a registration that a handler removed earlier in the same turn is dropped
// even when the descriptor number was registered again meanwhile.
constexpr std::uint64_t kWakeToken = ~std::uint64_t{0};
constexpr int kMaxEvents = 64;

constexpr unsigned kTickMsecs = 1;
constexpr std::size_t kWheelTicks = 1 << 16;
constexpr std::size_t kBucketSize = 1024;

std::uint64_t tokenOf(int fd, std::uint32_t serial) {
   return (std::uint64_t{serial} << 32) | static_cast<std::uint32_t>(fd);
}

}  // namespace

EventLoop::EventLoop(Orb::Ptr<Orb::TimeSource> timeSource)
    : ownWheel_(std::move(timeSource), kTickMsecs, kWheelTicks, true, kBucketSize) {
   epollFd_ = epoll_create1(EPOLL_CLOEXEC);
   BRIO_ASSERT(epollFd_ >= 0);
   wakeFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
   BRIO_ASSERT(wakeFd_ >= 0);
   epoll_event event{};
   event.events = EPOLLIN;
   event.data.u64 = kWakeToken;
   const int rc = epoll_ctl(epollFd_, EPOLL_CTL_ADD, wakeFd_, &event);
   BRIO_ASSERT(rc == 0);
   timerWheelAdd(&ownWheel_);
}

EventLoop::~EventLoop() {
   close(wakeFd_);
   close(epollFd_);
}

void EventLoop::timerWheelAdd(TimerWheel* timerWheel) {
   BRIO_ASSERT(timerWheel != nullptr);
   auto same = [&](const Wheel& w) { return w.timerWheel == timerWheel; };
   if (std::any_of(wheels_.begin(), wheels_.end(), same)) return;
   const bool manualTime =
       dynamic_cast<const Orb::ManualTimeSource*>(timerWheel->timeSource().get()) != nullptr;
   wheels_.push_back(Wheel{timerWheel, manualTime});
}

void EventLoop::timerWheelDel(TimerWheel* timerWheel) {
   std::erase_if(wheels_, [&](const Wheel& w) { return w.timerWheel == timerWheel; });
}

void EventLoop::fdReadHandlerIs(int fd, Callback onReadable) {
   BRIO_ASSERT(fd >= 0);
   if (auto it = fdHandlers_.find(fd); it != fdHandlers_.end()) {
      // A new object, not an assignment: the old handler may be the one running now.
      it->second = Orb::ptrNew<FdHandler>(FdHandler{it->second->serial, std::move(onReadable)});
      return;
   }
   const std::uint32_t serial = nextSerial_++;
   epoll_event event{};
   event.events = EPOLLIN;
   event.data.u64 = tokenOf(fd, serial);
   const int rc = epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &event);
   BRIO_ASSERT(rc == 0);
   fdHandlers_.emplace(fd, Orb::ptrNew<FdHandler>(FdHandler{serial, std::move(onReadable)}));
}

void EventLoop::fdReadHandlerDel(int fd) {
   auto it = fdHandlers_.find(fd);
   if (it == fdHandlers_.end()) return;
   // Fails harmlessly when the descriptor was closed first, which already removed it.
   epoll_ctl(epollFd_, EPOLL_CTL_DEL, fd, nullptr);
   fdHandlers_.erase(it);
}

void EventLoop::runSoon(Callback callback) {
   runSoon_.push_back(std::move(callback));
}

std::size_t EventLoop::runOnce(Orb::Seconds maxWait) {
   BRIO_ASSERT(!std::isnan(maxWait));
   std::size_t ran = dispatchFds(waitMsecs(maxWait));
   ran += runTimers();
   ran += runSoonBatch();
   return ran;
}

void EventLoop::run() {
   while (!stopRequested_.load()) runOnce(Orb::kInfinity);
   stopRequested_.store(false);
}

void EventLoop::stop() {
   stopRequested_.store(true);
   wake();
}

void EventLoop::wake() {
   const std::uint64_t one = 1;
   // Only fails when the counter is saturated, and then a wake-up is pending anyway.
   [[maybe_unused]] auto written = write(wakeFd_, &one, sizeof one);
}

int EventLoop::waitMsecs(Orb::Seconds maxWait) const {
   if (!runSoon_.empty() || stopRequested_.load()) return 0;
   Orb::Seconds wait = maxWait;
   for (const Wheel& wheel : wheels_) {
      const Orb::Seconds next = wheel.timerWheel->nextExpiry();
      if (next == Orb::kInfinity) continue;
      const Orb::Seconds delay = next - wheel.timerWheel->now();
      if (delay <= 0) return 0;
      if (!wheel.manualTime) wait = std::min(wait, delay);
   }
   if (wait <= 0) return 0;
   if (wait == Orb::kInfinity) return -1;
   // Rounded up: waking before the expiry would only find nothing due and wait again.
   const double msecs = std::ceil(wait * 1000.0);
   return msecs >= INT_MAX ? INT_MAX : static_cast<int>(msecs);
}

std::size_t EventLoop::dispatchFds(int timeoutMsecs) {
   epoll_event events[kMaxEvents];
   const int n = epoll_wait(epollFd_, events, kMaxEvents, timeoutMsecs);
   if (n < 0) {
      BRIO_ASSERT(errno == EINTR);
      return 0;
   }
   std::size_t ran = 0;
   for (int i = 0; i < n; ++i) {
      const std::uint64_t token = events[i].data.u64;
      if (token == kWakeToken) {
         drainWake();
         continue;
      }
      const int fd = static_cast<int>(static_cast<std::uint32_t>(token));
      auto it = fdHandlers_.find(fd);
      if (it == fdHandlers_.end() || tokenOf(fd, it->second->serial) != token) continue;
      // Held here so that the handler survives removing itself.
      const Orb::Ptr<FdHandler> handler = it->second;
      handler->onReadable();
      ++ran;
   }
   return ran;
}

std::size_t EventLoop::runTimers() {
   std::size_t fired = 0;
   // By index: a timer callback may add or remove wheels.
   for (std::size_t i = 0; i < wheels_.size(); ++i) fired += wheels_[i].timerWheel->advance();
   return fired;
}

std::size_t EventLoop::runSoonBatch() {
   if (runSoon_.empty()) return 0;
   BRIO_ASSERT(runSoonRunning_.empty());
   // Swapped out first, so that callbacks queued from here wait for the next turn.
   runSoonRunning_.swap(runSoon_);
   struct ClearGuard {
      std::vector<Callback>& batch;
      ~ClearGuard() { batch.clear(); }
   } guard{runSoonRunning_};
   for (auto& callback : runSoonRunning_) callback();
   return runSoonRunning_.size();
}

void EventLoop::drainWake() {
   std::uint64_t count = 0;
   [[maybe_unused]] auto got = read(wakeFd_, &count, sizeof count);
}

}  // namespace Keel
