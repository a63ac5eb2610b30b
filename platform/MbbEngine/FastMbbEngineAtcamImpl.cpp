#include "MbbEngine/FastMbbEngineAtcamImpl.h"

#include <bit>

namespace MbbEngine {

using Vault::MbbEngine::EntryConfig;

FastMbbEngineAtcamImpl::FastMbbEngineAtcamImpl(std::string name,
                                               Orb::Ptr<Vault::MbbEngine::TableConfig> tableConfig,
                                               Orb::Ptr<DebugConfig> debugConfig,
                                               Orb::Ptr<DebugStatus> debugStatus,
                                               Orb::Ptr<MbbEngineHelper> helper, std::uint32_t qtId,
                                               std::uint32_t maxPartitions)
    : FastMbbEngineImpl(std::move(name), std::move(tableConfig), std::move(debugConfig),
                        std::move(debugStatus), std::move(helper), qtId),
      maxPartitions_(maxPartitions),
      partitionBits_(maxPartitions <= 1 ? 0 : std::bit_width(maxPartitions - 1)) {}

std::uint32_t FastMbbEngineAtcamImpl::indexPartition(std::uint32_t index) const {
   const std::uint32_t maxEntries = helper()->maxEntries();
   if (maxEntries == 0 || maxPartitions_ == 0) return maxPartitions_;
   const std::uint32_t perPartition = (maxEntries + maxPartitions_ - 1) / maxPartitions_;
   return index / perPartition;
}

const char* FastMbbEngineAtcamImpl::configProblem(const EntryConfig& config) const {
   if (const char* problem = FastMbbEngineImpl::configProblem(config)) return problem;
   if (config.priorityGroup() >= maxPartitions_) return "partition out of range";
   if (config.isDefaultEntry() || helper()->maxEntries() == 0) return nullptr;
   if (indexPartition(config.index()) != config.priorityGroup()) {
      return "index outside its partition";
   }
   return nullptr;
}

bool FastMbbEngineAtcamImpl::movable(const CurrentEntry& current, const EntryConfig& config) const {
   return FastMbbEngineImpl::movable(current, config) &&
          current.partition == config.priorityGroup();
}

}  // namespace MbbEngine
