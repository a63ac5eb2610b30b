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

// A segment that belongs to another user (or to a group not trusted): it could hold anything and
// change at any time, so it is neither served nor taken over.
class ForeignSegmentException : public MountException {
 public:
   using MountException::MountException;
};

// Thrown by a store when what it read from a segment does not hold together; the table
// catches it, runs its corruption handling and, on a reader, throws
// Brio::CorruptionDetectedException.
class StoreCorruption : public std::runtime_error {
 public:
   // Damage found earlier and reported then; the table does not report it again.
   static constexpr bool repeated = true;

   explicit StoreCorruption(const std::string& what, bool again = false)
       : std::runtime_error(what), again_(again) {}
   bool again() const { return again_; }

 private:
   bool again_;
};

}  // namespace Vault
