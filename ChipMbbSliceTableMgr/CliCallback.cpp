#include "ChipMbbSliceTableMgr/CliCallback.h"

#include <unistd.h>

#include <cstdlib>
#include <set>

#include "Agent/CliOutput.h"
#include "Brio/Brio.h"
#include "ChipMbbSlice/TraceSetup.h"
#include "ChipMbbSliceTableMgr/detail/CliText.h"

namespace ChipMbbSlice {

namespace {

constexpr unsigned commandLevel = 5;
constexpr unsigned sliceLevel = 8;
constexpr unsigned fieldLevel = 9;

constexpr std::size_t mbbTableFieldsAt = 9;  // just after "mbb table"
constexpr std::size_t hwTableFieldsAt = 8;   // just after "hw table"
constexpr std::uint16_t allPipes = 0xFFFF;
// Entries are written one by one; asking how far the client lags costs a few system calls.
constexpr std::size_t backlogCheckEntries = 16;

using Vault::MbbEngine::EntryConfig;
using Vault::MbbEngine::EntryKey;

}  // namespace

std::string nextFieldS(const std::string& command, std::size_t* pos) {
   std::size_t start = std::min(*pos + 1, command.size());
   while (start < command.size() && command[start] == ' ') ++start;
   std::size_t end = command.find(' ', start);
   if (end == std::string::npos) end = command.size();
   std::string field = command.substr(start, end - start);
   DUALLOG(
       sliceLog, fieldLevel,
       "Command: " << command << ", start: " << start << ", end: " << end << ", field: " << field);
   *pos = end;
   return field;
}

std::uint32_t nextFieldN(const std::string& command, std::size_t* pos) {
   const auto value =
       static_cast<std::uint32_t>(std::strtoul(nextFieldS(command, pos).c_str(), nullptr, 0));
   DUALLOG(sliceLog, fieldLevel, "Value: " << value);
   return value;
}

std::uint64_t nextFieldLN(const std::string& command, std::size_t* pos) {
   const std::uint64_t value = std::strtoull(nextFieldS(command, pos).c_str(), nullptr, 0);
   DUALLOG(sliceLog, fieldLevel, "Value: " << value);
   return value;
}

CliCallback::CliCallback(std::string name, std::string agentName, const CliTableDir* watcher,
                         Orb::Ptr<const HwResourceInfo::HwResourceInfoIntf> resourceInfoIntf,
                         std::shared_ptr<const HwPd::HwPdIntf> hwPdIntf, std::uint32_t sessHdl,
                         Orb::Ptr<Orb::Clock> clock)
    : Entity(std::move(name)),
      agentName_(std::move(agentName)),
      watcher_(watcher),
      resourceInfoIntf_(std::move(resourceInfoIntf)),
      hwPdIntf_(std::move(hwPdIntf)),
      sessHdl_(sessHdl),
      clock_(std::move(clock)),
      sliceOut_(std::make_unique<CliText>(2 * CliText::flushBytes)) {
   handleInitialized();
}

// The runner goes first: its queued commands close their sockets as it goes.
CliCallback::~CliCallback() {
   cliYieldSm_.reset();
}

// Without a clock the runner waits for cliYieldSmIs: the watcher makes its timer wheel after
// the show commands.
void CliCallback::handleInitialized() {
   initQt();
   if (clock_) cliYieldSmIs(clock_, this);
   initialized_ = true;
}

void CliCallback::cliYieldSmIs(Orb::Ptr<Orb::Clock> clock, CliCallback* cliCallback) {
   cliYieldSm_ = cliYieldSmFactory(std::move(clock), cliCallback);
}

std::vector<std::string> CliCallback::commandNames() {
   return {"mbb agents", "mbb table", "hw table"};
}

void CliCallback::handleCommand(int socket, const std::string& command) {
   DUALLOG(sliceLog, commandLevel, "ChipMbbSliceTableMgrCli: " << command);
   if (!Agent::outputWrite(socket, command + "\n")) {
      close(socket);
      return;
   }
   if (command.find("mbb agents") != std::string::npos) {
      dumpAgents(socket, command);
   } else if (command.find("mbb table") != std::string::npos) {
      // A large table would hold the loop for too long: it yields like a hardware dump.
      if (largeTableRequest(command)) {
         cliYieldSm_->runShowCommand(static_cast<std::uint32_t>(socket),
                                     CliYieldCommands::mbbTableCommand, command, 0);
         return;
      }
      dumpTable(socket, command);
   }
   close(socket);
}

void CliCallback::handleHwCommand(int socket, const std::string& command, std::uint8_t devId) {
   DUALLOG(sliceLog, commandLevel,
           "ChipMbbSliceTableMgrCli: " << command << " devId:" << unsigned(devId));
   if (command.find("hw table") != std::string::npos) {
      cliYieldSm_->runShowHwCommand(static_cast<std::uint32_t>(socket), command, devId);
   } else {
      handleCommand(socket, command);
   }
}

void CliCallback::dumpAgents(int socket, const std::string& command) {
   const auto singles = watcher_->tableMgrs();
   const auto triples = watcher_->tripleMgrs();
   std::set<std::string> agents;
   for (const auto& [agent, mgr] : singles) {
      if (mgr && !mgr->mbbEngineSms().empty()) agents.insert(agent);
   }
   for (const auto& [agent, mgr] : triples) {
      if (mgr && !mgr->matAdtSelSliceSms().empty()) agents.insert(agent);
   }
   CliText out;
   for (const std::string& agent : agents) {
      out.add("FeatureAgent %s\n", agent.c_str());
      if (auto it = singles.find(agent); it != singles.end() && it->second) {
         dumpAgentSingles(out, *it->second);
      }
      if (auto it = triples.find(agent); it != triples.end() && it->second) {
         dumpAgentTriples(out, *it->second);
      }
   }
   out.flush(socket);
}

std::string CliCallback::resourceName(std::uint32_t handle) const {
   return resourceInfoIntf_->hwResourceByHandle(handle).name;
}

void CliCallback::dumpAgentSingles(CliText& out, const ChipSliceTableMgrSm& mgr) const {
   for (const auto& [key, engine] : mgr.mbbEngineSms()) {
      const auto entry = mgr.mountInfo(key);
      out.add(" table %s id:0x%08x type: single\n  config: %s\n",
              resourceName(key.tableId()).c_str(), key.tableId(), entry.configPath().c_str());
      if (entry.needStatus()) out.add("  status: %s\n", entry.statusPath().c_str());
   }
}

void CliCallback::dumpAgentTriples(CliText& out, const ChipSliceMatAdtSelTableMgrSm& mgr) const {
   for (const auto& [key, sm] : mgr.matAdtSelSliceSms()) {
      const auto entry = mgr.mountInfo(key);
      out.add(" table %s/%s/%s id:0x%08x/0x%08x/0x%08x type: triple\n",
              resourceName(key.tableId()).c_str(), resourceName(entry.adtTableId()).c_str(),
              resourceName(entry.selTableId()).c_str(), key.tableId(), entry.adtTableId(),
              entry.selTableId());
      out.add(
          "  mat config     %s\n  adt config:    %s\n  selgrp config: %s\n"
          "  selmbr config: %s\n",
          entry.matConfigPath().c_str(), entry.adtConfigPath().c_str(),
          entry.selGrpConfigPath().c_str(), entry.selMbrConfigPath().c_str());
      out.add("  adt status:    %s\n  selgrp status: %s\n", entry.adtStatusPath().c_str(),
              entry.selGrpStatusPath().c_str());
      // Only these two follow the announcement's needStatus.
      if (entry.needStatus()) {
         out.add("  mat status:    %s\n  selmbr status: %s\n", entry.matStatusPath().c_str(),
                 entry.selMbrStatusPath().c_str());
      }
   }
}

CliCallback::TableRequest CliCallback::tableRequest(const std::string& command) {
   TableRequest request;
   std::size_t pos = mbbTableFieldsAt;
   request.name = nextFieldS(command, &pos);
   pos += 4;
   request.pipe = nextFieldN(command, &pos);
   pos += 3;
   request.key = nextFieldLN(command, &pos);
   return request;
}

// The number after the name picks the pipe of a per-pipe table; a table of all pipes
// answers to any.
std::optional<CliCallback::TableMatch> CliCallback::managedTable(std::uint32_t tableHandle,
                                                                 std::uint32_t pipe) const {
   auto servesPipe = [pipe](const ChipSliceTableMgrSm::Key& key) {
      return key.devTgt().pipeId == allPipes || key.devTgt().pipeId == pipe;
   };
   for (const auto& [agent, mgr] : watcher_->tableMgrs()) {
      if (!mgr) continue;
      for (const auto& [key, engine] : mgr->mbbEngineSms()) {
         if (key.tableId() != tableHandle || !servesPipe(key)) continue;
         CliText header;
         header.add("%s table: %s id: 0x%08x pipe: 0x%04hx needStatus: %d\n", agent.c_str(),
                    key.name().c_str(), key.tableId(), key.devTgt().pipeId,
                    mgr->mountInfo(key).needStatus() ? 1 : 0);
         return TableMatch{key, engine, mgr->debug(key), header.take()};
      }
   }
   for (const auto& [agent, mgr] : watcher_->tripleMgrs()) {
      if (!mgr) continue;
      for (const auto& [key, sm] : mgr->matAdtSelSliceSms()) {
         if (key.tableId() != tableHandle || !servesPipe(key)) continue;
         const auto entry = mgr->mountInfo(key);
         CliText header;
         header.add("%s table %s/%s/%s id:0x%08x/0x%08x/0x%08x pipe: 0x%04hx needStatus: %d\n",
                    agent.c_str(), resourceName(key.tableId()).c_str(),
                    resourceName(entry.adtTableId()).c_str(),
                    resourceName(entry.selTableId()).c_str(), key.tableId(), entry.adtTableId(),
                    entry.selTableId(), key.devTgt().pipeId, entry.needStatus() ? 1 : 0);
         return TableMatch{key, sm, mgr->debug(key), header.take()};
      }
   }
   return std::nullopt;
}

bool CliCallback::largeTableRequest(const std::string& command) const {
   const TableRequest request = tableRequest(command);
   if (request.key != 0) return false;
   const std::uint32_t index = resourceInfoIntf_->hwResourceIndex(request.name);
   if (index == HwResourceInfo::unknownIndex) return false;
   auto table = managedTable(resourceInfoIntf_->hwResource(index).handle, request.pipe);
   if (!table) return false;
   const auto& config = table->engine->tableConfig();
   return config && config->size() > mbbTableInlineEntries;
}

void CliCallback::dumpTable(int socket, const std::string& command) {
   MbbTableBookmark bookmark;
   dumpTableSlice(socket, command, bookmark, false);
}

bool CliCallback::dumpTableSlice(int socket, const std::string& command, MbbTableBookmark& bookmark,
                                 bool yielding) {
   const TableRequest request = tableRequest(command);
   const std::uint32_t index = resourceInfoIntf_->hwResourceIndex(request.name);
   if (index == HwResourceInfo::unknownIndex) {
      CliText out;
      out.add("Unknown table name (%s)\n", request.name.c_str());
      out.flush(socket);
      return true;
   }
   // Looked up again in every slice: the table may have gone meanwhile.
   auto table = managedTable(resourceInfoIntf_->hwResource(index).handle, request.pipe);
   if (!table) return true;
   return dumpMatTable(socket, *table, request.key, bookmark, yielding);
}

bool CliCallback::dumpMatTable(int socket, const TableMatch& table, std::uint64_t key,
                               MbbTableBookmark& bookmark, bool yielding) {
   using Part = MbbTableBookmark::Part;
   const auto& sm = table.engine;
   BRIO_ASSERT(sm->tableConfig());
   const auto& debugIntf = table.debugIntf;
   BRIO_ASSERT(debugIntf);
   const auto& status = debugIntf->debugStatusIs("status");
   if (yielding && bookmark.part != Part::header && clientLags(socket)) return false;
   CliText& out = *sliceOut_;
   auto yield = [&](EntryKey at) {
      bookmark.nextKey = at;
      return !out.flush(socket);
   };

   if (bookmark.part == Part::header) {
      out.add(table.header);
      const auto& config = debugIntf->debugConfigIs("config");
      config->versionIs(config->version() + 1);
      BRIO_ASSERT(config->version() == status->version());
      if (!status->pendingEntries().empty()) {
         out.add("Pending entries (%d):\n", static_cast<int>(status->pendingEntries().size()));
      }
      bookmark = MbbTableBookmark{Part::pending, EntryKey()};
   }

   if (bookmark.part == Part::pending) {
      const auto& pending = status->pendingEntries();
      for (auto it = pending.lower_bound(bookmark.nextKey); it != pending.end(); ++it) {
         if (yielding && cliYieldSm_->endTime()) return yield(it->first);
         out.add("key: 0x%08llx ti: %8lld\n", static_cast<unsigned long long>(it->first.value()),
                 static_cast<long long>(it->second));
         if (out.full() && !out.flush(socket)) return true;
      }
      const auto& config = *sm->tableConfig();
      if (config.size() != 0) {
         out.add("Current entries (%d):\n", static_cast<int>(config.size()));
      }
      bookmark = MbbTableBookmark{Part::current, EntryKey()};
   }

   if (!out.flush(socket)) return true;
   const auto& config = *sm->tableConfig();
   const auto& tableStatus = sm->tableStatus();
   auto dumpOne = [&](const EntryConfig& entry) {
      const bool isStale = !tableStatus || tableStatus->entry(entry.key()).opId() != entry.opId();
      return dumpMatEntry(socket, table.key.tableId(), entry.key().value(),
                          status->pendingEntry(entry.key()), entry, entry.isDefaultEntry(),
                          isStale);
   };
   if (key != 0) {
      const EntryConfig entry = config.entry(EntryKey(key));
      if (entry != EntryConfig()) dumpOne(entry);
      return true;
   }
   std::size_t printed = 0;
   for (auto it = config.iter(bookmark.nextKey); it != config.end(); ++it, ++printed) {
      if (yielding &&
          (cliYieldSm_->endTime() || (printed % backlogCheckEntries == 0 && clientLags(socket)))) {
         return yield(it->first);
      }
      if (!dumpOne(it->second)) return true;
   }
   return true;
}

bool CliCallback::clientLags(int socket) const {
   if (!Agent::outputBacklogged(socket)) return false;
   cliYieldSm_->clientLagIs(true);
   return true;
}

bool CliCallback::dumpMatEntry(int socket, std::uint32_t tableHandle, std::uint64_t key,
                               std::uint64_t ti, const EntryConfig& entry, bool isDefault,
                               bool isStale) {
   CliText& out = *sliceOut_;
   out.add("key: 0x%08llx ti: %8lld ", static_cast<unsigned long long>(key),
           static_cast<long long>(ti));
   out.add("hdl: 0x%08x prioGrp: %d prio: %d opId: 0x%016llx%s%s\n", entry.entryHandle(),
           static_cast<int>(entry.priorityGroup()), static_cast<int>(entry.priority()),
           static_cast<unsigned long long>(entry.opId().value()), isDefault ? " DEFAULT" : "",
           isStale ? " STALE" : "");
   if (!out.flush(socket)) return false;
   if (entry == EntryConfig() || entry.isDel()) return true;
   return hwPdIntf_->plcmtDataPrint(socket, 1, tableHandle, entry.plcmtData().data());
}

bool CliCallback::dumpHwTable(int socket, const std::string& command, std::uint8_t devId,
                              std::unique_ptr<HwPd::HwPdTableIterator>& bookmark) {
   DUALLOG(sliceLog, sliceLevel, "dumpHwTable: " << command);
   std::size_t pos = hwTableFieldsAt;
   const std::string name = nextFieldS(command, &pos);
   pos += 4;
   const auto pipe = static_cast<std::uint16_t>(nextFieldN(command, &pos));
   const std::uint32_t index = resourceInfoIntf_->hwResourceIndex(name);
   CliText& out = *sliceOut_;
   if (index == HwResourceInfo::unknownIndex) {
      out.add("None");
      out.flush(socket);
      return true;
   }
   const std::uint32_t handle = resourceInfoIntf_->hwResource(index).handle;
   // Setting up costs several allocations, and the first ones after a large release of memory
   // elsewhere in the process can take the allocator long; the slice's clock is asked between
   // the steps, so that the set-up spreads over slices when it is slow.
   if (bookmark) {
      DUALLOG(sliceLog, sliceLevel,
              "dumpHwTable"
                  << " resuming after a yield");
      // The client has not caught up: nothing more until it does.
      if (clientLags(socket)) return false;
   } else {
      bookmark =
          std::make_unique<HwPd::HwPdTableIterator>(hwPdIntf_, sessHdl_, devId, pipe, handle);
      hwHeaderDue_ = true;
   }
   if (hwHeaderDue_) {
      if (cliYieldSm_->endTime()) return false;
      out.add("( %s,{", hwPdIntf_->cliSchema(devId, handle).c_str());
      hwHeaderDue_ = false;
   }
   for (;;) {
      if (bookmark->end()) {
         out.add("})");
         out.flush(socket);
         return true;
      }
      if (cliYieldSm_->endTime()) {
         DUALLOG(sliceLog, sliceLevel,
                 "dumpHwTable"
                     << " yielding the CPU");
         return !out.flush(socket);
      }
      const std::uint32_t entHdl = bookmark->entryHdl();
      out.addHandle(entHdl);
      out.add(hwPdIntf_->entryValue(sessHdl_, devId, pipe, handle, entHdl));
      out.add(',');
      bookmark->next();
      if (out.full()) {
         if (!out.flush(socket)) return true;
         if (clientLags(socket)) return false;
      }
   }
}

}  // namespace ChipMbbSlice
