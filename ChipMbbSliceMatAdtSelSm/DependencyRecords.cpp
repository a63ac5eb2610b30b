#include "ChipMbbSliceMatAdtSelSm/DependencyRecords.h"

#include <cinttypes>
#include <cstdio>
#include <string>

#include "Brio/Brio.h"

namespace ChipMbbSlice {

namespace {

constexpr const char* vectorIndexRange = "VectorIndex::value < 0 or > 15 not allowed";

}  // namespace

VectorIndex::VectorIndex(std::uint64_t value) {
   if (value >= numVectors) throw Brio::RangeException(vectorIndexRange);
   value_ = static_cast<std::uint8_t>(value);
}

std::ostream& operator<<(std::ostream& os, VectorIndex vi) {
   return os << Orb::toString(vi);
}

void AdtState::dump(std::ostream& os) const {
   char line[192];
   std::snprintf(line, sizeof line,
                 "    mbrHdl: 0x%x adtKey: 0x%" PRIx64 " adtOpId: 0x%016" PRIx64
                 " refCnt: %d referable: %d queueDelete: %d",
                 mbrHdl_, key_.value(), opId_.value(), static_cast<int>(refCnt_),
                 static_cast<int>(referable_), static_cast<int>(queueDelete_));
   os << line;
   // Most entries are only selector action data; the count of direct match users is shown
   // where there are some.
   if (matRefCnt_ != 0) os << " matRefCnt: " << matRefCnt_;
   os << '\n';
}

void SelMbrState::dump(std::ostream& os) const {
   char line[160];
   std::snprintf(line, sizeof line,
                 "%x:%x: opId: 0x%016" PRIx64 " adtKey: 0x%" PRIx64 " mbrHdl: 0x%x active:%d\n",
                 selMbrKey_.vector(), selMbrKey_.subIndex(), opId_.value(), adtKey_.value(),
                 mbrHdl_, static_cast<int>(active_));
   os << line;
}

Orb::Ptr<SelMbrState> SelGrpState::issuedSelMbr(ChipMbbShared::SelMbrEntryKey key) const {
   auto it = issuedSelMbr_.find(key);
   return it == issuedSelMbr_.end() ? nullptr : it->second;
}

void SelGrpState::issuedSelMbrIs(ChipMbbShared::SelMbrEntryKey key, Orb::Ptr<SelMbrState> sms) {
   if (!sms) {
      throw Brio::RangeException(
          "null _issuedSelMbr parameter to mutator for "
          "ChipMbbSlice::SelGrpState::issuedSelMbr not allowed");
   }
   issuedSelMbr_[key] = std::move(sms);
}

void SelGrpState::updateReferable() {
   if (numVectors_ == 0) {
      referable_ = true;
      return;
   }
   for (VectorIndex vi; vi.value() < numVectors_; vi.valueInc(1)) {
      // Rebuilding the index checks the bound that valueInc does not.
      if (activeMbrCnt(VectorIndex(vi.value())) == 0) {
         BRIO_ASSERT_MSG(!referable(), "0 mbrCnt but referable is set");
         return;
      }
   }
   referable_ = true;
}

void SelGrpState::dump(std::ostream& os) const {
   char line[192];
   std::snprintf(line, sizeof line,
                 "    grpKey: 0x%" PRIx64 " opId: 0x%016" PRIx64
                 " grpHdl: 0x%08x numVectors: %d baseIndex: 0x%x refCnt: %d referable: %d\n",
                 key_.value(), opId_.value(), grpHdl_, static_cast<int>(numVectors_), baseIndex_,
                 static_cast<int>(refCnt_), static_cast<int>(referable_));
   os << line;
   const std::uint32_t shown = numVectors_ < VectorIndex::numVectors ? numVectors_ : 16;
   for (std::uint32_t v = 0; v < shown; ++v) {
      std::snprintf(line, sizeof line, "Vector %d active members %d:\n", static_cast<int>(v),
                    static_cast<int>(activeMbrCnt_[v]));
      os << line;
      for (const auto& [key, sms] : issuedSelMbr_) {
         if (key.vector() == v) sms->dump(os);
      }
   }
}

}  // namespace ChipMbbSlice

void Orb::ValueTraits<ChipMbbSlice::VectorIndex>::print(std::string& out,
                                                        ChipMbbSlice::VectorIndex vi) {
   out += "Value('";
   out += ChipMbbSlice::VectorIndex::orbTypeName;
   out += "', ** {'value': ";
   out += std::to_string(vi.value());
   out += "})";
}

ChipMbbSlice::VectorIndex Orb::ValueTraits<ChipMbbSlice::VectorIndex>::parse(Parser& p) {
   p.expect("Value(");
   if (p.quoted() != ChipMbbSlice::VectorIndex::orbTypeName) {
      p.fail("type name 'ChipMbbSlice::VectorIndex'");
   }
   p.expect(",");
   p.expect("**");
   p.expect("{");
   std::uint64_t value = 0;
   if (!p.consume("}")) {
      if (p.quoted() != "value") p.fail("a field of ChipMbbSlice::VectorIndex");
      p.expect(":");
      value = p.unsignedNumber();
      p.expect("}");
   }
   p.expect(")");
   return ChipMbbSlice::VectorIndex(value);
}
