#pragma once

#include "ChipMbbShared/TableConfigMountKey.h"
#include "MbbEngine/MbbEngineSm.h"
#include "Orb/Ptr.h"

namespace ChipMbbSlice {

// What a table manager needs of the audit manager: running tables are registered when they
// start and withdrawn when they are unmounted. The audit manager implements it; a manager
// without one mounts and serves its tables all the same, unaudited.
class TableAuditRegistry {
 public:
   virtual ~TableAuditRegistry() = default;

   virtual void addTable(const ChipMbbShared::TableConfigMountKey& key,
                         const Orb::Ptr<MbbEngine::MbbEngineSm>& engine) = 0;
   virtual void delTable(const ChipMbbShared::TableConfigMountKey& key) = 0;
};

}  // namespace ChipMbbSlice
