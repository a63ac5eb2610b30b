#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Agent/AgentCommand.h"
#include "ChipModel/Fault.h"

namespace SliceSystem {

class AgentHost;

// The host's own commands beside the slice's show commands, for an operator who rehearses an
// outage or wants the host's figures without its log:
//   host status                     the status line
//   host audit                      the audit's figures and the keys recorded as failing it
//   host fault drop|corrupt TABLE   changes an entry of TABLE that an engine holds, behind the
//                                   slice's back (the host picks it and says which)
//   host fault stray TABLE          puts an entry nobody placed into TABLE
//   host fault restore              puts every dropped entry back, so that the engines can take
//                                   their tables down again
// Every other command goes on to the slice.
class HostCommands : public Agent::AgentCommandCallback {
 public:
   static constexpr std::string_view prefix = "host ";

   HostCommands(AgentHost& host, Agent::AgentCommandCallback& slice) : host_(host), slice_(slice) {}

   void handleCommand(int socket, const std::string& command) override;
   void handleHwCommand(int socket, const std::string& command, std::uint8_t devId) override {
      slice_.handleHwCommand(socket, command, devId);
   }

   // The answer to one of the host's commands.
   std::string answer(const std::string& command);

 private:
   std::string auditText() const;
   std::string fault(ChipModel::FaultKind kind, const std::string& table);
   std::string restore();

   AgentHost& host_;
   Agent::AgentCommandCallback& slice_;
   // Handles already faulted, left alone by later faults; dropped entries to put back.
   std::vector<std::uint32_t> faulted_;
   std::vector<ChipModel::Fault> dropped_;
};

}  // namespace SliceSystem
