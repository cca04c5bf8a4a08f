// Folder-level work of the file store: reading folders, walking and removing trees, and
// copying files and trees. Everything here works on native (UTF-8) paths and names and
// reports failures as the storage layer's Exception naming the IRI concerned.
#pragma once

#include <foundation/storage/provider/IFolderEntryIterator.hpp>

#include <foundation/storage/provider/FileAttributes.hpp>
#include <foundation/storage/provider/FolderAttributes.hpp>
#include <foundation/storage/provider/FolderEntry.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>
#include <foundation/storage/provider/Types.hpp>

#include <sys/stat.h>

#include <optional>
#include <string>
#include <vector>

namespace providers::file::detail {

namespace sp = foundation::storage::provider;

boost::posix_time::ptime toPtime(struct timespec const& ts);
// The times for utimensat/futimens that set the modification time to `time` (microseconds
// kept, times before 1970 included) and leave the access time. `time` must not be special.
void modificationTimes(boost::posix_time::ptime const& time, struct timespec (&times)[2]);
sp::FileAttributes fileAttributesOf(struct stat const& st);
sp::FolderAttributes folderAttributesOf(struct stat const& st);

// The "WATERMARK" text of a file: modification time in ns, size and inode.
std::string watermarkOf(struct stat const& st);

// stat(2) of `path`, following links. Empty when nothing is there (ENOENT, ENOTDIR,
// ENAMETOOLONG); other failures throw osFailure naming `iri`.
std::optional<struct stat> statPath(std::string const& path, sp::StorageIRI const& iri);

// An open directory descriptor, closed on destruction.
class DirFd {
 public:
  DirFd() = default;
  explicit DirFd(int fd) : fd_(fd) {}
  ~DirFd();
  DirFd(DirFd&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  DirFd& operator=(DirFd&& other) noexcept;
  DirFd(DirFd const&) = delete;
  DirFd& operator=(DirFd const&) = delete;
  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

// One entry of a folder, as read from disk.
struct NativeEntry {
  std::u16string name;     // UTF-16 name
  std::string nativeName;  // the name's bytes on disk
  struct stat st;          // of the entry (links followed unless asked otherwise)
  bool isLink = false;     // the entry itself is a symbolic link
};

// Opens the folder `path` for reading. Throws Exception naming `iri`: DoesNotExist when
// it is missing or not a folder, NotWritable (with the system's text) when it may not be
// read, osFailure otherwise.
DirFd openFolder(std::string const& path, sp::StorageIRI const& iri);
// The same for the child `name` of the open folder `parent`. Returns an invalid DirFd
// when the child vanished.
DirFd openChildFolder(int parent, std::string const& name, sp::StorageIRI const& iri, bool followLinks);

// The files and folders in the open folder `dir` (named `iri`), sorted by UTF-16 name.
// Entries that vanish while reading, entries of other kinds and names that are not valid
// UTF-8 are left out. With `followLinks` false, symbolic links are reported as links
// (isLink, st of the link itself) and never left out.
// Takes a duplicate of the descriptor, so `dir` stays open. With `kindsOnly` (and
// `followLinks` false) only the kind of each entry is wanted: st.st_mode holds its type
// bits from the folder itself where the file system gives them, and nothing else of st
// is read (no call per entry).
std::vector<NativeEntry> readFolder(int dir, sp::StorageIRI const& iri, bool followLinks, bool kindsOnly = false);

// The names on disk of the sub-folders of the open folder `dir` (named `iri`), links not
// followed, in no particular order. Reads the kinds from the folder itself where the file
// system gives them, so a folder of many files costs no call per file. Throws as
// readFolder.
std::vector<std::string> readSubFolders(int dir, sp::StorageIRI const& iri);

// Listing of the folder at `path` as FolderEntries: files when `files`, folders when
// `folders`.
std::vector<sp::FolderEntry> listFolder(std::string const& path, sp::StorageIRI const& iri, bool files, bool folders);

// Every entry below the folder at `path`, depth-first, a folder before its content, each
// named by its path relative to the folder. Read folder by folder as the entries are
// asked for, so a tree of millions of files is never held whole; a folder that cannot be
// read fails the listing where it is met. Links to a folder above are not followed.
sp::FolderEntryIteratorPtr listTree(std::string const& path, sp::StorageIRI const& iri);

// Removes the folder `name` in the open folder `parent` with everything in it, without
// following links. Entries that vanish meanwhile are not an error. `iri` names the folder.
void removeTree(int parent, std::string const& name, sp::StorageIRI const& iri);

// Copies the content of the open file `in` to the open file `out`.
// Returns 0 or the errno of the failure.
int copyContent(int in, int out);

// Copies the file `src` to a fresh scratch file in `dstFolder` and returns the scratch
// file's path. Keeps the permission bits; with `preserve` also the modification time and
// the "user." xattrs. Nothing is left behind on failure; the Exception names `srcIri` for
// read failures and `dstIri` for write failures.
std::string copyToScratch(std::string const& src, std::string const& dstFolder, std::string const& dstName,
                          sp::StorageIRI const& srcIri, sp::StorageIRI const& dstIri, bool preserve);

// Renames `from` to `to` without ever replacing `to`. Returns 0 or an errno value
// (EEXIST when `to` exists).
int renameNoReplace(std::string const& from, std::string const& to);

// Moves the entry at `src` to `dst` (which must not exist) on any file system: rename,
// or for EXDEV a copy of the tree (files keep mode, time and xattrs) then removal of the
// source. On failure the source is kept and a partial copy removed.
void moveEntry(std::string const& src, std::string const& dst, sp::StorageIRI const& srcIri,
               sp::StorageIRI const& dstIri, bool noReplace);

// Merges the folder `src` into the existing folder `dst` and removes `src`. With
// `sourceWins` the source's entries replace colliding ones; otherwise colliding source
// entries are dropped.
void mergeFolder(std::string const& src, std::string const& dst, sp::StorageIRI const& srcIri,
                 sp::StorageIRI const& dstIri, bool sourceWins);

}  // namespace providers::file::detail
