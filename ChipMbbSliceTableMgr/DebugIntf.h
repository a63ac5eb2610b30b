#pragma once

#include <string>
#include <string_view>

#include "ChipMbbShared/TableConfigMountKey.h"
#include "MbbEngine/DebugConfig.h"
#include "MbbEngine/DebugStatus.h"
#include "Orb/Entity.h"
#include "Orb/Ptr.h"

namespace ChipMbbSlice {

// One table's diagnostic channel to its engine: the show commands raise the debug
// configuration's version and read the pending entries the engine answers with in the debug
// status. The children are made when first asked for, so the engine and the commands share
// them whichever comes first.
class DebugIntf : public Orb::Entity<DebugIntf> {
 public:
   static constexpr std::string_view orbTypeName = "ChipMbbSlice::DebugIntf";

   explicit DebugIntf(ChipMbbShared::TableConfigMountKey key)
       : Entity(key.name()), key_(std::move(key)) {}

   const ChipMbbShared::TableConfigMountKey& key() const { return key_; }
   bool hasBackupSupport() const { return false; }

   const Orb::Ptr<MbbEngine::DebugConfig>& debugConfig() const { return debugConfig_; }
   // Returns the debug configuration, made under `name` if there was none.
   const Orb::Ptr<MbbEngine::DebugConfig>& debugConfigIs(const std::string& name) {
      if (!debugConfig_) debugConfig_ = Orb::ptrNew<MbbEngine::DebugConfig>(name);
      return debugConfig_;
   }

   const Orb::Ptr<MbbEngine::DebugStatus>& debugStatus() const { return debugStatus_; }
   // Returns the debug status, made under `name` if there was none.
   const Orb::Ptr<MbbEngine::DebugStatus>& debugStatusIs(const std::string& name) {
      if (!debugStatus_) debugStatus_ = Orb::ptrNew<MbbEngine::DebugStatus>(name);
      return debugStatus_;
   }

 private:
   ChipMbbShared::TableConfigMountKey key_;
   Orb::Ptr<MbbEngine::DebugConfig> debugConfig_;
   Orb::Ptr<MbbEngine::DebugStatus> debugStatus_;
};

}  // namespace ChipMbbSlice
