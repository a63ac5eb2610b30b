#pragma once

#include "ChipMbbShared/TableConfigMountKey.h"
#include "MbbEngine/MbbEngineSm.h"
#include "Orb/Ptr.h"

namespace ChipMbbSlice {

class MatAdtSelSm;

// What a table manager needs of the audit: running tables are registered when they start and
// withdrawn when they are unmounted, single tables with their engine, triples with their
// dependency engine. The audit implements it; a manager without one mounts and serves its
// tables all the same, unaudited. It sits below both so that the audit can implement it and the
// managers' watcher can create the audit without either module depending on the other.
//
// The managers own the engines; the audit holds only weak references. When a newer publisher
// instance replaces a table, the manager drops the old engine, which takes its entries out of
// hardware as it goes; a weak reference lets it go at once and tells the audit that it went, so
// the audit never keeps an old engine alive nor programs through one. A registration under a
// key already registered replaces the earlier one.
class TableAuditRegistry {
 public:
   virtual ~TableAuditRegistry() = default;

   virtual void addTable(const ChipMbbShared::TableConfigMountKey& key,
                         const Orb::WeakPtr<MbbEngine::MbbEngineSm>& engine) = 0;
   virtual void delTable(const ChipMbbShared::TableConfigMountKey& key) = 0;

   virtual void addMatAdtSelTable(const ChipMbbShared::TableConfigMountKey& key,
                                  const Orb::WeakPtr<MatAdtSelSm>& sm) = 0;
   virtual void delMatAdtSelTable(const ChipMbbShared::TableConfigMountKey& key) = 0;
};

}  // namespace ChipMbbSlice
