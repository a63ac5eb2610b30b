#pragma once

// The agent's command interface: show commands arrive one per connection on a Unix socket
// and are handed, with a descriptor for the answer, to the command callback.

#include "Agent/AgentCommand.h"
#include "Agent/CliClient.h"
#include "Agent/CliOutput.h"
#include "Agent/CliServer.h"
