// The overlay's cache folder for one run of ovl.
//
// Made under the temporary directory as "ovl-cache-<pid>-<random>", marked with its owner
// (the process id and the process's start time, in the file "owner"), and removed when
// the run ends, also after Ctrl-C or SIGTERM (see Interrupt.hpp). A run that was killed
// outright leaves its folder; the next run that makes one removes every folder whose
// owner is no longer alive (a process id now used by another process counts as gone: the
// start time differs). Folders of live owners are never touched.
#pragma once

#include <cstddef>
#include <filesystem>

namespace ovl {

class CacheRoot {
 public:
  // Removes leftovers of dead owners, then makes this run's folder. Throws
  // std::filesystem::filesystem_error when the folder cannot be made.
  CacheRoot();
  // Removes the folder with everything in it; errors are ignored.
  ~CacheRoot();
  CacheRoot(CacheRoot const&) = delete;
  CacheRoot& operator=(CacheRoot const&) = delete;

  std::filesystem::path const& path() const { return path_; }

  // Removes the folders "ovl-cache-*" under `folder` whose owner is not alive (or that
  // carry no readable owner and are older than a minute: a run killed while making one).
  // Returns how many it removed.
  static std::size_t sweep(std::filesystem::path const& folder);

 private:
  std::filesystem::path path_;
};

}  // namespace ovl
