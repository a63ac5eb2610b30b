#include "SliceSystem/PublisherArgs.h"

#include <limits>

#include "SliceSystem/Args.h"
#include "SliceSystem/TableRequests.h"

namespace SliceSystem {

namespace {

// Beyond a day nothing a publisher waits for is still coming.
constexpr double maxSeconds = 86400;

}  // namespace

void publisherArgsAdd(CLI::App& app, PublisherArgs& args) {
   PublisherOptions& o = args.options;
   app.add_option("--table", args.tables,
                  "NAME[:ENTRIES]: a single match table of the chip profile (repeatable; "
                  "default: every one); ENTRIES defaults to --entries");
   app.add_option("--entries", args.entries,
                  "entries per table (default 20000, at most 3/4 of the table)")
       ->check(countIn(0, std::numeric_limits<std::uint32_t>::max()));
   app.add_option("--prefixes", o.prefixesPath,
                  "routes to publish (default: the routing table snapshot beside the "
                  "repository); 'synthetic' uses the generator");
   app.add_option("--churn", o.churnFraction,
                  "share of the entries the churn phase changes (default 0.1)")
       ->check(numberIn(0, 1));
   app.add_flag("--bad-announcements", o.badAnnouncements,
                "also announce four tables the host must skip");
   app.add_option("--instance-id", o.instanceId, "the announcement's instance id")
       ->check(countIn(0, std::numeric_limits<std::uint16_t>::max()));
   app.add_option("--gen-time", o.genTime, "the announcement's generation time")
       ->check(numberIn(0, 1e12));
   app.add_option("--timeout", o.timeout,
                  "give up waiting for the statuses after S seconds (default 120)")
       ->check(numberIn(0, maxSeconds));
   app.add_option("--crash-after", o.crashAfterWrites,
                  "die after N configuration writes, as a crashing publisher")
       ->check(countIn(0, std::numeric_limits<std::uint64_t>::max()));
   app.add_option("--seed", o.seed, "generator seed")
       ->check(countIn(0, std::numeric_limits<std::uint64_t>::max()));
   app.add_flag("--ecmp", args.ecmp, "also publish the triple nexthop_ecmp with the ECMP workload");
   app.add_flag("--ecmp-only", args.ecmpOnly, "publish the triple and no single table");
   app.add_option("--ecmp-sizes", args.ecmpSizes,
                  "default (4096 groups x 64 members) or large (a large router)")
       ->check(CLI::IsMember({"default", "large"}));
   app.add_option("--ecmp-order", args.ecmpOrder,
                  "dependencies (default), dependants-first or shuffled")
       ->check(CLI::IsMember({"dependencies", "dependants-first", "shuffled"}));
}

bool publisherOptionsFor(const PublisherArgs& args, const ChipModel::ChipProfile& profile,
                         PublisherOptions& options, std::string& error) {
   options = args.options;
   if (!tableSpecsFor(profile, args.tables, static_cast<std::uint32_t>(args.entries),
                      options.tables, error)) {
      return false;
   }
   if (args.ecmpOnly) options.tables.clear();
   if (!args.ecmp && !args.ecmpOnly) return true;
   EcmpTableSpec spec;
   if (!ecmpSpecFor(profile, "nexthop_ecmp", args.ecmpSizes, spec, error)) return false;
   spec.workload.seed = options.seed;
   spec.workload.churnFraction = options.churnFraction;
   if (args.ecmpOrder == "dependants-first") {
      spec.workload.order = EcmpOrder::dependantsFirst;
   } else if (args.ecmpOrder == "shuffled") {
      spec.workload.order = EcmpOrder::shuffled;
   }
   options.ecmp = spec;
   return true;
}

}  // namespace SliceSystem
