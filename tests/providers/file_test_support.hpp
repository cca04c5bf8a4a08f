// Helpers for the file store's tests: a scratch folder on disk, IRIs into it, and running
// a shell command in another process.
#pragma once

#include <fl/i18n.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>
#include <support/TempFolder.hpp>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/fs.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

extern char** environ;

namespace filetest {

namespace sp = foundation::storage::provider;

// Sets or clears the immutable flag of `path`. Returns false when the file system or the
// process's privileges do not allow it.
inline bool setImmutable(std::string const& path, bool on) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return false;
  int flags = 0;
  bool ok = ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
  if (ok) {
    flags = on ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
    ok = ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
  }
  ::close(fd);
  return ok;
}

// The shared temporary folder, with IRIs into it; on destruction it first clears the
// immutable flags a test left on its folders, which would keep them from being removed.
class ScratchFolder : public support::TempFolder {
 public:
  ScratchFolder() : TempFolder("filestore") {}
  ~ScratchFolder() { thaw(path()); }

  // file:///<scratch>/<relative>
  sp::StorageIRI iri(std::string const& relative = {}) const {
    auto text = u"file://" + fl::i18n::to_ustring(path().string());
    if (!relative.empty()) text += u"/" + fl::i18n::to_ustring(relative);
    return sp::StorageIRI(text);
  }

 private:
  static void thaw(std::filesystem::path const& folder) {
    setImmutable(folder, false);
    ::chmod(folder.c_str(), 0700);
    std::error_code ec;
    for (auto const& entry : std::filesystem::directory_iterator(folder, ec)) {
      if (entry.is_directory(ec) && !entry.is_symlink(ec)) thaw(entry.path());
    }
  }
};

// Runs `/bin/sh -c command` in `folder` in a child process and returns its exit status
// (or -1 when it could not run).
inline int runShell(std::string const& folder, std::string const& command) {
  std::string const script = "cd '" + folder + "' && " + command;
  char const* argv[] = {"sh", "-c", script.c_str(), nullptr};
  pid_t pid = 0;
  if (::posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char* const*>(argv), environ) != 0) return -1;
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace filetest
