#include "Vault/detail/ShmSegment.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/timerfd.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <limits>
#include <mutex>
#include <new>

#include "Brio/Brio.h"
#include "Vault/Errors.h"

// Older C libraries do not name it yet.
#ifndef MADV_POPULATE_READ
#define MADV_POPULATE_READ 22
#endif

namespace Vault::Shm {

std::uint32_t defaultRingSize(std::uint32_t capacity) {
   // A whole table's worth of changes, up to a million: a publisher that fills a table while
   // the reader is busy leaves it behind by that much, and a reader that falls off the ring
   // pays a full scan. The ring costs 16 bytes a change against a slot's hundred or more.
   std::uint32_t size = std::bit_ceil(std::max<std::uint32_t>(capacity, 1));
   return std::clamp<std::uint32_t>(size, 1024, 1u << 20);
}

std::optional<Geometry> geometryFor(std::uint32_t keySize, std::uint32_t valueSize,
                                    std::uint32_t capacity, std::uint32_t ringSize) {
   if (keySize == 0 || keySize > 4096 || valueSize == 0 || valueSize > 4096) return std::nullopt;
   if (capacity == 0 || capacity > maxCapacity) return std::nullopt;
   if (ringSize < minRingSize || ringSize > maxRingSize || !std::has_single_bit(ringSize)) {
      return std::nullopt;
   }
   Geometry g;
   g.keySize = keySize;
   g.valueSize = valueSize;
   g.capacity = capacity;
   g.slotSize =
       static_cast<std::uint32_t>(roundUp(sizeof(SlotHeader) + roundUp(keySize, 8) + valueSize, 8));
   g.indexSize = std::bit_ceil(std::max<std::uint32_t>(2 * capacity, 16));
   g.ringSize = ringSize;
   g.ringEntrySize = static_cast<std::uint32_t>(sizeof(RingHeader) + roundUp(keySize, 8));
   g.waiterCount = maxWaiters;
   g.slotsOffset = roundUp(sizeof(Header), 64);
   g.indexOffset = roundUp(g.slotsOffset + std::uint64_t(capacity) * g.slotSize, 64);
   g.ringOffset = roundUp(g.indexOffset + std::uint64_t(g.indexSize) * 8, 64);
   g.waitersOffset = roundUp(g.ringOffset + std::uint64_t(ringSize) * g.ringEntrySize, 64);
   g.totalSize = roundUp(g.waitersOffset + std::uint64_t(maxWaiters) * sizeof(Waiter), 4096);
   return g;
}

std::uint64_t headerChecksum(const Header& header) {
   const auto* begin = reinterpret_cast<const unsigned char*>(&header.layoutVersion);
   const auto* end = reinterpret_cast<const unsigned char*>(&header.checksum);
   return checksum(begin, static_cast<std::size_t>(end - begin), magic);
}

namespace {

// A zombie has finished: it will never complete a write or remove its segments.
bool processAlive(std::uint32_t pid) {
   if (pid == 0 || pid > std::uint32_t(std::numeric_limits<pid_t>::max())) return false;
   if (::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) return false;
   char path[32];
   std::snprintf(path, sizeof path, "/proc/%u/stat", pid);
   int fd = ::open(path, O_RDONLY | O_CLOEXEC);
   if (fd < 0) return true;
   char buffer[256];
   ssize_t n = ::read(fd, buffer, sizeof buffer - 1);
   ::close(fd);
   if (n <= 0) return true;
   buffer[n] = '\0';
   const char* state = std::strrchr(buffer, ')');
   return !(state && state[1] == ' ' && (state[2] == 'Z' || state[2] == 'X'));
}

gid_t trustedGroup = gid_t(-1);

// Only segments of this user, or of the group it was told to trust, are served: another
// user's segment could hold anything and be changed at any time.
std::string foreignOwner(const struct stat& st) {
   if (st.st_uid == ::geteuid() || (trustedGroup != gid_t(-1) && st.st_gid == trustedGroup)) {
      return "";
   }
   return "owned by uid " + std::to_string(st.st_uid) + ", not this user";
}

std::string sysError(const std::string& what, const std::string& name) {
   return what + " " + name + ": " + std::strerror(errno);
}

// A writer makes its segment under a name of its own, NAME.~PID.N, and gives it its real name
// only once the header is whole. So nobody ever finds a real name on a segment that is still
// being made, and the name of one that is tells whose it is, even before its header does.
constexpr std::string_view makingMark = ".~";

std::string makingName(const std::string& shmName) {
   static std::atomic<std::uint32_t> serial{0};
   return shmName + std::string(makingMark) + std::to_string(::getpid()) + "." +
          std::to_string(serial.fetch_add(1));
}

// The maker of a segment still being made; 0 for a real name.
std::uint32_t makerOf(const std::string& name) {
   const std::size_t mark = name.rfind(makingMark);
   if (mark == std::string::npos) return 0;
   return static_cast<std::uint32_t>(
       std::strtoul(name.c_str() + mark + makingMark.size(), nullptr, 10));
}

std::string shmPath(const std::string& shmName) {
   return "/dev/shm" + shmName;
}

// A writer that creates a segment is its owner until the segment is unlinked. A segment whose
// creator is gone can be taken over, since nobody else would ever remove it. The writer's pid
// is read with pread rather than through a mapping, which a truncation could turn into a fault.
// Throws when the segment is someone else's or its writer still runs.
bool staleSegment(const std::string& shmName) {
   int fd = ::shm_open(shmName.c_str(), O_RDONLY, 0);
   if (fd < 0 && errno == EACCES) {
      throw ForeignSegmentException("cannot take over " + shmName +
                                    ": permission denied (another user's)");
   }
   if (fd < 0) return errno == ENOENT;
   struct stat st {};
   if (::fstat(fd, &st) == 0 && !foreignOwner(st).empty()) {
      ::close(fd);
      throw ForeignSegmentException("cannot take over " + shmName + ": " + foreignOwner(st));
   }
   std::uint32_t pid = makerOf(shmName);
   if (pid == 0 &&
       ::pread(fd, &pid, sizeof pid, offsetof(Header, writerPid)) != ssize_t(sizeof pid)) {
      pid = 0;
   }
   ::close(fd);
   if (processAlive(pid)) {
      throw MountException("table " + shmName + " already has a writer that is running (pid " +
                           std::to_string(pid) + ")");
   }
   return true;
}

// A process that can write a segment can also truncate it, and touching a mapped page past
// the end of the file raises SIGBUS. Rather than dying, the process puts private zeros in
// place of the whole mapping, marks it lost and lets the access go on; the store then reports
// the table as corrupt. Mappings are registered in a fixed array that the handler can read
// without locks or allocation.
struct GuardedMapping {
   std::atomic<std::uintptr_t> base{0};
   std::atomic<std::size_t> size{0};
   std::atomic<bool> lost{false};
};

constexpr int maxGuardedMappings = 8192;
GuardedMapping guardedMappings[maxGuardedMappings];
struct sigaction previousBusAction {};

void busHandler(int signo, siginfo_t* info, void* context) {
   const auto address = reinterpret_cast<std::uintptr_t>(info->si_addr);
   for (GuardedMapping& m : guardedMappings) {
      const std::uintptr_t base = m.base.load(std::memory_order_acquire);
      if (base == 0 || address < base || address - base >= m.size.load()) continue;
      void* replaced = ::mmap(reinterpret_cast<void*>(base), m.size.load(), PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
      if (replaced != MAP_FAILED) {
         m.lost.store(true, std::memory_order_release);
         return;
      }
      break;
   }
   // Not one of ours: whoever handled it before decides, or the default kills.
   if ((previousBusAction.sa_flags & SA_SIGINFO) && previousBusAction.sa_sigaction) {
      previousBusAction.sa_sigaction(signo, info, context);
      return;
   }
   if (previousBusAction.sa_handler != SIG_DFL && previousBusAction.sa_handler != SIG_IGN &&
       previousBusAction.sa_handler) {
      previousBusAction.sa_handler(signo);
      return;
   }
   ::signal(SIGBUS, SIG_DFL);
}

int mappingGuard(void* base, std::size_t size) {
   static std::once_flag installed;
   std::call_once(installed, [] {
      struct sigaction action {};
      action.sa_sigaction = busHandler;
      action.sa_flags = SA_SIGINFO | SA_NODEFER;
      sigemptyset(&action.sa_mask);
      ::sigaction(SIGBUS, &action, &previousBusAction);
   });
   for (int i = 0; i < maxGuardedMappings; ++i) {
      GuardedMapping& m = guardedMappings[i];
      std::uintptr_t free = 0;
      if (m.base.load(std::memory_order_relaxed) != 0) continue;
      m.size.store(size);
      m.lost.store(false);
      if (m.base.compare_exchange_strong(free, reinterpret_cast<std::uintptr_t>(base))) return i;
   }
   return -1;
}

void mappingUnguard(int guard) {
   if (guard >= 0) guardedMappings[guard].base.store(0, std::memory_order_release);
}

// A shared mapping of a whole segment, guarded from the moment it exists: the header is read
// through it before anything else is known. Nothing is populated here; see populate().
struct Mapping {
   unsigned char* base = nullptr;
   std::size_t size = 0;
   int guard = -1;
};

Mapping mapGuarded(int fd, std::size_t size, const std::string& shmName) {
   void* base = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
   if (base == MAP_FAILED) throw MountException(sysError("cannot map", shmName));
   const int guard = mappingGuard(base, size);
   if (guard < 0) {
      ::munmap(base, size);
      throw MountException("cannot map " + shmName + ": too many segments mapped");
   }
   return {static_cast<unsigned char*>(base), size, guard};
}

void unmap(const Mapping& m) {
   mappingUnguard(m.guard);
   ::munmap(m.base, m.size);
}

// Creating a segment larger than the shared-memory file system can still hold would only fail
// later, at some write, with SIGBUS; it is refused up front instead.
void spaceCheck(const std::string& shmName, std::uint64_t size) {
   struct statvfs fs {};
   if (::statvfs("/dev/shm", &fs) != 0) return;
   const std::uint64_t available = std::uint64_t(fs.f_bavail) * fs.f_frsize;
   if (size > available) {
      throw MountException("not enough shared memory for " + shmName + ": it needs " +
                           std::to_string(size) + " bytes, " + std::to_string(available) +
                           " are free");
   }
}

}  // namespace

Segment::Segment(std::string shmName, unsigned char* base, std::size_t mappedSize,
                 Geometry geometry, bool owner, int guard)
    : shmName_(std::move(shmName)),
      base_(base),
      mappedSize_(mappedSize),
      geometry_(geometry),
      owner_(owner),
      linked_(owner),
      guard_(guard) {
   populate(0, geometry_.slotsOffset);
   // The index, ring and waiters are touched all over from the start, so they are paged in at
   // once, unless the table is so large that they would hold memory it may never use.
   constexpr std::uint64_t populateLimit = 64 << 20;
   if (geometry_.totalSize - geometry_.indexOffset <= populateLimit) {
      populate(geometry_.indexOffset, geometry_.totalSize);
   }
   slotsPopulate(owner ? 0 : std::min(header().slotsUsed.load(), geometry_.capacity));
}

Segment::~Segment() {
   unlink();
   if (pokeFd_ >= 0) ::close(pokeFd_);
   unmap({base_, mappedSize_, guard_});
}

bool Segment::lost() const {
   return guardedMappings[guard_].lost.load(std::memory_order_acquire);
}

// Populated ahead of use: the first touch of each page would otherwise fault in the middle of
// convergence, and on a virtual machine a fault costs microseconds. A range cut off by a
// truncation fails here quietly; the access that follows finds the mapping lost.
void Segment::populate(std::uint64_t from, std::uint64_t to) const {
   from = from / 4096 * 4096;
   to = std::min<std::uint64_t>(roundUp(to, 4096), mappedSize_);
   if (from < to) ::madvise(base_ + from, to - from, MADV_POPULATE_READ);
}

void Segment::slotsPopulateMore(std::uint32_t slots) {
   // A megabyte at a time, so that a table being filled costs a call per megabyte.
   const std::uint32_t chunk = std::max<std::uint32_t>(1, (1u << 20) / geometry_.slotSize);
   const std::uint32_t upTo =
       std::min<std::uint64_t>(roundUp(std::uint64_t(slots) + 1, chunk), geometry_.capacity);
   populate(geometry_.slotsOffset + std::uint64_t(populatedSlots_) * geometry_.slotSize,
            geometry_.slotsOffset + std::uint64_t(upTo) * geometry_.slotSize);
   populatedSlots_ = upTo;
}

std::unique_ptr<Segment> Segment::create(const std::string& shmName, std::string_view typeName,
                                         std::uint32_t keySize, std::uint32_t valueSize,
                                         std::uint32_t capacity, std::uint32_t ringSize) {
   if (typeName.size() >= typeNameSize) {
      throw MountException("type name too long for a segment: " + std::string(typeName));
   }
   auto geometry =
       geometryFor(keySize, valueSize, capacity, ringSize ? ringSize : defaultRingSize(capacity));
   if (!geometry) {
      throw MountException("no segment layout for capacity " + std::to_string(capacity) + " of " +
                           std::string(typeName));
   }
   spaceCheck(shmName, geometry->totalSize);
   const std::string making = makingName(shmName);
   int fd = ::shm_open(making.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
   if (fd < 0) throw MountException(sysError("cannot create", shmName));
   // Shared with the trusted group's processes, which map it for writing too (their doorbells).
   if (trustedGroup != gid_t(-1) &&
       (::fchown(fd, uid_t(-1), trustedGroup) != 0 || ::fchmod(fd, 0660) != 0)) {
      const std::string refusal = sysError("cannot share with the group", shmName);
      ::close(fd);
      ::shm_unlink(making.c_str());
      throw MountException(refusal);
   }
   const std::size_t size = geometry->totalSize;
   Mapping m;
   struct stat st {};
   try {
      if (::ftruncate(fd, static_cast<off_t>(size)) != 0 || ::fstat(fd, &st) != 0) {
         throw MountException(sysError("cannot size", shmName));
      }
      m = mapGuarded(fd, size, shmName);
   } catch (...) {
      ::close(fd);
      ::shm_unlink(making.c_str());
      throw;
   }
   ::close(fd);

   // The file starts zeroed: every slot free, every index cell empty, every ring tag 0.
   auto* header = new (m.base) Header{};
   header->writerPid.store(static_cast<std::uint32_t>(::getpid()), std::memory_order_release);
   header->layoutVersion = layoutVersion;
   header->headerSize = sizeof(Header);
   std::memcpy(header->typeName, typeName.data(), typeName.size());
   header->geometry = *geometry;
   header->checksum = headerChecksum(*header);
   std::atomic_ref<std::uint64_t>(header->magic).store(magic, std::memory_order_release);

   // The real name last, and only if nobody holds it: a link never replaces a name.
   auto named = [&] { return ::link(shmPath(making).c_str(), shmPath(shmName).c_str()) == 0; };
   bool linked = named();
   std::exception_ptr refusal;
   try {
      if (!linked && errno == EEXIST && staleSegment(shmName)) {
         ::shm_unlink(shmName.c_str());
         linked = named();
      }
      if (!linked) throw MountException(sysError("cannot create", shmName));
   } catch (...) {
      refusal = std::current_exception();
   }
   ::shm_unlink(making.c_str());
   if (refusal) {
      unmap(m);
      std::rethrow_exception(refusal);
   }
   auto segment =
       std::unique_ptr<Segment>(new Segment(shmName, m.base, size, *geometry, true, m.guard));
   segment->file_ = {std::uint64_t(st.st_dev), std::uint64_t(st.st_ino)};
   return segment;
}

std::unique_ptr<Segment> Segment::open(const std::string& shmName, std::string_view typeName,
                                       std::uint32_t keySize, std::uint32_t valueSize) {
   int fd = ::shm_open(shmName.c_str(), O_RDWR, 0);
   if (fd < 0 && errno == EACCES) {
      throw ForeignSegmentException("not serving " + shmName +
                                    ": permission denied (another user's)");
   }
   if (fd < 0) throw MountException(sysError("cannot open table", shmName));
   struct FdCloser {
      int fd;
      ~FdCloser() { ::close(fd); }
   } closer{fd};
   struct stat st {};
   if (::fstat(fd, &st) != 0) throw MountException(sysError("cannot stat table", shmName));
   if (std::string foreign = foreignOwner(st); !foreign.empty()) {
      throw ForeignSegmentException("not serving " + shmName + ": " + foreign);
   }
   // The header is read with pread: a file cut short meanwhile gives a short read, not a fault.
   // Only what it describes is mapped, once it has been checked against the file's size.
   Header copy;
   if (::pread(fd, &copy, offsetof(Header, writerPid), 0) != ssize_t(offsetof(Header, writerPid))) {
      throw Brio::CorruptionDetectedException(shmName + ": segment smaller than its header");
   }
   // Writers give a segment its name once its header is whole.
   if (copy.magic == 0) {
      throw Brio::CorruptionDetectedException(shmName + ": segment was never initialised");
   }
   if (copy.magic != magic) throw Brio::CorruptionDetectedException(shmName + ": bad magic");
   if (copy.layoutVersion != layoutVersion || copy.headerSize != sizeof(Header)) {
      throw MountException(shmName + ": incompatible layout version " +
                           std::to_string(copy.layoutVersion));
   }
   if (copy.checksum != headerChecksum(copy)) {
      throw Brio::CorruptionDetectedException(shmName + ": bad header checksum");
   }
   std::string_view foundType(copy.typeName, strnlen(copy.typeName, typeNameSize));
   if (foundType != typeName) {
      throw MountException(shmName + " holds " + std::string(foundType) + ", not " +
                           std::string(typeName));
   }
   const Geometry& g = copy.geometry;
   if (g.keySize != keySize || g.valueSize != valueSize) {
      throw MountException(shmName + ": incompatible layout: key and value of " +
                           std::to_string(g.keySize) + " and " + std::to_string(g.valueSize) +
                           " bytes, expected " + std::to_string(keySize) + " and " +
                           std::to_string(valueSize));
   }
   auto expected = geometryFor(g.keySize, g.valueSize, g.capacity, g.ringSize);
   if (!expected || !(*expected == g)) {
      throw Brio::CorruptionDetectedException(shmName + ": geometry does not hold together");
   }
   if (g.totalSize > std::uint64_t(st.st_size)) {
      throw Brio::CorruptionDetectedException(shmName + ": sizes do not fit the file");
   }
   Mapping m = mapGuarded(fd, g.totalSize, shmName);
   return std::unique_ptr<Segment>(new Segment(shmName, m.base, m.size, g, false, m.guard));
}

void Segment::unlink() {
   if (!linked_) return;
   linked_ = false;
   if (!lost()) header().writerPid.store(0, std::memory_order_release);
   // Whatever took the name meanwhile (someone who replaced a damaged segment) stays.
   struct stat st {};
   if (::stat(shmPath(shmName_).c_str(), &st) == 0 &&
       std::pair(std::uint64_t(st.st_dev), std::uint64_t(st.st_ino)) == file_) {
      ::shm_unlink(shmName_.c_str());
   }
}

void trustedGroupIs(gid_t group) {
   trustedGroup = group;
}

std::size_t staleSegmentsRemove(const std::string& prefix) {
   std::size_t removed = 0;
   std::error_code ec;
   const std::string stem = prefix.substr(prefix.starts_with("/") ? 1 : 0);
   for (const auto& file : std::filesystem::directory_iterator("/dev/shm", ec)) {
      const std::string name = "/" + file.path().filename().string();
      if (!file.path().filename().string().starts_with(stem)) continue;
      struct stat st {};
      if (::lstat(file.path().c_str(), &st) != 0 || !S_ISREG(st.st_mode) ||
          st.st_uid != ::geteuid()) {
         continue;
      }
      try {
         if (staleSegment(name) && ::shm_unlink(name.c_str()) == 0) ++removed;
      } catch (const MountException&) {
      }
   }
   return removed;
}

bool Segment::writerAlive() const {
   return processAlive(header().writerPid.load(std::memory_order_acquire));
}

namespace {

socklen_t abstractAddress(sockaddr_un& address, std::string_view name) {
   address = {};
   address.sun_family = AF_UNIX;
   std::size_t length = std::min(name.size(), sizeof(address.sun_path) - 1);
   std::memcpy(address.sun_path + 1, name.data(), length);
   return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + length);
}

}  // namespace

void Segment::waitersPoke() {
   // Seq-cst, after the writer's seq-cst store of the ring head: either this load sees a
   // reader's arming or that reader's re-check sees the new head.
   if (header().armedMask.load(std::memory_order_seq_cst) == 0) return;
   std::uint64_t mask = header().armedMask.exchange(0, std::memory_order_seq_cst);
   if (pokeFd_ < 0) pokeFd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
   for (; mask != 0; mask &= mask - 1) {
      std::uint32_t i = static_cast<std::uint32_t>(std::countr_zero(mask));
      Waiter& w = waiter(i);
      std::uint32_t claimer = w.claimed.load(std::memory_order_acquire);
      if (claimer == 0) continue;
      // The name is the reader's to write; take it no further than its place.
      std::string_view name(w.name, strnlen(w.name, waiterNameSize));
      sockaddr_un address;
      socklen_t length = abstractAddress(address, name);
      const char byte = 1;
      if (::sendto(pokeFd_, &byte, 1, MSG_DONTWAIT | MSG_NOSIGNAL,
                   reinterpret_cast<sockaddr*>(&address), length) < 0 &&
          (errno == ECONNREFUSED || errno == ENOENT)) {
         // The reader is gone without signing off.
         w.claimed.compare_exchange_strong(claimer, 0);
      }
   }
}

Doorbell::Doorbell(Segment& segment) : segment_(segment) {
   static std::atomic<std::uint32_t> serial{0};
   std::uint32_t pid = static_cast<std::uint32_t>(::getpid());
   name_ = "vault." + std::to_string(pid) + "." + std::to_string(serial.fetch_add(1)) + "." +
           std::to_string(reinterpret_cast<std::uintptr_t>(this) & 0xFFFFFF);
   fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
   sockaddr_un address;
   socklen_t length = abstractAddress(address, name_);
   if (fd_ >= 0 && ::bind(fd_, reinterpret_cast<sockaddr*>(&address), length) == 0) {
      for (std::uint32_t i = 0; i < maxWaiters && waiter_ < 0; ++i) {
         Waiter& w = segment_.waiter(i);
         std::uint32_t claimer = w.claimed.load(std::memory_order_acquire);
         if (claimer != 0 && processAlive(claimer)) continue;
         if (!w.claimed.compare_exchange_strong(claimer, pid)) continue;
         w.pid = pid;
         std::memset(w.name, 0, waiterNameSize);
         std::memcpy(w.name, name_.data(), std::min(name_.size(), waiterNameSize - 1));
         waiter_ = static_cast<int>(i);
      }
   }
   if (waiter_ >= 0) return;
   // No place to leave a name: look for changes every two milliseconds instead.
   if (fd_ >= 0) ::close(fd_);
   fd_ = ::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
   if (fd_ < 0) throw MountException("cannot create a change descriptor for " + segment.shmName());
   itimerspec period{{0, 2'000'000}, {0, 2'000'000}};
   ::timerfd_settime(fd_, 0, &period, nullptr);
}

Doorbell::~Doorbell() {
   if (waiter_ >= 0) {
      auto bit = std::uint64_t(1) << waiter_;
      segment_.header().armedMask.fetch_and(~bit);
      std::uint32_t pid = static_cast<std::uint32_t>(::getpid());
      segment_.waiter(static_cast<std::uint32_t>(waiter_)).claimed.compare_exchange_strong(pid, 0);
   }
   if (fd_ >= 0) ::close(fd_);
}

void Doorbell::drain() {
   char buffer[64];
   while (::read(fd_, buffer, sizeof buffer) > 0) {
   }
}

void Doorbell::arm() {
   if (waiter_ < 0) return;
   segment_.header().armedMask.fetch_or(std::uint64_t(1) << waiter_, std::memory_order_seq_cst);
}

void Doorbell::ringSelf() {
   if (waiter_ < 0) return;
   sockaddr_un address;
   socklen_t length = abstractAddress(address, name_);
   const char byte = 1;
   ::sendto(fd_, &byte, 1, MSG_DONTWAIT | MSG_NOSIGNAL, reinterpret_cast<sockaddr*>(&address),
            length);
}

}  // namespace Vault::Shm
