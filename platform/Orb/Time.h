#pragma once

#include <chrono>
#include <limits>

#include "Orb/Entity.h"
#include "Orb/Ptr.h"

namespace Orb {

// Time in seconds. Absolute times count from the time source's own epoch.
using Seconds = double;

inline constexpr Seconds kInfinity = std::numeric_limits<Seconds>::infinity();

// Where "now" comes from. Everything that needs the time asks one of these, so tests run on
// a manual source and never sleep.
class TimeSource {
 public:
   virtual ~TimeSource() = default;
   virtual Seconds now() const = 0;
};

// Monotonic wall time.
class RealTimeSource : public TimeSource {
 public:
   Seconds now() const override {
      auto since = std::chrono::steady_clock::now().time_since_epoch();
      return std::chrono::duration<Seconds>(since).count();
   }
};

// Time that moves only when a test says so.
class ManualTimeSource : public TimeSource {
 public:
   explicit ManualTimeSource(Seconds start = 0.0) : now_(start) {}
   Seconds now() const override { return now_; }
   void nowIs(Seconds t) { now_ = t; }
   void advance(Seconds dt) { now_ += dt; }

 private:
   Seconds now_;
};

// The process's activity time source: real time unless a test or host installs another.
Ptr<TimeSource> activityTimeSource();
void activityTimeSourceIs(Ptr<TimeSource> source);

// A one-shot wake-up: a watcher sets `timeMin` to an absolute time and receives `onTime()`
// once when that time is reached; infinity means never. Whoever schedules wake-ups (the
// timer wheel) implements timeMinIs.
class Clock : public Entity<Clock> {
 public:
   class Notifiee : public BaseNotifiee<Clock> {
    public:
      virtual void onTime() {}
   };

   virtual Seconds now() const = 0;
   Seconds timeMin() const { return timeMin_; }
   virtual void timeMinIs(Seconds t) { timeMin_ = t; }

 protected:
   // Called by the scheduler when timeMin is reached: disarms, then tells the watchers.
   void fire() {
      timeMin_ = kInfinity;
      notifieeList().notify(&Notifiee::onTime);
   }

 private:
   Seconds timeMin_ = kInfinity;
};

}  // namespace Orb
