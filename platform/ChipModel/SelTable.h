#pragma once

// The selector table: vectors at selector indices, member slots in each vector, and a fallback
// member per instance. Groups have no operation of their own: vector v of a group is the one at
// the group's base index + v, and it belongs to the group whose handle its members carry.
//
// For the hitless check each vector counts its active members and the match entries whose group
// covers it; a vector with users and no active member is broken, and an instance counts its
// broken vectors. Whether an operation breaks a match entry is then known from the vectors it
// touches, without looking at any match entry.

#include <cstdint>
#include <vector>

#include "ChipModel/AdtTable.h"
#include "ChipModel/TableModel.h"
#include "ChipModel/detail/OpenMap.h"
#include "ChipModel/detail/SlotPool.h"

namespace ChipModel {

struct SelVector {
   std::uint32_t grpHdl = 0;
   std::uint16_t numMembers = 0;
   std::uint16_t activeCount = 0;
   std::uint32_t matRefs = 0;
};

struct SelMember {
   std::uint32_t mbrHdl = 0;
   std::uint32_t grpHdl = 0;
   std::uint32_t selIndex = 0;
   std::uint16_t instance = 0;
   std::uint8_t subIndex = 0;
   bool active = false;
   ChipSdk::PlcmtDataBlock data;
};

struct SelFallback {
   bool set = false;
   std::uint32_t mbrHdl = 0;
   ChipSdk::PlcmtDataBlock data;
};

class SelTable : public TableModel {
 public:
   SelTable(const TableProfile& profile, std::uint16_t numPipes, AdtTable& adt);

   // Whether vectors base .. base + numVectors - 1 exist.
   bool groupInRange(std::uint32_t base, std::uint32_t numVectors) const;
   // A match entry (entHdl, for the texts) starts or stops using a group's vectors.
   void groupRefAcquire(std::uint16_t instance, std::uint32_t base, std::uint32_t numVectors,
                        std::uint32_t entHdl, OpContext& ctx);
   void groupRefRelease(std::uint16_t instance, std::uint32_t base, std::uint32_t numVectors);

   const SelVector* vector(std::uint16_t instance, std::uint32_t selIndex) const;
   const SelMember* member(std::uint16_t instance, std::uint32_t selIndex,
                           std::uint32_t subIndex) const;
   const SelFallback& fallback(std::uint16_t instance) const;
   std::uint32_t numBrokenVectors(std::uint16_t instance) const;

   bool empty() const override;
   bf_status_t apply(const PlcmtOp& op, OpContext& ctx) override;
   // The selector indices of the vectors that hold members, plus one (handles are not 0).
   void nextHdls(std::uint16_t instance, std::uint32_t after, std::size_t count,
                 std::vector<std::uint32_t>& out) const override;
   bf_status_t faultApply(const Fault& fault, OpContext& ctx) override;

 protected:
   void instancesIs(std::uint16_t count) override;

 private:
   struct Instance {
      std::vector<SelVector> vectors;  // allocated on first use
      HandleSet usedVectors;           // selector index + 1 of vectors with members
      std::uint32_t brokenVectors = 0;
      SelFallback fallback;
   };

   static std::uint64_t memberKey(std::uint16_t instance, std::uint32_t selIndex,
                                  std::uint32_t subIndex) {
      return ((std::uint64_t{instance} << 40) | (std::uint64_t{selIndex} << 7) | subIndex) + 1;
   }
   Instance& instanceFor(int instance);
   void activeInc(Instance& inst, SelVector& vec);
   void activeDec(Instance& inst, SelVector& vec, const PlcmtOp& op, OpContext& ctx);
   void adtRefAcquire(std::uint16_t instance, std::uint32_t mbrHdl, const char* who,
                      OpContext& ctx);

   // Checks a member operation's position; on success sets instance and the member's slot
   // (absent when the slot is free).
   bf_status_t locate(const PlcmtOp& op, OpContext& ctx, int& instance, std::uint32_t& slot);
   bf_status_t checkMember(const PlcmtOp& op, OpContext& ctx, int& instance, std::uint32_t& slot);
   bf_status_t add(const PlcmtOp& op, OpContext& ctx);
   bf_status_t del(const PlcmtOp& op, OpContext& ctx);
   bf_status_t activate(const PlcmtOp& op, OpContext& ctx, bool active);
   bf_status_t setFallback(const PlcmtOp& op, OpContext& ctx);
   bf_status_t clrFallback(const PlcmtOp& op, OpContext& ctx);

   AdtTable& adt_;
   std::vector<Instance> instances_;
   SlotPool<SelMember> slots_;
   OpenMap<std::uint64_t> slotOf_;
};

}  // namespace ChipModel
