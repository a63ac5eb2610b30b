#pragma once

// An out-of-band change to what the chip holds, as a failing device or a stray write would make
// it: nothing above the chip is told, so only an audit that reads the chip can find it.

#include <cstdint>
#include <string>

#include "ChipSdk/PlcmtApi.h"

namespace ChipModel {

enum class FaultKind : std::uint8_t {
   drop,     // the entry or member is gone
   corrupt,  // its placement data changed (its action stays)
   stray,    // an entry or member that nobody placed
};

// Which fields a fault reads depends on its table's kind:
//   match table:  hdl (entry handle); a stray entry also index and pipe;
//   action data:  hdl (member handle); a stray member also pipe;
//   selector:     index (selector index), subIndex, hdl (the ADT member it names) and pipe;
//                 a stray member also grpHdl (0: the group its vector already serves).
struct Fault {
   FaultKind kind = FaultKind::drop;
   std::uint8_t devId = 0;
   std::uint16_t pipe = P4_PD_PIPE_ALL;
   std::uint32_t tblHdl = 0;
   std::uint32_t hdl = 0;
   std::uint32_t index = 0;
   std::uint32_t subIndex = 0;
   std::uint32_t grpHdl = 0;
};

const char* faultKindName(FaultKind kind);
// "drop", "corrupt" or "stray"; false for anything else.
bool faultKindFromName(const std::string& name, FaultKind& kind);

}  // namespace ChipModel
