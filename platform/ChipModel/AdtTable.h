#pragma once

// The action data table: entries by member handle. It also counts who refers to each member
// handle (match entries with direct action data, selector members, fallback members), also to
// handles that are not installed, so that a delete under a live reference is refused and a
// reference to missing action data is seen when it is made.

#include <cstdint>
#include <vector>

#include "ChipModel/TableModel.h"
#include "ChipModel/detail/HandleSet.h"
#include "ChipModel/detail/OpenMap.h"
#include "ChipModel/detail/SlotPool.h"

namespace ChipModel {

struct AdtEntry {
   std::uint32_t hdl = 0;
   std::uint16_t instance = 0;
   bool exists = false;  // false: only references to a handle that is not installed
   std::uint32_t refCount = 0;
   ChipSdk::PlcmtDataBlock data;
};

class AdtTable : public TableModel {
 public:
   AdtTable(const TableProfile& profile, std::uint16_t numPipes);

   // Adds a reference to member handle `hdl` of an instance; returns whether it is installed.
   bool refAcquire(std::uint16_t instance, std::uint32_t hdl);
   void refRelease(std::uint16_t instance, std::uint32_t hdl);
   bool installed(std::uint16_t instance, std::uint32_t hdl) const;

   // The installed entry with that member handle, or null.
   const AdtEntry* entry(std::uint32_t hdl) const;
   std::uint32_t numEntries(std::uint16_t instance) const;

   bool empty() const override;
   bf_status_t apply(const PlcmtOp& op, OpContext& ctx) override;
   void nextHdls(std::uint16_t instance, std::uint32_t after, std::size_t count,
                 std::vector<std::uint32_t>& out) const override;
   bf_status_t faultApply(const Fault& fault, OpContext& ctx) override;

 protected:
   void instancesIs(std::uint16_t count) override;

 private:
   struct Instance {
      HandleSet handles;
      std::uint32_t numEntries = 0;
   };

   static std::uint64_t refKey(std::uint16_t instance, std::uint32_t hdl) {
      return (std::uint64_t{instance} << 32) | hdl;
   }
   std::uint32_t slotFor(std::uint16_t instance, std::uint32_t hdl);
   void slotRelease(std::uint32_t slot);

   bf_status_t findOwned(const PlcmtOp& op, OpContext& ctx, std::uint32_t& slot) const;
   bf_status_t add(const PlcmtOp& op, OpContext& ctx);
   bf_status_t mod(const PlcmtOp& op, OpContext& ctx);
   // A forced delete takes the entry out under its users, as only a fault would.
   bf_status_t del(const PlcmtOp& op, OpContext& ctx, bool forced = false);

   SlotPool<AdtEntry> slots_;
   OpenMap<std::uint64_t> slotOf_;   // (instance, handle) -> slot, installed or referenced
   OpenMap<std::uint32_t> ownerOf_;  // handle -> slot of the installed entry
   std::vector<Instance> instances_;
};

}  // namespace ChipModel
