#include "SliceSystem/HostCommands.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <set>
#include <sstream>

#include "Agent/CliOutput.h"
#include "SliceSystem/AgentHost.h"

namespace SliceSystem {

namespace {

// The configuration collections and targets of the engines that program table `tblHdl`.
struct Served {
   ChipDriver::ChipDevTgt devTgt;
   Orb::Ptr<Vault::MbbEngine::TableConfig> config;
};

std::vector<Served> servedTables(const AgentHost& host, std::uint32_t tblHdl) {
   std::vector<Served> served;
   for (const auto& [name, mgr] : host.watcher()->tableMgrs()) {
      for (const auto& [key, engine] : mgr->mbbEngineSms()) {
         if (key.tableId() == tblHdl) served.push_back({key.devTgt(), engine->tableConfig()});
      }
   }
   for (const auto& [name, mgr] : host.watcher()->matAdtSelTableMgrs()) {
      for (const auto& [key, sm] : mgr->matAdtSelSliceSms()) {
         if (key.tableId() == tblHdl) served.push_back({key.devTgt(), sm->matTableConfig()});
      }
   }
   return served;
}

std::string hex(std::uint64_t value) {
   char text[24];
   std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
   return text;
}

}  // namespace

void HostCommands::handleCommand(int socket, const std::string& command) {
   if (!command.starts_with(prefix)) {
      slice_.handleCommand(socket, command);
      return;
   }
   Agent::outputWrite(socket, answer(command));
   ::close(socket);
}

std::string HostCommands::answer(const std::string& command) {
   std::istringstream words(command.substr(prefix.size()));
   std::string verb, what, table;
   words >> verb >> what >> table;
   if (verb == "status" && what.empty()) return host_.statusLine() + "\n";
   if (verb == "audit" && what.empty()) return auditText();
   if (verb == "fault" && what == "restore" && table.empty()) return restore();
   ChipModel::FaultKind kind;
   if (verb == "fault" && ChipModel::faultKindFromName(what, kind) && !table.empty()) {
      return fault(kind, table);
   }
   return "error: host commands are 'host status', 'host audit', 'host fault "
          "drop|corrupt|stray TABLE' and 'host fault restore'\n";
}

std::string HostCommands::auditText() const {
   const HostCounters c = host_.counters();
   std::string text = "audits " + std::to_string(c.audits) + ", overshoots " +
                      std::to_string(c.auditOvershoots) + ", failed keys " +
                      std::to_string(c.auditFailedKeys) + "\n";
   for (const auto& [time, entry] : host_.auditMgr()->failedAuditStatus()->failedEntries()) {
      text += Orb::toString(entry) + "\n";
   }
   return text;
}

// The entry changed is one that an engine holds and that no earlier fault touched; a stray
// entry goes to an index that no configuration of the table uses, under a handle above theirs.
std::string HostCommands::fault(ChipModel::FaultKind kind, const std::string& table) {
   const ChipModel::ChipProfile& profile = host_.chip().profile();
   auto it = std::find_if(profile.tables.begin(), profile.tables.end(),
                          [&](const ChipModel::TableProfile& t) { return t.name == table; });
   if (it == profile.tables.end() || it->kind != ChipSdk::TableKind::mat) {
      return "error: no match table '" + table + "' on this chip\n";
   }
   const std::vector<Served> served = servedTables(host_, it->handle);
   if (served.empty()) return "error: no engine serves " + table + "\n";
   ChipModel::Fault f;
   f.kind = kind;
   f.tblHdl = it->handle;
   f.devId = served.front().devTgt.devId;
   f.pipe = served.front().devTgt.pipeId;
   std::set<std::uint32_t> indices;
   std::uint32_t maxHdl = 0;
   std::uint64_t key = 0;
   bool found = false;
   for (const auto& [k, config] : *served.front().config) {
      if (config.isDel()) continue;
      indices.insert(config.index());
      maxHdl = std::max(maxHdl, config.entryHandle());
      const bool untouched =
          std::find(faulted_.begin(), faulted_.end(), config.entryHandle()) == faulted_.end();
      if (!found && kind != ChipModel::FaultKind::stray && !config.isDefaultEntry() && untouched) {
         f.hdl = config.entryHandle();
         f.index = config.index();
         key = k.value();
         found = true;
      }
   }
   if (kind == ChipModel::FaultKind::stray) {
      while (indices.contains(f.index)) ++f.index;
      f.hdl = maxHdl + 0x100 + static_cast<std::uint32_t>(faulted_.size());
      found = f.index < it->size;
   }
   if (!found) return "error: no entry of " + table + " to change\n";
   if (host_.faultInject(f) != BF_SUCCESS) {
      return "error: the chip refused: " + host_.chip().lastError() + "\n";
   }
   faulted_.push_back(f.hdl);
   if (kind == ChipModel::FaultKind::drop) dropped_.push_back(f);
   std::string text = std::string(ChipModel::faultKindName(kind)) + " " + table + " handle " +
                      hex(f.hdl) + " index " + hex(f.index);
   if (kind != ChipModel::FaultKind::stray) text += " key " + hex(key);
   return text + "\n";
}

// A dropped entry comes back under its handle and index; its data is the fault's own, so a
// comparison with hardware still tells it apart until its engine writes it again.
std::string HostCommands::restore() {
   std::string text;
   for (ChipModel::Fault f : dropped_) {
      f.kind = ChipModel::FaultKind::stray;
      const bool back = host_.faultInject(f) == BF_SUCCESS;
      text += "handle " + hex(f.hdl) + (back ? " restored\n" : " not restored\n");
   }
   dropped_.clear();
   return text.empty() ? "nothing to restore\n" : text;
}

}  // namespace SliceSystem
