#pragma once

// FileSizeLimit: lowers the soft limit on the size of the files this process writes, and ignores
// the signal that crossing it raises, until destroyed; a write beyond the limit then fails as on
// a full disk. For tests only.

#include <sys/resource.h>

#include <csignal>

namespace Tarn::testing {

class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) : handler_(std::signal(SIGXFSZ, SIG_IGN)) {
    ::getrlimit(RLIMIT_FSIZE, &saved_);
    rlimit lowered = saved_;
    lowered.rlim_cur = bytes;
    ::setrlimit(RLIMIT_FSIZE, &lowered);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;
  ~FileSizeLimit() {
    ::setrlimit(RLIMIT_FSIZE, &saved_);
    std::signal(SIGXFSZ, handler_);
  }

 private:
  void (*handler_)(int);
  rlimit saved_{};
};

}  // namespace Tarn::testing
