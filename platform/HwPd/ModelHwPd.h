#pragma once

// HwPdIntf over the chip model of this process (ChipSdk::chipModel()), looked up at every
// call so that a model installed later is the one read.

#include <memory>

#include "HwPd/HwPdIntf.h"

namespace HwPd {

class ModelHwPd : public HwPdIntf {
 public:
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
   std::string cliSchema(std::uint8_t dev, std::uint32_t tblHdl) const override;
   std::string entryValue(std::uint32_t sessHdl, std::uint8_t dev, std::uint16_t pipe,
                          std::uint32_t tblHdl, std::uint32_t entHdl) const override;
   bool plcmtDataPrint(int fd, std::uint32_t indent, std::uint32_t tblHdl,
                       const void* plcmtData) const override;
};

std::shared_ptr<HwPdIntf> modelHwPdNew();

}  // namespace HwPd
