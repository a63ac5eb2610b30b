#pragma once

#include <string>
#include <string_view>

#include "ChipMbbShared/MatAdtSelTableConfigMountEntry.h"
#include "ChipMbbShared/TableConfigMountEntry.h"
#include "ChipMbbShared/TableConfigMountKey.h"
#include "Orb/Ptr.h"
#include "Vault/LocalTable.h"
#include "Vault/Table.h"
#include "Vault/TableTypes.h"

namespace ChipMbbShared {

// A feature agent's published single tables, keyed by table. An entity of the table-info
// directory.
class TableConfigMountInfo : public Vault::Table<TableConfigMountKey, TableConfigMountEntry> {
 public:
   static constexpr std::string_view vaultTypeName = "ChipMbbShared::TableConfigMountInfo";
   using Table::Table;
};

// A feature agent's published triples.
class MatAdtSelTableConfigMountInfo
    : public Vault::Table<TableConfigMountKey, MatAdtSelTableConfigMountEntry> {
 public:
   static constexpr std::string_view vaultTypeName = "ChipMbbShared::MatAdtSelTableConfigMountInfo";
   using Table::Table;
};

inline const bool tableConfigMountInfoRegistered = Vault::registerTableType<TableConfigMountInfo>();
inline const bool matAdtSelTableConfigMountInfoRegistered =
    Vault::registerTableType<MatAdtSelTableConfigMountInfo>();

}  // namespace ChipMbbShared
