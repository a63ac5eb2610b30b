#pragma once

#include "Vault/MbbEngine/EntryKey.h"

namespace ChipMbbSlice {

// What the placement helper of a triple table tells the table's dependency engine, so that
// the engine learns which references have reached the hardware. The calls come on the event
// loop thread from inside the helper's operations and commits, and may re-enter the helper.
class DependencyEngineIntf {
 public:
   virtual ~DependencyEngineIntf() = default;

   // A match-table operation for the key is being placed in the current batch.
   virtual void matInBatch(Vault::MbbEngine::EntryKey matKey) = 0;
   // The match batch has been committed; its statuses are not written yet.
   virtual void processedMat() = 0;
   // The ADT key's operation has been committed and its status written.
   virtual void processedAdt(Vault::MbbEngine::EntryKey adtKey) = 0;
   // The selector batch has been committed; its member statuses are not written yet.
   virtual void processedSel() = 0;
};

// The dependency engine behind a helper's `impl`; a triple table always has one.
DependencyEngineIntf* getImpl(DependencyEngineIntf* impl);

}  // namespace ChipMbbSlice
