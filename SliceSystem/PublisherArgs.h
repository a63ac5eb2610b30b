#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "ChipModel/ChipProfile.h"
#include "SliceSystem/Publisher.h"

namespace SliceSystem {

// What the publisher's options say before the chip profile is known, which the tables and the
// triple are then fitted to.
struct PublisherArgs {
   std::vector<std::string> tables;
   std::uint64_t entries = 20000;
   bool ecmp = false;
   // Only the triple, no single tables.
   bool ecmpOnly = false;
   std::string ecmpSizes = "default";
   std::string ecmpOrder = "dependencies";
   PublisherOptions options;
};

// Adds the publisher's options to a tool's command line:
//   --table NAME[:ENTRIES] (repeatable)  --entries N  --prefixes FILE|synthetic  --churn F
//   --bad-announcements  --instance-id N  --gen-time T  --timeout S  --crash-after N  --seed N
//   --ecmp  --ecmp-only  --ecmp-sizes NAME  --ecmp-order NAME
void publisherArgsAdd(CLI::App& app, PublisherArgs& args);

// The options for the chip profile; false, saying why, when a table does not fit it.
bool publisherOptionsFor(const PublisherArgs& args, const ChipModel::ChipProfile& profile,
                         PublisherOptions& options, std::string& error);

}  // namespace SliceSystem
