#pragma once

// The tables of a chip profile as resources, in profile order. It keeps its own copy of the
// profile, which never changes for a chip, so that it may outlive the chip it describes.

#include <memory>

#include "ChipModel/ChipProfile.h"
#include "HwPd/HwResourceInfo.h"

namespace ChipModel {

class ModelResourceInfo : public HwResourceInfo::HwResourceInfoIntf {
 public:
   explicit ModelResourceInfo(ChipProfile profile) : profile_(std::move(profile)) {}

   std::uint32_t hwResourceIndex(const std::string& name) const override;
   HwResourceInfo::HwResource hwResource(std::uint32_t index) const override;
   HwResourceInfo::HwResource hwResourceByHandle(std::uint32_t handle) const override;

 private:
   const ChipProfile profile_;
};

std::shared_ptr<HwResourceInfo::HwResourceInfoIntf> modelResourceInfoNew(
    const ChipProfile& profile);

}  // namespace ChipModel
