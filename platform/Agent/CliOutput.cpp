#include "Agent/CliOutput.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace Agent {

bool outputWrite(int fd, std::string_view text) {
   while (!text.empty()) {
      const ssize_t n = write(fd, text.data(), text.size());
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      text.remove_prefix(static_cast<std::size_t>(n));
   }
   return true;
}

bool outputBacklogged(int fd) {
   struct stat st {};
   if (fstat(fd, &st) != 0) return false;
   int queued = 0;
   int capacity = 0;
   if (S_ISFIFO(st.st_mode)) {
      if (ioctl(fd, FIONREAD, &queued) != 0) return false;
      capacity = fcntl(fd, F_GETPIPE_SZ);
   } else if (S_ISSOCK(st.st_mode)) {
      socklen_t len = sizeof capacity;
      if (ioctl(fd, SIOCOUTQ, &queued) != 0) return false;
      if (getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &capacity, &len) != 0) return false;
   } else {
      return false;
   }
   // Half full leaves a slice's worth of room for what the dump writes before it asks again.
   return capacity > 0 && queued * 2 >= capacity;
}

}  // namespace Agent
