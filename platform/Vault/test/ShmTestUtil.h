#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>
#include <vector>

// Names that no other test run can share: the process id and a counter.
inline std::string uniqueShmName(const std::string& what) {
   static std::atomic<int> serial{0};
   return "/vaulttest." + std::to_string(::getpid()) + "." + std::to_string(serial++) + "." + what;
}

// The bytes of a segment, as any process could map them.
class RawSegment {
 public:
   explicit RawSegment(const std::string& shmName) {
      int fd = ::shm_open(shmName.c_str(), O_RDWR, 0);
      struct stat st {};
      ::fstat(fd, &st);
      size_ = static_cast<std::size_t>(st.st_size);
      base_ = static_cast<unsigned char*>(
          ::mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
      ::close(fd);
   }
   ~RawSegment() { ::munmap(base_, size_); }
   unsigned char* bytes() { return base_; }
   std::size_t size() const { return size_; }
   std::vector<unsigned char> copy() const { return {base_, base_ + size_}; }

 private:
   unsigned char* base_;
   std::size_t size_;
};

// Writes `bytes` as the segment `shmName`, which the caller unlinks.
inline void shmWrite(const std::string& shmName, const std::vector<unsigned char>& bytes) {
   int fd = ::shm_open(shmName.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
   if (::ftruncate(fd, static_cast<off_t>(bytes.size())) != 0) return;
   void* base = ::mmap(nullptr, bytes.size(), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
   std::memcpy(base, bytes.data(), bytes.size());
   ::munmap(base, bytes.size());
   ::close(fd);
}

inline bool readable(int fd, int timeoutMsecs) {
   pollfd p{fd, POLLIN, 0};
   return ::poll(&p, 1, timeoutMsecs) == 1;
}
