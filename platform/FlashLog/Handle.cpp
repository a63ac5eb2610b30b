#include "FlashLog/Handle.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace FlashLog {

constinit Handle defaultHandleInstance;

namespace {

// Records between refreshes of the last clock pair: often enough to track drift, rarely
// enough to cost nothing per record.
constexpr std::uint64_t clockRefreshMask = 4095;

// A first estimate of the tick rate, good to a fraction of a per mille, for a file whose
// process dies before refreshing it.
ClockPair calibratedLast(ClockPair first) {
   ClockPair last;
   do {
      last = clockPair();
   } while (last.ns - first.ns < 200000);
   return last;
}

constexpr std::uint64_t alignUp(std::uint64_t n, std::uint64_t to) {
   return (n + to - 1) / to * to;
}

void storeRelease(std::uint64_t& field, std::uint64_t value) {
   std::atomic_ref(field).store(value, std::memory_order_release);
}

// Lays the rings out after the format table, each on its own pages; returns the file size.
std::uint64_t layOut(FileHeader& h, const LevelSizes& sizesKiB) {
   h.formatTableOffset = pageSize;
   h.formatTableCapacity = formatTableCapacity;
   std::uint64_t offset = h.formatTableOffset + h.formatTableCapacity;
   for (int level = 0; level < numLevels; ++level) {
      RingHeader& ring = h.rings[level];
      ring.offset = offset;
      ring.size = sizesKiB[level] * sizeUnit;
      offset += alignUp(ring.size, pageSize);
   }
   return offset;
}

}  // namespace

std::uint32_t FormatSite::nextId() {
   static std::atomic<std::uint32_t> next{0};
   return next.fetch_add(1, std::memory_order_relaxed);
}

std::string tracePath(std::string_view name) {
   std::string path;
   if (name.find('/') == std::string_view::npos) {
      const char* dir = std::getenv("FLASHLOGDIR");
      if (dir && *dir) {
         path = dir;
         if (path.back() != '/') path += '/';
      }
   }
   const std::string pid = std::to_string(getpid());
   for (std::size_t i = 0; i < name.size(); ++i) {
      if (name.compare(i, 2, "%d") == 0) {
         path += pid;
         ++i;
      } else {
         path += name[i];
      }
   }
   return path;
}

bool disabledByEnv() {
   return std::getenv("FLASHLOG_DISABLE") != nullptr;
}

namespace {

// The file is this process's alone: opened without following a symbolic link that someone put
// in its place (nor waiting on a pipe), used only if it is a plain file of this user with no
// other name (another user's file, or a link to someone else's, is left alone), readable by its
// user only, and locked for as long as it is written, so that a second process given the same
// name writes beside it (NAME.PID) rather than over it.
int traceFileOpen(std::string& path) {
   for (int attempt = 0; attempt < 2; ++attempt) {
      const int fd =
          ::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
      // A symbolic link in the file's place is someone else's name; write beside it.
      if (fd < 0 && errno == ELOOP) {
         path += "." + std::to_string(getpid());
         continue;
      }
      if (fd < 0) return -1;
      struct stat st {};
      const bool ours = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == ::geteuid() &&
                        st.st_nlink == 1;
      if (ours && ::flock(fd, LOCK_EX | LOCK_NB) == 0) {
         ::fchmod(fd, 0600);
         return fd;
      }
      ::close(fd);
      path += "." + std::to_string(getpid());
   }
   return -1;
}

}  // namespace

bool Handle::open(std::string_view name, const LevelSizes& sizesKiB, Writers writers) {
   close();
   FileHeader layout{};
   const std::uint64_t fileSize = layOut(layout, sizesKiB);
   std::string path = tracePath(name);
   const int fd = traceFileOpen(path);
   if (fd < 0) return false;
   void* map = MAP_FAILED;
   if (ftruncate(fd, 0) == 0 && ftruncate(fd, static_cast<off_t>(fileSize)) == 0) {
      map = mmap(nullptr, fileSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
   }
   if (map == MAP_FAILED) {
      ::close(fd);
      return false;
   }
   lockFd_ = fd;

   layout.version = fileVersion;
   layout.numLevels = numLevels;
   layout.fileSize = fileSize;
   layout.maxStringLen = maxStringLen();
   layout.pid = static_cast<std::uint32_t>(getpid());
   layout.clockFirst = clockPair();
   layout.clockLast = calibratedLast(layout.clockFirst);
   FileHeader* h = static_cast<FileHeader*>(map);
   *h = layout;
   // The magic goes last: a file cut short while being set up does not pass for a trace file.
   std::atomic_thread_fence(std::memory_order_release);
   h->magic = fileMagic;

   base_ = static_cast<char*>(map);
   mapSize_ = fileSize;
   path_ = path;
   siteFormats_.clear();
   numFormats_ = 0;
   nextSeq_ = 0;
   cursors_ = {};
   locking_ = writers == Writers::anyThread;
   writerThread_ = threadTag();
   return true;
}

void Handle::close() {
   if (!base_) return;
   header()->clockLast = clockPair();
   ::close(lockFd_);
   lockFd_ = -1;
   munmap(base_, mapSize_);
   base_ = nullptr;
   mapSize_ = 0;
}

void Handle::maxStringLenIs(std::uint32_t len) {
   BRIO_ASSERT(len <= 0xFFFF);
   maxStringLen_.store(len, std::memory_order_relaxed);
   if (base_) header()->maxStringLen = len;
}

std::uint32_t Handle::formatIdAdd(const FormatSite& site, std::string_view description) {
   if (site.id() >= siteFormats_.size()) siteFormats_.resize(site.id() + 1, 0);
   FileHeader* h = header();
   const std::uint32_t entryLen =
       static_cast<std::uint32_t>(2 * sizeof(std::uint32_t) + description.size());
   if (h->formatTableUsed + entryLen > h->formatTableCapacity) {
      siteFormats_[site.id()] = noFormatRoom;
      return noFormatRoom;
   }
   const std::uint32_t id = ++numFormats_;
   char* p = base_ + h->formatTableOffset + h->formatTableUsed;
   p = detail::putBytes(p, &entryLen, sizeof entryLen);
   p = detail::putBytes(p, &id, sizeof id);
   detail::putBytes(p, description.data(), description.size());
   storeRelease(h->formatTableUsed, h->formatTableUsed + entryLen);
   siteFormats_[site.id()] = id;
   return id;
}

char* Handle::recordBegin(unsigned level, std::size_t valuesSize, std::uint32_t formatId) {
   FileHeader* h = header();
   RingHeader& ring = h->rings[level];
   const std::uint64_t len = alignUp(sizeof(RecordHeader) + valuesSize, recordAlign);
   // A record larger than half its ring would wipe out most of its level's history.
   if (formatId == noFormatRoom || len > ring.size / 2) {
      ++h->numDroppedRecords;
      return nullptr;
   }
   std::uint64_t head = ring.head;
   std::uint64_t offset = cursors_[level].headOffset;
   if (offset + len > ring.size) {
      const std::uint64_t padLen = ring.size - offset;
      tailAdvance(level, head + padLen);
      const std::uint32_t padding[2] = {static_cast<std::uint32_t>(padLen), paddingFormatId};
      detail::putBytes(base_ + ring.offset + offset, padding, sizeof padding);
      head += padLen;
      offset = 0;
   }
   tailAdvance(level, head + len);
   if ((nextSeq_ & clockRefreshMask) == clockRefreshMask) h->clockLast = clockPair();
   const RecordHeader record{static_cast<std::uint32_t>(len), formatId, nextSeq_++, ticks()};
   char* p = detail::putBytes(base_ + ring.offset + offset, &record, sizeof record);
   pendingHead_ = head + len;
   pendingHeadOffset_ = offset + len == ring.size ? 0 : offset + len;
   return p;
}

// Drops the oldest records until [tail, end) fits into the ring. The tail moves before the
// space is overwritten, so that the file stays decodable at every instant.
void Handle::tailAdvance(unsigned level, std::uint64_t end) {
   RingHeader& ring = header()->rings[level];
   RingCursor& cursor = cursors_[level];
   std::uint64_t tail = ring.tail;
   while (end - tail > ring.size) {
      std::uint32_t len;
      std::memcpy(&len, base_ + ring.offset + cursor.tailOffset, sizeof len);
      if (len < minRecordLength || len % recordAlign != 0 || cursor.tailOffset + len > ring.size) {
         // Someone else scribbled on the mapping; keep going with an empty ring.
         tail = ring.head;
         cursor.tailOffset = cursor.headOffset;
         break;
      }
      tail += len;
      cursor.tailOffset += len;
      if (cursor.tailOffset == ring.size) cursor.tailOffset = 0;
   }
   storeRelease(ring.tail, tail);
}

}  // namespace FlashLog
