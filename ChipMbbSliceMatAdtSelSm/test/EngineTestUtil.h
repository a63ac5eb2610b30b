#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "ChipMbbSliceMatAdtSelSm/testing/TripleWorld.h"

namespace ChipMbbSlice::Test {

using ChipMbbShared::SelMbrEntryKey;
using Vault::MbbEngine::EntryKey;
using Vault::MbbEngine::OpId;

// The helper's operations in the order it placed them, as their counters move.
class OpLog : public ChipMbbEngineHelper::Notifiee {
 public:
   void onNumMatAddOps() override { ops.push_back("mat_add"); }
   void onNumMatModOps() override { ops.push_back("mat_mod"); }
   void onNumMatDelOps() override { ops.push_back("mat_del"); }
   void onNumAdtAddOps() override { ops.push_back("adt_add"); }
   void onNumAdtModOps() override { ops.push_back("adt_mod"); }
   void onNumAdtDelOps() override { ops.push_back("adt_del"); }
   void onNumSelAddOps() override { ops.push_back("sel_add"); }
   void onNumSelDelOps() override { ops.push_back("sel_del"); }
   void onNumSelActivateOps() override { ops.push_back("sel_activate"); }
   void onNumSelDeactivateOps() override { ops.push_back("sel_deactivate"); }
   void onNumSelSetFallbackOps() override { ops.push_back("sel_set_fallback"); }
   void onNumSelClrFallbackOps() override { ops.push_back("sel_clr_fallback"); }
   std::vector<std::string> take() { return std::exchange(ops, {}); }

   std::vector<std::string> ops;
};

inline OpId opIdOf(const Orb::Ptr<Vault::MbbEngine::TableStatus>& status, EntryKey key) {
   return status->entry(key).opId();
}

}  // namespace ChipMbbSlice::Test
