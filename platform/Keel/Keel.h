#pragma once

// The agent's event loop and its timers.

#include "Keel/EventLoop.h"
#include "Keel/TimerWheel.h"
#include "Keel/WheelClock.h"
