#include "Orb/Orb.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

class Lamp : public Orb::Entity<Lamp> {
 public:
   class Notifiee : public Orb::BaseNotifiee<Lamp> {
    public:
      virtual void onOn() {}
   };
   using Entity::Entity;
   void onIs(bool on) {
      if (on == on_) return;
      on_ = on;
      notifieeList().notify(&Notifiee::onOn);
   }

 private:
   bool on_ = false;
};

class Watcher : public Lamp::Notifiee {
 public:
   Watcher(std::vector<int>* log, int id) : log_(log), id_(id) {}
   void onOn() override {
      log_->push_back(id_);
      if (leaveOnDelivery) notifierIs(nullptr);
      if (other) other->notifierIs(nullptr);
   }
   bool leaveOnDelivery = false;
   Watcher* other = nullptr;

 private:
   std::vector<int>* log_;
   int id_;
};

TEST(OrbNotifiee, DeliveryInOrderSurvivesRemovalDuringDelivery) {
   auto lamp = Orb::ptrNew<Lamp>("hall");
   std::vector<int> log;
   Watcher a(&log, 1), b(&log, 2), c(&log, 3);
   a.notifierIs(lamp.get());
   b.notifierIs(lamp.get());
   c.notifierIs(lamp.get());
   a.leaveOnDelivery = true;  // removes itself
   b.other = &c;              // removes a notifiee not yet reached
   lamp->onIs(true);
   EXPECT_EQ(log, (std::vector<int>{1, 2}));

   log.clear();
   lamp->onIs(true);  // unchanged value notifies nobody
   EXPECT_TRUE(log.empty());
   lamp->onIs(false);
   EXPECT_EQ(log, (std::vector<int>{2}));
}

TEST(OrbNotifiee, DestroyedNotifieeUnregisters) {
   auto lamp = Orb::ptrNew<Lamp>("porch");
   std::vector<int> log;
   {
      Watcher gone(&log, 9);
      gone.notifierIs(lamp.get());
   }
   lamp->onIs(true);
   EXPECT_TRUE(log.empty());
}

}  // namespace
