#pragma once

#include <cstdint>
#include <utility>

#include "ChipMbbSlice/ChipEntryStatus.h"
#include "ChipSdk/PlcmtApi.h"
#include "Orb/Attribute.h"
#include "Orb/Counter.h"
#include "Orb/LinkQueueAttribute.h"
#include "Orb/Ptr.h"
#include "Vault/MbbEngine/Tables.h"

namespace ChipMbbSlice {

// One kind of placement batch, from the first operation recorded into it to the end of its
// commit: the open batch and the number of operations in it, the statuses to write and the data
// copies to free once it is committed, the SDK table it is committed to and the status table its
// statuses go to. Every kind is committed by the same sequence; the helper's hooks of the kind say
// what differs.
struct PlcmtLane {
   PlcmtLane(std::uint32_t tableHandle, Orb::Ptr<Vault::MbbEngine::TableStatus> statusTable)
       : tableHandle(tableHandle), statusTable(std::move(statusTable)) {}

   Orb::Attribute<p4_pd_plcmt_info_t*> info;
   Orb::Counter<std::uint32_t> size;
   Orb::LinkQueueAttribute<ChipEntryStatus> status;
   Orb::LinkQueueAttribute<std::uint64_t> deferFree;
   Orb::Attribute<std::uint32_t> tableHandle;
   Orb::Attribute<Orb::Ptr<Vault::MbbEngine::TableStatus>> statusTable;
};

}  // namespace ChipMbbSlice
