#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>

#include "ChipMbbSlice/LinkQueueMetadataValue.h"
#include "HwPd/HwPdTableIterator.h"
#include "Orb/Entity.h"
#include "Orb/Enum.h"
#include "Orb/LinkQueueAttribute.h"
#include "Orb/Ptr.h"
#include "Orb/Time.h"
#include "Orb/Value.h"
#include "Vault/MbbEngine/EntryKey.h"

namespace ChipMbbSlice {

class CliCallback;

// Commands that may run in slices. A large "mbb table" dump yields like a hardware dump.
enum class CliYieldCommands : std::uint8_t { hwTableCommand = 0, mbbTableCommand = 1 };

}  // namespace ChipMbbSlice

template <>
struct Orb::EnumInfo<ChipMbbSlice::CliYieldCommands> {
   static constexpr std::string_view typeName = "ChipMbbSlice::CliYieldCommands";
   static constexpr std::array<std::pair<ChipMbbSlice::CliYieldCommands, std::string_view>, 2>
       values{{{ChipMbbSlice::CliYieldCommands::hwTableCommand, "hwTableCommand"},
               {ChipMbbSlice::CliYieldCommands::mbbTableCommand, "mbbTableCommand"}}};
};

namespace ChipMbbSlice {

// A command waiting for the runner.
class CliCommandEntry : public Orb::ValueBase {
 public:
   static constexpr std::string_view orbTypeName = "ChipMbbSlice::CliCommandEntry";

   CliCommandEntry() = default;
   CliCommandEntry(std::uint32_t socket, CliYieldCommands commandType, std::string command,
                   std::uint8_t devId)
       : socket_(socket), commandType_(commandType), command_(std::move(command)), devId_(devId) {}

   std::uint32_t socket() const { return socket_; }
   CliYieldCommands commandType() const { return commandType_; }
   const std::string& command() const { return command_; }
   std::uint8_t devId() const { return devId_; }

   bool operator==(const CliCommandEntry&) const = default;

   static constexpr auto orbFields() {
      using E = CliCommandEntry;
      return std::make_tuple(Orb::field("socket", &E::socket_),
                             Orb::field("commandType", &E::commandType_),
                             Orb::field("command", &E::command_), Orb::field("devId", &E::devId_));
   }

 private:
   std::uint32_t socket_ = 0;
   CliYieldCommands commandType_ = CliYieldCommands::hwTableCommand;
   std::string command_;
   std::uint8_t devId_ = 0;
};

using ShowQueueMetadata = LinkQueueMetadataValue<"ChipMbbSlice::ShowQueueMetadata">;

// Where a sliced "mbb table" dump resumes: in which part, at which key.
struct MbbTableBookmark {
   enum class Part : std::uint8_t { header, pending, current };
   Part part = Part::header;
   Vault::MbbEngine::EntryKey nextKey;
};

// Runs long show commands in slices of `showDuration` on the loop's clock, one command at a
// time, the others queued in arrival order. A command's socket is closed when it ends.
class CliYieldSm : public Orb::Entity<CliYieldSm> {
 public:
   static constexpr std::uint32_t noSocket = 0xFFFFFFFF;

   CliYieldSm(Orb::Ptr<Orb::Clock> clock, CliCallback* cliCallback);
   ~CliYieldSm() override;

   const Orb::Ptr<Orb::Clock>& clock() const { return clock_; }
   CliCallback* cliCallback() const { return cliCallback_; }

   CliCommandEntry showQueue(std::uint32_t index) const { return showQueue_(index); }
   std::size_t showQueueSize() const { return showQueue_.size(); }
   ShowQueueMetadata showQueueMetadata() const { return ShowQueueMetadata(showQueue_.metadata()); }
   std::uint32_t showQueueEnq(const CliCommandEntry& entry);
   CliCommandEntry showQueueDeq();
   void showQueueDel(std::uint32_t index);
   void showQueueDelAll();

   bool inProgress() const { return inProgress_; }
   std::uint32_t socket() const { return socket_; }
   CliYieldCommands commandType() const { return commandType_; }
   const std::string& command() const { return command_; }
   std::uint8_t devId() const { return devId_; }
   const HwPd::HwPdTableIterator* hwTableBookmark() const { return hwTableBookmark_.get(); }
   Orb::Seconds startTime() const { return startTime_; }
   Orb::Seconds showDuration() const { return showDuration_; }
   void showDurationIs(Orb::Seconds d) { showDuration_ = d; }
   Orb::Seconds yieldDuration() const { return yieldDuration_; }
   void yieldDurationIs(Orb::Seconds d) { yieldDuration_ = d; }
   Orb::Seconds lagDuration() const { return lagDuration_; }
   void lagDurationIs(Orb::Seconds d) { lagDuration_ = d; }
   // Said by a slice that stopped because the client lags: the next slice waits
   // `lagDuration` more, as sooner it could not go on and would only spin the loop.
   void clientLagIs(bool lag) { clientLag_ = lag; }
   Orb::Seconds runTime() const { return runTime_; }
   Orb::Seconds runTimeLimit() const { return runTimeLimit_; }
   void runTimeLimitIs(Orb::Seconds limit) { runTimeLimit_ = limit; }
   bool initialized() const { return initialized_; }

   // Starts the hardware-table command now, or queues it behind the running one.
   void runShowHwCommand(std::uint32_t socket, const std::string& command, std::uint8_t devId);
   // The same for any command kind.
   void runShowCommand(std::uint32_t socket, CliYieldCommands commandType,
                       const std::string& command, std::uint8_t devId);
   // Whether the current slice has used its time.
   bool endTime() const;

   void handleInitialized();
   // One slice of the running command; also what the clock's wake-up runs.
   void runCommand();

 private:
   class ClockReactor : public Orb::Clock::Notifiee {
    public:
      explicit ClockReactor(CliYieldSm* sm) : sm_(sm) {}
      void onTime() override { sm_->runCommand(); }

    private:
      CliYieldSm* sm_;
   };

   bool initState(std::uint32_t socket, CliYieldCommands commandType, const std::string& command,
                  std::uint8_t devId);
   bool initStateFromArg(const CliCommandEntry& entry);
   void resetState();
   void armYieldTimer();
   void abortCommand();
   void commandEpilog();

   Orb::Ptr<Orb::Clock> clock_;
   CliCallback* cliCallback_;
   Orb::LinkQueueAttribute<CliCommandEntry> showQueue_;
   bool inProgress_ = false;
   std::uint32_t socket_ = 0;
   CliYieldCommands commandType_ = CliYieldCommands::hwTableCommand;
   std::string command_;
   std::uint8_t devId_ = 0;
   std::unique_ptr<HwPd::HwPdTableIterator> hwTableBookmark_;
   MbbTableBookmark mbbTableBookmark_;
   Orb::Seconds startTime_ = 0;
   Orb::Seconds showDuration_ = 0.001;
   Orb::Seconds yieldDuration_ = 0;
   Orb::Seconds lagDuration_ = 0.001;
   bool clientLag_ = false;
   Orb::Seconds runTime_ = 0;
   Orb::Seconds runTimeLimit_ = 60;
   bool initialized_ = false;
   ClockReactor clockReactor_;
};

Orb::Ptr<CliYieldSm> cliYieldSmFactory(Orb::Ptr<Orb::Clock> clock, CliCallback* cliCallback);

}  // namespace ChipMbbSlice
