#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Orb/Time.h"
#include "SliceSystem/HostCounters.h"
#include "SliceSystem/PublishTarget.h"
#include "SliceSystem/StatusWatch.h"
#include "SliceSystem/TablePlan.h"

namespace SliceSystem {

struct PublisherOptions {
   std::vector<TableSpec> tables;
   // The prefix file; empty takes the snapshot beside the repository, "synthetic" the
   // generator.
   std::string prefixesPath;
   // Share of the live entries that the churn phase changes.
   double churnFraction = 0.1;
   // Also announce two tables the host must skip: one whose configuration path does not
   // exist and one whose path holds a collection of another type (shared tables only).
   bool badAnnouncements = false;
   std::uint16_t instanceId = 1;
   Orb::Seconds genTime = 1.0;
   std::string publisherName = "slicepub";
   // The first op id; 0 takes one from the clock, above what an earlier publisher used.
   std::uint64_t firstOpId = 0;
   Orb::Seconds timeout = 120;
   // Dies (exit status 3, nothing cleaned up) after this many configuration writes; 0 never.
   std::uint64_t crashAfterWrites = 0;
   std::uint64_t seed = 1;
   // Progress lines; none when empty.
   std::function<void(const std::string&)> log;
};

struct PhaseResult {
   std::string name;
   ChangeCounts changes;
   Orb::Seconds seconds = 0;
   // Keys whose status did not show their configuration by the timeout.
   std::size_t outstanding = 0;

   bool converged() const { return outstanding == 0; }
   double changesPerSecond() const { return seconds > 0 ? changes.total() / seconds : 0; }
   std::string text() const;
};

struct PublisherReport {
   std::vector<std::string> tables;
   std::vector<PhaseResult> phases;
   std::uint64_t keysChecked = 0;
   // Keys whose configuration or status is not what the publisher last wrote.
   std::uint64_t mismatches = 0;
   // Statuses of keys that have no configuration.
   std::uint64_t strayStatuses = 0;
   std::optional<HostCounters> host;

   // Every phase converged, every status equals its configuration, and the host reported no
   // hitless violation.
   bool ok() const;
   std::string text() const;
};

// A feature agent that publishes single match tables and churns them: it announces each
// table in the mount-info collection, writes its entries (routes with next hops), waits until
// every status shows the change in hardware, then modifies, moves, swaps, replaces and
// deletes a share of them, and brings the deleted ones back, waiting again after each phase.
class Publisher {
 public:
   Publisher(PublishTarget& target, PublisherOptions options);
   Publisher(const Publisher&) = delete;
   Publisher& operator=(const Publisher&) = delete;
   ~Publisher();

   // publish, churn, readd, check, then the host's counters.
   PublisherReport run();

   PhaseResult publish();
   PhaseResult churn();
   PhaseResult readd();
   void check(PublisherReport& report);
   // The host's counters, written after this call began; none if the host does not write
   // them within `timeout`.
   std::optional<HostCounters> hostCountersFresh(Orb::Seconds timeout);
   std::size_t numOutstanding() const;
   // What is published: a line per table, where the routes came from, the bad announcements.
   std::vector<std::string> tableLines() const;

 private:
   struct Table;

   void log(const std::string& line) const;
   Orb::Seconds now() const;
   void write(Table& table, const TablePlan::Change& change);
   PhaseResult phase(const std::string& name,
                     const std::function<std::vector<TablePlan::Change>(TablePlan&)>& changes,
                     bool announce);
   void converge(PhaseResult& result, Orb::Seconds start);
   void badAnnouncementsWrite();

   PublishTarget& target_;
   PublisherOptions options_;
   std::string routeSource_;
   std::vector<std::unique_ptr<Table>> tables_;
   OpIdSource opIds_;
   std::uint64_t numWrites_ = 0;
};

}  // namespace SliceSystem
