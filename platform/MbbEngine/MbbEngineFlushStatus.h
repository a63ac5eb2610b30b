#pragma once

#include <cstdint>
#include <string>

#include "Orb/Entity.h"

namespace MbbEngine {

// How start-up learns that every table has made its first full pass: each table adds itself to
// `tableCounter` when its engine starts and to `flushCounter` once its first pass is in
// hardware, so the two agree when all have. Both are eight bits and wrap.
class MbbEngineFlushStatus : public Orb::Entity<MbbEngineFlushStatus> {
 public:
   class Notifiee : public Orb::BaseNotifiee<MbbEngineFlushStatus> {
    public:
      virtual void onTableCounter() {}
      virtual void onFlushCounter() {}
   };

   explicit MbbEngineFlushStatus(std::string name = {}) : Entity(std::move(name)) {}

   std::uint8_t tableCounter() const { return tableCounter_; }
   void tableCounterIs(std::uint8_t v) {
      if (v == tableCounter_) return;
      tableCounter_ = v;
      notifieeList().notify(&Notifiee::onTableCounter);
   }
   void tableCounterInc(std::uint8_t n) {
      tableCounterIs(static_cast<std::uint8_t>(tableCounter_ + n));
   }

   std::uint8_t flushCounter() const { return flushCounter_; }
   void flushCounterIs(std::uint8_t v) {
      if (v == flushCounter_) return;
      flushCounter_ = v;
      notifieeList().notify(&Notifiee::onFlushCounter);
   }
   void flushCounterInc(std::uint8_t n) {
      flushCounterIs(static_cast<std::uint8_t>(flushCounter_ + n));
   }

   // Every table announced so far has made its first pass.
   bool allFlushed() const { return tableCounter_ == flushCounter_; }

 private:
   std::uint8_t tableCounter_ = 0;
   std::uint8_t flushCounter_ = 0;
};

}  // namespace MbbEngine
