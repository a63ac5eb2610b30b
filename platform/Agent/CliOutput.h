#pragma once

#include <string_view>

namespace Agent {

// What a command callback writes its answer with. The descriptor it is handed never blocks:
// the server relays it to the client at the pace the client reads.

// Writes all of `text`; false when the client went away or the output is full.
bool outputWrite(int fd, std::string_view text);

// True when so much of the answer waits unread that a long dump should pause until the
// client catches up; a dump that pauses on this is never cut short by a slow reader.
bool outputBacklogged(int fd);

}  // namespace Agent
