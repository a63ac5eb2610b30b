#pragma once

#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Vault/Errors.h"
#include "Vault/ShmCodec.h"
#include "Vault/Store.h"
#include "Vault/detail/ShmSegment.h"

namespace Vault {

// A table kept in a POSIX shared-memory segment (format in ShmLayout.h), for one writer and
// any number of readers in other processes. The writer's changes reach readers through the
// ring of changed keys, which readers consume in changesDrain() when their doorbell rings.
//
// Readers trust nothing they read: every record is taken under its sequence lock and checked
// against its checksum, every index cell against the slot count, every loop is bounded. What
// does not hold together throws StoreCorruption; a record being written is retried. The writer
// trusts the segment no more than readers do, since any process that can write it can damage
// it: its probes are bounded and check every cell they follow. A writer that found its segment
// damaged reports it once and from then on neither reads nor writes it.
template <class K, class V>
requires ShmStorable<K> && ShmStorable<V>
class ShmStore : public Store<K, V> {
 public:
   using KeyCodec = ShmCodec<K>;
   using ValueCodec = ShmCodec<V>;
   using StoredKey = typename KeyCodec::Stored;
   using StoredValue = typename ValueCodec::Stored;

   static std::unique_ptr<ShmStore> writerNew(const std::string& shmName, std::string_view typeName,
                                              std::uint32_t capacity, std::uint32_t ringSize = 0) {
      return std::unique_ptr<ShmStore>(new ShmStore(Shm::Segment::create(
          shmName, typeName, sizeof(StoredKey), sizeof(StoredValue), capacity, ringSize)));
   }
   static std::unique_ptr<ShmStore> readerNew(const std::string& shmName,
                                              std::string_view typeName) {
      return std::unique_ptr<ShmStore>(new ShmStore(
          Shm::Segment::open(shmName, typeName, sizeof(StoredKey), sizeof(StoredValue))));
   }

   bool find(const K& key, V& value) const override {
      std::uint64_t hash = hashOf(key);
      if (writable()) {
         if (damaged_) return false;
         std::uint32_t slot = writerSlot(key, hash).slot;
         lostCheck();
         if (slot == noSlot) return false;
         valueDecode(segment_->slotValue(slot), value);
         return true;
      }
      return readerGuarded([&] {
         bool found = false;
         if constexpr (std::is_same_v<StoredValue, V>) {
            found = readerFind(key, hash, value);
         } else {
            StoredValue stored;
            found = readerFind(key, hash, stored);
            if (found) ValueCodec::decode(stored, value);
         }
         lostCheck();
         return found;
      });
   }

   bool put(const K& key, const V& value) override {
      BRIO_ASSERT(writable());
      if (damaged_) return false;
      std::uint64_t hash = hashOf(key);
      Probe probe = writerSlot(key, hash);
      if (probe.slot != noSlot && valueOf(storedValue(probe.slot)) == value) {
         return false;
      }
      StoredKey storedKey{};
      StoredValue stored{};
      KeyCodec::encode(key, storedKey);
      ValueCodec::encode(value, stored);
      if (probe.slot != noSlot) {
         slotWrite(probe.slot, true, storedKey, stored);
      } else {
         if (count_ >= geometry().capacity) {
            throw TableFullException("table full: all " + std::to_string(geometry().capacity) +
                                     " entries in use");
         }
         std::uint32_t slot = slotTake();
         slotWrite(slot, true, storedKey, stored);
         if (Shm::cellSlot(probe.cell.load(std::memory_order_relaxed)) == Shm::deletedCell) {
            --deletedCells_;
         }
         probe.cell.store(Shm::cellOf(tagOf(hash), slot), std::memory_order_release);
         countIs(count_ + 1);
         orderedChanged(key);
      }
      ringPush(storedKey);
      if (count_ + deletedCells_ > geometry().indexSize / 4 * 3) indexRebuild();
      lostCheck();
      return true;
   }

   // Only the writer's index cells: a reader's lookups fetch their own ahead (see drain()).
   void prefetch(const K& key) const override {
      if (writable() && !damaged_) __builtin_prefetch(&segment_->cell(hashOf(key)));
   }

   bool erase(const K& key) override {
      BRIO_ASSERT(writable());
      if (damaged_) return false;
      Probe probe = writerSlot(key, hashOf(key));
      if (probe.slot == noSlot) return false;
      StoredKey storedKey = this->storedKey(probe.slot);
      StoredValue stored = storedValue(probe.slot);
      slotWrite(probe.slot, false, storedKey, stored);
      probe.cell.store(Shm::deletedCell, std::memory_order_release);
      ++deletedCells_;
      free_.push_back(probe.slot);
      countIs(count_ - 1);
      orderedChanged(key);
      ringPush(storedKey);
      lostCheck();
      return true;
   }

   std::optional<std::pair<K, V>> next(const K* from, bool inclusive) const override {
      return readerGuarded([&]() -> std::optional<std::pair<K, V>> {
         orderedUpdate();
         auto sorted = !from       ? sorted_.begin()
                       : inclusive ? std::lower_bound(sorted_.begin(), sorted_.end(), *from)
                                   : std::upper_bound(sorted_.begin(), sorted_.end(), *from);
         auto recent = !from       ? recent_.begin()
                       : inclusive ? recent_.lower_bound(*from)
                                   : recent_.upper_bound(*from);
         V value;
         for (;;) {
            const bool haveSorted = sorted != sorted_.end();
            const bool haveRecent = recent != recent_.end();
            if (!haveSorted && !haveRecent) return std::nullopt;
            const bool takeSorted = haveSorted && (!haveRecent || !(*recent < *sorted));
            if (takeSorted) {
               // A walk reads the keys in order, each from another place in the index: those it
               // reads next are fetched meanwhile, as a drain's are.
               const auto left = static_cast<std::size_t>(sorted_.end() - sorted);
               if (left > 2 * prefetchAhead) {
                  __builtin_prefetch(&segment_->cell(hashOf(sorted[2 * prefetchAhead])));
               }
               if (left > prefetchAhead) slotPrefetch(sorted[prefetchAhead]);
            }
            const K key = takeSorted ? *sorted++ : *recent++;
            // The order may know of a key that is gone; it is skipped.
            if (find(key, value)) return std::make_pair(key, value);
         }
      });
   }

   // The slots in the order they lie, read as a scan reads them.
   void visit(const std::function<void(const K&, const V&)>& fn) const override {
      if (writable() && damaged_) return;
      auto each = [&](const StoredKey& key, const StoredValue& value) {
         fn(keyOf(key), valueOf(value));
      };
      if (writable()) return liveSlotsRead(each);
      readerGuarded([&] {
         liveSlotsRead(each);
         lostCheck();
      });
   }

   std::size_t size() const override {
      if (writable()) return count_;
      return std::min<std::uint32_t>(segment_->header().count.load(std::memory_order_relaxed),
                                     geometry().capacity);
   }
   std::size_t capacity() const override { return geometry().capacity; }
   bool writable() const override { return segment_->owner(); }

   void changesDrain(ChangeSink<K>& sink) override {
      if (writable()) return;
      readerGuarded([&] { drain(sink); });
   }
   int changeFd() const override { return doorbell_ ? doorbell_->fd() : -1; }
   void retire() override {
      if (writable()) segment_->unlink();
   }

   void announceDeferIs(std::function<void()> schedule) override {
      if (!writable()) return;
      announceSchedule_ = std::move(schedule);
      changesAnnounce();
   }
   void changesAnnounce() override {
      if (!writable() || damaged_) return;
      announcePending_ = false;
      unannounced_ = 0;
      segment_->waitersPoke();
   }

   const Shm::Segment& segment() const { return *segment_; }
   std::uint64_t numResyncs() const { return numResyncs_; }

 private:
   void drain(ChangeSink<K>& sink) {
      doorbell_->drain();
      std::vector<K> changed;
      struct Forget {
         DrainBatch& batch;
         ~Forget() { batch.clear(); }
      } forget{batch_};
      // A head that keeps moving (a busy writer, or a damaged one) is followed a few rounds,
      // then left to the next call.
      for (unsigned round = 0;; ++round) {
         if (round == maxDrainRounds) {
            doorbell_->ringSelf();
            break;
         }
         std::uint64_t head = segment_->header().ringHead.load(std::memory_order_acquire);
         if (head < cursor_ || head - cursor_ > geometry().ringSize) return resync(sink);
         std::uint64_t end = std::min(head, cursor_ + maxChangesPerDrain);
         for (std::uint64_t p = cursor_; p < end; ++p) {
            std::optional<K> key = ringKey(p);
            if (!key) return resync(sink);
            if (batch_.insert(*key, hashOf(*key))) changed.push_back(*key);
         }
         cursor_ = end;
         if (end != head) {
            // More is waiting; let the loop run other work first.
            doorbell_->ringSelf();
            break;
         }
         doorbell_->arm();
         if (segment_->header().ringHead.load(std::memory_order_seq_cst) == cursor_) break;
      }
      segment_->slotsPopulate(std::min(segment_->header().slotsUsed.load(std::memory_order_relaxed),
                                       geometry().capacity));
      lostCheck();
      for (const K& key : changed) orderedChanged(key);
      for (std::size_t i = 0; i < changed.size(); ++i) {
         if (i + 2 * prefetchAhead < changed.size()) {
            __builtin_prefetch(&segment_->cell(hashOf(changed[i + 2 * prefetchAhead])));
         }
         if (i + prefetchAhead < changed.size()) slotPrefetch(changed[i + prefetchAhead]);
         sink.keyChanged(changed[i]);
      }
   }

   // Whoever hears of a changed key reads it next, from memory that another processor wrote
   // and that is no longer in this one's caches: a key's index cell, then the slot it names,
   // are fetched while the keys before it are handled. Nothing here is trusted; a slot number
   // out of range is not followed.
   void slotPrefetch(const K& key) const {
      const std::uint64_t c = segment_->cell(hashOf(key)).load(std::memory_order_relaxed);
      const std::uint32_t s = Shm::cellSlot(c);
      if (s == Shm::emptyCell || s == Shm::deletedCell || s > geometry().capacity) return;
      const unsigned char* slot = reinterpret_cast<const unsigned char*>(&segment_->slot(s - 1));
      for (std::uint32_t at = 0; at < geometry().slotSize; at += 64) __builtin_prefetch(slot + at);
   }

   // The keys of one drain, each once: a flat set kept from one drain to the next and emptied
   // cell by cell, since a node per key and a table grown from nothing on every drain cost the
   // reader more than reading the ring.
   class DrainBatch {
    public:
      bool insert(const K& key, std::uint64_t hash) {
         if ((taken_.size() + 1) * 2 > keys_.size()) grow();
         const std::size_t mask = keys_.size() - 1;
         std::size_t at = hash & mask;
         for (; used_[at]; at = (at + 1) & mask) {
            if (keys_[at] == key) return false;
         }
         used_[at] = 1;
         keys_[at] = key;
         taken_.push_back(at);
         return true;
      }
      void clear() {
         for (std::size_t at : taken_) used_[at] = 0;
         taken_.clear();
      }

    private:
      void grow() {
         std::vector<K> keys;
         keys.swap(keys_);
         std::vector<std::size_t> taken;
         taken.swap(taken_);
         keys_.assign(std::max<std::size_t>(64, keys.size() * 2), K{});
         used_.assign(keys_.size(), 0);
         for (std::size_t at : taken) insert(keys[at], hashOf(keys[at]));
      }
      std::vector<K> keys_;
      std::vector<unsigned char> used_;
      std::vector<std::size_t> taken_;
   };

   using Clock = std::chrono::steady_clock;
   static constexpr std::uint32_t noSlot = 0xFFFFFFFFu;
   static constexpr std::uint64_t maxChangesPerDrain = 4096;
   static constexpr unsigned maxDrainRounds = 16;
   static constexpr std::size_t prefetchAhead = 2;
   // A burst longer than this is announced on the way, so that readers keep pace with it.
   static constexpr std::uint32_t maxUnannounced = 1024;
   // An index that keeps changing under a reader this often is not being rebuilt; it is
   // being damaged.
   static constexpr unsigned maxIndexRetries = 4096;
   static constexpr std::size_t keySpan = Shm::roundUp(sizeof(StoredKey), 8);

   struct Probe {
      std::uint32_t slot;
      std::atomic<std::uint64_t>& cell;  // the key's cell, or where it would go
   };

   explicit ShmStore(std::unique_ptr<Shm::Segment> segment) : segment_(std::move(segment)) {
      if (writable()) {
         head_ = segment_->header().ringHead.load(std::memory_order_relaxed);
      } else {
         cursor_ = segment_->header().ringHead.load(std::memory_order_acquire);
         doorbell_ = std::make_unique<Shm::Doorbell>(*segment_);
         doorbell_->arm();
      }
   }

   const Shm::Geometry& geometry() const { return segment_->geometry(); }

   static std::uint64_t hashOf(const K& key) {
      std::uint64_t h = std::hash<K>()(key);
      h ^= h >> 31;
      h *= 0x9E3779B97F4A7C15ULL;
      return h ^ (h >> 29);
   }

   // Values stored as they are go straight into place, without an intermediate copy.
   static void valueDecode(const unsigned char* bytes, V& value) {
      if constexpr (std::is_same_v<StoredValue, V>) {
         std::memcpy(static_cast<void*>(&value), bytes, sizeof value);
      } else {
         StoredValue stored;
         std::memcpy(&stored, bytes, sizeof stored);
         ValueCodec::decode(stored, value);
      }
   }

   static K keyOf(const StoredKey& stored) {
      K key{};
      KeyCodec::decode(stored, key);
      return key;
   }
   static V valueOf(const StoredValue& stored) {
      V value{};
      ValueCodec::decode(stored, value);
      return value;
   }

   static std::uint32_t tagOf(std::uint64_t hash) { return static_cast<std::uint32_t>(hash >> 32); }

   StoredKey storedKey(std::uint32_t slot) const {
      StoredKey k;
      std::memcpy(&k, segment_->slotKey(slot), sizeof k);
      return k;
   }
   StoredValue storedValue(std::uint32_t slot) const {
      StoredValue v;
      std::memcpy(&v, segment_->slotValue(slot), sizeof v);
      return v;
   }

   static std::uint64_t slotSeed(std::uint32_t slot, bool live) {
      return (std::uint64_t(slot) << 1) | (live ? 1 : 0);
   }

   [[noreturn, gnu::cold, gnu::noinline]] void writerCorrupt(const std::string& what) const {
      damaged_ = true;
      throw StoreCorruption(what);
   }

   void lostCheck() const {
      if (segment_->lost()) [[unlikely]] {
         damaged_ = damaged_ || writable();
         throw StoreCorruption("segment shrank under its mapping");
      }
   }

   // A reader that found its segment damaged does not read it again: what a hostile writer
   // left could cost a full lap or a wait on every access. The damage was reported once; later
   // accesses fail at once.
   template <class Fn>
   auto readerGuarded(Fn&& fn) const {
      if (damaged_) [[unlikely]] {
         throw StoreCorruption("segment found damaged before", StoreCorruption::repeated);
      }
      try {
         return fn();
      } catch (const StoreCorruption&) {
         damaged_ = true;
         throw;
      }
   }

   // The writer's lookup: it is the only one changing the segment, so it reads plainly. Every
   // cell it follows must name a slot it handed out and that is live; a whole lap of the
   // index without an empty cell cannot happen below the rebuild threshold.
   Probe writerSlot(const K& key, std::uint64_t hash) const {
      const std::uint64_t mask = geometry().indexSize - 1;
      const std::uint32_t tag = tagOf(hash);
      std::atomic<std::uint64_t>* firstDeleted = nullptr;
      std::uint64_t i = hash & mask;
      for (std::uint64_t n = 0; n <= mask; ++n, i = (i + 1) & mask) {
         auto& cell = segment_->cell(i);
         std::uint64_t c = cell.load(std::memory_order_relaxed);
         std::uint32_t s = Shm::cellSlot(c);
         if (s == Shm::emptyCell) return {noSlot, firstDeleted ? *firstDeleted : cell};
         if (s == Shm::deletedCell) {
            if (!firstDeleted) firstDeleted = &cell;
            continue;
         }
         if (s > slotsUsed_ || segment_->slot(s - 1).live != 1) {
            writerCorrupt("index cell " + std::to_string(i) + " names slot " +
                          std::to_string(s - 1) + ", which is not in use");
         }
         if (Shm::cellTag(c) == tag && keyOf(storedKey(s - 1)) == key) {
            return {s - 1, cell};
         }
      }
      writerCorrupt("index has no empty cell");
      __builtin_unreachable();
   }

   // Freed slots first, then the lowest never used, so that the slots in use stay at the
   // bottom and nothing is kept per slot that was never used.
   std::uint32_t slotTake() {
      if (!free_.empty()) {
         std::uint32_t slot = free_.back();
         free_.pop_back();
         return slot;
      }
      segment_->slotsPopulate(slotsUsed_);
      segment_->header().slotsUsed.store(slotsUsed_ + 1, std::memory_order_release);
      return slotsUsed_++;
   }

   void slotWrite(std::uint32_t slot, bool live, const StoredKey& key, const StoredValue& value) {
      Shm::SlotHeader& header = segment_->slot(slot);
      std::uint32_t seq = header.seq.load(std::memory_order_relaxed);
      header.seq.store(seq + 1, std::memory_order_relaxed);
      std::atomic_thread_fence(std::memory_order_release);
      unsigned char* bytes = segment_->slotKey(slot);
      std::memcpy(bytes, &key, sizeof key);
      std::memcpy(bytes + keySpan, &value, sizeof value);
      header.live = live ? 1 : 0;
      header.checksum =
          Shm::checksum(bytes, sizeof key, bytes + keySpan, sizeof value, slotSeed(slot, live));
      // Sequence 0 means "never written"; a wrapping counter skips it.
      std::uint32_t next = seq + 2 == 0 ? 2 : seq + 2;
      header.seq.store(next, std::memory_order_release);
   }

   void countIs(std::uint32_t count) {
      count_ = count;
      segment_->header().count.store(count, std::memory_order_relaxed);
   }

   void ringPush(const StoredKey& key) {
      Shm::RingHeader& entry = segment_->ringEntry(head_);
      entry.tag.store(0, std::memory_order_relaxed);
      std::atomic_thread_fence(std::memory_order_release);
      std::memcpy(segment_->ringKey(head_), &key, sizeof key);
      entry.tag.store(head_ + 1, std::memory_order_release);
      ++head_;
      segment_->header().ringHead.store(head_, std::memory_order_seq_cst);
      // A reader woken for every change of a burst would drain a few keys each time and go
      // back to sleep, and on a busy machine each wake-up waits for a processor. Deferred,
      // the poke still comes after the ring head's store, so the pairing with a reader's
      // arming holds.
      if (!announceSchedule_ || ++unannounced_ >= maxUnannounced) return changesAnnounce();
      if (!announcePending_) {
         announcePending_ = true;
         announceSchedule_();
      }
   }

   // Drops deleted cells by re-inserting every live slot. Readers that probe meanwhile see
   // the index sequence move and look again.
   void indexRebuild() {
      auto& seq = segment_->header().indexSeq;
      std::uint32_t s = seq.load(std::memory_order_relaxed);
      // Only this writer makes it odd, and never leaves it so.
      if (s & 1) writerCorrupt("index sequence changed behind the writer");
      seq.store(s + 1, std::memory_order_relaxed);
      std::atomic_thread_fence(std::memory_order_release);
      const std::uint64_t mask = geometry().indexSize - 1;
      for (std::uint64_t i = 0; i <= mask; ++i) {
         segment_->cell(i).store(Shm::emptyCell, std::memory_order_relaxed);
      }
      std::uint32_t live = 0;
      StoredKey key;
      StoredValue value;
      for (std::uint32_t slot = 0; slot < slotsUsed_; ++slot) {
         if (!segment_->slot(slot).live) continue;
         std::memcpy(&key, segment_->slotKey(slot), sizeof key);
         std::memcpy(&value, segment_->slotValue(slot), sizeof value);
         if (++live > count_ ||
             segment_->slot(slot).checksum !=
                 Shm::checksum(&key, sizeof key, &value, sizeof value, slotSeed(slot, true))) {
            writerCorrupt("slot " + std::to_string(slot) + " changed behind the writer");
         }
         std::uint64_t hash = hashOf(keyOf(key));
         std::uint64_t i = hash & mask;
         while (segment_->cell(i).load(std::memory_order_relaxed) != Shm::emptyCell) {
            i = (i + 1) & mask;
         }
         segment_->cell(i).store(Shm::cellOf(tagOf(hash), slot), std::memory_order_relaxed);
      }
      if (live != count_) writerCorrupt("live slots do not match the count");
      deletedCells_ = 0;
      seq.store(s + 2, std::memory_order_release);
   }

   // Waits out a writer in the middle of a change, within limits: a writer that died there,
   // or one that never finishes, leaves a record that will never be whole, and the reader's
   // whole process waits meanwhile. A slot is written in well under a microsecond; the limit
   // leaves room for a writer that lost its processor. An index rebuild takes longer the larger
   // the index. A reader waits out one such record per segment at most: the segment counts as
   // damaged from then on. Kept out of line, since lookups almost never come here.
   [[gnu::cold, gnu::noinline]] void writerWait(const char* what, std::uint64_t which,
                                                unsigned attempt, Clock::time_point& since) const {
      if (attempt < 64) return;
      if (attempt == 64) since = Clock::now();
      std::this_thread::yield();
      if (attempt % 64 != 0) return;
      std::string where = what + std::to_string(which);
      if (!segment_->writerAlive()) {
         throw StoreCorruption(where + ": the writer died in the middle of a write");
      }
      std::chrono::milliseconds limit{200};
      // 50 ns a cell.
      if (std::string_view(what) == "index ")
         limit += std::chrono::milliseconds(geometry().indexSize / 20000);
      if (Clock::now() - since > limit) throw StoreCorruption(where + ": a write never completed");
   }

   [[gnu::cold, gnu::noinline]] static void badSlot(std::uint32_t slot) {
      throw StoreCorruption("slot " + std::to_string(slot) + ": bad checksum");
   }

   // A consistent copy of a slot's key and value; false when the slot was never written.
   bool slotRead(std::uint32_t slot, StoredKey& key, StoredValue& value, bool& live) const {
      Shm::SlotHeader& header = segment_->slot(slot);
      const unsigned char* bytes = segment_->slotKey(slot);
      Clock::time_point since;
      for (unsigned attempt = 1;; ++attempt) {
         std::uint32_t seq = header.seq.load(std::memory_order_acquire);
         if (seq == 0) return false;
         if (seq & 1) [[unlikely]] {
            writerWait("slot ", slot, attempt, since);
            continue;
         }
         std::memcpy(static_cast<void*>(&key), bytes, sizeof key);
         std::memcpy(static_cast<void*>(&value), bytes + keySpan, sizeof value);
         std::uint32_t flag = header.live;
         std::uint64_t sum = header.checksum;
         std::atomic_thread_fence(std::memory_order_acquire);
         if (header.seq.load(std::memory_order_relaxed) != seq) {
            writerWait("slot ", slot, attempt, since);
            continue;
         }
         if (flag > 1 || sum != Shm::checksum(&key, sizeof key, &value, sizeof value,
                                              slotSeed(slot, flag == 1))) [[unlikely]] {
            badSlot(slot);
         }
         live = flag == 1;
         return true;
      }
   }

   bool readerFind(const K& key, std::uint64_t hash, StoredValue& value) const {
      const Shm::Geometry& g = geometry();
      const std::uint64_t mask = g.indexSize - 1;
      auto& indexSeq = segment_->header().indexSeq;
      Clock::time_point since;
      for (unsigned attempt = 1;; ++attempt) {
         std::uint32_t seq = indexSeq.load(std::memory_order_acquire);
         if (seq & 1) [[unlikely]] {
            writerWait("index ", 0, attempt, since);
            continue;
         }
         const std::uint32_t tag = tagOf(hash);
         std::uint64_t i = hash & mask;
         std::uint64_t n = 0;
         for (; n <= mask; ++n, i = (i + 1) & mask) {
            std::uint64_t c = segment_->cell(i).load(std::memory_order_acquire);
            std::uint32_t s = Shm::cellSlot(c);
            if (s == Shm::emptyCell) break;
            if (s == Shm::deletedCell || Shm::cellTag(c) != tag) continue;
            if (s > g.capacity) {
               throw StoreCorruption("index cell " + std::to_string(i) + " points past the slots");
            }
            StoredKey found;
            bool live = false;
            if (slotRead(s - 1, found, value, live) && live && keyOf(found) == key) {
               return true;
            }
         }
         std::atomic_thread_fence(std::memory_order_acquire);
         if (indexSeq.load(std::memory_order_relaxed) == seq) {
            // As on the writer's side, a lap without an empty cell is damage.
            if (n > mask) throw StoreCorruption("index has no empty cell");
            return false;
         }
         if (attempt > maxIndexRetries) throw StoreCorruption("index keeps changing");
      }
   }

   std::optional<K> ringKey(std::uint64_t position) const {
      Shm::RingHeader& entry = segment_->ringEntry(position);
      std::uint64_t tag = entry.tag.load(std::memory_order_acquire);
      if (tag != position + 1) return std::nullopt;
      StoredKey key;
      std::memcpy(&key, segment_->ringKey(position), sizeof key);
      std::atomic_thread_fence(std::memory_order_acquire);
      if (entry.tag.load(std::memory_order_relaxed) != tag) return std::nullopt;
      return keyOf(key);
   }

   // Every live key in order, read slot by slot.
   // Every live slot's key and value, in the order the slots lie: the writer reads plainly, a
   // reader checks each slot as a lookup does.
   template <class Fn>
   void liveSlotsRead(Fn&& fn) const {
      StoredKey key;
      StoredValue value;
      bool live = false;
      const std::uint32_t used =
          writable() ? slotsUsed_
                     : std::min(segment_->header().slotsUsed.load(std::memory_order_acquire),
                                geometry().capacity);
      for (std::uint32_t slot = 0; slot < used; ++slot) {
         if (writable()) {
            if (segment_->slot(slot).live) fn(storedKey(slot), storedValue(slot));
         } else if (slotRead(slot, key, value, live) && live) {
            fn(key, value);
         }
      }
   }

   std::vector<K> scan() const {
      std::vector<K> keys;
      liveSlotsRead([&](const StoredKey& key, const StoredValue&) { keys.push_back(keyOf(key)); });
      std::sort(keys.begin(), keys.end());
      // A key moved to another slot during the scan is met twice.
      keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
      return keys;
   }

   // The key order, made by a scan on the first ordered walk and from then on kept up to date
   // with every change as it is written or drained, so that no later walk waits for a scan: a
   // sorted vector, the keys changed since it was last merged (a few in a tree, for walks
   // between changes) and the changed keys not yet placed. Keys are merged in without asking
   // whether they are still there; walks skip those that are gone, and the vector is cleared of
   // them when they have come to outnumber the live keys.
   void orderedChanged(const K& key) const {
      if (!orderedValid_) return;
      pending_.push_back(key);
      if (pending_.size() > std::max<std::size_t>(4096, sorted_.size() / 8)) orderedMerge();
   }

   void orderedMerge() const {
      pending_.insert(pending_.end(), recent_.begin(), recent_.end());
      recent_.clear();
      std::sort(pending_.begin(), pending_.end());
      std::vector<K> merged;
      merged.reserve(sorted_.size() + pending_.size());
      std::merge(sorted_.begin(), sorted_.end(), pending_.begin(), pending_.end(),
                 std::back_inserter(merged));
      merged.erase(std::unique(merged.begin(), merged.end()), merged.end());
      pending_.clear();
      if (merged.size() > 2 * size() + 4096) {
         V value;
         std::erase_if(merged, [&](const K& key) { return !find(key, value); });
      }
      sorted_.swap(merged);
   }

   void orderedUpdate() const {
      if (!orderedValid_) {
         sorted_ = scan();
         orderedValid_ = true;
         return;
      }
      if (pending_.size() + recent_.size() > std::max<std::size_t>(64, sorted_.size() / 8)) {
         orderedMerge();
      } else {
         recent_.insert(pending_.begin(), pending_.end());
         pending_.clear();
      }
   }

   void resync(ChangeSink<K>& sink) {
      ++numResyncs_;
      cursor_ = segment_->header().ringHead.load(std::memory_order_acquire);
      if (orderedValid_) {
         pending_.clear();
         recent_.clear();
         sorted_ = scan();
      }
      doorbell_->arm();
      if (segment_->header().ringHead.load(std::memory_order_seq_cst) != cursor_) {
         doorbell_->ringSelf();
      }
      sink.allChanged();
   }

   std::unique_ptr<Shm::Segment> segment_;
   // Found damaged: neither read nor written again.
   mutable bool damaged_ = false;
   // Writer.
   std::vector<std::uint32_t> free_;
   std::uint32_t slotsUsed_ = 0;
   std::uint32_t count_ = 0;
   std::uint32_t deletedCells_ = 0;
   std::uint64_t head_ = 0;
   std::function<void()> announceSchedule_;
   bool announcePending_ = false;
   std::uint32_t unannounced_ = 0;
   // Reader.
   std::unique_ptr<Shm::Doorbell> doorbell_;
   std::uint64_t cursor_ = 0;
   std::uint64_t numResyncs_ = 0;
   DrainBatch batch_;
   // The key order (orderedChanged()), writer and reader.
   mutable bool orderedValid_ = false;
   mutable std::vector<K> sorted_;
   mutable std::set<K> recent_;
   mutable std::vector<K> pending_;
};

}  // namespace Vault
