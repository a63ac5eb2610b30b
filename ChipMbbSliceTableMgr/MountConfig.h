#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "Orb/Orb.h"

namespace ChipMbbSlice {

// How much of what is published gets mounted. Only the distinction between 0 and everything
// else matters: with 0, tables that have no status collection are left alone.
enum class MountMode : std::uint8_t {
   mountStatusTablesOnly = 0,
   mountAllTables = 1,
};

std::string stringValue(MountMode mode);
// Throw Orb::ParseError for a number or name the enumeration does not have.
MountMode MountModeInstance(std::int64_t number);
MountMode MountModeInstance(std::string_view name);

// The agent's mount configuration; every table manager watches it.
class MountConfig : public Orb::Entity<MountConfig> {
 public:
   class Notifiee : public Orb::BaseNotifiee<MountConfig> {
    public:
      virtual void onMode() {}
   };

   explicit MountConfig(MountMode initialMode) : Entity("mountConfig"), mode_(initialMode) {}

   MountMode mode() const { return mode_; }
   void modeIs(MountMode mode);

 private:
   MountMode mode_;
};

}  // namespace ChipMbbSlice

template <>
struct Orb::EnumInfo<ChipMbbSlice::MountMode> {
   static constexpr std::string_view typeName = "ChipMbbSlice::MountMode";
   static constexpr std::array<std::pair<ChipMbbSlice::MountMode, std::string_view>, 2> values{
       {{ChipMbbSlice::MountMode::mountStatusTablesOnly, "mountStatusTablesOnly"},
        {ChipMbbSlice::MountMode::mountAllTables, "mountAllTables"}}};
};
