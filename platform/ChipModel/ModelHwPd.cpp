#include "ChipModel/ModelHwPd.h"

#include <cstdio>
#include <cstring>

#include "ChipModel/detail/PlcmtDataText.h"

namespace ChipModel {

namespace {

std::string hex(std::uint64_t value) {
   char text[24];
   std::snprintf(text, sizeof(text), "0x%llx", static_cast<unsigned long long>(value));
   return text;
}

// Whether an entry of `instance` is what a read of `pipe` sees.
bool seenFrom(const TableModel& table, std::uint16_t instance, std::uint16_t pipe) {
   return table.readInstance(pipe) == static_cast<int>(instance);
}

bool sameBlock(const ChipSdk::PlcmtDataBlock& held, const void* plcmtData) {
   ChipSdk::PlcmtDataView view = ChipSdk::plcmtDataParse(plcmtData, ChipSdk::plcmtDataMaxSize);
   return view.ok() && view.length == held.claimedSize() &&
          std::memcmp(held.data(), plcmtData, view.length) == 0;
}

std::string matEntryValue(const MatTable& mat, std::uint16_t pipe, std::uint32_t hdl) {
   const MatEntry* entry = mat.entry(hdl);
   if (!entry || !seenFrom(mat, entry->instance, pipe)) return "";
   return "{index: " + (entry->isDefault ? std::string("default") : hex(entry->index)) +
          ", selIndex: " + hex(entry->selIndex) + ", adtIndex: " + hex(entry->adtIndex) +
          ", pipe: " + hex(mat.instancePipe(entry->instance)) + ", " + plcmtDataText(entry->data) +
          "}";
}

std::string adtEntryValue(const AdtTable& adt, std::uint16_t pipe, std::uint32_t hdl) {
   const AdtEntry* entry = adt.entry(hdl);
   if (!entry || !seenFrom(adt, entry->instance, pipe)) return "";
   return "{pipe: " + hex(adt.instancePipe(entry->instance)) +
          ", refs: " + std::to_string(entry->refCount) + ", " + plcmtDataText(entry->data) + "}";
}

// A selector "entry" is a used vector, named by its selector index plus one.
std::string selVectorValue(const SelTable& sel, std::uint16_t pipe, std::uint32_t hdl) {
   int instance = sel.readInstance(pipe);
   if (instance < 0 || hdl == 0) return "";
   auto inst = static_cast<std::uint16_t>(instance);
   const SelVector* vec = sel.vector(inst, hdl - 1);
   if (!vec || vec->numMembers == 0) return "";
   std::string text = "{grpHdl: " + hex(vec->grpHdl) +
                      ", active: " + std::to_string(vec->activeCount) + " of " +
                      std::to_string(vec->numMembers) + ", members:";
   for (std::uint32_t sub = 0; sub < selVectorMembers; ++sub) {
      const SelMember* mbr = sel.member(inst, hdl - 1, sub);
      if (!mbr) continue;
      text += " " + std::to_string(sub) + ":" + hex(mbr->mbrHdl) + (mbr->active ? "*" : "");
   }
   return text + "}";
}

HwPd::SelMbrValue selMbrValue(const SelMember& mbr) {
   return {mbr.subIndex, mbr.grpHdl, mbr.mbrHdl, mbr.active};
}

// The selector's instance that a read of `pipe` sees; false (with the status) when none does.
bool selInstance(const Chip& chip, std::uint8_t dev, std::uint16_t pipe, std::uint32_t selTblHdl,
                 const SelTable*& sel, std::uint16_t& instance, bf_status_t& status) {
   sel = chip.selTable(dev, selTblHdl);
   if (!sel) {
      status = BF_TABLE_NOT_FOUND;
      return false;
   }
   const int read = sel->readInstance(pipe);
   if (read < 0) {
      status = BF_INVALID_ARG;
      return false;
   }
   instance = static_cast<std::uint16_t>(read);
   return true;
}

}  // namespace

bf_status_t ModelHwPd::entryHdlsNext(std::uint32_t sessHdl, std::uint8_t dev, std::uint16_t pipe,
                                     std::uint32_t tblHdl, std::uint32_t after, std::uint32_t count,
                                     std::vector<std::uint32_t>& hdls) const {
   return chip_.nextHdls(dev, pipe, tblHdl, after, count, hdls);
}

bf_status_t ModelHwPd::adtMbrHdlsNext(std::uint32_t sessHdl, std::uint8_t dev, std::uint16_t pipe,
                                      std::uint32_t adtTblHdl, std::uint32_t after,
                                      std::uint32_t count, std::vector<std::uint32_t>& hdls) const {
   hdls.clear();
   if (!chip_.adtTable(dev, adtTblHdl)) return BF_TABLE_NOT_FOUND;
   return chip_.nextHdls(dev, pipe, adtTblHdl, after, count, hdls);
}

bf_status_t ModelHwPd::defaultEntryHdl(std::uint32_t sessHdl, std::uint8_t dev, std::uint16_t pipe,
                                       std::uint32_t tblHdl, std::uint32_t& hdl) const {
   return chip_.defaultEntryHdl(dev, pipe, tblHdl, hdl);
}

bool ModelHwPd::entryIsEqual(std::uint32_t sessHdl, std::uint8_t dev, std::uint16_t pipe,
                             std::uint32_t tblHdl, std::uint32_t entHdl,
                             const void* plcmtData) const {
   if (const MatTable* mat = chip_.matTable(dev, tblHdl)) {
      const MatEntry* entry = mat->entry(entHdl);
      return entry && seenFrom(*mat, entry->instance, pipe) && sameBlock(entry->data, plcmtData);
   }
   if (const AdtTable* adt = chip_.adtTable(dev, tblHdl)) {
      const AdtEntry* entry = adt->entry(entHdl);
      return entry && seenFrom(*adt, entry->instance, pipe) && sameBlock(entry->data, plcmtData);
   }
   return false;
}

bf_status_t ModelHwPd::selMbr(std::uint32_t sessHdl, std::uint8_t dev, std::uint16_t pipe,
                              std::uint32_t selTblHdl, std::uint32_t selIndex,
                              std::uint32_t subIndex, HwPd::SelMbrValue& mbr) const {
   const SelTable* sel = nullptr;
   std::uint16_t instance = 0;
   bf_status_t status = BF_SUCCESS;
   if (!selInstance(chip_, dev, pipe, selTblHdl, sel, instance, status)) return status;
   const SelMember* found = sel->member(instance, selIndex, subIndex);
   if (!found) return BF_OBJECT_NOT_FOUND;
   mbr = selMbrValue(*found);
   return BF_SUCCESS;
}

bf_status_t ModelHwPd::selVectorMbrs(std::uint32_t sessHdl, std::uint8_t dev, std::uint16_t pipe,
                                     std::uint32_t selTblHdl, std::uint32_t selIndex,
                                     std::vector<HwPd::SelMbrValue>& mbrs) const {
   mbrs.clear();
   const SelTable* sel = nullptr;
   std::uint16_t instance = 0;
   bf_status_t status = BF_SUCCESS;
   if (!selInstance(chip_, dev, pipe, selTblHdl, sel, instance, status)) return status;
   const SelVector* vec = sel->vector(instance, selIndex);
   const std::uint32_t numMembers = vec ? vec->numMembers : 0;
   for (std::uint32_t sub = 0; sub < selVectorMembers && mbrs.size() < numMembers; ++sub) {
      if (const SelMember* mbr = sel->member(instance, selIndex, sub)) {
         mbrs.push_back(selMbrValue(*mbr));
      }
   }
   return mbrs.empty() ? BF_OBJECT_NOT_FOUND : BF_SUCCESS;
}

bool ModelHwPd::selMbrIsEqual(std::uint32_t sessHdl, std::uint8_t dev, std::uint16_t pipe,
                              std::uint32_t selTblHdl, std::uint32_t selIndex,
                              std::uint32_t subIndex, const void* plcmtData) const {
   const SelTable* sel = nullptr;
   std::uint16_t instance = 0;
   bf_status_t status = BF_SUCCESS;
   if (!selInstance(chip_, dev, pipe, selTblHdl, sel, instance, status)) return false;
   const SelMember* mbr = sel->member(instance, selIndex, subIndex);
   return mbr && sameBlock(mbr->data, plcmtData);
}

std::string ModelHwPd::cliSchema(std::uint8_t dev, std::uint32_t tblHdl) const {
   const TableModel* table = chip_.table(dev, tblHdl);
   if (!table) return "unknown table " + hex(tblHdl);
   const TableProfile& profile = table->profile();
   std::string head =
       profile.name + " " + ChipSdk::tableKindName(profile.kind) + " size " +
       std::to_string(profile.size) + " scope " +
       (table->entryScope() == PIPE_MGR_ENTRY_SCOPE_ALL_PIPELINES ? "all pipes" : "per pipe");
   switch (profile.kind) {
      case ChipSdk::TableKind::mat:
         if (profile.atcamPartitions != 0) {
            head += " atcam partitions " + std::to_string(profile.atcamPartitions);
         }
         return head + ": hdl -> {index, selIndex, adtIndex, pipe, action, payload}";
      case ChipSdk::TableKind::adt:
         return head + ": mbrHdl -> {pipe, refs, action, payload}";
      case ChipSdk::TableKind::sel:
         return head + ": selIndex+1 -> {grpHdl, active, members subIndex:mbrHdl, * active}";
   }
   return head;
}

std::string ModelHwPd::entryValue(std::uint32_t sessHdl, std::uint8_t dev, std::uint16_t pipe,
                                  std::uint32_t tblHdl, std::uint32_t entHdl) const {
   if (const MatTable* mat = chip_.matTable(dev, tblHdl)) {
      return matEntryValue(*mat, pipe, entHdl);
   }
   if (const AdtTable* adt = chip_.adtTable(dev, tblHdl)) {
      return adtEntryValue(*adt, pipe, entHdl);
   }
   if (const SelTable* sel = chip_.selTable(dev, tblHdl)) {
      return selVectorValue(*sel, pipe, entHdl);
   }
   return "";
}

bool ModelHwPd::plcmtDataPrint(int fd, std::uint32_t indent, std::uint32_t tblHdl,
                               const void* plcmtData) const {
   const TableProfile* profile = chip_.tableProfile(tblHdl);
   std::string text(2 * indent, ' ');
   text += "plcmtData " + (profile ? profile->name : hex(tblHdl)) + ": " +
           plcmtDataText(ChipSdk::plcmtDataParse(plcmtData, ChipSdk::plcmtDataMaxSize)) + "\n";
   return fdWrite(fd, text);
}

std::shared_ptr<HwPd::HwPdIntf> modelHwPdNew(const Chip& chip) {
   return std::make_shared<ModelHwPd>(chip);
}

}  // namespace ChipModel
