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

// The default chip's ECMP triple, a few hundred groups strong: every phase of the workload and
// multi-vector groups among them, small enough for the suite.
inline EcmpTableSpec smallEcmp() {
   EcmpTableSpec spec;
   std::string error;
   EXPECT_TRUE(ecmpSpecFor(ChipModel::ChipProfile::defaultProfile(), "nexthop_ecmp", "default",
                           spec, error));
   EcmpSizes& sizes = spec.workload.sizes;
   sizes.numNextHops = 256;
   sizes.numGroups = 300;
   sizes.numMembers = 300 * 6;
   sizes.maxGroupMembers = 200;
   sizes.numRoutes = 1024;
   spec.workload.churnFraction = 0.2;
   return spec;
}

// Only the triple, through every ECMP phase.
inline PublisherOptions ecmpRun() {
   PublisherOptions options = smallRun();
   options.tables.clear();
   options.ecmp = smallEcmp();
   return options;
}

}  // namespace SliceSystem::Test
