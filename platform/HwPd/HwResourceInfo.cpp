#include "HwPd/HwResourceInfo.h"

#include "ChipSdk/ChipSdk.h"

namespace HwResourceInfo {

namespace {

HwResource resourceOf(const ChipSdk::TableProfile& table) {
   return HwResource{table.name, table.handle,    table.kind,
                     table.size, table.adtHandle, table.selHandle};
}

}  // namespace

std::uint32_t ModelResourceInfo::hwResourceIndex(const std::string& name) const {
   const auto& tables = ChipSdk::chipModel().profile().tables;
   for (std::size_t i = 0; i < tables.size(); ++i) {
      if (tables[i].name == name) return static_cast<std::uint32_t>(i);
   }
   return unknownIndex;
}

HwResource ModelResourceInfo::hwResource(std::uint32_t index) const {
   const auto& tables = ChipSdk::chipModel().profile().tables;
   return index < tables.size() ? resourceOf(tables[index]) : HwResource{};
}

HwResource ModelResourceInfo::hwResourceByHandle(std::uint32_t handle) const {
   const ChipSdk::TableProfile* table = ChipSdk::chipModel().tableProfile(handle);
   return table ? resourceOf(*table) : HwResource{};
}

std::shared_ptr<HwResourceInfoIntf> modelResourceInfoNew() {
   return std::make_shared<ModelResourceInfo>();
}

}  // namespace HwResourceInfo
