#include "ChipSdk/OpKind.h"

namespace ChipSdk {

const char* opKindName(OpKind kind) {
   static constexpr const char* names[numOpKinds] = {
       "mat_add", "mat_mov",          "mat_mod",          "mat_set_dflt", "mat_clr_dflt",
       "mat_del", "adt_add",          "adt_mod",          "adt_del",      "sel_add",
       "sel_del", "sel_set_fallback", "sel_clr_fallback", "sel_activate", "sel_deactivate"};
   auto at = static_cast<std::size_t>(kind);
   return at < numOpKinds ? names[at] : "unknown";
}

bool opCarriesData(OpKind kind) {
   switch (kind) {
      case OpKind::matClrDflt:
      case OpKind::matDel:
      case OpKind::adtDel:
      case OpKind::selDel:
      case OpKind::selClrFallback:
      case OpKind::selActivate:
      case OpKind::selDeactivate:
         return false;
      default:
         return true;
   }
}

const char* tableKindName(TableKind kind) {
   switch (kind) {
      case TableKind::mat:
         return "MAT";
      case TableKind::adt:
         return "ADT";
      case TableKind::sel:
         return "SEL";
   }
   return "unknown";
}

TableKind opTableKind(OpKind kind) {
   if (kind <= OpKind::matDel) return TableKind::mat;
   if (kind <= OpKind::adtDel) return TableKind::adt;
   return TableKind::sel;
}

const char* statusName(bf_status_t status) {
   switch (status) {
      case BF_SUCCESS:
         return "BF_SUCCESS";
      case BF_INVALID_ARG:
         return "BF_INVALID_ARG";
      case BF_OBJECT_NOT_FOUND:
         return "BF_OBJECT_NOT_FOUND";
      case BF_ALREADY_EXISTS:
         return "BF_ALREADY_EXISTS";
      case BF_NO_SPACE:
         return "BF_NO_SPACE";
      case BF_IN_USE:
         return "BF_IN_USE";
      case BF_TABLE_NOT_FOUND:
         return "BF_TABLE_NOT_FOUND";
      case BF_NOT_SUPPORTED:
         return "BF_NOT_SUPPORTED";
      case BF_NO_SYS_RESOURCES:
         return "BF_NO_SYS_RESOURCES";
   }
   return "BF_UNKNOWN";
}

}  // namespace ChipSdk
