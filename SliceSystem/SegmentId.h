#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

namespace SliceSystem {

// Which segment a shared table's name stands for right now: a new writer that replaces a
// table (its old writer gone) makes a new segment under the same name. Empty when there is
// none. Readers keep what they mapped, so this is how they learn that they hold an old one.
using SegmentId = std::optional<std::pair<std::uint64_t, std::uint64_t>>;
SegmentId segmentId(const std::string& shmName);

}  // namespace SliceSystem
