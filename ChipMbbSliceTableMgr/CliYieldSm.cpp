#include "ChipMbbSliceTableMgr/CliYieldSm.h"

#include <unistd.h>

#include <utility>

#include "Brio/Brio.h"
#include "ChipMbbSlice/TraceSetup.h"
#include "ChipMbbSliceTableMgr/CliCallback.h"

namespace ChipMbbSlice {

namespace {

constexpr unsigned abortLevel = 5;
constexpr unsigned handlerLevel = 8;

auto ignore = [](std::uint32_t) {};

}  // namespace

CliYieldSm::CliYieldSm(Orb::Ptr<Orb::Clock> clock, CliCallback* cliCallback)
    : Entity("cliYieldSm"),
      clock_(std::move(clock)),
      cliCallback_(cliCallback),
      clockReactor_(this) {
   BRIO_ASSERT(clock_ != nullptr);
   clockReactor_.notifierIs(clock_.get());
   handleInitialized();
}

CliYieldSm::~CliYieldSm() {
   clock_->timeMinIs(Orb::kInfinity);
   if (socket_ != noSocket && inProgress_) close(static_cast<int>(socket_));
   while (!showQueue_.empty()) close(static_cast<int>(showQueueDeq().socket()));
}

Orb::Ptr<CliYieldSm> cliYieldSmFactory(Orb::Ptr<Orb::Clock> clock, CliCallback* cliCallback) {
   return Orb::ptrNew<CliYieldSm>(std::move(clock), cliCallback);
}

std::uint32_t CliYieldSm::showQueueEnq(const CliCommandEntry& entry) {
   return showQueue_.enq(entry, ignore);
}

CliCommandEntry CliYieldSm::showQueueDeq() {
   return showQueue_.deq(ignore);
}

void CliYieldSm::showQueueDel(std::uint32_t index) {
   showQueue_.del(index, ignore);
}

void CliYieldSm::showQueueDelAll() {
   showQueue_.delAll(ignore);
}

void CliYieldSm::handleInitialized() {
   initialized_ = true;
   clock_->timeMinIs(Orb::kInfinity);
}

void CliYieldSm::runShowHwCommand(std::uint32_t socket, const std::string& command,
                                  std::uint8_t devId) {
   runShowCommand(socket, CliYieldCommands::hwTableCommand, command, devId);
}

void CliYieldSm::runShowCommand(std::uint32_t socket, CliYieldCommands commandType,
                                const std::string& command, std::uint8_t devId) {
   if (inProgress_) {
      showQueueEnq(CliCommandEntry(socket, commandType, command, devId));
      DUALLOG(sliceLog, handlerLevel,
              "runShowHwCommand"
                  << "currently in progress, enqueuing: " << command);
      return;
   }
   if (initState(socket, commandType, command, devId)) runCommand();
}

bool CliYieldSm::endTime() const {
   return clock_->now() >= startTime_ + showDuration_;
}

bool CliYieldSm::initState(std::uint32_t socket, CliYieldCommands commandType,
                           const std::string& command, std::uint8_t devId) {
   DUALLOG(sliceLog, handlerLevel,
           "initState"
               << " command: " << command << " socket: " << socket);
   if (!initialized_) return false;
   runTime_ = 0;
   socket_ = socket;
   commandType_ = commandType;
   command_ = command;
   devId_ = devId;
   inProgress_ = true;
   startTime_ = Orb::kInfinity;
   return true;
}

bool CliYieldSm::initStateFromArg(const CliCommandEntry& entry) {
   return initState(entry.socket(), entry.commandType(), entry.command(), entry.devId());
}

void CliYieldSm::runCommand() {
   DUALLOG(sliceLog, handlerLevel,
           "runCommand"
               << " running (" << command_ << ")");
   startTime_ = clock_->now();
   const int socket = static_cast<int>(socket_);
   bool complete = false;
   switch (commandType_) {
      case CliYieldCommands::hwTableCommand:
         complete = cliCallback_->dumpHwTable(socket, command_, devId_, hwTableBookmark_);
         break;
      case CliYieldCommands::mbbTableCommand:
         complete = cliCallback_->dumpTableSlice(socket, command_, mbbTableBookmark_);
         break;
      default:
         BRIO_ASSERT(false);
   }
   if (complete) {
      DUALLOG(sliceLog, handlerLevel,
              "runCommand"
                  << " command: " << command_ << " has completed");
      inProgress_ = false;
      commandEpilog();
   } else {
      armYieldTimer();
   }
}

void CliYieldSm::armYieldTimer() {
   const Orb::Seconds elapsed = clock_->now() - startTime_;
   DUALLOG(sliceLog, handlerLevel,
           "armYieldTimer"
               << " current iteration ran for " << elapsed << " seconds");
   // A command taken from the queue starts here with startTime at infinity, so its run time
   // goes to minus infinity and the limit never aborts it.
   runTime_ += elapsed;
   const bool lag = std::exchange(clientLag_, false);
   if (runTime_ > runTimeLimit_) {
      abortCommand();
   } else {
      clock_->timeMinIs(clock_->now() + yieldDuration_ + (lag ? lagDuration_ : 0));
   }
}

void CliYieldSm::abortCommand() {
   DUALLOG(sliceLog, abortLevel,
           "Aborting, command " << command_ << " has run for " << runTime_
                                << " seconds, which exceeds the limit of " << runTimeLimit_);
   commandEpilog();
}

void CliYieldSm::resetState() {
   DUALLOG(sliceLog, handlerLevel,
           "resetState"
               << " command: " << command_ << " socket: " << socket_);
   startTime_ = Orb::kInfinity;
   if (socket_ != noSocket) close(static_cast<int>(socket_));
   socket_ = noSocket;
   command_.clear();
   hwTableBookmark_.reset();
   mbbTableBookmark_ = MbbTableBookmark();
   devId_ = 0;
   clientLag_ = false;
   inProgress_ = false;
}

void CliYieldSm::commandEpilog() {
   resetState();
   if (showQueue_.empty()) return;
   const CliCommandEntry entry = showQueueDeq();
   DUALLOG(sliceLog, handlerLevel,
           "commandEpilog"
               << " dequeued: " << entry.command());
   initStateFromArg(entry);
   armYieldTimer();
}

}  // namespace ChipMbbSlice
