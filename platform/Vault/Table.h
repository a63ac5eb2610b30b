#pragma once

#include <concepts>
#include <cstddef>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "Brio/Brio.h"
#include "Orb/Entity.h"
#include "Vault/Errors.h"
#include "Vault/Store.h"

namespace Vault {

// Values that carry their own key can be written without naming it.
template <class V, class K>
concept KeyedValue = requires(const V& v) {
   { v.key() } -> std::convertible_to<K>;
};

// A keyed collection of fixed-size values, ordered by key. An absent key reads as the empty
// value V{}. Every change is announced to the notifiees with onEntry(key); onEntry() without
// a key means "anything may have changed": it comes when the table is mounted and when a
// reader had to rescan a shared segment. Named table types (TableConfig, ...) derive from
// this and add nothing but their type name, so one notifiee type serves them all.
//
// Reads of a shared segment check what they read; when the contents do not hold together the
// table calls the corruption handler, tells the notifiees (onCorruptionDetected) and throws
// Brio::CorruptionDetectedException. The writer's side reports damage the same way but does
// not throw: its caller is in the middle of an operation it should finish, and the writes to a
// damaged segment go nowhere until its owner replaces it (a lookup finds nothing).
template <class K, class V>
class Table : public Orb::Entity<Table<K, V>> {
 public:
   using Key = K;
   using Value = V;

   class Notifiee : public Orb::BaseNotifiee<Table> {
    public:
      virtual void onEntry(const K& key) {}
      virtual void onEntry() {}
      virtual void onCorruptionDetected() {}
   };

   using CorruptionHandler = std::function<void(const std::string& reason)>;

   Table(std::string name, std::unique_ptr<Store<K, V>> store)
       : Orb::Entity<Table<K, V>>(std::move(name)), store_(std::move(store)), sink_(*this) {
      BRIO_ASSERT(store_ != nullptr);
   }

   V entry(const K& key) const {
      V value;
      bool found = false;
      guarded([&] { found = store_->find(key, value); });
      if (!found) value = V{};
      return value;
   }
   bool present(const K& key) const {
      V value{};
      bool found = false;
      guarded([&] { found = store_->find(key, value); });
      return found;
   }

   // Writing the value a key already holds changes nothing and notifies nobody. A new key in
   // a full table throws TableFullException and leaves the table as it was.
   void entryIs(const K& key, const V& value) {
      BRIO_ASSERT(writable() && "table is mounted for reading");
      bool changed = false;
      try {
         guarded([&] { changed = store_->put(key, value); });
      } catch (const TableFullException& e) {
         throw TableFullException(this->name() + ": " + e.what());
      }
      if (changed) notifyEntry(key);
   }
   void entryIs(const V& value) requires KeyedValue<V, K> { entryIs(K(value.key()), value); }
   // A writer that knows its next keys ahead names them here while it still has other work,
   // and each write then finds its place in the caches. Changes nothing.
   void entryPrefetch(const K& key) const { store_->prefetch(key); }
   void entryDel(const K& key) {
      BRIO_ASSERT(writable() && "table is mounted for reading");
      bool erased = false;
      guarded([&] { erased = store_->erase(key); });
      if (erased) notifyEntry(key);
   }
   // Deletes every entry, one key at a time, so watchers hear of each.
   void entryDelAll() {
      while (auto first = nextEntry(nullptr, true)) entryDel(first->first);
   }

   std::size_t size() const { return store_->size(); }
   std::size_t capacity() const { return store_->capacity(); }
   bool writable() const { return store_->writable(); }

   // Ordered walks. Each step looks up the key after the current one, so a walk survives
   // entries being added and deleted under it (it sees keys added ahead of it).
   class Iterator {
    public:
      using iterator_category = std::input_iterator_tag;
      using value_type = std::pair<K, V>;
      using difference_type = std::ptrdiff_t;
      using pointer = const value_type*;
      using reference = const value_type&;

      Iterator() = default;
      reference operator*() const { return *current_; }
      pointer operator->() const { return &*current_; }
      Iterator& operator++() {
         current_ = table_->nextEntry(&current_->first, false);
         return *this;
      }
      bool operator==(const Iterator& other) const {
         if (!current_ || !other.current_)
            return current_.has_value() == other.current_.has_value();
         return current_->first == other.current_->first;
      }

    private:
      friend class Table;
      Iterator(const Table* table, std::optional<value_type> current)
          : table_(table), current_(std::move(current)) {}
      const Table* table_ = nullptr;
      std::optional<value_type> current_;
   };

   Iterator begin() const { return Iterator(this, nextEntry(nullptr, true)); }
   Iterator end() const { return Iterator(); }
   // The walk from the first key at or above `from`.
   Iterator iter(const K& from) const { return Iterator(this, nextEntry(&from, true)); }
   // The walk from the first key above `from`.
   Iterator iterAfter(const K& from) const { return Iterator(this, nextEntry(&from, false)); }

   // Every entry, in no particular order (see Store::visit()).
   void entriesVisit(const std::function<void(const K&, const V&)>& fn) const {
      guarded([&] { store_->visit(fn); });
   }

   std::optional<std::pair<K, V>> nextEntry(const K* from, bool inclusive) const {
      std::optional<std::pair<K, V>> result;
      guarded([&] { result = store_->next(from, inclusive); });
      return result;
   }

   // Mounted: the contents are there to be read. Becoming mounted announces the whole table.
   bool mounted() const { return mounted_; }
   void mountedIs(bool mounted) {
      if (mounted_ == mounted) return;
      mounted_ = mounted;
      if (mounted_) notifyAll();
   }

   // Delivers what other processes changed since the last call. The event loop calls it when
   // changeFd() is readable; calling it at any other time is harmless.
   void changesDrain() {
      guarded([&] { store_->changesDrain(sink_); });
   }
   int changeFd() const { return store_->changeFd(); }

   void corruptionHandlerIs(CorruptionHandler handler) { corruptionHandler_ = std::move(handler); }
   std::size_t numCorruptionDetectedOps() const { return numCorruptionDetectedOps_; }

   // Runs the corruption handling and throws; backings and owners call it when what they
   // read does not hold together.
   [[noreturn]] void corruptionDetected(const std::string& reason) const {
      corruptionReport(reason);
      throw Brio::CorruptionDetectedException(this->name() + ": " + reason);
   }

   Store<K, V>& store() { return *store_; }

 private:
   class Sink : public ChangeSink<K> {
    public:
      explicit Sink(Table& table) : table_(table) {}
      void keyChanged(const K& key) override { table_.notifyEntry(key); }
      void allChanged() override { table_.notifyAll(); }

    private:
      Table& table_;
   };

   void notifyEntry(const K& key) {
      this->notifieeList().notify(static_cast<void (Notifiee::*)(const K&)>(&Notifiee::onEntry),
                                  key);
   }
   void notifyAll() {
      this->notifieeList().notify(static_cast<void (Notifiee::*)()>(&Notifiee::onEntry));
   }

   void corruptionReport(const std::string& reason) const {
      ++numCorruptionDetectedOps_;
      if (corruptionHandler_) corruptionHandler_(reason);
      auto* self = const_cast<Table*>(this);
      self->notifieeList().notify(&Notifiee::onCorruptionDetected);
   }

   template <class Fn>
   void guarded(Fn&& fn) const {
      try {
         fn();
      } catch (const StoreCorruption& e) {
         if (!e.again()) corruptionReport(e.what());
         if (!writable()) throw Brio::CorruptionDetectedException(this->name() + ": " + e.what());
      }
   }

   std::unique_ptr<Store<K, V>> store_;
   Sink sink_;
   bool mounted_ = false;
   CorruptionHandler corruptionHandler_;
   mutable std::size_t numCorruptionDetectedOps_ = 0;
};

}  // namespace Vault
