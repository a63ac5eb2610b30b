#include "MbbEngine/MbbEngineImpl.h"

#include "Brio/Brio.h"

namespace MbbEngine {

MbbEngineImpl::MbbEngineImpl(std::string name, Orb::Ptr<Vault::MbbEngine::TableConfig> tableConfig,
                             Orb::Ptr<DebugConfig> debugConfig, Orb::Ptr<DebugStatus> debugStatus,
                             Orb::Ptr<MbbEngineHelper> helper, std::uint32_t qtId)
    : Entity(std::move(name)),
      tableConfig_(std::move(tableConfig)),
      debugConfig_(std::move(debugConfig)),
      debugStatus_(std::move(debugStatus)),
      helper_(std::move(helper)),
      qtId_(qtId),
      debugConfigReactor_(this) {
   BRIO_ASSERT(tableConfig_ && "engine needs a table config");
   BRIO_ASSERT(helper_ && "engine needs a helper");
   if (debugConfig_) debugConfigReactor_.notifierIs(debugConfig_.get());
}

MbbEngineImpl::~MbbEngineImpl() = default;

}  // namespace MbbEngine
