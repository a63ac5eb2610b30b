#pragma once

#include <functional>
#include <initializer_list>

#include <signal.h>

namespace Keel {
class EventLoop;
}

namespace SliceSystem {

// Delivers signals on the event loop's thread through a signalfd: the signals are blocked for
// the process (so create this before any thread) and their handler runs as a descriptor
// handler. Restores the old mask when it goes.
class SignalWatch {
 public:
   SignalWatch(Keel::EventLoop& loop, std::initializer_list<int> signals,
               std::function<void(int signo)> onSignal);
   SignalWatch(const SignalWatch&) = delete;
   SignalWatch& operator=(const SignalWatch&) = delete;
   ~SignalWatch();

 private:
   void handleReadable();

   Keel::EventLoop& loop_;
   std::function<void(int)> onSignal_;
   sigset_t oldMask_;
   int fd_ = -1;
};

}  // namespace SliceSystem
