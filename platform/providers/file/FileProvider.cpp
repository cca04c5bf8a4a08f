#include <providers/file/FileProvider.hpp>

#include "FileByteStream.hpp"
#include "FileEventHub.hpp"
#include "FileTree.hpp"
#include "OsErrors.hpp"

#include <foundation/storage/provider/Exception.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <stdexcept>

namespace providers::file {

namespace sp = foundation::storage::provider;
namespace ev = foundation::storage::events;
using sp::ErrorCode;
using sp::Exception;

namespace {

using namespace detail;

std::string parentPathOf(std::string const& path) {
  auto slash = path.rfind('/');
  if (slash == std::string::npos || slash == 0) return "/";
  return path.substr(0, slash);
}

std::string nameOf(std::string const& path) {
  auto slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool isAtOrBelow(std::string const& path, std::string const& folder) {
  if (folder == "/") return true;
  return path == folder || (path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 &&
                            path[folder.size()] == '/');
}

// The failure of creating the item `iri`: what is in the way names the item, a missing or
// protected parent names the parent.
Exception createFailure(int err, sp::StorageIRI const& iri, char const* action) {
  switch (err) {
    case EEXIST:
    case EISDIR:
      return osFailure(ErrorCode::AlreadyExists, err, iri, action);
    case ENOENT:
    case ENOTDIR:
      return osFailure(ErrorCode::DoesNotExist, err, parentIri(iri), std::string(action) + ": the parent folder is missing");
    case EACCES:
    case EPERM:
    case EROFS:
      return osFailure(ErrorCode::NotWritable, err, parentIri(iri), std::string(action) + " in this folder");
    default:
      return osFailure(err, iri, action);
  }
}

bool isFile(std::optional<struct stat> const& st) { return st && S_ISREG(st->st_mode); }
bool isFolder(std::optional<struct stat> const& st) { return st && S_ISDIR(st->st_mode); }

struct stat requireFile(std::string const& path, sp::StorageIRI const& iri) {
  auto st = statPath(path, iri);
  if (!isFile(st)) throw Exception(ErrorCode::DoesNotExist, iri, st ? "not a file" : "no file here");
  return *st;
}

struct stat requireFolder(std::string const& path, sp::StorageIRI const& iri) {
  auto st = statPath(path, iri);
  if (!isFolder(st)) throw Exception(ErrorCode::DoesNotExist, iri, st ? "not a folder" : "no folder here");
  return *st;
}

// Checks that the destination's folder exists and what is at the destination. Returns
// the destination's stat when something is there.
std::optional<struct stat> checkDestination(std::string const& path, sp::StorageIRI const& dst) {
  auto parent = parentIri(dst);
  auto parentSt = statPath(parentPathOf(path), parent);
  if (!isFolder(parentSt)) throw Exception(ErrorCode::DoesNotExist, parent, "the destination folder is missing");
  return statPath(path, dst);
}

// Reads the value of the extended attribute `name` of `path`; empty when it vanished.
std::optional<std::string> readXattr(std::string const& path, std::string const& name, sp::StorageIRI const& iri) {
  for (;;) {
    ssize_t size = ::getxattr(path.c_str(), name.c_str(), nullptr, 0);
    if (size < 0) {
      if (errno == ENODATA) return std::nullopt;
      throw osFailure(errno, iri, "cannot read extended attribute " + name);
    }
    std::string value(static_cast<std::size_t>(size), '\0');
    size = ::getxattr(path.c_str(), name.c_str(), value.data(), value.size());
    if (size >= 0) {
      value.resize(static_cast<std::size_t>(size));
      return value;
    }
    if (errno == ERANGE) continue;  // grew between the two calls
    if (errno == ENODATA) return std::nullopt;
    throw osFailure(errno, iri, "cannot read extended attribute " + name);
  }
}

// The names of the extended attributes of `path` (every namespace).
std::vector<std::string> listXattrs(std::string const& path, sp::StorageIRI const& iri) {
  for (;;) {
    ssize_t size = ::listxattr(path.c_str(), nullptr, 0);
    if (size < 0) {
      if (errno == ENOTSUP) return {};
      throw osFailure(errno, iri, "cannot list extended attributes");
    }
    std::string names(static_cast<std::size_t>(size), '\0');
    size = ::listxattr(path.c_str(), names.data(), names.size());
    if (size < 0) {
      if (errno == ERANGE) continue;
      if (errno == ENOTSUP) return {};
      throw osFailure(errno, iri, "cannot list extended attributes");
    }
    std::vector<std::string> result;
    for (std::size_t pos = 0; pos < static_cast<std::size_t>(size);) {
      std::string name(names.c_str() + pos);
      pos += name.size() + 1;
      if (!name.empty()) result.push_back(std::move(name));
    }
    return result;
  }
}

}  // namespace

FileProvider::FileProvider() : events_(std::make_unique<detail::FileEventHub>()) {}

FileProvider::~FileProvider() { events_->stop(); }

void FileProvider::doCreateFile(StorageIRI const& iri) const {
  auto const path = nativePath(iri);
  if (path == "/") throw Exception(ErrorCode::AlreadyExists, iri, "the root folder is there");
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0666);
  if (fd < 0) throw createFailure(errno, iri, "cannot create file");
  ::close(fd);
}

void FileProvider::doCreateFolder(StorageIRI const& iri) const {
  auto const path = nativePath(iri);
  if (::mkdir(path.c_str(), 0777) != 0) throw createFailure(errno, iri, "cannot create folder");
}

void FileProvider::doCreateFolderRecursive(StorageIRI const& iri) const {
  auto const path = nativePath(iri);
  auto st = statPath(path, iri);
  if (isFolder(st)) return;
  if (st) throw Exception(ErrorCode::AlreadyExists, iri, "not a folder");
  // Create each missing folder from the top; one that appears meanwhile is fine.
  auto current = iri.getResolvedIRI().withPath(u"/");
  for (auto const& segment : iri.getResolvedIRI().getPathView()) {
    current = StorageIRI(current, segment);
    auto const currentPath = nativePath(current);
    if (::mkdir(currentPath.c_str(), 0777) == 0) continue;
    int const err = errno;
    if (err == EEXIST) {
      if (isFolder(statPath(currentPath, current))) continue;
      throw Exception(ErrorCode::AlreadyExists, current, "something other than a folder is in the way");
    }
    throw createFailure(err, current, "cannot create folder");
  }
}

bool FileProvider::doFileExists(StorageIRI const& iri) const { return isFile(statPath(nativePath(iri), iri)); }

bool FileProvider::doFolderExists(StorageIRI const& iri) const { return isFolder(statPath(nativePath(iri), iri)); }

bool FileProvider::doExists(StorageIRI const& iri) const {
  auto st = statPath(nativePath(iri), iri);
  return isFile(st) || isFolder(st);
}

sp::ExistenceKind FileProvider::doExistsExtended(StorageIRI const& iri) const {
  auto st = statPath(nativePath(iri), iri);
  if (isFile(st)) return ExistenceKind::File;
  if (isFolder(st)) return ExistenceKind::Folder;
  return ExistenceKind::None;
}

void FileProvider::doRemoveFile(StorageIRI const& iri) const {
  auto const path = nativePath(iri);
  requireFile(path, iri);
  if (::unlink(path.c_str()) != 0) {
    if (errno == ENOENT || errno == EISDIR) throw Exception(ErrorCode::DoesNotExist, iri, "no file here");
    throw osFailure(errno, iri, "cannot remove file");
  }
}

void FileProvider::doRemoveFolder(StorageIRI const& iri) const {
  auto const path = nativePath(iri);
  requireFolder(path, iri);
  if (::rmdir(path.c_str()) != 0) {
    int const err = errno;
    if (err == ENOTEMPTY || err == EEXIST) throw osFailure(ErrorCode::FolderNotEmpty, err, iri, "cannot remove folder");
    throw osFailure(err, iri, "cannot remove folder");
  }
}

void FileProvider::doRemoveFolderRecursively(StorageIRI const& iri) const {
  auto const path = nativePath(iri);
  if (path == "/") throw Exception(ErrorCode::NotWritable, iri, "the root folder is never removed");
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) {
    if (errno == ENOENT || errno == ENOTDIR) throw Exception(ErrorCode::DoesNotExist, iri, "no folder here");
    throw osFailure(errno, iri, "cannot read attributes");
  }
  if (S_ISLNK(st.st_mode)) {
    // A link to a folder: the link goes, what it points to stays.
    requireFolder(path, iri);
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) throw osFailure(errno, iri, "cannot remove link");
    return;
  }
  if (!S_ISDIR(st.st_mode)) throw Exception(ErrorCode::DoesNotExist, iri, "not a folder");
  DirFd parent = openFolder(parentPathOf(path), parentIri(iri));
  removeTree(parent.get(), nameOf(path), iri);
}

void FileProvider::doMoveFile(StorageIRI const& src, StorageIRI const& dst, ReplacementPolicy const& policy) const {
  auto const from = nativePath(src);
  auto const to = nativePath(dst);
  requireFile(from, src);
  if (auto there = checkDestination(to, dst)) {
    if (S_ISDIR(there->st_mode)) throw Exception(ErrorCode::AlreadyExists, dst, "a folder is there");
    if (policy != ReplacementPolicy::Always) throw Exception(ErrorCode::AlreadyExists, dst, "a file is there");
  }
  moveEntry(from, to, src, dst, policy != ReplacementPolicy::Always);
}

void FileProvider::doMoveFolder(StorageIRI const& src, StorageIRI const& dst, ReplacementPolicy const& policy) const {
  auto const from = nativePath(src);
  auto const to = nativePath(dst);
  auto const srcSt = requireFolder(from, src);
  if (to != from && isAtOrBelow(to, from)) {
    throw Exception(ErrorCode::InvalidName, dst, "a folder cannot move into itself");
  }
  auto there = checkDestination(to, dst);
  if (!there) {
    moveEntry(from, to, src, dst, true);
    return;
  }
  if (!S_ISDIR(there->st_mode)) throw Exception(ErrorCode::AlreadyExists, dst, "a file is there");
  bool const merge = policy == ReplacementPolicy::Always || policy == ReplacementPolicy::KeepExisting;
  if (!merge) throw Exception(ErrorCode::AlreadyExists, dst, "a folder is there");
  if (there->st_dev == srcSt.st_dev && there->st_ino == srcSt.st_ino) return;  // the same folder
  mergeFolder(from, to, src, dst, policy == ReplacementPolicy::Always);
}

void FileProvider::doCopyFile(StorageIRI const& src, StorageIRI const& dst, ReplacementPolicy const& policy) const {
  auto const from = nativePath(src);
  auto const to = nativePath(dst);
  requireFile(from, src);
  bool const replace = policy == ReplacementPolicy::Always;
  if (auto there = checkDestination(to, dst)) {
    if (S_ISDIR(there->st_mode)) throw Exception(ErrorCode::AlreadyExists, dst, "a folder is there");
    if (!replace) throw Exception(ErrorCode::AlreadyExists, dst, "a file is there");
  }
  auto const scratch = copyToScratch(from, parentPathOf(to), nameOf(to), src, dst, false);
  int const err = replace ? (::rename(scratch.c_str(), to.c_str()) == 0 ? 0 : errno) : renameNoReplace(scratch, to);
  if (err != 0) {
    ::unlink(scratch.c_str());
    if (err == EEXIST) throw osFailure(ErrorCode::AlreadyExists, err, dst, "cannot copy here");
    throw osFailure(err, dst, "cannot move the copy into place");
  }
}

sp::FileAttributes FileProvider::doGetFileAttributes(StorageIRI const& iri) const {
  return fileAttributesOf(requireFile(nativePath(iri), iri));
}

sp::FolderAttributes FileProvider::doGetFolderAttributes(StorageIRI const& iri) const {
  return folderAttributesOf(requireFolder(nativePath(iri), iri));
}

sp::ByteStreamPtr FileProvider::doOpenStream(StorageIRI const& iri, ByteStreamOpenOptions const& options) const {
  auto const path = nativePath(iri);
  bool const create = options.openMode != ByteStreamOpenOptions::OpenExisting;
  // O_NONBLOCK keeps the open from hanging on a FIFO; it is cleared once the item is
  // known to be a regular file.
  int flags = O_RDWR | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  if (create) flags |= O_CREAT;
  if (options.truncate) flags |= O_TRUNC;
  if (options.append) flags |= O_APPEND;
  int fd = ::open(path.c_str(), flags, 0666);
  if (fd < 0) {
    int const err = errno;
    if (create && (err == ENOENT || err == ENOTDIR)) {
      throw osFailure(ErrorCode::DoesNotExist, err, parentIri(iri), "cannot open file: the parent folder is missing");
    }
    if (err == EISDIR) {
      throw osFailure(create ? ErrorCode::AlreadyExists : ErrorCode::DoesNotExist, err, iri, "cannot open file: a folder is there");
    }
    throw osFailure(err, iri, "cannot open file");
  }
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    ::close(fd);
    throw Exception(ErrorCode::DoesNotExist, iri, "not a file");
  }
  ::fcntl(fd, F_SETFL, options.append ? O_APPEND : 0);
  return std::make_unique<FileByteStream>(fd, iri.toUtf8(), true, options.append);
}

sp::ByteStreamPtr FileProvider::doOpenReadOnlyStream(StorageIRI const& iri) const {
  auto const path = nativePath(iri);
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (fd < 0) throw osFailure(errno, iri, "cannot open file for reading");
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    ::close(fd);
    throw Exception(ErrorCode::DoesNotExist, iri, "not a file");
  }
  ::fcntl(fd, F_SETFL, 0);
  return std::make_unique<FileByteStream>(fd, iri.toUtf8(), false, false);
}

sp::FolderEntryIteratorPtr FileProvider::doListAll(StorageIRI const& iri) const {
  return std::make_unique<sp::VectorFolderEntryIterator>(listFolder(nativePath(iri), iri, true, true));
}

sp::FolderEntryIteratorPtr FileProvider::doListFiles(StorageIRI const& iri) const {
  return std::make_unique<sp::VectorFolderEntryIterator>(listFolder(nativePath(iri), iri, true, false));
}

sp::FolderEntryIteratorPtr FileProvider::doListFolders(StorageIRI const& iri) const {
  return std::make_unique<sp::VectorFolderEntryIterator>(listFolder(nativePath(iri), iri, false, true));
}

sp::FolderEntryIteratorPtr FileProvider::doListAllRecursive(StorageIRI const& iri) const {
  return listTree(nativePath(iri), iri);
}

void FileProvider::doSetLastModified(StorageIRI const& iri, boost::posix_time::ptime const& time) const {
  if (time.is_special()) throw std::invalid_argument("not a point in time: " + boost::posix_time::to_simple_string(time));
  struct timespec times[2];
  modificationTimes(time, times);
  auto const path = nativePath(iri);
  if (::utimensat(AT_FDCWD, path.c_str(), times, 0) != 0) throw osFailure(errno, iri, "cannot set the modification time");
}

void FileProvider::doSetWritable(StorageIRI const& iri, bool writable) const {
  auto const path = nativePath(iri);
  auto st = statPath(path, iri);
  if (!isFile(st) && !isFolder(st)) throw Exception(ErrorCode::DoesNotExist, iri, "nothing here");
  mode_t mode = st->st_mode & 07777;
  mode = writable ? (mode | S_IWUSR) : (mode & ~static_cast<mode_t>(S_IWUSR | S_IWGRP | S_IWOTH));
  if (::chmod(path.c_str(), mode) != 0) throw osFailure(errno, iri, "cannot change permissions");
}

void FileProvider::doPublishFolderEventsFor(StorageIRI const& iri, ev::Callback const& callback,
                                            std::vector<ev::Kind> const& kinds, ev::RecursiveFileWatching recursive) const {
  if (!callback) throw std::invalid_argument("an event subscription needs a callback");
  auto const path = nativePath(iri);
  requireFolder(path, iri);
  events_->subscribeFolder(iri, path, callback, kinds, recursive == ev::RecursiveFileWatching::Enabled);
}

void FileProvider::doPublishFileEventsFor(StorageIRI const& iri, ev::Callback const& callback) const {
  if (!callback) throw std::invalid_argument("an event subscription needs a callback");
  auto const path = nativePath(iri);
  requireFile(path, iri);
  events_->subscribeFile(iri, parentPathOf(path), nameOf(path), callback);
}

void FileProvider::doStopPublishingEventsFor(StorageIRI const& iri) const { events_->unsubscribe(iri); }

bool FileProvider::doHasFeature(ExtendedFeature const& feature) const {
  switch (feature) {
    case ExtendedFeature::ExtendedAttributes:
    case ExtendedFeature::RecursiveListing:
    case ExtendedFeature::RemoveOpenFiles:
      return true;
    default:
      return false;
  }
}

sp::FilenameSensitivity FileProvider::doGetFilenameSensitivity(StorageIRI const&) const {
  return FilenameSensitivity::CaseSensitive;
}

void FileProvider::doShutdown() { events_->stop(); }

sp::ExtendedAttributes FileProvider::doGetExtendedAttributes(StorageIRI const& iri) const {
  auto const path = nativePath(iri);
  auto st = statPath(path, iri);
  if (!isFile(st) && !isFolder(st)) throw Exception(ErrorCode::DoesNotExist, iri, "nothing here");
  ExtendedAttributes attributes;
  for (auto const& name : listXattrs(path, iri)) {
    if (name.rfind("user.", 0) != 0) continue;
    if (auto value = readXattr(path, name, iri)) attributes.setAttribute(name.substr(5), std::move(*value));
  }
  if (isFile(st)) attributes.setAttribute("WATERMARK", watermarkOf(*st));
  return attributes;
}

sp::ProviderStorageInfo FileProvider::doGetProviderStorageInfo(StorageIRI const& iri) const {
  auto const path = nativePath(iri);
  struct statvfs fs {};
  if (::statvfs(path.c_str(), &fs) != 0) throw osFailure(errno, iri, "cannot read file system figures");
  unsigned long const capacity = static_cast<unsigned long>(fs.f_blocks) * fs.f_frsize;
  unsigned long const available = static_cast<unsigned long>(fs.f_bavail) * fs.f_frsize;
  return ProviderStorageInfo().withStorageCapacity(capacity).withSpaceOccupied(capacity - available);
}

void FileProvider::doTruncateToSize(StorageIRI const& iri, unsigned long long size) const {
  auto const path = nativePath(iri);
  requireFile(path, iri);
  if (size > static_cast<unsigned long long>(LLONG_MAX)) {
    throw Exception(ErrorCode::QuotaExceeded, iri, "the size is beyond what a file can hold");
  }
  if (::truncate(path.c_str(), static_cast<off_t>(size)) != 0) throw osFailure(errno, iri, "cannot change the size");
}

void FileProvider::doConfigure(boost::property_tree::ptree) {}

}  // namespace providers::file
