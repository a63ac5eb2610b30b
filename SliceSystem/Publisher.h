#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Orb/Time.h"
#include "SliceSystem/EcmpWorkload.h"
#include "SliceSystem/HostCounters.h"
#include "SliceSystem/PublishTarget.h"
#include "SliceSystem/StatusWatch.h"
#include "SliceSystem/TablePlan.h"

namespace SliceSystem {

// The triple a publisher fills with the ECMP workload: the chip's match, action data and
// selector tables, and the workload's sizes and order.
struct EcmpTableSpec {
   std::string name;
   std::uint32_t tableId = 0;
   std::uint32_t adtTableId = 0;
   std::uint32_t selTableId = 0;
   std::uint32_t size = 0;
   EcmpOptions workload;
};

struct PublisherOptions {
   std::vector<TableSpec> tables;
   // Also publish this triple and take it through the ECMP phases, after the single tables.
   std::optional<EcmpTableSpec> ecmp;
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
   // A configuration collection found damaged is made afresh, whole, while waiting for
   // statuses; otherwise only tableAnnounce() does.
   bool renewDamaged = true;
   // Dies (exit status 3, nothing cleaned up) after this many configuration writes; 0 never.
   std::uint64_t crashAfterWrites = 0;
   std::uint64_t seed = 1;
   // Progress lines; none when empty.
   std::function<void(const std::string&)> log;
};

struct PhaseResult {
   std::string name;
   ChangeCounts changes;
   EcmpCounts ecmpChanges;
   // The triple's keys compared once it converged (ECMP phases only).
   std::uint64_t keysChecked = 0;
   std::uint64_t mismatches = 0;
   std::uint64_t strayStatuses = 0;
   // The chip's hitless violations during the phase, when the host said (ECMP phases only).
   std::optional<std::uint64_t> violations;
   // The host's placement operations for the phase (ECMP phases only).
   std::optional<std::uint64_t> placementOps;
   Orb::Seconds seconds = 0;
   // Of those, the time it took to write the changes.
   Orb::Seconds writeSeconds = 0;
   // Keys whose status did not show their configuration by the timeout.
   std::size_t outstanding = 0;

   bool converged() const { return outstanding == 0; }
   std::uint64_t numChanges() const { return changes.total() + ecmpChanges.total(); }
   double changesPerSecond() const { return seconds > 0 ? numChanges() / seconds : 0; }
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
   // The ECMP triple was asked for and the target could not carry it.
   bool tripleLeftOut = false;
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
// With an ECMP triple it then announces the triple and takes it through the phases of the
// ECMP workload, checking after each that every status equals its configuration.
class Publisher {
 public:
   Publisher(PublishTarget& target, PublisherOptions options);
   Publisher(const Publisher&) = delete;
   Publisher& operator=(const Publisher&) = delete;
   ~Publisher();

   // publish, churn, readd, the ECMP phases, check, then the host's counters.
   PublisherReport run();

   PhaseResult publish();
   PhaseResult churn();
   // The churn of the named tables only; without `wait` it returns once the changes are written.
   PhaseResult churnOf(const std::set<std::string>& names, bool wait);
   PhaseResult readd();
   // Null (and said in the log) when the target cannot carry the triple.
   std::optional<PhaseResult> ecmpPhase(EcmpPhaseKind kind);
   void check(PublisherReport& report);
   // Waits, as a phase does, until every status shows its configuration.
   PhaseResult settle(const std::string& name);

   // A single table's announcement taken back; true once the host has let the table go (its
   // status collection is gone) within the timeout.
   bool tableWithdraw(const std::string& name);
   // Announces the table again, expecting every live entry's status afresh; with
   // `freshConfig` over a configuration collection made anew and filled with every live entry.
   // Throws Vault::MountException when the collection cannot be made.
   void tableAnnounce(const std::string& name, bool freshConfig);
   // Expects every live entry's status again, for a table the host serves afresh.
   void tableExpectAll(const std::string& name);
   std::size_t numOutstanding(const std::string& name) const;
   // Keys of the table whose configuration or status is not what the publisher last wrote.
   std::uint64_t numMismatches(const std::string& name) const;
   // The host's counters, written after this call began; none if the host does not write
   // them within `timeout`.
   std::optional<HostCounters> hostCountersFresh(Orb::Seconds timeout);
   std::size_t numOutstanding() const;
   // What is published: a line per table, where the routes came from, the bad announcements.
   std::vector<std::string> tableLines() const;

 private:
   struct Table;
   struct Triple;

   void log(const std::string& line) const;
   Orb::Seconds now() const;
   void write(Table& table, const TablePlan::Change& change);
   void writePrefetch(Table& table, const TablePlan::Change& change) const;
   void tripleMountWait(Orb::Seconds start);
   PhaseResult phase(const std::string& name,
                     const std::function<std::vector<TablePlan::Change>(TablePlan&)>& changes,
                     bool announce, const std::set<std::string>* only = nullptr, bool wait = true);
   // Until the statuses of the tables `only` names (of all, when null) show their
   // configurations, or the timeout.
   void converge(PhaseResult& result, Orb::Seconds start,
                 const std::set<std::string>* only = nullptr);
   Table& table(const std::string& name) const;
   // Replaces the configuration collections found damaged.
   void damagedConfigsRenew();
   void checkTable(const Table& table, PublisherReport& report) const;
   void badAnnouncementsWrite();
   void tripleNew(std::vector<Route> routes);
   bool tripleTablesGet();
   void tripleCheck(PhaseResult& result);

   PublishTarget& target_;
   PublisherOptions options_;
   std::string routeSource_;
   std::vector<std::unique_ptr<Table>> tables_;
   std::unique_ptr<Triple> triple_;
   OpIdSource opIds_;
   std::uint64_t numWrites_ = 0;
};

}  // namespace SliceSystem
