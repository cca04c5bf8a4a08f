// TempFolder: a folder of its own on disk for the life of a test.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <system_error>

namespace support {

// The whole content of the file at `path` ("" when it cannot be read).
inline std::string readFile(std::filesystem::path const& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Writes `content` to the file at `path`, replacing what it held; throws when it cannot.
inline void writeFile(std::filesystem::path const& path, std::string const& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  if (!out) throw std::runtime_error("cannot write " + path.string());
}

// A fresh folder (named "<prefix>-XXXXXX", readable by every user) under `parent`, the
// temporary directory unless a test needs another file system. Destruction gives the
// owner back every permission a test took away below it, then removes it with everything
// in it.
class TempFolder {
 public:
  explicit TempFolder(std::string const& prefix = "ovl-test",
                      std::filesystem::path const& parent = std::filesystem::temp_directory_path()) {
    std::string pattern = (parent / (prefix + "-XXXXXX")).string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::system_error(errno, std::generic_category(), pattern);
    path_ = std::filesystem::canonical(pattern);
    ::chmod(path_.c_str(), 0755);
  }
  ~TempFolder() {
    namespace fs = std::filesystem;
    std::error_code ignored;
    fs::permissions(path_, fs::perms::owner_all, fs::perm_options::add, ignored);
    // A folder is made accessible when visited, before the iterator enters it.
    for (auto it = fs::recursive_directory_iterator(path_, ignored); it != fs::recursive_directory_iterator();
         it.increment(ignored)) {
      if (!it->is_symlink(ignored)) fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ignored);
    }
    fs::remove_all(path_, ignored);
  }
  TempFolder(TempFolder const&) = delete;
  TempFolder& operator=(TempFolder const&) = delete;

  std::filesystem::path const& path() const { return path_; }
  std::filesystem::path path(std::string const& relative) const { return path_ / relative; }

  void write(std::string const& relative, std::string const& content) const { writeFile(path(relative), content); }
  std::string read(std::string const& relative) const { return readFile(path(relative)); }
  void mkdir(std::string const& relative) const { std::filesystem::create_directories(path(relative)); }
  // True when something (even a dangling link) stands at `relative`.
  bool exists(std::string const& relative) const {
    struct stat st {};
    return ::lstat(path(relative).c_str(), &st) == 0;
  }

 private:
  std::filesystem::path path_;
};

}  // namespace support
