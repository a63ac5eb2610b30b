#include "SliceSystem/PublisherArgs.h"

#include "SliceSystem/TableRequests.h"

namespace SliceSystem {

const char* publisherArgsUsage =
    "  --table NAME[:ENTRIES]  a single match table of the chip profile (repeatable; default:\n"
    "                          every one); ENTRIES defaults to --entries\n"
    "  --entries N             entries per table (default 20000, at most 3/4 of the table)\n"
    "  --prefixes FILE         routes to publish (default: the routing table snapshot beside\n"
    "                          the repository); 'synthetic' uses the generator\n"
    "  --churn F               share of the entries the churn phase changes (default 0.1)\n"
    "  --bad-announcements     also announce two tables the host must skip\n"
    "  --instance-id N, --gen-time T, --seed N   announcement fields and generator seed\n"
    "  --timeout S             give up waiting for the statuses after S seconds (default 120)\n"
    "  --crash-after N         die after N configuration writes, as a crashing publisher\n"
    "  --ecmp                  also publish the triple nexthop_ecmp with the ECMP workload\n"
    "  --ecmp-sizes NAME       default (4096 groups x 64 members) or large (a large router)\n"
    "  --ecmp-order NAME       dependencies (default), dependants-first or shuffled\n";

bool publisherOptionsParse(Args& args, const ChipModel::ChipProfile& profile,
                           PublisherOptions& options, std::string& error) {
   auto entries = static_cast<std::uint32_t>(args.count("entries", 20000));
   options.prefixesPath = args.text("prefixes");
   options.churnFraction = args.number("churn", options.churnFraction);
   options.badAnnouncements = args.flag("bad-announcements");
   options.instanceId = static_cast<std::uint16_t>(args.count("instance-id", options.instanceId));
   options.genTime = args.number("gen-time", options.genTime);
   options.timeout = args.number("timeout", options.timeout);
   options.crashAfterWrites = args.count("crash-after", 0);
   options.seed = args.count("seed", options.seed);
   if (!tableSpecsFor(profile, args.texts("table"), entries, options.tables, error)) return false;
   std::string sizes = args.text("ecmp-sizes", "default");
   std::string order = args.text("ecmp-order", "dependencies");
   if (!args.flag("ecmp")) return true;
   EcmpTableSpec spec;
   if (!ecmpSpecFor(profile, "nexthop_ecmp", sizes, spec, error)) return false;
   spec.workload.seed = options.seed;
   spec.workload.churnFraction = options.churnFraction;
   if (order == "dependants-first") {
      spec.workload.order = EcmpOrder::dependantsFirst;
   } else if (order == "shuffled") {
      spec.workload.order = EcmpOrder::shuffled;
   } else if (order != "dependencies") {
      error = "unknown ECMP order '" + order + "'";
      return false;
   }
   options.ecmp = spec;
   return true;
}

}  // namespace SliceSystem
