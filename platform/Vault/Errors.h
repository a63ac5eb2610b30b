#pragma once

#include "Brio/Brio.h"

namespace Vault {

// A write of a new key into a table that holds `capacity` entries already. The table is left
// as it was; the writer may delete entries and try again.
class TableFullException : public Brio::RangeException {
 public:
   using Brio::RangeException::RangeException;
};

// A mount that cannot be carried out: the segment is missing, of another type or layout, or
// already has a writer.
class MountException : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

// Thrown by a store when what it read from a segment does not hold together; the table
// catches it, runs its corruption handling and throws Brio::CorruptionDetectedException.
class StoreCorruption : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

}  // namespace Vault
