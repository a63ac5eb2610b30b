#pragma once

// Keyed tables: the table interface, its heap and shared-memory backings, and the engine's
// table types.

#include "Vault/Errors.h"
#include "Vault/LocalTable.h"
#include "Vault/MbbEngine/EntryConfig.h"
#include "Vault/MbbEngine/EntryKey.h"
#include "Vault/MbbEngine/EntryStatus.h"
#include "Vault/MbbEngine/Tables.h"
#include "Vault/MbbEngine/Tombstone.h"
#include "Vault/PlcmtDataValue.h"
#include "Vault/ShmTable.h"
#include "Vault/Table.h"
#include "Vault/TableTypes.h"
