#include "ChipModel/TableModel.h"

#include "ChipModel/detail/OpContext.h"
#include "ChipModel/detail/PlcmtOp.h"

namespace ChipModel {

TableModel::TableModel(const TableProfile& profile, std::uint16_t numPipes)
    : profile_(profile), numPipes_(numPipes) {}

void TableModel::entryScopeIs(std::uint32_t scope) {
   entryScope_ = scope;
   instancesIs(numInstances());
}

int TableModel::writeInstance(std::uint16_t pipe) const {
   if (entryScope_ == PIPE_MGR_ENTRY_SCOPE_ALL_PIPELINES) return pipe == P4_PD_PIPE_ALL ? 0 : -1;
   return pipe < numPipes_ ? pipe : -1;
}

int TableModel::readInstance(std::uint16_t pipe) const {
   if (entryScope_ == PIPE_MGR_ENTRY_SCOPE_ALL_PIPELINES) {
      return pipe == P4_PD_PIPE_ALL || pipe < numPipes_ ? 0 : -1;
   }
   return pipe < numPipes_ ? pipe : -1;
}

std::uint16_t TableModel::instancePipe(std::uint16_t instance) const {
   return entryScope_ == PIPE_MGR_ENTRY_SCOPE_ALL_PIPELINES ? P4_PD_PIPE_ALL : instance;
}

bf_status_t TableModel::checkPlacement(const PlcmtOp& op, OpContext& ctx, int& instance) const {
   if (op.hdl == 0) return ctx.refuse(BF_INVALID_ARG, "%s: handle 0", ChipSdk::opKindName(op.kind));
   instance = writeInstance(op.pipe);
   return instance < 0 ? refusePipe(ctx, op) : BF_SUCCESS;
}

bf_status_t TableModel::refusePipe(OpContext& ctx, const PlcmtOp& op) const {
   return ctx.refuse(
       BF_INVALID_ARG, "%s: pipe 0x%x does not fit the %s entry scope of %s",
       ChipSdk::opKindName(op.kind), op.pipe,
       entryScope_ == PIPE_MGR_ENTRY_SCOPE_ALL_PIPELINES ? "all-pipes" : "single-pipe",
       profile_.name.c_str());
}

}  // namespace ChipModel
