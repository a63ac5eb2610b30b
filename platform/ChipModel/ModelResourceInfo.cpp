#include "ChipModel/ModelResourceInfo.h"

namespace ChipModel {

namespace {

HwResourceInfo::HwResource resourceOf(const TableProfile& table) {
   return HwResourceInfo::HwResource{table.name, table.handle,    table.kind,
                                     table.size, table.adtHandle, table.selHandle};
}

}  // namespace

std::uint32_t ModelResourceInfo::hwResourceIndex(const std::string& name) const {
   const auto& tables = profile_.tables;
   for (std::size_t i = 0; i < tables.size(); ++i) {
      if (tables[i].name == name) return static_cast<std::uint32_t>(i);
   }
   return HwResourceInfo::unknownIndex;
}

HwResourceInfo::HwResource ModelResourceInfo::hwResource(std::uint32_t index) const {
   const auto& tables = profile_.tables;
   return index < tables.size() ? resourceOf(tables[index]) : HwResourceInfo::HwResource{};
}

HwResourceInfo::HwResource ModelResourceInfo::hwResourceByHandle(std::uint32_t handle) const {
   for (const TableProfile& table : profile_.tables) {
      if (table.handle == handle) return resourceOf(table);
   }
   return HwResourceInfo::HwResource{};
}

std::shared_ptr<HwResourceInfo::HwResourceInfoIntf> modelResourceInfoNew(
    const ChipProfile& profile) {
   return std::make_shared<ModelResourceInfo>(profile);
}

}  // namespace ChipModel
