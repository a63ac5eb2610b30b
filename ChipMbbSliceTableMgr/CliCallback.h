#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Agent/AgentCommand.h"
#include "ChipMbbSliceTableMgr/ChipSliceMatAdtSelTableMgrSm.h"
#include "ChipMbbSliceTableMgr/ChipSliceTableMgrSm.h"
#include "ChipMbbSliceTableMgr/CliYieldSm.h"
#include "ChipMbbSliceTableMgr/DebugIntf.h"
#include "HwPd/HwPdIntf.h"
#include "HwPd/HwPdTableIterator.h"
#include "HwPd/HwResourceInfo.h"
#include "MbbEngine/MbbEngineSm.h"
#include "Orb/Entity.h"
#include "Orb/Ptr.h"
#include "Orb/Time.h"
#include "Vault/MbbEngine/EntryConfig.h"

namespace ChipMbbSlice {

class CliText;

// What the show commands read of the slice: the table managers by feature agent name. The
// table watcher is one; a host that runs managers of its own is another.
class CliTableDir {
 public:
   using TableMgrMap = std::map<std::string, Orb::Ptr<ChipSliceTableMgrSm>>;
   using TripleMgrMap = std::map<std::string, Orb::Ptr<ChipSliceMatAdtSelTableMgrSm>>;

   virtual ~CliTableDir() = default;
   virtual TableMgrMap tableMgrs() const = 0;
   virtual TripleMgrMap tripleMgrs() const { return {}; }
};

// Command-line field readers. `pos` stands on the separator before the word: that character
// is skipped whatever it is, then every space; `pos` is left at the end of the word.
std::string nextFieldS(const std::string& command, std::size_t* pos);
std::uint32_t nextFieldN(const std::string& command, std::size_t* pos);
std::uint64_t nextFieldLN(const std::string& command, std::size_t* pos);

// Answers the show commands "mbb agents", "mbb table NAME pipe N key K" and
// "hw table NAME pipe N" with plain text on the socket it is handed, which it closes when the
// answer is complete. Hardware dumps, and engine dumps of tables too large to print within
// the loop's budget, run in slices through the yielding runner.
class CliCallback : public Orb::Entity<CliCallback>, public Agent::AgentCommandCallback {
 public:
   static constexpr std::string_view orbTypeName = "ChipMbbSlice::CliCallback";
   // Tables with more configured entries than this print their engine state in slices.
   static constexpr std::size_t mbbTableInlineEntries = 256;

   CliCallback(std::string name, std::string agentName, const CliTableDir* watcher,
               Orb::Ptr<const HwResourceInfo::HwResourceInfoIntf> resourceInfoIntf,
               std::shared_ptr<const HwPd::HwPdIntf> hwPdIntf, std::uint32_t sessHdl,
               Orb::Ptr<Orb::Clock> clock);
   ~CliCallback() override;

   const std::string& agentName() const { return agentName_; }
   std::uint32_t sessHdl() const { return sessHdl_; }
   const Orb::Ptr<CliYieldSm>& cliYieldSm() const { return cliYieldSm_; }
   void cliYieldSmIs(Orb::Ptr<Orb::Clock> clock, CliCallback* cliCallback);
   bool initialized() const { return initialized_; }
   void handleInitialized();

   // The commands served, by their first words.
   static std::vector<std::string> commandNames();

   void handleCommand(int socket, const std::string& command) override;
   void handleHwCommand(int socket, const std::string& command, std::uint8_t devId) override;

   void dumpAgents(int socket, const std::string& command);
   void dumpTable(int socket, const std::string& command);
   // One slice of "mbb table"; true when complete. Without the runner it runs to the end.
   virtual bool dumpTableSlice(int socket, const std::string& command, MbbTableBookmark& bookmark,
                               bool yielding = true);
   // False when the client went away.
   bool dumpMatEntry(int socket, std::uint32_t tableHandle, std::uint64_t key, std::uint64_t ti,
                     const Vault::MbbEngine::EntryConfig& entry, bool isDefault, bool isStale);
   // One slice of "hw table"; true when complete.
   virtual bool dumpHwTable(int socket, const std::string& command, std::uint8_t devId,
                            std::unique_ptr<HwPd::HwPdTableIterator>& bookmark);

 private:
   // A table whose engine state "mbb table" prints: a single table or the match table of a
   // triple, with the line that heads its dump.
   struct TableMatch {
      ChipSliceTableMgrSm::Key key;
      Orb::Ptr<MbbEngine::MbbEngineSm> engine;
      Orb::Ptr<DebugIntf> debugIntf;
      std::string header;
   };
   struct TableRequest {
      std::string name;
      std::uint32_t pipe = 0;
      std::uint64_t key = 0;
   };

   static TableRequest tableRequest(const std::string& command);
   std::optional<TableMatch> managedTable(std::uint32_t tableHandle, std::uint32_t pipe) const;
   std::string resourceName(std::uint32_t handle) const;
   void dumpAgentSingles(CliText& out, const ChipSliceTableMgrSm& mgr) const;
   void dumpAgentTriples(CliText& out, const ChipSliceMatAdtSelTableMgrSm& mgr) const;
   bool largeTableRequest(const std::string& command) const;
   bool dumpMatTable(int socket, const TableMatch& table, std::uint64_t key,
                     MbbTableBookmark& bookmark, bool yielding);
   // True when the client has not read what earlier slices wrote; the runner then waits a
   // little before the next slice.
   bool clientLags(int socket) const;

   std::string agentName_;
   const CliTableDir* watcher_;
   Orb::Ptr<const HwResourceInfo::HwResourceInfoIntf> resourceInfoIntf_;
   std::shared_ptr<const HwPd::HwPdIntf> hwPdIntf_;
   std::uint32_t sessHdl_;
   Orb::Ptr<Orb::Clock> clock_;
   Orb::Ptr<CliYieldSm> cliYieldSm_;
   // What a sliced dump writes, reserved once: a dump grows no buffer while it runs.
   std::unique_ptr<CliText> sliceOut_;
   // The iterator of a hardware dump is made, its header not yet written.
   bool hwHeaderDue_ = false;
   bool initialized_ = false;
};

}  // namespace ChipMbbSlice
