#pragma once

#include <cstdint>
#include <string>

#include "Orb/Entity.h"

namespace MbbEngine {

// A diagnostic request to an engine: raising the version asks the engine to fill its
// DebugStatus, which it does at once.
class DebugConfig : public Orb::Entity<DebugConfig> {
 public:
   class Notifiee : public Orb::BaseNotifiee<DebugConfig> {
    public:
      virtual void onVersion() {}
   };

   explicit DebugConfig(std::string name = {}) : Entity(std::move(name)) {}

   std::uint32_t version() const { return version_; }
   void versionIs(std::uint32_t v) {
      if (v == version_) return;
      version_ = v;
      notifieeList().notify(&Notifiee::onVersion);
   }

 private:
   std::uint32_t version_ = 0;
};

}  // namespace MbbEngine
