// The action data and selector side of the placement helper, driven by the dependency engine
// of a triple table.

#include <optional>

#include "Brio/Brio.h"
#include "ChipMbbSlice/ChipMbbEngineHelper.h"
#include "ChipMbbSlice/TraceSetup.h"
#include "ChipMbbSlice/detail/PlcmtDataCopy.h"
#include "ChipMbbSlice/detail/TraceHex.h"
#include "FlashLog/FlashLog.h"

namespace ChipMbbSlice {

using ChipMbbShared::AdtEntryConfig;
using ChipMbbShared::SelMbrEntryConfig;
using Vault::MbbEngine::EntryKey;
using Vault::MbbEngine::EntryStatus;
using Vault::MbbEngine::OpId;

namespace {

// ", grpHdl=" and the group handle, for the selector operations that name a group.
struct GrpHdlPart {
   std::optional<std::uint32_t> grpHdl;
};

std::ostream& operator<<(std::ostream& os, const GrpHdlPart& part) {
   if (part.grpHdl) os << ", grpHdl=" << TraceHex{*part.grpHdl};
   return os;
}

// Direct status writes go nowhere on a table that has no such status collection.
void statusTableWrite(const Orb::Ptr<Vault::MbbEngine::TableStatus>& table, EntryKey key,
                      OpId opId) {
   if (table) table->entryIs(EntryStatus(key, opId));
}

void statusTableDel(const Orb::Ptr<Vault::MbbEngine::TableStatus>& table, EntryKey key) {
   if (table) table->entryDel(key);
}

std::uint32_t selIndexOf(const SelMbrEntryConfig& entry, std::uint32_t baseIndex) {
   return entry.key().vector() + baseIndex;
}

}  // namespace

// The shadow assertions keep the spacing of their expressions: their text is the message.
// clang-format off
#define ADT_SHADOW_ABSENT_ASSERT() BRIO_ASSERT(adtBlobShadow( entry.key() ) == 0)
#define ADT_SHADOW_PRESENT_ASSERT() BRIO_ASSERT(adtBlobShadow( entry.key() ) != 0)
// clang-format on

void ChipMbbEngineHelper::addAdtEntry(const AdtEntryConfig& entry) {
   DUALLOG(sliceLog, 8, __PRETTY_FUNCTION__);
   numAdtAddOpsInc(1);
   p4_pd_plcmt_info_t* info = getAdtPlcmtInfo();
   adtOpTrace("adt_add", entry);
   FLASHLOG(5, qtId(), ":adtadd adtkey:", FlashLog::hex(entry.key().value()),
            " hdl:", FlashLog::hex(entry.mbrHdl()), " opId:", FlashLog::hex(entry.opId().value()));
   ADT_SHADOW_ABSENT_ASSERT();
   void* data = allocateAndCopyData(entry.plcmtData().data());
   adtBlobShadowIs(entry.key(), reinterpret_cast<std::uint64_t>(data));
   bf_status_t status = p4_pd_set_one_plcmt_op_adt_add(info, entry.mbrHdl(), devTgt().pipeId, data);
   adtOpRecorded(status, entry, false);
}

void ChipMbbEngineHelper::updateAdtEntry(const AdtEntryConfig& entry) {
   DUALLOG(sliceLog, 8, __PRETTY_FUNCTION__);
   numAdtModOpsInc(1);
   p4_pd_plcmt_info_t* info = getAdtPlcmtInfo();
   adtOpTrace("adt_mod", entry);
   FLASHLOG(5, qtId(), ":adtmod adtkey:", FlashLog::hex(entry.key().value()),
            " hdl:", FlashLog::hex(entry.mbrHdl()), " opId:", FlashLog::hex(entry.opId().value()));
   // The SDK keeps reading the old copy until the modify is committed.
   ADT_SHADOW_PRESENT_ASSERT();
   adtDeferFreeEnq(adtBlobShadow(entry.key()));
   void* data = allocateAndCopyData(entry.plcmtData().data());
   adtBlobShadowIs(entry.key(), reinterpret_cast<std::uint64_t>(data));
   bf_status_t status = p4_pd_set_one_plcmt_op_adt_mod(info, entry.mbrHdl(), data);
   adtOpRecorded(status, entry, false);
}

void ChipMbbEngineHelper::delAdtEntry(const AdtEntryConfig& entry) {
   DUALLOG(sliceLog, 8, __PRETTY_FUNCTION__);
   numAdtDelOpsInc(1);
   p4_pd_plcmt_info_t* info = getAdtPlcmtInfo();
   adtOpTrace("adt_del", entry);
   FLASHLOG(5, qtId(), ":adtdel adtkey:", FlashLog::hex(entry.key().value()),
            " hdl:", FlashLog::hex(entry.mbrHdl()), " opId:", FlashLog::hex(entry.opId().value()));
   ADT_SHADOW_PRESENT_ASSERT();
   adtDeferFreeEnq(adtBlobShadow(entry.key()));
   adtBlobShadowDel(entry.key());
   bf_status_t status = p4_pd_set_one_plcmt_op_adt_del(info, entry.mbrHdl());
   adtOpRecorded(status, entry, !entry.isDel());
}

#undef ADT_SHADOW_ABSENT_ASSERT
#undef ADT_SHADOW_PRESENT_ASSERT

void ChipMbbEngineHelper::adtOpTrace(const char* op, const AdtEntryConfig& entry) {
   DUALLOG(sliceLog, 5,
           "Set plcmt op: " << op << ", tblHdl=" << TraceHex{adtTableHandle()} << ", entHdl="
                            << TraceHex{entry.mbrHdl()} << ", opId=" << entry.opId());
}

// An ADT operation queues its status even without a status table, whose absence the commit then
// finds.
void ChipMbbEngineHelper::adtOpRecorded(bf_status_t status, const AdtEntryConfig& entry,
                                        bool removeFromStatus) {
   laneOpRecorded(adt_, adtHooks, status, entry.key(), entry.opId(), true, removeFromStatus);
   maybeProcessAdtPlcmtInfo();
}

void ChipMbbEngineHelper::addSelEntry(const SelMbrEntryConfig& entry, std::uint32_t grpHdl,
                                      std::uint32_t baseIndex, std::uint32_t mbrHdl,
                                      bool isDeadlock) {
   DUALLOG(sliceLog, 8, __PRETTY_FUNCTION__);
   numSelAddOpsInc(1);
   p4_pd_plcmt_info_t* info = getSelPlcmtInfo();
   selOpTrace("sel_add", entry, grpHdl, mbrHdl);
   FLASHLOG(5, qtId(), ":seladd grp:", FlashLog::hex(grpHdl), " mbr:", FlashLog::hex(mbrHdl),
            " key:", FlashLog::hex(entry.key().value()), " idx:", selIndexOf(entry, baseIndex),
            " subidx:", entry.key().subIndex());
   void* data = allocateAndCopyData(entry.plcmtData().data());
   selDeferFreeEnq(reinterpret_cast<std::uint64_t>(data));
   bf_status_t status =
       p4_pd_set_one_plcmt_op_sel_add(info, grpHdl, mbrHdl, devTgt().pipeId,
                                      selIndexOf(entry, baseIndex), entry.key().subIndex(), data);
   selOpRecorded(status, entry, !isDeadlock && selMbrTableStatus(), false);
}

void ChipMbbEngineHelper::delSelEntry(const SelMbrEntryConfig& entry, std::uint32_t grpHdl,
                                      std::uint32_t baseIndex, std::uint32_t mbrHdl,
                                      bool isDeadlock) {
   DUALLOG(sliceLog, 8, __PRETTY_FUNCTION__);
   numSelDelOpsInc(1);
   p4_pd_plcmt_info_t* info = getSelPlcmtInfo();
   selOpTrace("sel_del", entry, grpHdl, mbrHdl);
   FLASHLOG(5, qtId(), ":seldel grp:", FlashLog::hex(grpHdl), " mbr:", FlashLog::hex(mbrHdl),
            " key:", FlashLog::hex(entry.key().value()), " idx:", selIndexOf(entry, baseIndex),
            " subidx:", entry.key().subIndex());
   bf_status_t status = p4_pd_set_one_plcmt_op_sel_del(
       info, grpHdl, mbrHdl, devTgt().pipeId, selIndexOf(entry, baseIndex), entry.key().subIndex());
   selOpRecorded(status, entry, !isDeadlock && selMbrTableStatus(), !entry.isDel());
}

void ChipMbbEngineHelper::setFallbackSelEntry(const SelMbrEntryConfig& entry,
                                              std::uint32_t mbrHdl) {
   DUALLOG(sliceLog, 8, __PRETTY_FUNCTION__);
   numSelSetFallbackOpsInc(1);
   p4_pd_plcmt_info_t* info = getSelPlcmtInfo();
   selOpTrace("sel_set_fallback", entry, std::nullopt, mbrHdl);
   FLASHLOG(5, qtId(), ":selsetfb mbr:", FlashLog::hex(mbrHdl),
            " key:", FlashLog::hex(entry.key().value()));
   void* data = allocateAndCopyData(entry.plcmtData().data());
   selDeferFreeEnq(reinterpret_cast<std::uint64_t>(data));
   bf_status_t status =
       p4_pd_set_one_plcmt_op_sel_set_fallback(info, mbrHdl, devTgt().pipeId, data);
   selOpRecorded(status, entry, selMbrTableStatus() != nullptr, false);
}

void ChipMbbEngineHelper::clrFallbackSelEntry(const SelMbrEntryConfig& entry,
                                              std::uint32_t mbrHdl) {
   DUALLOG(sliceLog, 8, __PRETTY_FUNCTION__);
   numSelClrFallbackOpsInc(1);
   p4_pd_plcmt_info_t* info = getSelPlcmtInfo();
   selOpTrace("sel_clr_fallback", entry, std::nullopt, mbrHdl);
   FLASHLOG(5, qtId(), ":selclrfb mbr:", FlashLog::hex(mbrHdl),
            " key:", FlashLog::hex(entry.key().value()));
   bf_status_t status = p4_pd_set_one_plcmt_op_sel_clr_fallback(info, devTgt().pipeId);
   selOpRecorded(status, entry, selMbrTableStatus() != nullptr, !entry.isDel());
}

void ChipMbbEngineHelper::activateSelEntry(const SelMbrEntryConfig& entry, std::uint32_t grpHdl,
                                           std::uint32_t baseIndex, std::uint32_t mbrHdl) {
   DUALLOG(sliceLog, 8, __PRETTY_FUNCTION__);
   numSelActivateOpsInc(1);
   p4_pd_plcmt_info_t* info = getSelPlcmtInfo();
   selOpTrace("sel_activate", entry, grpHdl, mbrHdl);
   FLASHLOG(5, qtId(), ":selact grp:", FlashLog::hex(grpHdl), " mbr:", FlashLog::hex(mbrHdl),
            " key:", FlashLog::hex(entry.key().value()), " idx:", selIndexOf(entry, baseIndex),
            " subidx:", entry.key().subIndex());
   bf_status_t status = p4_pd_set_one_plcmt_op_sel_activate(
       info, grpHdl, mbrHdl, devTgt().pipeId, selIndexOf(entry, baseIndex), entry.key().subIndex());
   selOpRecorded(status, entry, selMbrTableStatus() != nullptr, false);
}

void ChipMbbEngineHelper::deactivateSelEntry(const SelMbrEntryConfig& entry, std::uint32_t grpHdl,
                                             std::uint32_t baseIndex, std::uint32_t mbrHdl) {
   DUALLOG(sliceLog, 8, __PRETTY_FUNCTION__);
   numSelDeactivateOpsInc(1);
   p4_pd_plcmt_info_t* info = getSelPlcmtInfo();
   selOpTrace("sel_deactivate", entry, grpHdl, mbrHdl);
   FLASHLOG(5, qtId(), ":seldeact grp:", FlashLog::hex(grpHdl), " mbr:", FlashLog::hex(mbrHdl),
            " key:", FlashLog::hex(entry.key().value()), " idx:", selIndexOf(entry, baseIndex),
            " subidx:", entry.key().subIndex());
   bf_status_t status = p4_pd_set_one_plcmt_op_sel_deactivate(
       info, grpHdl, mbrHdl, devTgt().pipeId, selIndexOf(entry, baseIndex), entry.key().subIndex());
   selOpRecorded(status, entry, selMbrTableStatus() != nullptr, false);
}

void ChipMbbEngineHelper::selOpTrace(const char* op, const SelMbrEntryConfig& entry,
                                     std::optional<std::uint32_t> grpHdl, std::uint32_t mbrHdl) {
   DUALLOG(sliceLog, 5,
           "Set plcmt op: " << op << ", tblHdl=" << TraceHex{selTableHandle()} << GrpHdlPart{grpHdl}
                            << ", mbrHdl=" << TraceHex{mbrHdl} << ", opId=" << entry.opId());
}

void ChipMbbEngineHelper::selOpRecorded(bf_status_t status, const SelMbrEntryConfig& entry,
                                        bool queueStatus, bool removeFromStatus) {
   laneOpRecorded(sel_, selHooks, status, entry.key(), entry.opId(), queueStatus, removeFromStatus);
   maybeProcessSelPlcmtInfo();
}

p4_pd_plcmt_info_t* ChipMbbEngineHelper::getAdtPlcmtInfo() {
   return laneOpen(adt_, adtHooks);
}

void ChipMbbEngineHelper::maybeProcessAdtPlcmtInfo() {
   DUALLOG(sliceLog, 8, __PRETTY_FUNCTION__);
   if (adtPlcmtInfo()) processAdtPlcmtInfo();
}

void ChipMbbEngineHelper::processAdtPlcmtInfo() {
   DUALLOG(sliceLog, 8, __PRETTY_FUNCTION__);
   FLASHLOG_BLOCK_TIMER(5, qtId(), ":processAdtPlcmtInfo tblHdl:", FlashLog::hex(adtTableHandle()));
   laneCommit(adt_, adtHooks);
}

p4_pd_plcmt_info_t* ChipMbbEngineHelper::getSelPlcmtInfo() {
   return laneOpen(sel_, selHooks);
}

void ChipMbbEngineHelper::maybeProcessSelPlcmtInfo() {
   DUALLOG(sliceLog, 8, __PRETTY_FUNCTION__);
   if (selPlcmtInfo()) processSelPlcmtInfo();
}

void ChipMbbEngineHelper::processSelPlcmtInfo() {
   DUALLOG(sliceLog, 8, __PRETTY_FUNCTION__);
   FLASHLOG_BLOCK_TIMER(5, qtId(), ":processSelPlcmtInfo tblHdl:", FlashLog::hex(selTableHandle()));
   laneCommit(sel_, selHooks);
}

void ChipMbbEngineHelper::adtDelAck(EntryKey key) {
   DUALLOG(sliceLog, 9, __PRETTY_FUNCTION__ << " key:" << key);
   statusTableWrite(adtTableStatus(), key, Vault::MbbEngine::delAckOpId);
}

void ChipMbbEngineHelper::adtDelStatus(EntryKey key) {
   DUALLOG(sliceLog, 9, __PRETTY_FUNCTION__ << " key:" << key);
   statusTableDel(adtTableStatus(), key);
}

void ChipMbbEngineHelper::selGrpDelAck(EntryKey key) {
   DUALLOG(sliceLog, 9, __PRETTY_FUNCTION__ << " key:" << key);
   statusTableWrite(selGrpTableStatus(), key, Vault::MbbEngine::delAckOpId);
}

void ChipMbbEngineHelper::selGrpDelStatus(EntryKey key) {
   DUALLOG(sliceLog, 9, __PRETTY_FUNCTION__ << " key:" << key);
   statusTableDel(selGrpTableStatus(), key);
}

void ChipMbbEngineHelper::selGrpSetStatus(EntryKey key, OpId opId) {
   DUALLOG(sliceLog, 9, __PRETTY_FUNCTION__ << " key:" << key);
   statusTableWrite(selGrpTableStatus(), key, opId);
}

void ChipMbbEngineHelper::selMbrDelAck(EntryKey key) {
   DUALLOG(sliceLog, 9, __PRETTY_FUNCTION__ << " key:" << key);
   statusTableWrite(selMbrTableStatus(), key, Vault::MbbEngine::delAckOpId);
}

void ChipMbbEngineHelper::selMbrDelStatus(EntryKey key) {
   DUALLOG(sliceLog, 9, __PRETTY_FUNCTION__ << " key:" << key);
   statusTableDel(selMbrTableStatus(), key);
}

void ChipMbbEngineHelper::selMbrSetStatus(EntryKey key, OpId opId) {
   DUALLOG(sliceLog, 9, __PRETTY_FUNCTION__ << " key:" << key);
   statusTableWrite(selMbrTableStatus(), key, opId);
}

}  // namespace ChipMbbSlice
