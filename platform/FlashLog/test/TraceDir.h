#pragma once

// A fresh directory that FLASHLOGDIR points to for the duration of a test.

#include <stdlib.h>

#include <filesystem>
#include <string>

namespace FlashLog::test {

class TraceDir {
 public:
   TraceDir() {
      char pattern[] = "/tmp/flashlog-test-XXXXXX";
      path_ = mkdtemp(pattern);
      setenv("FLASHLOGDIR", path_.c_str(), 1);
   }
   ~TraceDir() {
      unsetenv("FLASHLOGDIR");
      std::filesystem::remove_all(path_);
   }
   const std::string& path() const { return path_; }

 private:
   std::string path_;
};

}  // namespace FlashLog::test
