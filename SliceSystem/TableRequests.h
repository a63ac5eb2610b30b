#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ChipModel/ChipProfile.h"
#include "SliceSystem/Publisher.h"
#include "SliceSystem/TablePlan.h"

namespace SliceSystem {

// The tables to publish, from requests "name" or "name:entries" against the chip profile,
// which gives each table's handle, size and ATCAM partitions. Without requests: every single
// match table of the profile. A table without a count gets `defaultEntries`, at most three
// quarters of its size so that moves find free indices. False, saying why, for a name the
// profile lacks, a table that heads a triple, or a bad count.
bool tableSpecsFor(const ChipModel::ChipProfile& profile, const std::vector<std::string>& requests,
                   std::uint32_t defaultEntries, std::vector<TableSpec>& specs, std::string& error);

// The ECMP triple headed by match table `name` in the chip profile, with the workload sized
// by `preset` ("default" or "large") and fitted to the chip's tables. False, saying why, for
// a name that heads no triple or an unknown preset.
bool ecmpSpecFor(const ChipModel::ChipProfile& profile, const std::string& name,
                 const std::string& preset, EcmpTableSpec& spec, std::string& error);

}  // namespace SliceSystem
