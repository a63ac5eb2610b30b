#pragma once

#include <string>
#include <string_view>

#include "ChipMbbShared/AdtEntryConfig.h"
#include "ChipMbbShared/SelGrpEntryConfig.h"
#include "ChipMbbShared/SelMbrEntryConfig.h"
#include "Orb/Ptr.h"
#include "Vault/LocalTable.h"
#include "Vault/Table.h"
#include "Vault/TableTypes.h"

namespace ChipMbbShared {

// The configuration collections of a triple's action data and selector tables.
class AdtTableConfig : public Vault::Table<Vault::MbbEngine::EntryKey, AdtEntryConfig> {
 public:
   static constexpr std::string_view vaultTypeName = "ChipMbbShared::AdtTableConfig";
   using Table::Table;
};

class SelGrpTableConfig : public Vault::Table<Vault::MbbEngine::EntryKey, SelGrpEntryConfig> {
 public:
   static constexpr std::string_view vaultTypeName = "ChipMbbShared::SelGrpTableConfig";
   using Table::Table;
};

class SelMbrTableConfig : public Vault::Table<SelMbrEntryKey, SelMbrEntryConfig> {
 public:
   static constexpr std::string_view vaultTypeName = "ChipMbbShared::SelMbrTableConfig";
   using Table::Table;
};

inline const bool adtTableConfigRegistered = Vault::registerTableType<AdtTableConfig>();
inline const bool selGrpTableConfigRegistered = Vault::registerTableType<SelGrpTableConfig>();
inline const bool selMbrTableConfigRegistered = Vault::registerTableType<SelMbrTableConfig>();

// Test-mode collections, held in this process and not yet mounted (Vault::localTableNew).
inline Orb::Ptr<AdtTableConfig> adtTableConfigFactory(const std::string& name) {
   return Vault::localTableNew<AdtTableConfig>(name);
}
inline Orb::Ptr<SelGrpTableConfig> selGrpTableConfigFactory(const std::string& name) {
   return Vault::localTableNew<SelGrpTableConfig>(name);
}
inline Orb::Ptr<SelMbrTableConfig> selMbrTableConfigFactory(const std::string& name) {
   return Vault::localTableNew<SelMbrTableConfig>(name);
}

}  // namespace ChipMbbShared
