#pragma once

// Keyed tables: the table interface, its heap and shared-memory backings, the codec that
// keeps keys and values in a segment, and table types by name.

#include "Vault/Errors.h"
#include "Vault/HeapStore.h"
#include "Vault/LocalTable.h"
#include "Vault/ShmCodec.h"
#include "Vault/ShmTable.h"
#include "Vault/Store.h"
#include "Vault/Table.h"
#include "Vault/TableTypes.h"
