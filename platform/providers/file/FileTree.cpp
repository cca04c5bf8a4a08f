#include "FileTree.hpp"

#include "OsErrors.hpp"

#include <fl/i18n.hpp>
#include <foundation/log/basic_diagnostic_logger.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <dirent.h>
#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

namespace providers::file::detail {

namespace {

foundation::log::diagnostic_logger& logger() {
  static foundation::log::diagnostic_logger instance("providers::file");
  return instance;
}

constexpr std::size_t kCopyChunk = 1 << 20;

bool isControl(char16_t c) { return c < 0x20 || c == 0x7F; }

// The IRI of the child `name` of `parent`, or `parent` itself when the name cannot be
// written into an IRI (so that an error can still name the nearest addressable item).
sp::StorageIRI childIri(sp::StorageIRI const& parent, std::u16string const& name) {
  if (name.empty()) return parent;
  try {
    return sp::StorageIRI(parent, name);
  } catch (std::exception const&) {
    return parent;
  }
}

std::string joinPath(std::string const& folder, std::string const& name) {
  if (!folder.empty() && folder.back() == '/') return folder + name;
  return folder + "/" + name;
}

std::string parentOf(std::string const& path) {
  auto slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

std::string nameOf(std::string const& path) {
  auto slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::optional<struct stat> lstatPath(std::string const& path, sp::StorageIRI const& iri) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) == 0) return st;
  if (errno == ENOENT || errno == ENOTDIR) return std::nullopt;
  throw osFailure(errno, iri, "cannot read attributes");
}

// Copies the "user." extended attributes of `in` to `out`, as far as both file systems
// keep them. Best effort: a move or copy does not fail for want of xattr support.
void copyUserXattrs(int in, int out) {
  ssize_t size = ::flistxattr(in, nullptr, 0);
  if (size <= 0) return;
  std::string names(static_cast<std::size_t>(size), '\0');
  size = ::flistxattr(in, names.data(), names.size());
  if (size <= 0) return;
  names.resize(static_cast<std::size_t>(size));
  for (std::size_t pos = 0; pos < names.size();) {
    std::string name(names.c_str() + pos);
    pos += name.size() + 1;
    if (name.rfind("user.", 0) != 0) continue;
    ssize_t length = ::fgetxattr(in, name.c_str(), nullptr, 0);
    if (length < 0) continue;
    std::string value(static_cast<std::size_t>(length), '\0');
    length = ::fgetxattr(in, name.c_str(), value.data(), value.size());
    if (length < 0) continue;
    (void)::fsetxattr(out, name.c_str(), value.data(), static_cast<std::size_t>(length), 0);
  }
}

// A file descriptor closed on destruction.
class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) ::close(fd_);
  }
  Fd(Fd const&) = delete;
  Fd& operator=(Fd const&) = delete;
  int get() const { return fd_; }
  // Closes now; returns 0 or the errno of close.
  int close() {
    int result = ::close(fd_) == 0 || errno == EINTR ? 0 : errno;
    fd_ = -1;
    return result;
  }

 private:
  int fd_;
};

void copyTree(std::string const& src, std::string const& dst, sp::StorageIRI const& srcIri, sp::StorageIRI const& dstIri);

// Moves across file systems: copy, then remove the source. Caller knows `dst` is free.
void crossDeviceMove(std::string const& src, std::string const& dst, sp::StorageIRI const& srcIri,
                     sp::StorageIRI const& dstIri, bool noReplace) {
  auto st = lstatPath(src, srcIri);
  if (!st) throw sp::Exception(sp::ErrorCode::DoesNotExist, srcIri, "the source vanished during the move");
  if (S_ISDIR(st->st_mode)) {
    copyTree(src, dst, srcIri, dstIri);
    DirFd parent = openFolder(parentOf(src), srcIri);
    removeTree(parent.get(), nameOf(src), srcIri);
    return;
  }
  if (S_ISLNK(st->st_mode)) {
    std::string target(PATH_MAX, '\0');
    ssize_t n = ::readlink(src.c_str(), target.data(), target.size());
    if (n < 0) throw osFailure(errno, srcIri, "cannot read symbolic link");
    target.resize(static_cast<std::size_t>(n));
    if (::symlink(target.c_str(), dst.c_str()) != 0) throw osFailure(errno, dstIri, "cannot create symbolic link");
  } else if (S_ISREG(st->st_mode)) {
    std::string scratch = copyToScratch(src, parentOf(dst), nameOf(dst), srcIri, dstIri, true);
    int err = noReplace ? renameNoReplace(scratch, dst) : (::rename(scratch.c_str(), dst.c_str()) == 0 ? 0 : errno);
    if (err != 0) {
      ::unlink(scratch.c_str());
      throw osFailure(err, dstIri, "cannot move the copy into place");
    }
  } else {
    throw sp::Exception(sp::ErrorCode::NotSupported, srcIri, "only files, folders and links move across file systems");
  }
  if (::unlink(src.c_str()) != 0 && errno != ENOENT) throw osFailure(errno, srcIri, "cannot remove the moved source");
}

// Copies the folder `src` with everything in it to the new folder `dst`; on failure
// removes what it made.
void copyTree(std::string const& src, std::string const& dst, sp::StorageIRI const& srcIri, sp::StorageIRI const& dstIri) {
  DirFd in = openFolder(src, srcIri);
  struct stat st {};
  if (::fstat(in.get(), &st) != 0) throw osFailure(errno, srcIri, "cannot read attributes");
  if (::mkdir(dst.c_str(), 0700) != 0) throw osFailure(errno, dstIri, "cannot create folder");
  try {
    for (auto const& entry : readFolder(in.get(), srcIri, false)) {
      auto const from = joinPath(src, entry.nativeName);
      auto const to = joinPath(dst, entry.nativeName);
      auto const fromIri = childIri(srcIri, entry.name);
      auto const toIri = childIri(dstIri, entry.name);
      if (S_ISDIR(entry.st.st_mode)) {
        copyTree(from, to, fromIri, toIri);
      } else if (S_ISREG(entry.st.st_mode)) {
        std::string scratch = copyToScratch(from, dst, entry.nativeName, fromIri, toIri, true);
        if (::rename(scratch.c_str(), to.c_str()) != 0) {
          int err = errno;
          ::unlink(scratch.c_str());
          throw osFailure(err, toIri, "cannot move the copy into place");
        }
      } else if (S_ISLNK(entry.st.st_mode)) {
        std::string target(PATH_MAX, '\0');
        ssize_t n = ::readlinkat(in.get(), entry.nativeName.c_str(), target.data(), target.size());
        if (n < 0) throw osFailure(errno, fromIri, "cannot read symbolic link");
        target.resize(static_cast<std::size_t>(n));
        if (::symlink(target.c_str(), to.c_str()) != 0) throw osFailure(errno, toIri, "cannot create symbolic link");
      } else {
        logger().log(foundation::log::Warning, "Not copied (neither file, folder nor link): " + from);
      }
    }
    DirFd out = openFolder(dst, dstIri);
    struct timespec times[2] = {st.st_atim, st.st_mtim};
    (void)::fchmod(out.get(), st.st_mode & 07777);
    (void)::futimens(out.get(), times);
  } catch (...) {
    try {
      DirFd parent = openFolder(parentOf(dst), dstIri);
      removeTree(parent.get(), nameOf(dst), dstIri);
    } catch (std::exception const& e) {
      logger().log(foundation::log::Error, std::string("Could not remove a partial copy: ") + e.what());
    }
    throw;
  }
}

// The depth-first walk of listTree: one frame per folder open on the way down, each with
// its sorted entries and how far they have been handed out.
class TreeListing : public sp::LookAheadFolderEntryIterator {
 public:
  TreeListing(std::string const& path, sp::StorageIRI const& iri) {
    DirFd dir = openFolder(path, iri);
    struct stat st {};
    if (::fstat(dir.get(), &st) != 0) throw osFailure(errno, iri, "cannot read attributes");
    enter(std::move(dir), {}, iri, {st.st_dev, st.st_ino});
  }

 private:
  struct Frame {
    DirFd dir;
    std::u16string prefix;  // the folder's path relative to the listed one; empty for it
    sp::StorageIRI iri;
    std::pair<dev_t, ino_t> id;
    std::vector<NativeEntry> entries;
    std::size_t next = 0;
  };

  void enter(DirFd dir, std::u16string prefix, sp::StorageIRI iri, std::pair<dev_t, ino_t> id) {
    auto entries = readFolder(dir.get(), iri, true);
    frames_.push_back(Frame{std::move(dir), std::move(prefix), std::move(iri), id, std::move(entries), 0});
  }

  bool onTheWayDown(std::pair<dev_t, ino_t> id) const {
    return std::any_of(frames_.begin(), frames_.end(), [&](Frame const& frame) { return frame.id == id; });
  }

  // The next entry, after entering the folder handed out last.
  std::optional<sp::FolderEntry> findNext() override {
    if (descend_) {
      auto folder = std::move(*descend_);
      descend_.reset();
      auto& frame = frames_.back();
      auto const& entry = frame.entries[frame.next - 1];
      auto child = childIri(frame.iri, entry.name);
      DirFd sub = openChildFolder(frame.dir.get(), entry.nativeName, child, true);
      if (sub.valid()) enter(std::move(sub), std::move(folder), std::move(child), {entry.st.st_dev, entry.st.st_ino});
    }
    while (!frames_.empty()) {
      auto& frame = frames_.back();
      if (frame.next == frame.entries.size()) {
        frames_.pop_back();
        continue;
      }
      auto const& entry = frame.entries[frame.next++];
      auto relative = frame.prefix.empty() ? entry.name : frame.prefix + u"/" + entry.name;
      if (S_ISREG(entry.st.st_mode)) return sp::FolderEntry(std::move(relative), fileAttributesOf(entry.st));
      sp::FolderEntry folder(relative, folderAttributesOf(entry.st));
      if (!onTheWayDown({entry.st.st_dev, entry.st.st_ino})) descend_ = std::move(relative);  // not a link cycle
      return folder;
    }
    return std::nullopt;
  }

  std::vector<Frame> frames_;
  std::optional<std::u16string> descend_;  // a folder handed out, to be entered next
};

}  // namespace

void modificationTimes(boost::posix_time::ptime const& time, struct timespec (&times)[2]) {
  static boost::posix_time::ptime const epoch(boost::gregorian::date(1970, 1, 1));
  long long const us = (time - epoch).total_microseconds();
  long long seconds = us / 1000000;
  long long rest = us % 1000000;
  if (rest < 0) {  // before 1970: the nanoseconds must still be non-negative
    rest += 1000000;
    --seconds;
  }
  times[0].tv_sec = 0;
  times[0].tv_nsec = UTIME_OMIT;
  times[1].tv_sec = static_cast<time_t>(seconds);
  times[1].tv_nsec = static_cast<long>(rest * 1000);
}

boost::posix_time::ptime toPtime(struct timespec const& ts) {
  static boost::posix_time::ptime const epoch(boost::gregorian::date(1970, 1, 1));
  return epoch + boost::posix_time::seconds(ts.tv_sec) + boost::posix_time::microseconds(ts.tv_nsec / 1000);
}

sp::FileAttributes fileAttributesOf(struct stat const& st) {
  return sp::FileAttributes(static_cast<unsigned long>(st.st_size), toPtime(st.st_mtim), (st.st_mode & S_IWUSR) != 0);
}

sp::FolderAttributes folderAttributesOf(struct stat const& st) {
  return sp::FolderAttributes(toPtime(st.st_mtim), (st.st_mode & S_IWUSR) != 0);
}

std::string watermarkOf(struct stat const& st) {
  long long const ns = static_cast<long long>(st.st_mtim.tv_sec) * 1000000000LL + st.st_mtim.tv_nsec;
  return std::to_string(ns) + "-" + std::to_string(static_cast<long long>(st.st_size)) + "-" +
         std::to_string(static_cast<unsigned long long>(st.st_ino));
}

std::optional<struct stat> statPath(std::string const& path, sp::StorageIRI const& iri) {
  struct stat st {};
  if (::stat(path.c_str(), &st) == 0) return st;
  if (errno == ENOENT || errno == ENOTDIR || errno == ENAMETOOLONG) return std::nullopt;
  throw osFailure(errno, iri, "cannot read attributes");
}

DirFd::~DirFd() {
  if (fd_ >= 0) ::close(fd_);
}

DirFd& DirFd::operator=(DirFd&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = std::exchange(other.fd_, -1);
  }
  return *this;
}

DirFd openFolder(std::string const& path, sp::StorageIRI const& iri) {
  int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd >= 0) return DirFd(fd);
  int const err = errno;
  if (err == ENOENT || err == ENOTDIR) throw osFailure(sp::ErrorCode::DoesNotExist, err, iri, "no folder here");
  if (err == EACCES || err == EPERM) throw osFailure(sp::ErrorCode::NotWritable, err, iri, "cannot read folder");
  throw osFailure(err, iri, "cannot open folder");
}

DirFd openChildFolder(int parent, std::string const& name, sp::StorageIRI const& iri, bool followLinks) {
  int fd = ::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | (followLinks ? 0 : O_NOFOLLOW));
  if (fd >= 0) return DirFd(fd);
  int const err = errno;
  if (err == ENOENT || err == ENOTDIR) return DirFd();
  if (err == EACCES || err == EPERM) throw osFailure(sp::ErrorCode::NotWritable, err, iri, "cannot read folder");
  throw osFailure(err, iri, "cannot open folder");
}

namespace {

// Calls `visit` with each entry of the open folder `dir` (named `iri`) but "." and "..",
// in the order the file system gives them. Reads through a duplicate of the descriptor,
// from the folder's beginning whatever an earlier reader left (the duplicate shares the
// file offset with `dir`). Throws naming `iri` when the folder cannot be read.
template <class Visit>
void forEachEntry(int dir, sp::StorageIRI const& iri, Visit&& visit) {
  int copy = ::fcntl(dir, F_DUPFD_CLOEXEC, 0);
  if (copy < 0) throw osFailure(errno, iri, "cannot read folder");
  DIR* stream = ::fdopendir(copy);
  if (!stream) {
    int const err = errno;
    ::close(copy);
    throw osFailure(err, iri, "cannot read folder");
  }
  std::unique_ptr<DIR, int (*)(DIR*)> guard(stream, ::closedir);
  ::rewinddir(stream);
  for (;;) {
    errno = 0;
    dirent* d = ::readdir(stream);
    if (!d) {
      if (errno != 0) throw osFailure(errno, iri, "cannot read folder");
      return;
    }
    if (std::strcmp(d->d_name, ".") == 0 || std::strcmp(d->d_name, "..") == 0) continue;
    visit(*d);
  }
}

}  // namespace

std::vector<std::string> readSubFolders(int dir, sp::StorageIRI const& iri) {
  std::vector<std::string> folders;
  forEachEntry(dir, iri, [&](dirent const& d) {
    if (d.d_type != DT_DIR && d.d_type != DT_UNKNOWN) return;
    if (d.d_type == DT_UNKNOWN) {
      struct stat st {};
      if (::fstatat(dir, d.d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISDIR(st.st_mode)) return;
    }
    folders.emplace_back(d.d_name);
  });
  return folders;
}

std::vector<NativeEntry> readFolder(int dir, sp::StorageIRI const& iri, bool followLinks, bool kindsOnly) {
  std::vector<NativeEntry> entries;
  forEachEntry(dir, iri, [&](dirent const& d) {
    NativeEntry entry;
    entry.nativeName = d.d_name;
    try {
      entry.name = fl::i18n::to_ustring(entry.nativeName);
    } catch (std::exception const&) {
      entry.name.clear();
    }
    bool const addressable =
        !entry.name.empty() && std::none_of(entry.name.begin(), entry.name.end(), isControl);
    if (followLinks && !addressable) {
      if (logger().isEnabled(foundation::log::Notice)) {
        logger().log(foundation::log::Notice, "Left out of the listing of " + iri.toUtf8() +
                                                  ": a name that is not valid UTF-8 or holds control characters");
      }
      return;
    }
    mode_t const kind = d.d_type == DT_DIR ? S_IFDIR : d.d_type == DT_REG ? S_IFREG : d.d_type == DT_LNK ? S_IFLNK : 0;
    if (kindsOnly && !followLinks && kind != 0) {
      entry.st = {};
      entry.st.st_mode = kind;
      entry.isLink = kind == S_IFLNK;
      entries.push_back(std::move(entry));
      return;
    }
    if (::fstatat(dir, entry.nativeName.c_str(), &entry.st, followLinks ? 0 : AT_SYMLINK_NOFOLLOW) != 0) {
      int const err = errno;
      if (err == ENOENT) return;  // vanished, or a dangling link
      if (err == EACCES) throw osFailure(sp::ErrorCode::NotWritable, err, iri, "cannot read folder entries");
      throw osFailure(err, childIri(iri, entry.name), "cannot read attributes");
    }
    if (followLinks) {
      if (!S_ISREG(entry.st.st_mode) && !S_ISDIR(entry.st.st_mode)) return;
    } else {
      entry.isLink = S_ISLNK(entry.st.st_mode);
    }
    entries.push_back(std::move(entry));
  });
  std::sort(entries.begin(), entries.end(), [](NativeEntry const& a, NativeEntry const& b) {
    return a.name != b.name ? a.name < b.name : a.nativeName < b.nativeName;
  });
  return entries;
}

std::vector<sp::FolderEntry> listFolder(std::string const& path, sp::StorageIRI const& iri, bool files, bool folders) {
  DirFd dir = openFolder(path, iri);
  std::vector<sp::FolderEntry> result;
  auto entries = readFolder(dir.get(), iri, true);
  result.reserve(entries.size());
  for (auto& entry : entries) {
    if (S_ISREG(entry.st.st_mode)) {
      if (files) result.emplace_back(std::move(entry.name), fileAttributesOf(entry.st));
    } else if (folders) {
      result.emplace_back(std::move(entry.name), folderAttributesOf(entry.st));
    }
  }
  return result;
}

sp::FolderEntryIteratorPtr listTree(std::string const& path, sp::StorageIRI const& iri) {
  return std::make_unique<TreeListing>(path, iri);
}

void removeTree(int parent, std::string const& name, sp::StorageIRI const& iri) {
  DirFd dir = openChildFolder(parent, name, iri, false);
  if (!dir.valid()) {
    // Gone, or not a folder any more (then it is removed as the entry it now is).
    if (::unlinkat(parent, name.c_str(), 0) != 0 && errno != ENOENT && errno != EISDIR) {
      throw osFailure(errno, iri, "cannot remove");
    }
    return;
  }
  for (auto const& entry : readFolder(dir.get(), iri, false)) {
    auto const child = childIri(iri, entry.name);
    if (S_ISDIR(entry.st.st_mode)) {
      removeTree(dir.get(), entry.nativeName, child);
    } else if (::unlinkat(dir.get(), entry.nativeName.c_str(), 0) != 0 && errno != ENOENT) {
      throw osFailure(errno, child, "cannot remove");
    }
  }
  if (::unlinkat(parent, name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT) {
    throw osFailure(errno, iri, "cannot remove folder");
  }
}

int copyContent(int in, int out) {
  // copy_file_range lets the kernel (or the file system) do the copy; it is refused
  // between some file systems, and then the bytes go through a buffer.
  for (;;) {
    ssize_t n = ::copy_file_range(in, nullptr, out, nullptr, 1 << 30, 0);
    if (n == 0) return 0;
    if (n > 0) continue;
    if (errno == EINTR) continue;
    if (errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP || errno == EBADF) break;
    return errno;
  }
  // Whatever copy_file_range managed is kept: both offsets moved past it.
  std::vector<char> buffer(kCopyChunk);
  for (;;) {
    ssize_t n = ::read(in, buffer.data(), buffer.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    if (n == 0) return 0;
    for (ssize_t done = 0; done < n;) {
      ssize_t w = ::write(out, buffer.data() + done, static_cast<std::size_t>(n - done));
      if (w < 0) {
        if (errno == EINTR) continue;
        return errno;
      }
      done += w;
    }
  }
}

std::string copyToScratch(std::string const& src, std::string const& dstFolder, std::string const& dstName,
                          sp::StorageIRI const& srcIri, sp::StorageIRI const& dstIri, bool preserve) {
  (void)dstName;  // the scratch name is fixed-length, so long destination names still fit
  Fd in(::open(src.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  if (in.get() < 0) throw osFailure(errno, srcIri, "cannot read");
  struct stat st {};
  if (::fstat(in.get(), &st) != 0) throw osFailure(errno, srcIri, "cannot read attributes");
  if (!S_ISREG(st.st_mode)) throw sp::Exception(sp::ErrorCode::DoesNotExist, srcIri, "not a file");

  std::string scratch = joinPath(dstFolder, ".filecopy.XXXXXX");
  Fd out(::mkostemp(scratch.data(), O_CLOEXEC));
  if (out.get() < 0) throw osFailure(errno, dstIri, "cannot create a scratch file beside the destination");
  auto fail = [&](int err, char const* action) {
    ::unlink(scratch.c_str());
    return osFailure(err, dstIri, action);
  };
  if (int err = copyContent(in.get(), out.get()); err != 0) throw fail(err, "cannot copy the content");
  if (::fchmod(out.get(), st.st_mode & 07777) != 0) throw fail(errno, "cannot set permissions");
  if (preserve) {
    copyUserXattrs(in.get(), out.get());
    struct timespec times[2] = {st.st_atim, st.st_mtim};
    if (::futimens(out.get(), times) != 0) throw fail(errno, "cannot set the modification time");
  }
  if (int err = out.close(); err != 0) throw fail(err, "cannot finish the copy");
  return scratch;
}

int renameNoReplace(std::string const& from, std::string const& to) {
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
  int const err = errno;
  if (err != EINVAL && err != ENOSYS && err != ENOTSUP) return err;
  // The file system does not offer an atomic no-replace rename (EINVAL may also be the
  // genuine answer; the plain rename below gives it again then).
  struct stat st {};
  if (::lstat(to.c_str(), &st) == 0) return EEXIST;
  return ::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

void moveEntry(std::string const& src, std::string const& dst, sp::StorageIRI const& srcIri,
               sp::StorageIRI const& dstIri, bool noReplace) {
  int err = noReplace ? renameNoReplace(src, dst) : (::rename(src.c_str(), dst.c_str()) == 0 ? 0 : errno);
  if (err == 0) return;
  if (err == EXDEV) {
    crossDeviceMove(src, dst, srcIri, dstIri, noReplace);
    return;
  }
  std::string const action = "cannot move to " + dstIri.toUtf8();
  switch (err) {
    case EEXIST:
    case ENOTEMPTY:
      throw osFailure(sp::ErrorCode::AlreadyExists, err, dstIri, "cannot move here");
    case EINVAL:
      throw osFailure(sp::ErrorCode::InvalidName, err, dstIri, "cannot move a folder into itself");
    case ENOSPC:
    case EDQUOT:
      throw osFailure(err, dstIri, "cannot move here");
    default:
      throw osFailure(err, srcIri, action);
  }
}

void mergeFolder(std::string const& src, std::string const& dst, sp::StorageIRI const& srcIri,
                 sp::StorageIRI const& dstIri, bool sourceWins) {
  DirFd from = openFolder(src, srcIri);
  for (auto const& entry : readFolder(from.get(), srcIri, false)) {
    auto const s = joinPath(src, entry.nativeName);
    auto const d = joinPath(dst, entry.nativeName);
    auto const sIri = childIri(srcIri, entry.name);
    auto const dIri = childIri(dstIri, entry.name);
    auto const there = lstatPath(d, dIri);
    if (!there) {
      moveEntry(s, d, sIri, dIri, true);
      continue;
    }
    bool const srcIsDir = S_ISDIR(entry.st.st_mode);
    bool const dstIsDir = S_ISDIR(there->st_mode);
    if (srcIsDir && dstIsDir) {
      mergeFolder(s, d, sIri, dIri, sourceWins);
    } else if (sourceWins) {
      if (dstIsDir) {
        DirFd parent = openFolder(dst, dstIri);
        removeTree(parent.get(), entry.nativeName, dIri);
      } else if (srcIsDir && ::unlink(d.c_str()) != 0 && errno != ENOENT) {
        throw osFailure(errno, dIri, "cannot remove");
      }
      moveEntry(s, d, sIri, dIri, false);
    } else if (srcIsDir) {
      removeTree(from.get(), entry.nativeName, sIri);
    } else if (::unlinkat(from.get(), entry.nativeName.c_str(), 0) != 0 && errno != ENOENT) {
      throw osFailure(errno, sIri, "cannot remove");
    }
  }
  if (::rmdir(src.c_str()) != 0 && errno != ENOENT) {
    if (errno == ENOTEMPTY || errno == EEXIST) {
      throw osFailure(sp::ErrorCode::FolderNotEmpty, errno, srcIri, "entries appeared during the move");
    }
    throw osFailure(errno, srcIri, "cannot remove folder");
  }
}

}  // namespace providers::file::detail
