#pragma once

#include <array>
#include <cstdint>
#include <string_view>
#include <utility>

#include "Orb/Entity.h"
#include "Orb/Enum.h"

namespace ChipMbbSlice {

enum class AuditState : std::uint8_t { idle = 0, ongoing = 1 };

// Why a key or an SDK handle failed an audit. The last four come only from the triple audit's
// hardware comparison (AuditPolicy::auditHardware), which reads action data and selector
// members back from the chip as the match-table audit reads match entries.
enum class AuditFailReason : std::uint8_t {
   configAndMbbMismatch = 0,
   configAndStatusMismatch = 1,
   adtConfigAndMbbMismatch = 2,
   adtConfigAndStatusMismatch = 3,
   selGrpConfigAndMbbMismatch = 4,
   selGrpConfigAndStatusMismatch = 5,
   selMbrGroupNotInMbb = 6,
   selMbrConfigAndMbbMismatch = 7,
   selMbrConfigAndStatusMismatch = 8,
   matEntryNotInSdk = 9,
   adtEntryNotInSdk = 10,
   entryAndHwNotEqual = 11,
   matSdkHandleNotInMbb = 12,
   adtSdkHandleNotInMbb = 13,
   adtEntryAndHwNotEqual = 14,
   selMbrNotInSdk = 15,
   selMbrAndHwNotEqual = 16,
   selSdkMbrNotInMbb = 17,
};

// The sub-table of a triple that a flag or a notification concerns; a single table is `mat`.
enum class TableType : std::uint8_t { mat = 0, adt = 1, selGrp = 2, selMbr = 3 };

// The number of an audit. The manager's instance counts audits; each pass of a table audit
// keeps the number of the last audit in which it finished.
class AuditInstance : public Orb::Entity<AuditInstance> {
 public:
   std::uint32_t instance() const { return instance_; }
   void instanceIs(std::uint32_t v) { instance_ = v; }
   void instanceInc(std::uint32_t by) { instance_ += by; }

 private:
   std::uint32_t instance_ = 0;
};

// Thresholds shared by every table audit: a key that fails `notifyMbbLimit` audits in a row is
// offered to its engine again, one that fails `failAuditLimit` audits in a row is recorded.
class AuditPolicy : public Orb::Entity<AuditPolicy> {
 public:
   std::uint32_t failAuditLimit() const { return failAuditLimit_; }
   void failAuditLimitIs(std::uint32_t v) { failAuditLimit_ = v; }
   std::uint32_t notifyMbbLimit() const { return notifyMbbLimit_; }
   void notifyMbbLimitIs(std::uint32_t v) { notifyMbbLimit_ = v; }
   // Whether the audit reads each entry back from hardware and compares it: match entries,
   // and of a triple also action data entries and selector members.
   bool auditHardware() const { return auditHardware_; }
   void auditHardwareIs(bool v) { auditHardware_ = v; }

 private:
   std::uint32_t failAuditLimit_ = 3;
   std::uint32_t notifyMbbLimit_ = 2;
   bool auditHardware_ = true;
};

}  // namespace ChipMbbSlice

template <>
struct Orb::EnumInfo<ChipMbbSlice::AuditState> {
   using E = ChipMbbSlice::AuditState;
   static constexpr std::string_view typeName = "ChipMbbSlice::AuditState";
   static constexpr std::array<std::pair<E, std::string_view>, 2> values{
       {{E::idle, "idle"}, {E::ongoing, "ongoing"}}};
};

template <>
struct Orb::EnumInfo<ChipMbbSlice::TableType> {
   using E = ChipMbbSlice::TableType;
   static constexpr std::string_view typeName = "ChipMbbSlice::TableType";
   static constexpr std::array<std::pair<E, std::string_view>, 4> values{
       {{E::mat, "mat"}, {E::adt, "adt"}, {E::selGrp, "selGrp"}, {E::selMbr, "selMbr"}}};
};

template <>
struct Orb::EnumInfo<ChipMbbSlice::AuditFailReason> {
   using E = ChipMbbSlice::AuditFailReason;
   static constexpr std::string_view typeName = "ChipMbbSlice::AuditFailReason";
   static constexpr std::array<std::pair<E, std::string_view>, 18> values{{
       {E::configAndMbbMismatch, "configAndMbbMismatch"},
       {E::configAndStatusMismatch, "configAndStatusMismatch"},
       {E::adtConfigAndMbbMismatch, "adtConfigAndMbbMismatch"},
       {E::adtConfigAndStatusMismatch, "adtConfigAndStatusMismatch"},
       {E::selGrpConfigAndMbbMismatch, "selGrpConfigAndMbbMismatch"},
       {E::selGrpConfigAndStatusMismatch, "selGrpConfigAndStatusMismatch"},
       {E::selMbrGroupNotInMbb, "selMbrGroupNotInMbb"},
       {E::selMbrConfigAndMbbMismatch, "selMbrConfigAndMbbMismatch"},
       {E::selMbrConfigAndStatusMismatch, "selMbrConfigAndStatusMismatch"},
       {E::matEntryNotInSdk, "matEntryNotInSdk"},
       {E::adtEntryNotInSdk, "adtEntryNotInSdk"},
       {E::entryAndHwNotEqual, "entryAndHwNotEqual"},
       {E::matSdkHandleNotInMbb, "matSdkHandleNotInMbb"},
       {E::adtSdkHandleNotInMbb, "adtSdkHandleNotInMbb"},
       {E::adtEntryAndHwNotEqual, "adtEntryAndHwNotEqual"},
       {E::selMbrNotInSdk, "selMbrNotInSdk"},
       {E::selMbrAndHwNotEqual, "selMbrAndHwNotEqual"},
       {E::selSdkMbrNotInMbb, "selSdkMbrNotInMbb"},
   }};
};
