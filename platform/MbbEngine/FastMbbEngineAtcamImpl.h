#pragma once

#include <cstdint>
#include <string>

#include "MbbEngine/FastMbbEngineImpl.h"

namespace MbbEngine {

// The engine of a partitioned (ATCAM) match table. An entry's partition is its priority group,
// which must be below `maxPartitions`; when the table's size is known the index must lie in
// that partition's share of the indices, as the hardware cuts them. An entry never moves from
// one partition to another: a change of partition with a new handle is an add then a delete,
// one that keeps the handle has to delete the old entry first.
class FastMbbEngineAtcamImpl : public FastMbbEngineImpl {
 public:
   FastMbbEngineAtcamImpl(std::string name, Orb::Ptr<Vault::MbbEngine::TableConfig> tableConfig,
                          Orb::Ptr<DebugConfig> debugConfig, Orb::Ptr<DebugStatus> debugStatus,
                          Orb::Ptr<MbbEngineHelper> helper, std::uint32_t qtId,
                          std::uint32_t maxPartitions);

   std::uint32_t maxPartitions() const { return maxPartitions_; }
   // Bits that a partition number takes: those of maxPartitions - 1.
   std::uint32_t partitionBits() const { return partitionBits_; }
   // The partition that an index lies in, or maxPartitions when the table's size is not known.
   std::uint32_t indexPartition(std::uint32_t index) const;

 protected:
   const char* configProblem(const Vault::MbbEngine::EntryConfig& config) const override;
   bool movable(const CurrentEntry& current,
                const Vault::MbbEngine::EntryConfig& config) const override;
   std::uint32_t partitionOf(const Vault::MbbEngine::EntryConfig& config) const override {
      return config.priorityGroup();
   }

 private:
   std::uint32_t maxPartitions_;
   std::uint32_t partitionBits_;
};

}  // namespace MbbEngine
