#pragma once

// What carries out the placement interface of this process. The C calls of PlcmtApi.h check
// nothing and keep no state of their own: each goes to the implementation installed here, a
// driver of a real device or the software chip of the tests and tools.
//
// Exactly one implementation is installed at a time, explicitly: installing a second one, or
// removing one that is not installed, is an assertion, and so is a placement call while none
// is installed.

#include <cstdint>

#include "ChipSdk/OpKind.h"
#include "ChipSdk/PlcmtApi.h"

namespace ChipSdk {

// The arguments of one record call; each call fills what it has.
struct PlcmtOpArgs {
   // The entry handle of MAT and ADT operations, the member (ADT entry) handle of selector
   // operations.
   std::uint32_t hdl = 0;
   std::uint16_t pipe = 0;
   std::uint32_t grpHdl = 0;
   // The MAT index, or the selector index of a selector operation.
   std::uint32_t index = 0;
   std::uint32_t selIndex = 0;
   std::uint32_t adtIndex = 0;
   std::uint32_t subIndex = 0;
};

class SdkImpl {
 public:
   virtual ~SdkImpl() = default;

   virtual p4_pd_plcmt_info_t* plcmtInfoNew() = 0;
   virtual bf_status_t plcmtInfoDel(p4_pd_plcmt_info_t* info) = 0;
   // `data` is what the caller passed, null for the kinds that carry no block
   // (opCarriesData).
   virtual bf_status_t plcmtOpRecord(p4_pd_plcmt_info_t* info, OpKind kind, const PlcmtOpArgs& args,
                                     const void* data) = 0;
   virtual bf_status_t plcmtInfoProcess(std::uint32_t sessHdl, std::uint8_t devId,
                                        std::uint32_t tblHdl, p4_pd_plcmt_info_t* info,
                                        std::uint32_t flags, std::uint32_t* processed) = 0;
   virtual bf_status_t tblPropertyIs(std::uint32_t sessHdl, std::uint8_t devId,
                                     std::uint32_t tblHdl, std::uint32_t property,
                                     std::uint32_t value, std::uint32_t args) = 0;
   virtual bool inSimulation() const = 0;
};

// The installed implementation, or null.
SdkImpl* sdkImpl();
void sdkImplIs(SdkImpl& impl);
void sdkImplDel(SdkImpl& impl);

// Whether the chip is simulated, as the installed implementation says.
bool inSimulation();

}  // namespace ChipSdk
