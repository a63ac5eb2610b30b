#pragma once

#include "ChipMbbShared/TableConfigMountKey.h"
#include "MbbEngine/MbbEngineSm.h"
#include "Orb/Ptr.h"

namespace ChipMbbSlice {

// What a table manager needs of the audit manager: running tables are registered when they
// start and withdrawn when they are unmounted. The audit manager implements it; a manager
// without one mounts and serves its tables all the same, unaudited.
//
// The manager owns the engines. The audit refers to them without keeping them alive: an
// engine takes its entries out of hardware when it goes, which the manager lets happen before
// it unmounts the table's collections and calls delTable.
class TableAuditRegistry {
 public:
   virtual ~TableAuditRegistry() = default;

   virtual void addTable(const ChipMbbShared::TableConfigMountKey& key,
                         const Orb::Ptr<MbbEngine::MbbEngineSm>& engine) = 0;
   virtual void delTable(const ChipMbbShared::TableConfigMountKey& key) = 0;
};

}  // namespace ChipMbbSlice
