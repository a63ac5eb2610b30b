#pragma once

// The make-before-break engine's table types: entry keys and op ids, entry configurations
// and statuses, their tables and test-mode factories.

#include "Vault/MbbEngine/EntryConfig.h"
#include "Vault/MbbEngine/EntryKey.h"
#include "Vault/MbbEngine/EntryStatus.h"
#include "Vault/MbbEngine/PlcmtDataValue.h"
#include "Vault/MbbEngine/Tables.h"
#include "Vault/MbbEngine/Tombstone.h"
