#include "Keel/TimerWheel.h"

#include <algorithm>
#include <cmath>

#include "Brio/Brio.h"

namespace Keel {

namespace {

// Far enough for any real expiry, small enough that horizon arithmetic never overflows.
constexpr TimerWheel::Tick kTickLimit = TimerWheel::Tick{1} << 60;

}  // namespace

TimerWheel::Timer::~Timer() {
   if (armed()) timerWheel_->disarm(this);
}

void TimerWheel::Timer::timeMinIs(Orb::Seconds t) {
   BRIO_ASSERT(!std::isnan(t));
   if (t == Orb::kInfinity) {
      if (armed()) timerWheel_->disarm(this);
      return;
   }
   BRIO_ASSERT(timerWheel_ != nullptr);
   timerWheel_->arm(this, t);
}

TimerWheel::TimerWheel(Orb::Ptr<Orb::TimeSource> timeSource, unsigned tickMsecs,
                       std::size_t initialMaxTicks, bool preserveOrder,
                       std::size_t defaultBucketSize)
    : timeSource_(std::move(timeSource)),
      tickMsecs_(tickMsecs),
      ticksPerSecond_(1000.0 / tickMsecs),
      preserveOrder_(preserveOrder),
      defaultBucketSize_(defaultBucketSize),
      slots_(initialMaxTicks, nullptr) {
   BRIO_ASSERT(timeSource_ != nullptr);
   BRIO_ASSERT(tickMsecs > 0);
   BRIO_ASSERT(initialMaxTicks > 0);
   curTick_ = tickOf(now());
   floorTick_ = curTick_;
   horizon_ = curTick_ + static_cast<Tick>(slots_.size());
   overflowMin_ = kTickLimit;
   due_.reserve(defaultBucketSize);
}

TimerWheel::~TimerWheel() {
   auto disarmAll = [this](Timer*& head) {
      while (head) disarm(head);
   };
   disarmAll(firing_);
   disarmAll(overflow_);
   for (auto& slot : slots_) {
      if (numInWheel_ == 0) break;
      disarmAll(slot);
   }
}

std::size_t TimerWheel::slotIndex(Tick tick) const {
   const auto n = static_cast<Tick>(slots_.size());
   return static_cast<std::size_t>(((tick % n) + n) % n);
}

TimerWheel::Tick TimerWheel::tickOf(Orb::Seconds t) const {
   const double tick = std::floor(t * ticksPerSecond_);
   if (tick >= static_cast<double>(kTickLimit)) return kTickLimit;
   if (tick <= -static_cast<double>(kTickLimit)) return -kTickLimit;
   return static_cast<Tick>(tick);
}

void TimerWheel::arm(Timer* timer, Orb::Seconds t) {
   if (timer->armed()) unlink(timer);
   timer->timeMin_ = t;
   timer->tick_ = std::max(tickOf(t), floorTick_);
   timer->armSeq_ = nextArmSeq_++;
   place(timer);
   if (nextExpiryValid_ && t < nextExpiry_) nextExpiry_ = t;
}

void TimerWheel::disarm(Timer* timer) {
   unlink(timer);
   timer->timeMin_ = Orb::kInfinity;
}

void TimerWheel::place(Timer* timer) {
   if (timer->tick_ < horizon_) {
      link(&slots_[slotIndex(timer->tick_)], timer, Timer::Place::wheel);
      return;
   }
   link(&overflow_, timer, Timer::Place::overflow);
   overflowMin_ = std::min(overflowMin_, timer->tick_);
}

void TimerWheel::link(Timer** head, Timer* timer, Timer::Place where) {
   timer->next_ = *head;
   if (*head) (*head)->pprev_ = &timer->next_;
   *head = timer;
   timer->pprev_ = head;
   timer->place_ = where;
   switch (where) {
      case Timer::Place::wheel:
         ++numInWheel_;
         break;
      case Timer::Place::overflow:
         ++numInOverflow_;
         break;
      case Timer::Place::firing:
         ++numFiring_;
         break;
      case Timer::Place::none:
         BRIO_ASSERT(where != Timer::Place::none);
   }
}

void TimerWheel::detach(Timer* timer) {
   *timer->pprev_ = timer->next_;
   if (timer->next_) timer->next_->pprev_ = timer->pprev_;
   timer->next_ = nullptr;
   timer->pprev_ = nullptr;
}

void TimerWheel::unlink(Timer* timer) {
   detach(timer);
   switch (timer->place_) {
      case Timer::Place::wheel:
         --numInWheel_;
         break;
      case Timer::Place::overflow:
         --numInOverflow_;
         break;
      case Timer::Place::firing:
         --numFiring_;
         break;
      case Timer::Place::none:
         BRIO_ASSERT(timer->place_ != Timer::Place::none);
   }
   timer->place_ = Timer::Place::none;
   if (timer->timeMin_ <= nextExpiry_) nextExpiryValid_ = false;
}

void TimerWheel::refill() {
   horizon_ = curTick_ + static_cast<Tick>(slots_.size());
   overflowMin_ = kTickLimit;
   Timer* timer = overflow_;
   while (timer) {
      Timer* next = timer->next_;
      if (timer->tick_ < horizon_) {
         // A move between lists, not a disarm: the expiry cache stays as it is.
         detach(timer);
         --numInOverflow_;
         timer->tick_ = std::max(timer->tick_, curTick_);
         place(timer);
      } else {
         overflowMin_ = std::min(overflowMin_, timer->tick_);
      }
      timer = next;
   }
}

std::size_t TimerWheel::runExpired(Orb::Seconds now) {
   BRIO_ASSERT(!running_);
   struct RunningGuard {
      bool& running;
      explicit RunningGuard(bool& r) : running(r) { running = true; }
      ~RunningGuard() { running = false; }
   } guard(running_);

   fireSeqLimit_ = nextArmSeq_;
   // Timers left over by a callback that threw out of an earlier call go first.
   std::size_t fired = fireBatch();
   const Tick target = std::max(tickOf(now), curTick_);
   floorTick_ = target;
   for (;;) {
      if (curTick_ >= horizon_) refill();
      if (numInWheel_ == 0) {
         // Nothing before the horizon: skip straight to the target or to where the overflow
         // list starts, whichever is first.
         const Tick next = std::min(target, std::max(horizon_, overflowMin_));
         if (next <= curTick_) break;
         curTick_ = next;
         continue;
      }
      fired += fireSlot(curTick_, now, curTick_ == target);
      if (curTick_ == target) break;
      ++curTick_;
   }
   return fired;
}

std::size_t TimerWheel::fireSlot(Tick tick, Orb::Seconds now, bool lastTick) {
   Timer* head = slots_[slotIndex(tick)];
   due_.clear();
   for (Timer* timer = head; timer; timer = timer->next_) {
      if (timer->tick_ > tick || timer->armSeq_ >= fireSeqLimit_) continue;
      if (lastTick && timer->timeMin_ > now) continue;
      due_.push_back(timer);
   }
   if (due_.empty()) return 0;
   auto before = [](const Timer* a, const Timer* b) {
      if (a->timeMin_ != b->timeMin_) return a->timeMin_ < b->timeMin_;
      return a->armSeq_ < b->armSeq_;
   };
   if (preserveOrder_ && !std::is_sorted(due_.begin(), due_.end(), before)) {
      std::sort(due_.begin(), due_.end(), before);
   }
   // Moved to the firing list rather than called from due_, so that a callback disarming or
   // destroying a timer of this batch simply takes it off that list.
   for (auto it = due_.rbegin(); it != due_.rend(); ++it) {
      detach(*it);
      --numInWheel_;
      link(&firing_, *it, Timer::Place::firing);
   }
   return fireBatch();
}

std::size_t TimerWheel::fireBatch() {
   std::size_t fired = 0;
   while (Timer* timer = firing_) {
      disarm(timer);
      ++fired;
      timer->onTime();
   }
   return fired;
}

Orb::Seconds TimerWheel::nextExpiry() const {
   if (!nextExpiryValid_) {
      nextExpiry_ = earliestInWheel();
      nextExpiryValid_ = true;
   }
   return nextExpiry_;
}

Orb::Seconds TimerWheel::earliestInWheel() const {
   auto earliestOf = [](const Timer* head) {
      Orb::Seconds best = Orb::kInfinity;
      for (; head; head = head->next_) best = std::min(best, head->timeMin_);
      return best;
   };
   Orb::Seconds best = earliestOf(firing_);
   if (numInWheel_ > 0) {
      // Slots hold one tick each, so the first occupied one holds the earliest timer, except
      // for timers pushed up to floorTick_ while a run is under way.
      for (Tick tick = curTick_; tick < horizon_; ++tick) {
         if (const Timer* head = slots_[slotIndex(tick)]) {
            best = std::min(best, earliestOf(head));
            break;
         }
      }
      if (floorTick_ > curTick_) best = std::min(best, earliestOf(slots_[slotIndex(floorTick_)]));
   }
   if (best == Orb::kInfinity || floorTick_ >= horizon_)
      best = std::min(best, earliestOf(overflow_));
   return best;
}

}  // namespace Keel
