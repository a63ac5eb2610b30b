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

TEST(KeelTimerWheel, FiresInExpiryOrderAndEqualExpiriesInArmingOrder) {
   WheelFixture f;
   LogTimer a(&f.wheel, "a", &f.log), b(&f.wheel, "b", &f.log), c(&f.wheel, "c", &f.log),
       d(&f.wheel, "d", &f.log), e(&f.wheel, "e", &f.log);
   a.timeMinIs(0.0107);
   b.timeMinIs(0.0103);
   c.timeMinIs(0.005);
   d.timeMinIs(0.0103);
   e.timeMinIs(0.0103);
   b.timeMinIs(0.0103);  // re-arming makes b the last of its expiry
   EXPECT_EQ(f.wheel.nextExpiry(), 0.005);
   EXPECT_EQ(f.at(0.0049), 0u);
   // Part of a tick: only what is due within it fires.
   EXPECT_EQ(f.at(0.0104), 4u);
   EXPECT_EQ(f.log, (Log{"c", "d", "e", "b"}));
   EXPECT_FALSE(b.armed());
   EXPECT_EQ(b.timeMin(), kInfinity);
   EXPECT_TRUE(a.armed());
   EXPECT_EQ(f.wheel.nextExpiry(), 0.0107);
   EXPECT_EQ(f.at(0.0107), 1u);
   EXPECT_EQ(f.log.back(), "a");
   EXPECT_EQ(f.wheel.numArmed(), 0u);
   EXPECT_EQ(f.wheel.nextExpiry(), kInfinity);
}

TEST(KeelTimerWheel, ReArmMovesTimerAndInfinityDisarms) {
   WheelFixture f;
   LogTimer early(&f.wheel, "early", &f.log), late(&f.wheel, "late", &f.log),
       gone(&f.wheel, "gone", &f.log);
   early.timeMinIs(0.5);
   early.timeMinIs(0.2);
   late.timeMinIs(0.1);
   late.timeMinIs(0.3);
   gone.timeMinIs(0.15);
   EXPECT_EQ(f.wheel.nextExpiry(), 0.15);
   gone.timeMinIs(kInfinity);
   EXPECT_EQ(f.wheel.nextExpiry(), 0.2);
   EXPECT_EQ(f.wheel.numArmed(), 2u);
   EXPECT_EQ(f.at(0.25), 1u);
   EXPECT_EQ(f.log, (Log{"early"}));
   EXPECT_EQ(f.at(0.6), 1u);
   EXPECT_EQ(f.log, (Log{"early", "late"}));
   // Arming in the past fires on the next run.
   gone.timeMinIs(0.01);
   EXPECT_EQ(f.wheel.nextExpiry(), 0.01);
   EXPECT_EQ(f.wheel.advance(), 1u);
   EXPECT_EQ(f.log.back(), "gone");
   {
      LogTimer dropped(&f.wheel, "dropped", &f.log);
      dropped.timeMinIs(0.7);
   }
   EXPECT_EQ(f.wheel.numArmed(), 0u);
   EXPECT_EQ(f.at(1.0), 0u);
}

TEST(KeelTimerWheel, TimersBeyondTheSpanFireInOrderAcrossJumps) {
   WheelFixture f(100);  // spans 0.1 s
   LogTimer near(&f.wheel, "near", &f.log), mid(&f.wheel, "mid", &f.log),
       later(&f.wheel, "later", &f.log), far(&f.wheel, "far", &f.log),
       farthest(&f.wheel, "farthest", &f.log);
   far.timeMinIs(7.0);
   farthest.timeMinIs(1000.0);
   mid.timeMinIs(0.25);
   near.timeMinIs(0.05);
   EXPECT_EQ(f.at(0.06), 1u);
   // Armed later but due before a timer armed earlier beyond the span.
   later.timeMinIs(0.1505);
   mid.timeMinIs(0.151);
   EXPECT_EQ(f.at(5.0), 2u);
   EXPECT_EQ(f.log, (Log{"near", "later", "mid"}));
   EXPECT_EQ(f.wheel.nextExpiry(), 7.0);
   EXPECT_EQ(f.at(999.999), 1u);
   EXPECT_EQ(f.at(2000.0), 1u);
   EXPECT_EQ(f.log, (Log{"near", "later", "mid", "far", "farthest"}));
}

TEST(KeelTimerWheel, CallbacksMayRearmDisarmAndDestroyTimers) {
   WheelFixture f;
   LogTimer periodic(&f.wheel, "periodic", &f.log), immediate(&f.wheel, "immediate", &f.log),
       victim(&f.wheel, "victim", &f.log), killer(&f.wheel, "killer", &f.log),
       spawnTrigger(&f.wheel, "spawnTrigger", &f.log);
   auto doomed = std::make_unique<LogTimer>(&f.wheel, "doomed", &f.log);
   auto selfDestruct = std::make_unique<LogTimer>(&f.wheel, "selfDestruct", &f.log);
   std::unique_ptr<LogTimer> spawned;

   periodic.action = [&] { periodic.timeMinIs(f.wheel.now() + 0.01); };
   // Re-arming at "now" runs once per run, never in a loop within one.
   immediate.action = [&] { immediate.timeMinIs(f.wheel.now()); };
   killer.action = [&] {
      doomed.reset();
      victim.timeMinIs(kInfinity);
   };
   selfDestruct->action = [&] { selfDestruct.reset(); };
   spawnTrigger.action = [&] {
      spawned = std::make_unique<LogTimer>(&f.wheel, "spawned", &f.log);
      spawned->timeMinIs(0.0);
   };

   periodic.timeMinIs(0.01);
   immediate.timeMinIs(0.0);
   killer.timeMinIs(0.02);
   doomed->timeMinIs(0.02);
   victim.timeMinIs(0.02);
   selfDestruct->timeMinIs(0.02);
   spawnTrigger.timeMinIs(0.02);

   EXPECT_EQ(f.at(0.0), 1u);
   EXPECT_EQ(f.at(0.0), 1u);
   EXPECT_EQ(f.log, (Log{"immediate", "immediate"}));
   immediate.timeMinIs(kInfinity);
   f.log.clear();
   EXPECT_EQ(f.at(0.02), 4u);
   EXPECT_EQ(f.log, (Log{"periodic", "killer", "selfDestruct", "spawnTrigger"}));
   EXPECT_FALSE(doomed);
   EXPECT_FALSE(selfDestruct);
   EXPECT_FALSE(victim.armed());
   ASSERT_TRUE(spawned);
   EXPECT_TRUE(spawned->armed());
   f.log.clear();
   // periodic re-armed itself at 0.03 while firing at 0.02.
   EXPECT_EQ(f.at(0.03), 2u);
   EXPECT_EQ(f.log, (Log{"spawned", "periodic"}));
}

TEST(KeelTimerWheel, RandomArmingMatchesAReferenceModel) {
   for (bool preserveOrder : {true, false}) {
      std::mt19937 rng(preserveOrder ? 7 : 11);
      WheelFixture f(64, preserveOrder);
      struct Fired {
         Orb::Seconds timeMin;
         std::size_t index;
      };
      std::vector<Fired> fired;
      struct ModelTimer : TimerWheel::Timer {
         ModelTimer(TimerWheel* w, std::vector<Fired>* out, std::size_t i)
             : Timer(w), out(out), index(i) {}
         void onTime() override { out->push_back({expected, index}); }
         std::vector<Fired>* out;
         std::size_t index;
         Orb::Seconds expected = kInfinity;
      };
      std::vector<std::unique_ptr<ModelTimer>> timers;
      for (std::size_t i = 0; i < 300; ++i) {
         timers.push_back(std::make_unique<ModelTimer>(&f.wheel, &fired, i));
      }
      std::uniform_real_distribution<double> delay(0.0, 0.5);
      std::uniform_int_distribution<std::size_t> pick(0, timers.size() - 1);
      Orb::Seconds now = 0;
      for (int step = 0; step < 400; ++step) {
         for (int k = 0; k < 5; ++k) {
            ModelTimer& t = *timers[pick(rng)];
            t.expected = rng() % 7 == 0 ? kInfinity : now + delay(rng);
            t.timeMinIs(t.expected);
         }
         Orb::Seconds expectNext = kInfinity;
         for (auto& t : timers) expectNext = std::min(expectNext, t->expected);
         ASSERT_EQ(f.wheel.nextExpiry(), expectNext);
         now += rng() % 10 == 0 ? 0.3 : delay(rng) / 20;
         fired.clear();
         f.at(now);
         for (std::size_t i = 0; i < fired.size(); ++i) {
            ASSERT_LE(fired[i].timeMin, now);
            if (i > 0) {
               // Without preserved order only the tick order holds.
               const double scale = preserveOrder ? 1.0 : 1000.0;
               ASSERT_LE(std::floor(fired[i - 1].timeMin * scale) / scale,
                         std::floor(fired[i].timeMin * scale) / scale);
            }
            timers[fired[i].index]->expected = kInfinity;
         }
         std::size_t stillDue = 0, armed = 0;
         for (auto& t : timers) {
            stillDue += t->expected <= now;
            armed += t->expected != kInfinity;
            ASSERT_EQ(t->armed(), t->expected != kInfinity);
         }
         ASSERT_EQ(stillDue, 0u);
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
   f.source->nowIs(0.25);
   EXPECT_EQ(clock->now(), 0.25);
   clock->timeMinIs(1.0);
   EXPECT_EQ(clock->timeMin(), 1.0);
   EXPECT_EQ(f.wheel.nextExpiry(), 1.0);
   f.at(0.999);
   EXPECT_EQ(watcher.numFires, 0);
   watcher.rearmAt = 2.0;
   f.at(1.5);
   EXPECT_EQ(watcher.numFires, 1);
   EXPECT_EQ(clock->timeMin(), 2.0);
   f.at(3.0);
   EXPECT_EQ(watcher.numFires, 2);
   EXPECT_EQ(clock->timeMin(), kInfinity);
   f.at(10.0);
   EXPECT_EQ(watcher.numFires, 2);
   clock->timeMinIs(11.0);
   clock->timeMinIs(kInfinity);
   f.at(12.0);
   EXPECT_EQ(watcher.numFires, 2);
   EXPECT_EQ(f.wheel.numArmed(), 0u);
}

}  // namespace
