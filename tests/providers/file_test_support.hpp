// Helpers for the file store's tests: a scratch folder on disk, IRIs into it, and running
// a shell command in another process.
#pragma once

#include <fl/i18n.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/fs.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
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

// A fresh folder under the temporary directory, readable by every user, removed with
// everything in it (whatever permissions or immutable flags a test left) on destruction.
class ScratchFolder {
 public:
  ScratchFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "filestore-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    path_ = std::filesystem::canonical(pattern).string();
    ::chmod(path_.c_str(), 0755);
  }
  ~ScratchFolder() {
    std::error_code ec;
    unlock(path_);
    std::filesystem::remove_all(path_, ec);
  }
  ScratchFolder(ScratchFolder const&) = delete;
  ScratchFolder& operator=(ScratchFolder const&) = delete;

  std::string const& path() const { return path_; }
  std::string path(std::string const& relative) const { return path_ + "/" + relative; }

  // file:///<scratch>/<relative>
  sp::StorageIRI iri(std::string const& relative = {}) const {
    auto text = u"file://" + fl::i18n::to_ustring(path_);
    if (!relative.empty()) text += u"/" + fl::i18n::to_ustring(relative);
    return sp::StorageIRI(text);
  }

  void write(std::string const& relative, std::string const& content) const {
    std::ofstream out(path(relative), std::ios::binary | std::ios::trunc);
    out << content;
    if (!out) throw std::runtime_error("cannot write " + path(relative));
  }
  std::string read(std::string const& relative) const {
    std::ifstream in(path(relative), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  void mkdir(std::string const& relative) const { std::filesystem::create_directories(path(relative)); }
  bool exists(std::string const& relative) const {
    struct stat st {};
    return ::lstat(path(relative).c_str(), &st) == 0;
  }

 private:
  // Makes everything below `path` removable again (tests make only folders immutable).
  static void unlock(std::string const& path) {
    setImmutable(path, false);
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return;
    ::chmod(path.c_str(), 0700);
    std::error_code ec;
    for (auto const& entry : std::filesystem::directory_iterator(path, ec)) {
      if (entry.is_directory(ec) && !entry.is_symlink(ec)) unlock(entry.path().string());
    }
  }

  std::string path_;
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
