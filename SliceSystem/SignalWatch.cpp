#include "SliceSystem/SignalWatch.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <system_error>

#include "Keel/EventLoop.h"

namespace SliceSystem {

SignalWatch::SignalWatch(Keel::EventLoop& loop, std::initializer_list<int> signals,
                         std::function<void(int)> onSignal)
    : loop_(loop), onSignal_(std::move(onSignal)) {
   sigset_t mask;
   sigemptyset(&mask);
   for (int signo : signals) sigaddset(&mask, signo);
   sigprocmask(SIG_BLOCK, &mask, &oldMask_);
   fd_ = signalfd(-1, &mask, SFD_NONBLOCK | SFD_CLOEXEC);
   if (fd_ < 0) throw std::system_error(errno, std::generic_category(), "signalfd");
   loop_.fdReadHandlerIs(fd_, [this] { handleReadable(); });
}

SignalWatch::~SignalWatch() {
   loop_.fdReadHandlerDel(fd_);
   ::close(fd_);
   sigprocmask(SIG_SETMASK, &oldMask_, nullptr);
}

void SignalWatch::handleReadable() {
   signalfd_siginfo info;
   while (::read(fd_, &info, sizeof info) == sizeof info)
      onSignal_(static_cast<int>(info.ssi_signo));
}

}  // namespace SliceSystem
