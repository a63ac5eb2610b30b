#pragma once

// The slice as a running system: the agent host that serves published tables with the chip
// model, the publisher that fills and churns them, and what they tell each other.

#include "SliceSystem/AgentHost.h"
#include "SliceSystem/Args.h"
#include "SliceSystem/EcmpWorkload.h"
#include "SliceSystem/HostCounters.h"
#include "SliceSystem/PublishTarget.h"
#include "SliceSystem/Publisher.h"
#include "SliceSystem/PublisherArgs.h"
#include "SliceSystem/Routes.h"
#include "SliceSystem/SignalWatch.h"
#include "SliceSystem/StatusWatch.h"
#include "SliceSystem/TablePlan.h"
#include "SliceSystem/TableRequests.h"
