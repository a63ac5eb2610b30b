#pragma once

// A trace file: memory-mapped and shared with the page cache, so that what was written
// survives the process crashing. Writing a record copies raw values into the ring of its
// level under a short spin lock; no text is formatted until the decoder runs.

#include <array>
#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Brio/Brio.h"
#include "FlashLog/Types.h"
#include "FlashLog/detail/ArgCodec.h"
#include "FlashLog/detail/FileLayout.h"

namespace FlashLog {

// One per call site (a function-local static in the trace macros). Its id is process-wide;
// each handle maps it to a format id of its own file the first time the site writes there.
class FormatSite {
 public:
   FormatSite() : id_(nextId()) {}
   FormatSite(const FormatSite&) = delete;
   FormatSite& operator=(const FormatSite&) = delete;
   std::uint32_t id() const { return id_; }

 private:
   static std::uint32_t nextId();
   std::uint32_t id_;
};

// Who writes through a handle. Records from several threads are serialised by a spin lock; a
// handle that one thread writes, as an event-loop process's does, is spared the lock, and a write
// from any other thread is an assertion.
enum class Writers : std::uint8_t { anyThread, oneThread };

class Handle {
 public:
   static constexpr std::uint32_t defaultMaxStringLen = 80;

   constexpr Handle() = default;
   ~Handle() { close(); }
   Handle(const Handle&) = delete;
   Handle& operator=(const Handle&) = delete;

   // Creates (or truncates) the file tracePath(name) and maps it, with one ring per level of
   // sizesKiB[level] KiB (0 disables the level). Returns false and stays closed when the file
   // cannot be created: tracing then goes nowhere. Reopening closes the current file first.
   // With Writers::oneThread, the thread that opens the handle is its one writer.
   bool open(std::string_view name, const LevelSizes& sizesKiB,
             Writers writers = Writers::anyThread);
   // Unmaps the file; no record may be in the middle of being written.
   void close();
   bool isOpen() const { return base_ != nullptr; }
   const std::string& path() const { return path_; }

   // Strings longer than this are cut; applies to records written afterwards.
   std::uint32_t maxStringLen() const { return maxStringLen_.load(std::memory_order_relaxed); }
   void maxStringLenIs(std::uint32_t len);

   // Writes one record. Arguments are string literals (labels, stored once in the format
   // table), integers, enumerations, bool, char, floating point, Hex, const char*,
   // std::string and std::string_view. A no-op when the handle is closed.
   template <class... A>
   void write(const FormatSite& site, unsigned level, A&&... args);

 private:
   FileHeader* header() const { return reinterpret_cast<FileHeader*>(base_); }
   std::uint32_t formatIdOf(const FormatSite& site) const {
      return site.id() < siteFormats_.size() ? siteFormats_[site.id()] : 0;
   }
   std::uint32_t formatIdAdd(const FormatSite& site, std::string_view description);
   // Makes room for a record and fills its header; returns where its values go, or nullptr
   // when the record is dropped.
   char* recordBegin(unsigned level, std::size_t valuesSize, std::uint32_t formatId);
   void recordEnd(unsigned level) {
      std::atomic_ref(header()->rings[level].head).store(pendingHead_, std::memory_order_release);
      cursors_[level].headOffset = pendingHeadOffset_;
   }
   void tailAdvance(unsigned level, std::uint64_t end);
   void lock() {
      if (!locking_) {
         BRIO_ASSERT(writerThread_ == threadTag());
         return;
      }
      while (lock_.test_and_set(std::memory_order_acquire)) {
      }
   }
   void unlock() {
      if (locking_) lock_.clear(std::memory_order_release);
   }
   // An address that differs between live threads, cheaper to get than a thread id.
   static const void* threadTag() {
      static thread_local const char tag = 0;
      return &tag;
   }

   char* base_ = nullptr;
   // Holds the file's lock while it is written.
   int lockFd_ = -1;
   std::size_t mapSize_ = 0;
   std::string path_;
   std::atomic<std::uint32_t> maxStringLen_{defaultMaxStringLen};
   std::atomic_flag lock_;
   bool locking_ = true;
   const void* writerThread_ = nullptr;
   // Guarded by lock_.
   std::vector<std::uint32_t> siteFormats_;  // by site id; 0 unknown, noFormatRoom dropped
   std::uint32_t numFormats_ = 0;
   std::uint64_t nextSeq_ = 0;
   // Physical offsets of head and tail, kept here so that the hot path never divides.
   struct RingCursor {
      std::uint64_t headOffset = 0;
      std::uint64_t tailOffset = 0;
   };
   std::array<RingCursor, numLevels> cursors_{};
   std::uint64_t pendingHead_ = 0;
   std::uint64_t pendingHeadOffset_ = 0;
};

// A format id that marks a site whose format did not fit into the format table.
constexpr std::uint32_t noFormatRoom = ~std::uint32_t{0};

template <class... A>
void Handle::write(const FormatSite& site, unsigned level, A&&... args) {
   BRIO_ASSERT(level < numLevels);
   if (!isOpen()) return;
   const std::uint32_t max = maxStringLen();
   const std::size_t valuesSize = (detail::valueSize<A>(args, max) + ... + 0);
   lock();
   std::uint32_t formatId = formatIdOf(site);
   if (formatId == 0) formatId = formatIdAdd(site, detail::describeFormat<A...>(args...));
   if (char* p = recordBegin(level, valuesSize, formatId)) {
      ((p = detail::putValue<A>(p, args, max)), ...);
      recordEnd(level);
   }
   unlock();
}

// Where a trace file named `name` goes: "%d" in the name becomes the process id; a name without
// a '/' is placed in the directory named by FLASHLOGDIR, or the current directory when that is
// unset or empty.
std::string tracePath(std::string_view name);

// True when FLASHLOG_DISABLE is set, to anything: the process keeps no trace file.
bool disabledByEnv();

extern constinit Handle defaultHandleInstance;
// The process-wide handle that product code writes through; opened once by the product's
// trace set-up, closed (and so a no-op) until then.
inline Handle& defaultHandle() {
   return defaultHandleInstance;
}

}  // namespace FlashLog
