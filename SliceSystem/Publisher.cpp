#include "SliceSystem/Publisher.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <unordered_set>

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

std::string PhaseResult::text() const {
   std::string out =
       name + ": " + std::to_string(changes.total()) + " changes (" + changes.text() + ") ";
   if (!converged()) {
      return out + "NOT converged after " + fixed(seconds, 3) + " s, " +
             std::to_string(outstanding) + " keys outstanding";
   }
   return out + "converged in " + fixed(seconds, 3) + " s, " + fixed(changesPerSecond(), 0) +
          " changes/s";
}

bool PublisherReport::ok() const {
   for (const PhaseResult& phase : phases) {
      if (!phase.converged()) return false;
   }
   return mismatches == 0 && strayStatuses == 0 && host && host->numViolations == 0;
}

std::string PublisherReport::text() const {
   std::string out;
   for (const std::string& line : tables) out += "  " + line + "\n";
   for (const PhaseResult& phase : phases) out += "phase " + phase.text() + "\n";
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

PhaseResult Publisher::phase(
    const std::string& name,
    const std::function<std::vector<TablePlan::Change>(TablePlan&)>& changes, bool announce) {
   PhaseResult result;
   result.name = name;
   Orb::Seconds start = now();
   for (auto& table : tables_) {
      if (!table->config) table->config = target_.configTable(table->key, table->entry);
      if (!table->config) {
         log("no configuration collection for " + table->key.name() + "; left out");
         continue;
      }
      std::vector<TablePlan::Change> planned = changes(table->plan);
      table->watch.expectReserve(planned.size());
      for (const TablePlan::Change& change : planned) {
         write(*table, change);
         result.changes.add(change.kind);
      }
      if (announce) target_.tableMountInfo().entryIs(table->key, table->entry);
   }
   if (announce && options_.badAnnouncements) badAnnouncementsWrite();
   log("phase " + name + ": " + std::to_string(result.changes.total()) +
       " changes written, waiting for their statuses");
   converge(result, start);
   return result;
}

void Publisher::converge(PhaseResult& result, Orb::Seconds start) {
   constexpr Orb::Seconds statusPollPeriod = 0.02;
   Orb::Seconds nextPoll = 0;
   for (;;) {
      Orb::Seconds t = now();
      if (t >= nextPoll) {
         for (auto& table : tables_) {
            table->watch.statusIs(target_.statusTable(table->key, table->entry));
         }
         nextPoll = t + statusPollPeriod;
      }
      result.outstanding = numOutstanding();
      if (result.outstanding == 0 || t - start > options_.timeout) break;
      target_.loop().runOnce(0.005);
   }
   result.seconds = now() - start;
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
   lines.push_back("routes from " + routeSource_);
   if (options_.badAnnouncements && target_.shared()) {
      lines.push_back(
          "bad announcements: missing_table (no such path), wrong_type_table (path of another "
          "type)");
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

PhaseResult Publisher::readd() {
   return phase(
       "re-add", [this](TablePlan& plan) { return plan.readd(opIds_); }, false);
}

void Publisher::check(PublisherReport& report) {
   for (const auto& table : tables_) {
      const TablePlan& plan = table->plan;
      const auto& status = table->watch.status();
      std::unordered_set<std::uint64_t> live;
      for (std::size_t i = 0; i < plan.entries().size(); ++i) {
         const TablePlan::Entry& e = plan.entries()[i];
         if (e.handle == 0) continue;
         std::uint64_t expected = plan.expectedOpId(i);
         if (e.live) live.insert(e.key);
         std::uint64_t configOpId = table->config ? table->config->entry(e.key).opId().value() : 0;
         std::uint64_t statusOpId = status ? status->entry(e.key).opId().value() : 0;
         ++report.keysChecked;
         if (configOpId != expected || statusOpId != expected) ++report.mismatches;
      }
      if (!status) continue;
      for (const auto& [key, entry] : *status) {
         if (!live.count(key.value())) ++report.strayStatuses;
      }
   }
}

std::optional<HostCounters> Publisher::hostCountersFresh(Orb::Seconds timeout) {
   Orb::Seconds deadline = now() + timeout;
   std::optional<std::uint64_t> firstSeq;
   while (now() < deadline) {
      if (auto table = target_.hostCounters()) {
         HostCounters row = table->entry(hostCountersKey);
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
   report.phases.push_back(publish());
   if (report.phases.back().converged()) report.phases.push_back(churn());
   if (report.phases.back().converged()) report.phases.push_back(readd());
   check(report);
   report.host = hostCountersFresh(2.0);
   return report;
}

}  // namespace SliceSystem
