#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Keel/Keel.h"

namespace {

using Keel::TimerWheel;
using Orb::kInfinity;

class LogTimer : public TimerWheel::Timer {
 public:
   LogTimer(TimerWheel* wheel, std::string name, std::vector<std::string>* log)
       : Timer(wheel), name_(std::move(name)), log_(log) {}
   void onTime() override {
      log_->push_back(name_);
      if (action) action();
   }
   std::function<void()> action;

 private:
   std::string name_;
   std::vector<std::string>* log_;
};

using Log = std::vector<std::string>;

struct WheelFixture {
   explicit WheelFixture(std::size_t ticks = 1000, bool preserveOrder = true)
       : source(Orb::ptrNew<Orb::ManualTimeSource>()), wheel(source, 1, ticks, preserveOrder, 16) {}
   std::size_t at(Orb::Seconds t) {
      source->nowIs(t);
      return wheel.advance();
   }
   Orb::Ptr<Orb::ManualTimeSource> source;
   TimerWheel wheel;
   Log log;
};

TEST(KeelTimerWheel, CallbacksMayRearmDisarmAndDestroyTimers) {
   WheelFixture f;
   LogTimer periodic(&f.wheel, "periodic", &f.log), immediate(&f.wheel, "immediate", &f.log),
       victim(&f.wheel, "victim", &f.log), killer(&f.wheel, "killer", &f.log);
   auto doomed = std::make_unique<LogTimer>(&f.wheel, "doomed", &f.log);
   auto selfDestruct = std::make_unique<LogTimer>(&f.wheel, "selfDestruct", &f.log);
   periodic.action = [&] { periodic.timeMinIs(f.wheel.now() + 0.01); };
   // Re-arming at "now" runs once per run, never in a loop within one.
   immediate.action = [&] { immediate.timeMinIs(f.wheel.now()); };
   killer.action = [&] {
      doomed.reset();
      victim.timeMinIs(kInfinity);
   };
   selfDestruct->action = [&] { selfDestruct.reset(); };
   periodic.timeMinIs(0.01);
   immediate.timeMinIs(0.0);
   for (LogTimer* t : {&killer, doomed.get(), &victim, selfDestruct.get()}) t->timeMinIs(0.02);

   EXPECT_EQ(f.at(0.0), 1u);
   EXPECT_EQ(f.at(0.0), 1u);
   immediate.timeMinIs(kInfinity);
   EXPECT_EQ(f.at(0.02), 3u);
   EXPECT_EQ(f.log, (Log{"immediate", "immediate", "periodic", "killer", "selfDestruct"}));
   EXPECT_FALSE(victim.armed());
   EXPECT_EQ(f.at(0.03), 1u);
   EXPECT_EQ(f.log.back(), "periodic");
}

TEST(KeelTimerWheel, RandomArmingMatchesAReferenceModel) {
   struct ModelTimer : TimerWheel::Timer {
      using Timer::Timer;
      void onTime() override { fired->push_back(this); }
      std::vector<ModelTimer*>* fired = nullptr;
      Orb::Seconds expected = kInfinity;
      std::uint64_t armedAt = 0;
   };
   for (bool preserveOrder : {true, false}) {
      std::mt19937 rng(preserveOrder ? 7 : 11);
      std::uniform_real_distribution<double> delay(0.0, 0.5);
      WheelFixture f(64, preserveOrder);
      std::vector<ModelTimer*> fired;
      std::vector<std::unique_ptr<ModelTimer>> timers;
      for (int i = 0; i < 300; ++i) {
         timers.push_back(std::make_unique<ModelTimer>(&f.wheel));
         timers.back()->fired = &fired;
      }
      // Equal expiries fire in the order they were last armed; without preserved order, timers
      // of one tick fire in any order.
      auto order = [&](ModelTimer* t) {
         return preserveOrder ? std::pair(t->expected, t->armedAt)
                              : std::pair(std::floor(t->expected * 1000), std::uint64_t{0});
      };
      std::uint64_t numArmings = 0;
      Orb::Seconds now = 0;
      for (int step = 0; step < 400; ++step) {
         for (int k = 0; k < 5; ++k) {
            ModelTimer& t = *timers[rng() % timers.size()];
            const unsigned roll = rng() % 50;
            // Now and then disarmed, or far beyond the span of the wheel; half of the expiries
            // fall on a tick boundary, so that equal expiries and re-arming at one are common.
            Orb::Seconds when = now + delay(rng) * (roll == 7 ? 2000 : 1);
            if (roll % 2) when = std::ceil(when * 1000) / 1000;
            t.expected = roll < 7 ? kInfinity : when;
            t.armedAt = ++numArmings;
            t.timeMinIs(t.expected);
         }
         Orb::Seconds next = kInfinity;
         for (auto& t : timers) next = std::min(next, t->expected);
         ASSERT_EQ(f.wheel.nextExpiry(), next);
         const unsigned jump = rng() % 100;
         now += jump == 0 ? 500.0 : jump < 10 ? 0.3 : delay(rng) / 20;
         fired.clear();
         f.at(now);
         for (std::size_t i = 0; i < fired.size(); ++i) {
            ASSERT_LE(fired[i]->expected, now);
            if (i > 0) {
               ASSERT_LE(order(fired[i - 1]), order(fired[i]));
            }
         }
         for (ModelTimer* t : fired) t->expected = kInfinity;
         std::size_t armed = 0;
         for (auto& t : timers) {
            ASSERT_GT(t->expected, now);
            ASSERT_EQ(t->armed(), t->expected != kInfinity);
            armed += t->armed();
         }
         ASSERT_EQ(f.wheel.numArmed(), armed);
      }
   }
}

TEST(KeelTimerWheel, DestroyingTheWheelDisarmsItsTimers) {
   Log log;
   auto source = Orb::ptrNew<Orb::ManualTimeSource>();
   auto wheel = std::make_unique<TimerWheel>(source, 1, 10, true, 4);
   LogTimer near(wheel.get(), "near", &log), far(wheel.get(), "far", &log);
   near.timeMinIs(0.001);
   far.timeMinIs(50.0);
   wheel.reset();
   EXPECT_FALSE(near.armed());
   EXPECT_FALSE(far.armed());
}

class ClockWatcher : public Orb::Clock::Notifiee {
 public:
   void onTime() override {
      ++numFires;
      if (rearmAt != kInfinity) notifier()->timeMinIs(std::exchange(rearmAt, kInfinity));
   }
   int numFires = 0;
   Orb::Seconds rearmAt = kInfinity;
};

TEST(KeelWheelClock, FiresOnceAtTimeMinAndMayRearmFromItsWatcher) {
   WheelFixture f;
   auto clock = Orb::ptrNew<Keel::WheelClock>(&f.wheel);
   ClockWatcher watcher;
   watcher.notifierIs(clock.get());
   clock->timeMinIs(1.0);
   watcher.rearmAt = 2.0;
   f.at(1.5);
   EXPECT_EQ(watcher.numFires, 1);
   f.at(10.0);
   EXPECT_EQ(watcher.numFires, 2);
   clock->timeMinIs(11.0);
   clock->timeMinIs(kInfinity);
   f.at(12.0);
   EXPECT_EQ(watcher.numFires, 2);
}

}  // namespace
