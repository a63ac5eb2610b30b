#pragma once

#include <string>
#include <string_view>

#include "Orb/Ptr.h"
#include "Vault/LocalTable.h"
#include "Vault/MbbEngine/EntryConfig.h"
#include "Vault/MbbEngine/EntryStatus.h"
#include "Vault/Table.h"
#include "Vault/TableTypes.h"

namespace Vault::MbbEngine {

// A match table's configuration, written by a publisher, read by the engine.
class TableConfig : public Table<EntryKey, EntryConfig> {
 public:
   static constexpr std::string_view vaultTypeName = "Vault::MbbEngine::TableConfig";
   using Table::Table;
};

// What the engine has put in hardware, per key; written by the engine, read by the publisher.
class TableStatus : public Table<EntryKey, EntryStatus> {
 public:
   static constexpr std::string_view vaultTypeName = "Vault::MbbEngine::TableStatus";
   using Table::Table;
};

inline const bool tableConfigRegistered = registerTableType<TableConfig>();
inline const bool tableStatusRegistered = registerTableType<TableStatus>();

// Test-mode tables, held in this process. Neither is mounted yet (see localTableNew).
inline Orb::Ptr<TableConfig> tableConfigFactory(const std::string& name) {
   return localTableNew<TableConfig>(name);
}
inline Orb::Ptr<TableStatus> tableStatusFactory(const std::string& name,
                                                const MapDescriptor& descriptor = {}) {
   return localTableNew<TableStatus>(name, descriptor);
}

}  // namespace Vault::MbbEngine
