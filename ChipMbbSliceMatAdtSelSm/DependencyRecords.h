#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <ostream>
#include <string_view>
#include <tuple>

#include "ChipMbbShared/SelMbrEntryKey.h"
#include "Orb/Ptr.h"
#include "Orb/Value.h"
#include "Vault/MbbEngine/EntryKey.h"

namespace ChipMbbSlice {

// The number of a selector vector within its group. Out-of-range numbers are refused at every
// way in, parsing included, since the records index fixed arrays of 16 with it.
class VectorIndex {
 public:
   static constexpr std::string_view orbTypeName = "ChipMbbSlice::VectorIndex";
   static constexpr std::uint32_t numVectors = 16;

   VectorIndex() = default;
   explicit VectorIndex(std::uint64_t value);

   std::uint8_t value() const { return value_; }
   // Unchecked, so that a loop can step one past the last vector and stop there.
   void valueInc(std::uint8_t delta) { value_ = static_cast<std::uint8_t>(value_ + delta); }
   bool operator==(const VectorIndex&) const = default;

 private:
   std::uint8_t value_ = 0;
};

std::ostream& operator<<(std::ostream& os, VectorIndex vi);

// A match entry's reference to a selector group; the all-zero value is no reference.
class SelGrpRef : public Orb::ValueBase {
 public:
   static constexpr std::string_view orbTypeName = "ChipMbbSlice::SelGrpRef";

   SelGrpRef() = default;
   SelGrpRef(Vault::MbbEngine::EntryKey matKey, Vault::MbbEngine::EntryKey selGrpKey)
       : matKey_(matKey), selGrpKey_(selGrpKey) {}

   Vault::MbbEngine::EntryKey matKey() const { return matKey_; }
   Vault::MbbEngine::EntryKey selGrpKey() const { return selGrpKey_; }
   bool operator==(const SelGrpRef&) const = default;

   static constexpr auto orbFields() {
      return std::make_tuple(Orb::field("matKey", &SelGrpRef::matKey_),
                             Orb::field("selGrpKey", &SelGrpRef::selGrpKey_));
   }

 private:
   Vault::MbbEngine::EntryKey matKey_;
   Vault::MbbEngine::EntryKey selGrpKey_;
};

// An ADT entry issued to hardware. Two kinds of user hold it: selector members (`refCnt`) and
// match entries whose action names it directly (`matRefCnt`); it may only go when neither has.
class AdtState {
 public:
   AdtState(Vault::MbbEngine::EntryKey key, std::uint32_t mbrHdl, Vault::MbbEngine::OpId opId)
       : key_(key), opId_(opId), mbrHdl_(mbrHdl) {}

   Vault::MbbEngine::EntryKey key() const { return key_; }
   std::uint32_t mbrHdl() const { return mbrHdl_; }
   Vault::MbbEngine::OpId opId() const { return opId_; }
   void opIdIs(Vault::MbbEngine::OpId opId) { opId_ = opId; }
   bool referable() const { return referable_; }
   void referableIs(bool v) { referable_ = v; }
   std::uint32_t refCnt() const { return refCnt_; }
   // Wraps modulo 2^32: a delta of all ones takes one away.
   void refCntInc(std::uint32_t delta) { refCnt_ += delta; }
   void refCntIs(std::uint32_t v) { refCnt_ = v; }
   std::uint32_t matRefCnt() const { return matRefCnt_; }
   void matRefCntInc(std::uint32_t delta) { matRefCnt_ += delta; }
   bool queueDelete() const { return queueDelete_; }
   void queueDeleteIs(bool v) { queueDelete_ = v; }

   void dump(std::ostream& os) const;

 private:
   Vault::MbbEngine::EntryKey key_;
   Vault::MbbEngine::OpId opId_;
   std::uint32_t mbrHdl_;
   std::uint32_t refCnt_ = 0;
   std::uint32_t matRefCnt_ = 0;
   bool referable_ = false;
   bool queueDelete_ = false;
};

// A selector member issued to hardware. Never a delete: a member that goes leaves its group.
class SelMbrState {
 public:
   SelMbrState(ChipMbbShared::SelMbrEntryKey selMbrKey, Vault::MbbEngine::OpId opId,
               Vault::MbbEngine::EntryKey adtKey, std::uint32_t mbrHdl, bool active)
       : selMbrKey_(selMbrKey), opId_(opId), adtKey_(adtKey), mbrHdl_(mbrHdl), active_(active) {}

   ChipMbbShared::SelMbrEntryKey selMbrKey() const { return selMbrKey_; }
   Vault::MbbEngine::OpId opId() const { return opId_; }
   Vault::MbbEngine::EntryKey adtKey() const { return adtKey_; }
   std::uint32_t mbrHdl() const { return mbrHdl_; }
   bool active() const { return active_; }
   void activeIs(bool v) { active_ = v; }
   bool isDel() const { return false; }

   void dump(std::ostream& os) const;

 private:
   ChipMbbShared::SelMbrEntryKey selMbrKey_;
   Vault::MbbEngine::OpId opId_;
   Vault::MbbEngine::EntryKey adtKey_;
   std::uint32_t mbrHdl_;
   bool active_;
};

// A selector group issued to hardware, with its members and, per vector, how many of them are
// active and which member operation waits for that vector to have another active member.
class SelGrpState {
 public:
   using SelMbrMap = std::map<ChipMbbShared::SelMbrEntryKey, Orb::Ptr<SelMbrState>>;

   SelGrpState(Vault::MbbEngine::EntryKey key, Vault::MbbEngine::OpId opId, std::uint32_t grpHdl,
               std::uint32_t numVectors, std::uint32_t baseIndex)
       : key_(key), opId_(opId), grpHdl_(grpHdl), numVectors_(numVectors), baseIndex_(baseIndex) {}

   Vault::MbbEngine::EntryKey key() const { return key_; }
   Vault::MbbEngine::OpId opId() const { return opId_; }
   std::uint32_t grpHdl() const { return grpHdl_; }
   std::uint32_t numVectors() const { return numVectors_; }
   std::uint32_t baseIndex() const { return baseIndex_; }

   std::uint32_t refCnt() const { return refCnt_; }
   void refCntInc(std::uint32_t delta) { refCnt_ += delta; }
   void refCntIs(std::uint32_t v) { refCnt_ = v; }
   bool referable() const { return referable_; }
   void referableIs(bool v) { referable_ = v; }
   bool queueDelete() const { return queueDelete_; }
   void queueDeleteIs(bool v) { queueDelete_ = v; }

   std::uint32_t activeMbrCnt(VectorIndex vi) const { return activeMbrCnt_[vi.value()]; }
   void activeMbrCntIs(VectorIndex vi, std::uint32_t n) { activeMbrCnt_[vi.value()] = n; }
   void activeMbrCntDel(VectorIndex vi) { activeMbrCnt_[vi.value()] = 0; }
   void activeMbrCntDelAll() { activeMbrCnt_.fill(0); }

   ChipMbbShared::SelMbrEntryKey deferredOp(VectorIndex vi) const {
      return deferredOp_[vi.value()];
   }
   void deferredOpIs(VectorIndex vi, ChipMbbShared::SelMbrEntryKey key) {
      deferredOp_[vi.value()] = key;
   }
   void deferredOpDel(VectorIndex vi) { deferredOp_[vi.value()] = {}; }
   void deferredOpDelAll() { deferredOp_.fill({}); }

   // Null when the key is not issued into this group.
   Orb::Ptr<SelMbrState> issuedSelMbr(ChipMbbShared::SelMbrEntryKey key) const;
   void issuedSelMbrIs(ChipMbbShared::SelMbrEntryKey key, Orb::Ptr<SelMbrState> sms);
   void issuedSelMbrDel(ChipMbbShared::SelMbrEntryKey key) { issuedSelMbr_.erase(key); }
   void issuedSelMbrDelAll() { issuedSelMbr_.clear(); }
   const SelMbrMap& issuedSelMbrs() const { return issuedSelMbr_; }

   // Sets `referable` once every vector has an active member; never clears it.
   void updateReferable();

   void dump(std::ostream& os) const;

 private:
   Vault::MbbEngine::EntryKey key_;
   Vault::MbbEngine::OpId opId_;
   std::uint32_t grpHdl_;
   std::uint32_t numVectors_;
   std::uint32_t baseIndex_;
   std::uint32_t refCnt_ = 0;
   bool referable_ = false;
   bool queueDelete_ = false;
   std::array<std::uint32_t, VectorIndex::numVectors> activeMbrCnt_{};
   std::array<ChipMbbShared::SelMbrEntryKey, VectorIndex::numVectors> deferredOp_{};
   SelMbrMap issuedSelMbr_;
};

}  // namespace ChipMbbSlice

template <>
struct Orb::ValueTraits<ChipMbbSlice::VectorIndex> {
   static void print(std::string& out, ChipMbbSlice::VectorIndex vi);
   static ChipMbbSlice::VectorIndex parse(Parser& p);
};
