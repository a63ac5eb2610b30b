#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Orb/Ptr.h"
#include "Orb/Time.h"

namespace Keel {

// A hashed timing wheel over a time source. Each slot holds the timers of one tick; the wheel
// spans `maxTicks` ticks ahead of the current one, and timers beyond that span wait in an
// overflow list that is folded into the wheel each time the wheel has turned a full span.
//
// Timers fire in expiry order. With `preserveOrder`, timers of one tick are sorted by expiry
// and timers of equal expiry fire in the order they were (last) armed; without it the order
// inside one tick is unspecified, which saves a sort on busy ticks.
//
// Firing is exact: `runExpired(now)` fires every timer whose time is at or before `now`, not
// the whole tick. Timers armed while the wheel is firing wait for the next call even when
// they are already due, so a callback that re-arms itself at "now" runs once per call.
class TimerWheel {
 public:
   using Tick = std::int64_t;

   // A one-shot timer on one wheel. Derive and override onTime(); arm with timeMinIs(t) where
   // t is absolute time on the wheel's time source. Infinity disarms; re-arming moves the
   // timer. The timer is disarmed before onTime() runs, so onTime() may re-arm it, arm or
   // disarm others, or destroy any timer including itself. Destroying an armed timer disarms
   // it. A timer must not outlive its wheel while armed.
   class Timer {
    public:
      explicit Timer(TimerWheel* timerWheel) : timerWheel_(timerWheel) {}
      Timer(const Timer&) = delete;
      Timer& operator=(const Timer&) = delete;
      virtual ~Timer();

      TimerWheel* timerWheel() const { return timerWheel_; }
      Orb::Seconds timeMin() const { return timeMin_; }
      void timeMinIs(Orb::Seconds t);
      bool armed() const { return place_ != Place::none; }

      virtual void onTime() {}

    private:
      friend class TimerWheel;
      enum class Place : std::uint8_t { none, wheel, overflow, firing };

      TimerWheel* timerWheel_;
      // Intrusive list links: `pprev_` points at whatever points at this timer, so a timer
      // unlinks itself without knowing which list it is on.
      Timer* next_ = nullptr;
      Timer** pprev_ = nullptr;
      Orb::Seconds timeMin_ = Orb::kInfinity;
      Tick tick_ = 0;
      std::uint64_t armSeq_ = 0;
      Place place_ = Place::none;
   };

   TimerWheel(Orb::Ptr<Orb::TimeSource> timeSource, unsigned tickMsecs, std::size_t initialMaxTicks,
              bool preserveOrder, std::size_t defaultBucketSize);
   TimerWheel(const TimerWheel&) = delete;
   TimerWheel& operator=(const TimerWheel&) = delete;
   // Disarms every timer still armed, so that their own destruction later does not reach back.
   ~TimerWheel();

   const Orb::Ptr<Orb::TimeSource>& timeSource() const { return timeSource_; }
   Orb::Seconds now() const { return timeSource_->now(); }
   unsigned tickMsecs() const { return tickMsecs_; }
   std::size_t maxTicks() const { return slots_.size(); }
   bool preserveOrder() const { return preserveOrder_; }
   std::size_t defaultBucketSize() const { return defaultBucketSize_; }

   std::size_t numArmed() const { return numInWheel_ + numInOverflow_ + numFiring_; }
   // Earliest time of an armed timer, infinity when none is armed.
   Orb::Seconds nextExpiry() const;

   // Fires every timer due at `now` (or the time source's current time); returns how many
   // fired. Must not be called from inside a timer callback.
   std::size_t runExpired(Orb::Seconds now);
   std::size_t advance() { return runExpired(now()); }

 private:
   Tick tickOf(Orb::Seconds t) const;
   void arm(Timer* timer, Orb::Seconds t);
   void disarm(Timer* timer);
   void place(Timer* timer);
   void link(Timer** head, Timer* timer, Timer::Place where);
   static void detach(Timer* timer);
   void unlink(Timer* timer);
   std::size_t slotIndex(Tick tick) const;
   void refill();
   std::size_t fireSlot(Tick tick, Orb::Seconds now, bool lastTick);
   std::size_t fireBatch();
   Orb::Seconds earliestInWheel() const;

   Orb::Ptr<Orb::TimeSource> timeSource_;
   unsigned tickMsecs_;
   double ticksPerSecond_;
   bool preserveOrder_;
   std::size_t defaultBucketSize_;

   std::vector<Timer*> slots_;
   Timer* overflow_ = nullptr;
   Timer* firing_ = nullptr;
   // Ticks below curTick_ are done; curTick_ itself may hold timers not yet due.
   Tick curTick_;
   // Timers armed for a tick below floorTick_ go to floorTick_'s slot: the ticks before it
   // are done or being fired.
   Tick floorTick_;
   // Every timer with a tick below horizon_ is in the wheel; the others are in overflow_.
   Tick horizon_;
   // A lower bound of the ticks in overflow_.
   Tick overflowMin_;
   std::size_t numInWheel_ = 0;
   std::size_t numInOverflow_ = 0;
   std::size_t numFiring_ = 0;
   std::uint64_t nextArmSeq_ = 0;
   // Timers armed at or after this sequence number wait for the next runExpired().
   std::uint64_t fireSeqLimit_ = 0;
   bool running_ = false;
   // Cache of nextExpiry(); arming only lowers it, so it is recomputed only after the
   // earliest timer goes.
   mutable Orb::Seconds nextExpiry_ = Orb::kInfinity;
   mutable bool nextExpiryValid_ = true;
   std::vector<Timer*> due_;
};

}  // namespace Keel
