#include "SliceSystem/Publisher.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <unordered_set>

#include "Brio/Brio.h"
#include "Vault/Errors.h"

namespace SliceSystem {

namespace {

std::uint64_t clockOpId() {
   // Microseconds since the epoch, with room below for 4096 changes per microsecond of
   // publisher lifetime: a later publisher starts above whatever an earlier one reached.
   auto since = std::chrono::system_clock::now().time_since_epoch();
   return std::uint64_t(std::chrono::duration_cast<std::chrono::microseconds>(since).count()) << 12;
}

std::string fixed(double value, int decimals) {
   char buf[64];
   std::snprintf(buf, sizeof buf, "%.*f", decimals, value);
   return buf;
}

std::string hex(std::uint32_t value) {
   char buf[16];
   std::snprintf(buf, sizeof buf, "0x%08x", value);
   return buf;
}

}  // namespace

struct Publisher::Table {
   Table(TableSpec spec, const std::vector<Route>& routes, std::uint64_t seed)
       : plan(std::move(spec), routes, seed) {}

   TablePlan plan;
   PublishTarget::Key key;
   PublishTarget::MountEntry entry;
   Orb::Ptr<Vault::MbbEngine::TableConfig> config;
   StatusWatch watch;
};

struct Publisher::Triple {
   Triple(EcmpTableSpec s, std::vector<Route> routes)
       : spec(std::move(s)), workload(spec.workload, std::move(routes)) {}

   EcmpTableSpec spec;
   EcmpWorkload workload;
   PublishTarget::Key key;
   PublishTarget::TripleEntry entry;
   EcmpTableSink sink;
   // By EcmpTable: next hops, groups, members, routes.
   std::array<std::string, numEcmpTables> statusPaths;
   std::array<StatusWatch, numEcmpTables> watches;
   // The host's counters after the previous phase.
   HostCounters hostSeen;
};

std::string PhaseResult::text() const {
   std::string kinds = ecmpChanges.total() ? ecmpChanges.text() : changes.text();
   std::string out = name + ": " + std::to_string(numChanges()) + " changes (" + kinds + ") ";
   if (!converged()) {
      return out + "NOT converged after " + fixed(seconds, 3) + " s, " +
             std::to_string(outstanding) + " keys outstanding";
   }
   out +=
       "converged in " + fixed(seconds, 3) + " s, " + fixed(changesPerSecond(), 0) + " changes/s";
   if (keysChecked || mismatches || strayStatuses) {
      out += "; statuses equal to configurations: " + std::to_string(keysChecked - mismatches) +
             " of " + std::to_string(keysChecked) + ", stray statuses " +
             std::to_string(strayStatuses);
   }
   if (placementOps) {
      out += ", " + std::to_string(*placementOps) + " placement ops, " +
             fixed(seconds > 0 ? *placementOps / seconds : 0, 0) + " ops/s";
   }
   if (violations) out += ", hitless violations " + std::to_string(*violations);
   return out;
}

bool PublisherReport::ok() const {
   for (const PhaseResult& phase : phases) {
      if (!phase.converged()) return false;
   }
   return !tripleLeftOut && mismatches == 0 && strayStatuses == 0 && host &&
          host->numViolations == 0;
}

std::string PublisherReport::text() const {
   std::string out;
   for (const std::string& line : tables) out += "  " + line + "\n";
   for (const PhaseResult& phase : phases) out += "phase " + phase.text() + "\n";
   if (tripleLeftOut) out += "triple: left out, the target has no collections for it\n";
   out += "check: " + std::to_string(keysChecked) +
          " keys, statuses equal to configurations: " + std::to_string(keysChecked - mismatches) +
          ", mismatches " + std::to_string(mismatches) + ", stray statuses " +
          std::to_string(strayStatuses) + "\n";
   if (host) {
      out += "host: " + host->text() + "\n";
      out += "hitless violations: " + std::to_string(host->numViolations) + "\n";
   } else {
      out += "host: no counters from the host\n";
   }
   out += std::string("result: ") + (ok() ? "OK" : "FAILED") + "\n";
   return out;
}

Publisher::Publisher(PublishTarget& target, PublisherOptions options)
    : target_(target),
      options_(std::move(options)),
      opIds_(options_.firstOpId ? options_.firstOpId : clockOpId()) {
   std::size_t total = 0;
   for (const TableSpec& spec : options_.tables) total += spec.numEntries;
   if (options_.ecmp) total += options_.ecmp->workload.sizes.numRoutes;
   std::vector<Route> routes = routesLoad(options_.prefixesPath, total, routeSource_);
   std::size_t next = 0;
   for (const TableSpec& spec : options_.tables) {
      std::vector<Route> mine(routes.begin() + next, routes.begin() + next + spec.numEntries);
      next += spec.numEntries;
      auto table = std::make_unique<Table>(spec, mine, options_.seed + tables_.size());
      table->key = PublishTarget::Key(ChipDriver::ChipDevTgt{0, 0xFFFF}, spec.name, spec.tableId);
      table->entry.configPathIs("mbb/" + spec.name + "/config");
      table->entry.statusPathIs("mbb/" + spec.name + "/status");
      table->entry.needStatusIs(true);
      table->entry.tableSizeIs(spec.size);
      table->entry.maxPartitionsIs(spec.partitions);
      table->entry.publisherIdIs(static_cast<std::uint32_t>(::getpid()));
      table->entry.publisherNameIs(options_.publisherName);
      table->entry.configGenTimeIs(options_.genTime);
      table->entry.statusGenTimeIs(options_.genTime);
      table->entry.instanceIdIs(options_.instanceId);
      tables_.push_back(std::move(table));
   }
   if (options_.ecmp) tripleNew(std::vector<Route>(routes.begin() + next, routes.end()));
}

void Publisher::tripleNew(std::vector<Route> routes) {
   EcmpTableSpec spec = *options_.ecmp;
   // Op ids per key only grow: the workload starts where this publisher's own ids start.
   spec.workload.firstOpId = opIds_();
   triple_ = std::make_unique<Triple>(spec, std::move(routes));
   Triple& t = *triple_;
   t.key = PublishTarget::Key(ChipDriver::ChipDevTgt{0, 0xFFFF}, spec.name, spec.tableId);
   std::string dir = "mbb/" + spec.name + "/";
   t.entry.matConfigPathIs(dir + "config");
   t.entry.adtConfigPathIs(dir + "adtConfig");
   t.entry.selGrpConfigPathIs(dir + "selGrpConfig");
   t.entry.selMbrConfigPathIs(dir + "selMbrConfig");
   t.entry.matStatusPathIs(dir + "status");
   t.entry.adtStatusPathIs(dir + "adtStatus");
   t.entry.selGrpStatusPathIs(dir + "selGrpStatus");
   t.entry.selMbrStatusPathIs(dir + "selMbrStatus");
   t.entry.needStatusIs(true);
   t.entry.adtTableIdIs(spec.adtTableId);
   t.entry.selTableIdIs(spec.selTableId);
   t.entry.tableSizeIs(spec.size);
   t.entry.configGenTimeIs(options_.genTime);
   t.entry.statusGenTimeIs(options_.genTime);
   t.entry.instanceIdIs(options_.instanceId);
   t.statusPaths[std::size_t(EcmpTable::nextHop)] = t.entry.adtStatusPath();
   t.statusPaths[std::size_t(EcmpTable::group)] = t.entry.selGrpStatusPath();
   t.statusPaths[std::size_t(EcmpTable::member)] = t.entry.selMbrStatusPath();
   t.statusPaths[std::size_t(EcmpTable::route)] = t.entry.matStatusPath();
}

Publisher::~Publisher() = default;

void Publisher::log(const std::string& line) const {
   if (options_.log) options_.log(line);
}

Orb::Seconds Publisher::now() const {
   return Orb::activityTimeSource()->now();
}

std::size_t Publisher::numOutstanding() const {
   std::size_t n = 0;
   for (const auto& table : tables_) n += table->watch.numOutstanding();
   if (triple_) {
      for (const StatusWatch& watch : triple_->watches) n += watch.numOutstanding();
   }
   return n;
}

void Publisher::write(Table& table, const TablePlan::Change& change) {
   const TablePlan::Entry& e = table.plan.entries()[change.entry];
   table.watch.expect(e.key, table.plan.expectedOpId(change.entry));
   if (e.live) {
      table.config->entryIs(table.plan.config(change.entry));
   } else {
      table.config->entryDel(e.key);
   }
   if (++numWrites_ == options_.crashAfterWrites) {
      log("dying after " + std::to_string(numWrites_) + " writes, as asked");
      std::_Exit(3);
   }
}

// A million keys spread over tables far larger than the caches: the places of a write a few
// ahead are fetched while the ones before it are written.
void Publisher::writePrefetch(Table& table, const TablePlan::Change& change) const {
   const std::uint64_t key = table.plan.entries()[change.entry].key;
   table.watch.expectPrefetch(key);
   table.config->entryPrefetch(Vault::MbbEngine::EntryKey(key));
}

PhaseResult Publisher::phase(
    const std::string& name,
    const std::function<std::vector<TablePlan::Change>(TablePlan&)>& changes, bool announce,
    const std::set<std::string>* only, bool wait) {
   PhaseResult result;
   result.name = name;
   Orb::Seconds start = now();
   for (auto& table : tables_) {
      if (only && !only->contains(table->key.name())) continue;
      if (!table->config) table->config = target_.configTable(table->key, table->entry);
      if (!table->config) {
         log("no configuration collection for " + table->key.name() + "; left out");
         continue;
      }
      // Announced before its entries, so that the host mounts it and programs what arrives
      // while the rest is still being written.
      if (announce) {
         target_.tableMountInfo().entryIs(table->key, table->entry);
         // A shared table rings its readers when the loop turns; the host is to hear of the
         // table now, not once every entry is written.
         target_.loop().runOnce(0);
      }
      std::vector<TablePlan::Change> planned = changes(table->plan);
      // A host in this process answers each write before the next one: watched from the
      // start, its statuses take the keys out as they come and the expected set stays a few
      // cells in cache. A shared table's statuses come when the loop turns, after the writing,
      // so there every key written is expected at once.
      if (auto status = target_.statusTable(table->key, table->entry)) {
         table->watch.statusIs(std::move(status));
      }
      if (target_.shared()) table->watch.expectReserve(planned.size());
      constexpr std::size_t writesAhead = 4;
      for (std::size_t i = 0; i < planned.size(); ++i) {
         if (i + writesAhead < planned.size()) writePrefetch(*table, planned[i + writesAhead]);
         write(*table, planned[i]);
         result.changes.add(planned[i].kind);
      }
   }
   result.writeSeconds = now() - start;
   if (announce && options_.badAnnouncements) badAnnouncementsWrite();
   if (!wait) return result;
   log("phase " + name + ": " + std::to_string(result.changes.total()) +
       " changes written, waiting for their statuses");
   converge(result, start, only);
   return result;
}

void Publisher::converge(PhaseResult& result, Orb::Seconds start,
                         const std::set<std::string>* only) {
   constexpr Orb::Seconds statusPollPeriod = 0.02;
   Orb::Seconds nextPoll = 0;
   for (;;) {
      Orb::Seconds t = now();
      if (t >= nextPoll) {
         if (options_.renewDamaged) damagedConfigsRenew();
         for (auto& table : tables_) {
            table->watch.statusIs(target_.statusTable(table->key, table->entry));
         }
         for (std::size_t i = 0; triple_ && i < numEcmpTables; ++i) {
            triple_->watches[i].statusIs(
                target_.tripleStatusTable(triple_->key, triple_->statusPaths[i]));
         }
         nextPoll = t + statusPollPeriod;
      }
      result.outstanding = 0;
      if (!only) result.outstanding = numOutstanding();
      for (const std::string& name : only ? *only : std::set<std::string>()) {
         result.outstanding += numOutstanding(name);
      }
      if (result.outstanding == 0 || t - start > options_.timeout) break;
      target_.loop().runOnce(0.005);
   }
   result.seconds = now() - start;
}

PhaseResult Publisher::settle(const std::string& name) {
   PhaseResult result;
   result.name = name;
   converge(result, now());
   return result;
}

Publisher::Table& Publisher::table(const std::string& name) const {
   for (const auto& table : tables_) {
      if (table->key.name() == name) return *table;
   }
   throw std::invalid_argument("no table " + name + " in this publisher");
}

std::size_t Publisher::numOutstanding(const std::string& name) const {
   return table(name).watch.numOutstanding();
}

bool Publisher::tableWithdraw(const std::string& name) {
   Table& t = table(name);
   target_.tableMountInfo().entryDel(t.key);
   const Orb::Seconds deadline = now() + options_.timeout;
   while (target_.statusTable(t.key, t.entry)) {
      if (now() > deadline) return false;
      target_.loop().runOnce(0.005);
   }
   return true;
}

void Publisher::tableAnnounce(const std::string& name, bool freshConfig) {
   Table& t = table(name);
   if (freshConfig) {
      t.config.reset();
      target_.configDrop(t.key, t.entry);
      t.config = target_.configTable(t.key, t.entry);
      if (!t.config) throw Vault::MountException("no configuration collection for " + name);
      for (std::size_t i = 0; i < t.plan.entries().size(); ++i) {
         if (t.plan.entries()[i].live) t.config->entryIs(t.plan.config(i));
      }
   }
   tableExpectAll(name);
   target_.tableMountInfo().entryIs(t.key, t.entry);
}

void Publisher::tableExpectAll(const std::string& name) {
   Table& t = table(name);
   for (std::size_t i = 0; i < t.plan.entries().size(); ++i) {
      const TablePlan::Entry& e = t.plan.entries()[i];
      if (e.live) t.watch.expect(e.key, t.plan.expectedOpId(i));
   }
}

// What another process damaged goes, whole: the host has stopped the table or will when it
// reads there, and serves it again from the collection made afresh.
void Publisher::damagedConfigsRenew() {
   for (const std::string& path : target_.damagedTake()) {
      for (const auto& t : tables_) {
         if (t->entry.configPath() != path || !t->config) continue;
         log("configuration of " + t->key.name() + " found damaged; making it afresh");
         tableWithdraw(t->key.name());
         try {
            tableAnnounce(t->key.name(), true);
         } catch (const std::exception& e) {
            log("cannot make the configuration of " + t->key.name() + " afresh: " + e.what());
         }
      }
   }
}

void Publisher::badAnnouncementsWrite() {
   if (!target_.shared() || tables_.empty()) {
      log("bad announcements need shared tables; none made");
      return;
   }
   const Table& model = *tables_.front();
   auto bad = [&](const std::string& name, const std::string& configPath) {
      PublishTarget::MountEntry entry = model.entry;
      entry.configPathIs(configPath);
      entry.statusPathIs("mbb/" + name + "/status");
      target_.tableMountInfo().entryIs(
          PublishTarget::Key(model.key.devTgt(), name, model.key.tableId()), entry);
   };
   bad("missing_table", "mbb/missing_table/config");
   target_.decoyIs("mbb/wrong_type_table/config");
   bad("wrong_type_table", "mbb/wrong_type_table/config");
   // A configuration with room for twice the entries of its table.
   PublishTarget::MountEntry larger = model.entry;
   larger.configPathIs("mbb/oversized_table/config");
   larger.tableSizeIs(2 * model.entry.tableSize());
   if (target_.configTable(model.key, larger)) bad("oversized_table", larger.configPath());
   // The status that the first table writes already.
   PublishTarget::MountEntry thief = model.entry;
   thief.configPathIs("mbb/status_thief_table/config");
   if (target_.configTable(model.key, thief)) {
      target_.tableMountInfo().entryIs(
          PublishTarget::Key(model.key.devTgt(), "status_thief_table", model.key.tableId()), thief);
   }
}

std::vector<std::string> Publisher::tableLines() const {
   std::vector<std::string> lines;
   for (const auto& table : tables_) {
      const TableSpec& spec = table->plan.spec();
      std::string line = "table " + spec.name + " id " + hex(spec.tableId) + ": " +
                         std::to_string(table->plan.entries().size()) + " entries of " +
                         std::to_string(spec.size);
      if (spec.partitions)
         line += ", ATCAM with " + std::to_string(spec.partitions) + " partitions";
      lines.push_back(line);
   }
   if (triple_) {
      const EcmpWorkload& w = triple_->workload;
      const EcmpSizes& sizes = w.sizes();
      lines.push_back("triple " + triple_->key.name() + " id " + hex(triple_->spec.tableId) + ": " +
                      std::to_string(sizes.numNextHops) + " next hops, " +
                      std::to_string(sizes.numGroups) + " groups, " +
                      std::to_string(sizes.numMembers) + " members (at most " +
                      std::to_string(sizes.maxGroupMembers) + " a group), " +
                      std::to_string(w.numRoutes()) + " routes");
   }
   lines.push_back("routes from " + routeSource_);
   if (options_.badAnnouncements && target_.shared()) {
      lines.push_back(
          "bad announcements: missing_table (no such path), wrong_type_table (path of another "
          "type), oversized_table (a configuration larger than its table), status_thief_table "
          "(the status of " +
          tables_.front()->key.name() + ")");
   }
   return lines;
}

PhaseResult Publisher::publish() {
   return phase(
       "publish", [this](TablePlan& plan) { return plan.initial(opIds_); }, true);
}

PhaseResult Publisher::churn() {
   return phase(
       "churn", [this](TablePlan& plan) { return plan.churn(options_.churnFraction, opIds_); },
       false);
}

PhaseResult Publisher::churnOf(const std::set<std::string>& names, bool wait) {
   return phase(
       "churn", [this](TablePlan& plan) { return plan.churn(options_.churnFraction, opIds_); },
       false, &names, wait);
}

PhaseResult Publisher::readd() {
   return phase(
       "re-add", [this](TablePlan& plan) { return plan.readd(opIds_); }, false);
}

bool Publisher::tripleTablesGet() {
   Triple& t = *triple_;
   if (!t.sink.complete() && target_.tripleMountInfo()) {
      t.sink = target_.tripleConfigTables(t.key, t.entry, t.workload.capacities());
   }
   if (!t.sink.complete()) log("no configuration collections for triple " + t.key.name());
   return t.sink.complete();
}

// A host in another process mounts the triple when it hears of it. Written before that, the
// four collections are read twice there: whole, by the mount's first pass, and key by key as
// their changes arrive. Its statuses are watched from then on, so that each is taken as it
// comes rather than all looked up once the writing is done. A host that does not serve the
// triple is not waited for long: the statuses are looked for again while converging.
void Publisher::tripleMountWait(Orb::Seconds start) {
   constexpr Orb::Seconds mountWait = 1.0;
   Triple& t = *triple_;
   for (;;) {
      target_.loop().runOnce(0);
      std::size_t mounted = 0;
      for (std::size_t i = 0; i < numEcmpTables; ++i) {
         if (!t.watches[i].status()) {
            t.watches[i].statusIs(target_.tripleStatusTable(t.key, t.statusPaths[i]));
         }
         if (t.watches[i].status()) ++mounted;
      }
      if (mounted == numEcmpTables || now() - start > mountWait) return;
      target_.loop().runOnce(0.001);
   }
}

std::optional<PhaseResult> Publisher::ecmpPhase(EcmpPhaseKind kind) {
   if (!triple_ || !tripleTablesGet()) return std::nullopt;
   Triple& t = *triple_;
   if (kind == EcmpPhaseKind::build) {
      if (std::optional<HostCounters> host = hostCountersFresh(2.0)) t.hostSeen = *host;
   }
   PhaseResult result;
   result.name = ecmpPhaseName(kind);
   Orb::Seconds start = now();
   EcmpPhase phase = t.workload.phase(kind);
   if (kind == EcmpPhaseKind::build) {
      target_.tripleMountInfo()->entryIs(t.key, t.entry);
      tripleMountWait(start);
   }
   constexpr std::size_t writesAhead = 4;
   for (std::size_t i = 0; i < phase.writes.size(); ++i) {
      if (i + writesAhead < phase.writes.size()) {
         const EcmpWrite& ahead = phase.writes[i + writesAhead];
         t.watches[std::size_t(ahead.table)].expectPrefetch(ahead.key);
         t.sink.prefetch(ahead.table, ahead.key);
      }
      const EcmpWrite& write = phase.writes[i];
      t.watches[std::size_t(write.table)].expect(write.key, write.opId);
      t.workload.apply(phase, write, t.sink);
   }
   result.writeSeconds = now() - start;
   result.ecmpChanges = phase.counts;
   log("phase " + result.name + ": " + std::to_string(result.numChanges()) +
       " changes written, waiting for their statuses");
   converge(result, start);
   if (result.converged()) tripleCheck(result);
   // The chip counts violations since it started; a phase has those that came during it.
   if (std::optional<HostCounters> host = hostCountersFresh(2.0)) {
      result.violations = host->numViolations - t.hostSeen.numViolations;
      result.placementOps = host->numOps() - t.hostSeen.numOps();
      t.hostSeen = *host;
   }
   return result;
}

// Every key the workload holds shows its configuration and, in its status, its op id; no
// status is left for a key that is gone.
void Publisher::tripleCheck(PhaseResult& result) {
   Triple& t = *triple_;
   EcmpState state = t.workload.state();
   auto compare = [&](EcmpTable table, const auto& expected, const auto& config) {
      using Key = typename std::decay_t<decltype(*config)>::Key;
      const auto& status = t.watches[std::size_t(table)].status();
      for (const auto& [key, value] : expected) {
         ++result.keysChecked;
         bool same = config->entry(Key(key)) == value && status &&
                     status->entry(key).opId() == value.opId();
         if (!same) ++result.mismatches;
      }
      if (!status) return;
      for (const auto& [key, entry] : *status) {
         if (!expected.count(key.value())) ++result.strayStatuses;
      }
   };
   compare(EcmpTable::nextHop, state.nextHops, t.sink.adt);
   compare(EcmpTable::group, state.groups, t.sink.selGrp);
   compare(EcmpTable::member, state.members, t.sink.selMbr);
   compare(EcmpTable::route, state.routes, t.sink.mat);
}

void Publisher::check(PublisherReport& report) {
   for (const auto& table : tables_) checkTable(*table, report);
}

std::uint64_t Publisher::numMismatches(const std::string& name) const {
   PublisherReport report;
   checkTable(table(name), report);
   return report.mismatches + report.strayStatuses;
}

void Publisher::checkTable(const Table& table, PublisherReport& report) const {
   const TablePlan& plan = table.plan;
   const auto& status = table.watch.status();
   std::unordered_set<std::uint64_t> live;
   for (std::size_t i = 0; i < plan.entries().size(); ++i) {
      const TablePlan::Entry& e = plan.entries()[i];
      if (e.handle == 0) continue;
      std::uint64_t expected = plan.expectedOpId(i);
      if (e.live) live.insert(e.key);
      ++report.keysChecked;
      try {
         std::uint64_t configOpId = table.config ? table.config->entry(e.key).opId().value() : 0;
         std::uint64_t statusOpId = status ? status->entry(e.key).opId().value() : 0;
         if (configOpId != expected || statusOpId != expected) ++report.mismatches;
      } catch (const Brio::CorruptionDetectedException&) {
         ++report.mismatches;
      }
   }
   if (!status) return;
   try {
      for (const auto& [key, entry] : *status) {
         if (!live.count(key.value())) ++report.strayStatuses;
      }
   } catch (const Brio::CorruptionDetectedException&) {
      ++report.mismatches;
   }
}

std::optional<HostCounters> Publisher::hostCountersFresh(Orb::Seconds timeout) {
   Orb::Seconds deadline = now() + timeout;
   std::optional<std::uint64_t> firstSeq;
   while (now() < deadline) {
      if (auto table = target_.hostCounters()) {
         HostCounters row;
         try {
            row = table->entry(hostCountersKey);
         } catch (const Brio::CorruptionDetectedException&) {
            // Damaged: the host makes the counters afresh.
         }
         if (row.seq != 0 && !firstSeq) firstSeq = row.seq;
         // The write after the one seen first began after this call did.
         if (firstSeq && row.seq >= *firstSeq + 2) return row;
      }
      target_.loop().runOnce(0.01);
   }
   return std::nullopt;
}

PublisherReport Publisher::run() {
   PublisherReport report;
   report.tables = tableLines();
   auto going = [&] { return report.phases.empty() || report.phases.back().converged(); };
   if (!tables_.empty()) {
      report.phases.push_back(publish());
      if (going()) report.phases.push_back(churn());
      if (going()) report.phases.push_back(readd());
   }
   std::vector<EcmpPhaseKind> ecmpPhases{EcmpPhaseKind::build};
   ecmpPhases.insert(ecmpPhases.end(), ecmpChurnPhases.begin(), ecmpChurnPhases.end());
   ecmpPhases.push_back(EcmpPhaseKind::teardown);
   for (std::size_t i = 0; triple_ && going() && i < ecmpPhases.size(); ++i) {
      std::optional<PhaseResult> phase = ecmpPhase(ecmpPhases[i]);
      if (!phase) {
         report.tripleLeftOut = true;
         break;
      }
      report.keysChecked += phase->keysChecked;
      report.mismatches += phase->mismatches;
      report.strayStatuses += phase->strayStatuses;
      report.phases.push_back(std::move(*phase));
   }
   check(report);
   report.host = hostCountersFresh(2.0);
   return report;
}

}  // namespace SliceSystem
