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

// One member of a selector vector as the chip holds it.
struct SelMbrValue {
   std::uint32_t subIndex = 0;
   std::uint32_t grpHdl = 0;
   std::uint32_t mbrHdl = 0;  // the action data member it selects
   bool active = false;
};

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

   // The member at sub-index `subIndex` of the selector vector at `selIndex`;
   // BF_OBJECT_NOT_FOUND when that slot is free.
   virtual bf_status_t selMbr(std::uint32_t sessHdl, std::uint8_t dev, std::uint16_t pipe,
                              std::uint32_t selTblHdl, std::uint32_t selIndex,
                              std::uint32_t subIndex, SelMbrValue& mbr) const = 0;
   // Every member of the vector at `selIndex`, by ascending sub-index; BF_OBJECT_NOT_FOUND
   // when it has none.
   virtual bf_status_t selVectorMbrs(std::uint32_t sessHdl, std::uint8_t dev, std::uint16_t pipe,
                                     std::uint32_t selTblHdl, std::uint32_t selIndex,
                                     std::vector<SelMbrValue>& mbrs) const = 0;
   // Whether that member holds exactly this placement data block.
   virtual bool selMbrIsEqual(std::uint32_t sessHdl, std::uint8_t dev, std::uint16_t pipe,
                              std::uint32_t selTblHdl, std::uint32_t selIndex,
                              std::uint32_t subIndex, const void* plcmtData) const = 0;

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
