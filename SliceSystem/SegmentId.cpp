#include "SliceSystem/SegmentId.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace SliceSystem {

SegmentId segmentId(const std::string& shmName) {
   int fd = ::shm_open(shmName.c_str(), O_RDONLY, 0);
   if (fd < 0) return std::nullopt;
   struct stat st {};
   SegmentId id;
   if (::fstat(fd, &st) == 0)
      id = std::make_pair(std::uint64_t(st.st_dev), std::uint64_t(st.st_ino));
   ::close(fd);
   return id;
}

}  // namespace SliceSystem
