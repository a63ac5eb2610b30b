#pragma once

// HwPdIntf over one chip model, read as it is at every call. The chip must outlive it.

#include <memory>

#include "ChipModel/Chip.h"
#include "HwPd/HwPdIntf.h"

namespace ChipModel {

class ModelHwPd : public HwPd::HwPdIntf {
 public:
   explicit ModelHwPd(const Chip& chip) : chip_(chip) {}

   bf_status_t entryHdlsNext(std::uint32_t sessHdl, std::uint8_t dev, std::uint16_t pipe,
                             std::uint32_t tblHdl, std::uint32_t after, std::uint32_t count,
                             std::vector<std::uint32_t>& hdls) const override;
   bf_status_t adtMbrHdlsNext(std::uint32_t sessHdl, std::uint8_t dev, std::uint16_t pipe,
                              std::uint32_t adtTblHdl, std::uint32_t after, std::uint32_t count,
                              std::vector<std::uint32_t>& hdls) const override;
   bf_status_t defaultEntryHdl(std::uint32_t sessHdl, std::uint8_t dev, std::uint16_t pipe,
                               std::uint32_t tblHdl, std::uint32_t& hdl) const override;
   bool entryIsEqual(std::uint32_t sessHdl, std::uint8_t dev, std::uint16_t pipe,
                     std::uint32_t tblHdl, std::uint32_t entHdl,
                     const void* plcmtData) const override;
   bf_status_t selMbr(std::uint32_t sessHdl, std::uint8_t dev, std::uint16_t pipe,
                      std::uint32_t selTblHdl, std::uint32_t selIndex, std::uint32_t subIndex,
                      HwPd::SelMbrValue& mbr) const override;
   bf_status_t selVectorMbrs(std::uint32_t sessHdl, std::uint8_t dev, std::uint16_t pipe,
                             std::uint32_t selTblHdl, std::uint32_t selIndex,
                             std::vector<HwPd::SelMbrValue>& mbrs) const override;
   bool selMbrIsEqual(std::uint32_t sessHdl, std::uint8_t dev, std::uint16_t pipe,
                      std::uint32_t selTblHdl, std::uint32_t selIndex, std::uint32_t subIndex,
                      const void* plcmtData) const override;
   std::string cliSchema(std::uint8_t dev, std::uint32_t tblHdl) const override;
   std::string entryValue(std::uint32_t sessHdl, std::uint8_t dev, std::uint16_t pipe,
                          std::uint32_t tblHdl, std::uint32_t entHdl) const override;
   bool plcmtDataPrint(int fd, std::uint32_t indent, std::uint32_t tblHdl,
                       const void* plcmtData) const override;

 private:
   const Chip& chip_;
};

std::shared_ptr<HwPd::HwPdIntf> modelHwPdNew(const Chip& chip);

}  // namespace ChipModel
