#pragma once

#include "Keel/TimerWheel.h"
#include "Orb/Time.h"

namespace Keel {

// An Orb::Clock scheduled on a timer wheel: setting timeMin arms the wheel timer, reading now()
// reads the wheel's time source, and reaching timeMin notifies the clock's watchers once.
class WheelClock : public Orb::Clock {
 public:
   explicit WheelClock(TimerWheel* timerWheel) : timer_(this, timerWheel) {}

   TimerWheel* timerWheel() const { return timer_.timerWheel(); }
   Orb::Seconds now() const override { return timerWheel()->now(); }
   void timeMinIs(Orb::Seconds t) override {
      Clock::timeMinIs(t);
      timer_.timeMinIs(t);
   }

 private:
   class WakeTimer : public TimerWheel::Timer {
    public:
      WakeTimer(WheelClock* clock, TimerWheel* timerWheel) : Timer(timerWheel), clock_(clock) {}
      void onTime() override { clock_->fire(); }

    private:
      WheelClock* clock_;
   };

   WakeTimer timer_;
};

}  // namespace Keel
