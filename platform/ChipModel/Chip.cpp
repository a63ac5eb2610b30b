#include "ChipModel/Chip.h"

#include <cstdio>
#include <cstring>
#include <thread>

#include "Brio/Brio.h"
#include "ChipModel/detail/OpContext.h"
#include "ChipModel/detail/PlcmtOp.h"

namespace ChipModel {

Chip::Chip(ChipProfile profile) : profile_(std::move(profile)) {
   BRIO_ASSERT(profile_.validate().empty() && "invalid chip profile");
   for (std::size_t i = 0; i < profile_.tables.size(); ++i) {
      tableIndex_[profile_.tables[i].handle] = i;
   }
   scopeGroup_.resize(profile_.tables.size());
   for (std::size_t i = 0; i < profile_.tables.size(); ++i) {
      const TableProfile& table = profile_.tables[i];
      if (table.kind != ChipSdk::TableKind::mat) continue;
      std::vector<std::size_t> group{i};
      if (table.isTriple()) {
         group.push_back(tableIndex_.at(table.adtHandle));
         group.push_back(tableIndex_.at(table.selHandle));
      }
      for (std::size_t member : group) scopeGroup_[member] = group;
   }
   devicesIs();
}

Chip::~Chip() {
   BRIO_ASSERT(ChipSdk::sdkImpl() != this && "chip destroyed while installed");
}

void Chip::devicesIs() {
   devices_.resize(maxDevices);
   const auto& tables = profile_.tables;
   for (std::uint8_t devId = 0; devId < maxDevices; ++devId) {
      if (!profile_.hasDevice(devId)) continue;
      auto device = std::make_unique<Device>();
      device->tables.resize(tables.size());
      // Action data first, then the selectors and match tables that refer to it.
      for (std::size_t i = 0; i < tables.size(); ++i) {
         if (tables[i].kind == ChipSdk::TableKind::adt) {
            device->tables[i] = std::make_unique<AdtTable>(tables[i], profile_.numPipes);
         }
      }
      for (std::size_t i = 0; i < tables.size(); ++i) {
         if (!tables[i].isTriple()) continue;
         auto* adt =
             static_cast<AdtTable*>(device->tables[tableIndex_.at(tables[i].adtHandle)].get());
         std::size_t selAt = tableIndex_.at(tables[i].selHandle);
         device->tables[selAt] = std::make_unique<SelTable>(tables[selAt], profile_.numPipes, *adt);
      }
      for (std::size_t i = 0; i < tables.size(); ++i) {
         if (tables[i].kind != ChipSdk::TableKind::mat) continue;
         AdtTable* adt = nullptr;
         SelTable* sel = nullptr;
         if (tables[i].isTriple()) {
            adt = static_cast<AdtTable*>(device->tables[tableIndex_.at(tables[i].adtHandle)].get());
            sel = static_cast<SelTable*>(device->tables[tableIndex_.at(tables[i].selHandle)].get());
         }
         device->tables[i] = std::make_unique<MatTable>(tables[i], profile_.numPipes, adt, sel);
      }
      devices_[devId] = std::move(device);
   }
}

TableModel* Chip::tableFor(std::uint8_t devId, std::uint32_t tblHdl, bf_status_t& status) {
   if (lastTable_ && devId == lastDevId_ && tblHdl == lastTblHdl_) return lastTable_;
   if (devId >= devices_.size() || !devices_[devId]) {
      status = BF_INVALID_ARG;
      lastError_ = "device " + std::to_string(devId) + " is not on the chip";
      return nullptr;
   }
   auto it = tableIndex_.find(tblHdl);
   if (it == tableIndex_.end()) {
      status = BF_TABLE_NOT_FOUND;
      char text[64];
      std::snprintf(text, sizeof(text), "no table with handle 0x%x", tblHdl);
      lastError_ = text;
      return nullptr;
   }
   lastDevId_ = devId;
   lastTblHdl_ = tblHdl;
   lastTable_ = devices_[devId]->tables[it->second].get();
   return lastTable_;
}

bf_status_t Chip::plcmtInfoProcess(std::uint32_t sessHdl, std::uint8_t devId, std::uint32_t tblHdl,
                                   p4_pd_plcmt_info_t* info, std::uint32_t flags,
                                   std::uint32_t* processed) {
   if (processed) *processed = 0;
   if (!info) {
      lastError_ = "process: null batch";
      return BF_INVALID_ARG;
   }
   if (!processed) {
      lastError_ = "process: null processed count";
      return BF_INVALID_ARG;
   }
   bf_status_t status = BF_SUCCESS;
   TableModel* table = tableFor(devId, tblHdl, status);
   if (!table) return status;
   ++numCommits_;
   for (const PlcmtOp& op : info->ops) {
      OpContext ctx;
      if (ChipSdk::opTableKind(op.kind) != table->kind()) {
         status = ctx.refuse(BF_INVALID_ARG, "%s on %s table %s", ChipSdk::opKindName(op.kind),
                             ChipSdk::tableKindName(table->kind()), table->profile().name.c_str());
      } else {
         status = table->apply(op, ctx);
      }
      // Counted before the checker looks, so that a fatal violation leaves true counts.
      if (status == BF_SUCCESS) {
         ++numOps_[static_cast<std::size_t>(op.kind)];
         ++*processed;
      } else {
         ++numRefusedOps_;
         lastError_ = ctx.refusal();
      }
      handleViolations(ctx, op, tblHdl, status == BF_SUCCESS);
      if (status != BF_SUCCESS) return status;
      opDelay();
   }
   return BF_SUCCESS;
}

void Chip::handleViolations(const OpContext& ctx, const PlcmtOp& op, std::uint32_t tblHdl,
                            bool applied) {
   if (!hitlessCheck_ || !ctx.hasViolation()) return;
   for (std::size_t kind = 0; kind < numViolationKinds; ++kind) {
      if (ctx.violated(static_cast<ViolationKind>(kind))) ++numViolations_[kind];
   }
   // A refused operation keeps its refusal as the last error.
   if (applied) lastError_ = ctx.violationText();
   if (!hitlessFatal_) return;
   std::fprintf(stderr, "Hitless violation after %s on table 0x%x: %s\n",
                ChipSdk::opKindName(op.kind), tblHdl, ctx.violationText().c_str());
   BRIO_ASSERT(!hitlessFatal() && "hitless violation");
}

void Chip::opDelay() const {
   if (opLatency_.count() == 0) return;
   if (opLatencyMode_ == LatencyMode::sleep) {
      std::this_thread::sleep_for(opLatency_);
      return;
   }
   auto until = std::chrono::steady_clock::now() + opLatency_;
   while (std::chrono::steady_clock::now() < until) {
   }
}

void Chip::opLatencyIs(std::chrono::nanoseconds latency, LatencyMode mode) {
   opLatency_ = latency;
   opLatencyMode_ = mode;
}

bf_status_t Chip::tblPropertyIs(std::uint32_t sessHdl, std::uint8_t devId, std::uint32_t tblHdl,
                                std::uint32_t property, std::uint32_t value, std::uint32_t args) {
   bf_status_t status = BF_SUCCESS;
   if (!tableFor(devId, tblHdl, status)) return status;
   if (property != PIPE_MGR_TBL_PROP_ENTRY_SCOPE) {
      lastError_ = "table property " + std::to_string(property) + " is not supported";
      return BF_NOT_SUPPORTED;
   }
   if (value != PIPE_MGR_ENTRY_SCOPE_ALL_PIPELINES &&
       value != PIPE_MGR_ENTRY_SCOPE_SINGLE_PIPELINE) {
      lastError_ = "entry scope " + std::to_string(value) + " is neither all pipes nor one pipe";
      return BF_INVALID_ARG;
   }
   Device& device = *devices_[devId];
   const auto& group = scopeGroup_[tableIndex_.at(tblHdl)];
   for (std::size_t at : group) {
      const TableModel& member = *device.tables[at];
      if (member.entryScope() != value && !member.empty()) {
         lastError_ = "entry scope of " + member.profile().name + " changes only while empty";
         return BF_IN_USE;
      }
   }
   for (std::size_t at : group) {
      if (device.tables[at]->entryScope() != value) device.tables[at]->entryScopeIs(value);
   }
   return BF_SUCCESS;
}

const TableProfile* Chip::tableProfile(std::uint32_t tblHdl) const {
   auto it = tableIndex_.find(tblHdl);
   return it == tableIndex_.end() ? nullptr : &profile_.tables[it->second];
}

const TableModel* Chip::table(std::uint8_t devId, std::uint32_t tblHdl) const {
   if (devId >= devices_.size() || !devices_[devId]) return nullptr;
   auto it = tableIndex_.find(tblHdl);
   return it == tableIndex_.end() ? nullptr : devices_[devId]->tables[it->second].get();
}

const MatTable* Chip::matTable(std::uint8_t devId, std::uint32_t tblHdl) const {
   const TableModel* found = table(devId, tblHdl);
   return found && found->kind() == ChipSdk::TableKind::mat ? static_cast<const MatTable*>(found)
                                                            : nullptr;
}

const AdtTable* Chip::adtTable(std::uint8_t devId, std::uint32_t tblHdl) const {
   const TableModel* found = table(devId, tblHdl);
   return found && found->kind() == ChipSdk::TableKind::adt ? static_cast<const AdtTable*>(found)
                                                            : nullptr;
}

const SelTable* Chip::selTable(std::uint8_t devId, std::uint32_t tblHdl) const {
   const TableModel* found = table(devId, tblHdl);
   return found && found->kind() == ChipSdk::TableKind::sel ? static_cast<const SelTable*>(found)
                                                            : nullptr;
}

bf_status_t Chip::nextHdls(std::uint8_t devId, std::uint16_t pipe, std::uint32_t tblHdl,
                           std::uint32_t after, std::uint32_t count,
                           std::vector<std::uint32_t>& out) const {
   out.clear();
   const TableModel* found = table(devId, tblHdl);
   if (!found)
      return devId < devices_.size() && devices_[devId] ? BF_TABLE_NOT_FOUND : BF_INVALID_ARG;
   int instance = found->readInstance(pipe);
   if (instance < 0) return BF_INVALID_ARG;
   found->nextHdls(static_cast<std::uint16_t>(instance), after, count, out);
   return out.empty() ? BF_OBJECT_NOT_FOUND : BF_SUCCESS;
}

bf_status_t Chip::defaultEntryHdl(std::uint8_t devId, std::uint16_t pipe, std::uint32_t tblHdl,
                                  std::uint32_t& hdl) const {
   hdl = 0;
   const MatTable* mat = matTable(devId, tblHdl);
   if (!mat) return BF_TABLE_NOT_FOUND;
   int instance = mat->readInstance(pipe);
   if (instance < 0) return BF_INVALID_ARG;
   hdl = mat->defaultHdl(static_cast<std::uint16_t>(instance));
   return hdl == 0 ? BF_OBJECT_NOT_FOUND : BF_SUCCESS;
}

std::uint64_t Chip::numViolations() const {
   std::uint64_t total = 0;
   for (std::uint64_t count : numViolations_) total += count;
   return total;
}

void Chip::countersClear() {
   numOps_.fill(0);
   numViolations_.fill(0);
   numRefusedOps_ = 0;
   numCommits_ = 0;
}

p4_pd_plcmt_info_t* Chip::plcmtInfoNew() {
   if (batchPool_.empty()) return new p4_pd_plcmt_info;
   p4_pd_plcmt_info_t* info = batchPool_.back().release();
   batchPool_.pop_back();
   return info;
}

bf_status_t Chip::plcmtInfoDel(p4_pd_plcmt_info_t* info) {
   constexpr std::size_t batchPoolMax = 64;
   if (!info) return BF_INVALID_ARG;
   info->ops.clear();
   if (batchPool_.size() < batchPoolMax) {
      batchPool_.emplace_back(info);
   } else {
      delete info;
   }
   return BF_SUCCESS;
}

std::size_t Chip::plcmtInfoSize(const p4_pd_plcmt_info_t* info) const {
   return info ? info->ops.size() : 0;
}

bf_status_t Chip::refuseRecord(ChipSdk::OpKind kind, const char* why) {
   lastError_ = std::string(ChipSdk::opKindName(kind)) + ": " + why;
   return BF_INVALID_ARG;
}

bf_status_t Chip::plcmtOpRecord(p4_pd_plcmt_info_t* info, ChipSdk::OpKind kind,
                                const ChipSdk::PlcmtOpArgs& args, const void* data) {
   if (!info) return refuseRecord(kind, "null batch");
   const bool withData = ChipSdk::opCarriesData(kind);
   ChipSdk::PlcmtDataView view;
   if (withData) {
      view = ChipSdk::plcmtDataParse(data, ChipSdk::plcmtDataMaxSize);
      if (!view.ok()) {
         return refuseRecord(kind,
                             data ? ChipSdk::plcmtDataStatusName(view.status) : "null data block");
      }
   }
   PlcmtOp& op = info->ops.emplace_back();
   op.kind = kind;
   op.hdl = args.hdl;
   op.pipe = args.pipe;
   op.grpHdl = args.grpHdl;
   op.index = args.index;
   op.selIndex = args.selIndex;
   op.adtIndex = args.adtIndex;
   op.subIndex = args.subIndex;
   if (withData) {
      std::memcpy(op.data.data(), data, view.length);
      op.action = view.action;
      op.numVectors = view.numVectors;
      op.adtMbrHdl = view.adtMbrHdl;
      op.selGrpKey = view.selGrpKey;
   }
   return BF_SUCCESS;
}

InstalledChip::InstalledChip(ChipProfile profile) : Chip(std::move(profile)) {
   ChipSdk::sdkImplIs(*this);
}

InstalledChip::~InstalledChip() {
   ChipSdk::sdkImplDel(*this);
}

}  // namespace ChipModel
