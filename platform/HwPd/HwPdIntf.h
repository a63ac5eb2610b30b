#pragma once

// Access to the tables as the chip holds them: which entries exist, what they hold, and how
// they print. The audit and the hardware dumps read the chip only through this interface.
//
// Every call names the SDK session, device, pipe and table. A table of all pipes reads the
// same from any pipe of the device; a single-pipe table is read pipe by pipe.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ChipSdk/PlcmtApi.h"

namespace HwPd {

class HwPdIntf {
 public:
   virtual ~HwPdIntf() = default;

   // Up to `count` handles following handle `after` in ascending order: entry handles of a
   // match table (its default entry is not among them), member handles of an action data
   // table, and for a selector table the used selector indices plus one. Any status other
   // than BF_SUCCESS means that none follow.
   virtual bf_status_t entryHdlsNext(std::uint32_t sessHdl, std::uint8_t dev, std::uint16_t pipe,
                                     std::uint32_t tblHdl, std::uint32_t after, std::uint32_t count,
                                     std::vector<std::uint32_t>& hdls) const = 0;
   // The same for an action data table only.
   virtual bf_status_t adtMbrHdlsNext(std::uint32_t sessHdl, std::uint8_t dev, std::uint16_t pipe,
                                      std::uint32_t adtTblHdl, std::uint32_t after,
                                      std::uint32_t count,
                                      std::vector<std::uint32_t>& hdls) const = 0;
   virtual bf_status_t defaultEntryHdl(std::uint32_t sessHdl, std::uint8_t dev, std::uint16_t pipe,
                                       std::uint32_t tblHdl, std::uint32_t& hdl) const = 0;
   // Reads the entry (or ADT member) back and says whether it holds exactly this placement
   // data block. An unknown entry or an unreadable block is not equal.
   virtual bool entryIsEqual(std::uint32_t sessHdl, std::uint8_t dev, std::uint16_t pipe,
                             std::uint32_t tblHdl, std::uint32_t entHdl,
                             const void* plcmtData) const = 0;

   // A line that describes a table's entries: what identifies one and what it holds.
   virtual std::string cliSchema(std::uint8_t dev, std::uint32_t tblHdl) const = 0;
   // One entry as text, in the order cliSchema names; empty when the entry does not exist.
   virtual std::string entryValue(std::uint32_t sessHdl, std::uint8_t dev, std::uint16_t pipe,
                                  std::uint32_t tblHdl, std::uint32_t entHdl) const = 0;
   // Writes a placement data block as text to a socket or file, each line indented by
   // `indent` levels. False when the write fails (the reader went away).
   virtual bool plcmtDataPrint(int fd, std::uint32_t indent, std::uint32_t tblHdl,
                               const void* plcmtData) const = 0;
};

}  // namespace HwPd
