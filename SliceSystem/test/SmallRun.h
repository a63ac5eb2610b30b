#pragma once

#include <gtest/gtest.h>

#include "ChipModel/ChipProfile.h"
#include "SliceSystem/Publisher.h"
#include "SliceSystem/TableRequests.h"

namespace SliceSystem::Test {

// Three tables of the default chip, an ATCAM one among them, 3000 generated routes in all,
// a fifth of them churned: small enough for the suite, big enough for every kind of change.
inline PublisherOptions smallRun() {
   PublisherOptions options;
   std::string error;
   EXPECT_TRUE(tableSpecsFor(ChipModel::ChipProfile::defaultProfile(),
                             {"ipv4_host:1500", "ipv4_lpm:1200", "acl_ingress:300"}, 0,
                             options.tables, error));
   options.prefixesPath = "synthetic";
   options.churnFraction = 0.2;
   options.timeout = 30;
   return options;
}

}  // namespace SliceSystem::Test
