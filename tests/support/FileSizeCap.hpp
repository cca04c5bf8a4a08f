// FileSizeCap: a full disk, as far as the growth of files goes, for tests.
#pragma once

#include <sys/resource.h>

#include <csignal>

namespace support {

// Caps the size of every file this process writes (RLIMIT_FSIZE) while it lives, as a
// full disk would stop files from growing; a write beyond the cap then fails (EFBIG,
// with SIGXFSZ ignored) instead of ending the process. The mem store keeps its files in
// memory and is not affected; local folders and the overlay's cache files are.
class FileSizeCap {
 public:
  explicit FileSizeCap(rlim_t bytes) : oldHandler_(std::signal(SIGXFSZ, SIG_IGN)) {
    ::getrlimit(RLIMIT_FSIZE, &old_);
    rlimit capped = old_;
    capped.rlim_cur = bytes;
    applied_ = ::setrlimit(RLIMIT_FSIZE, &capped) == 0;
  }
  ~FileSizeCap() {
    ::setrlimit(RLIMIT_FSIZE, &old_);
    std::signal(SIGXFSZ, oldHandler_);
  }
  FileSizeCap(FileSizeCap const&) = delete;
  FileSizeCap& operator=(FileSizeCap const&) = delete;
  bool applied() const { return applied_; }

 private:
  rlimit old_{};
  void (*oldHandler_)(int);
  bool applied_ = false;
};

}  // namespace support
