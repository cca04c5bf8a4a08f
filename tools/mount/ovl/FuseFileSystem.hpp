// FuseFileSystem: the overlay as a POSIX file system, through libfuse 3.
//
// Each libfuse operation maps to the overlay calls that answer it, on the item at the
// operation's path below the overlay root; a failure becomes an errno in one place
// (Errno.hpp). Open files keep one overlay stream each (a mutex per open file orders its
// reads and writes, which the stream's single position needs). What the overlay cannot
// answer gets a clear errno: symbolic links, hard links and device files EPERM, a rename
// that exchanges EINVAL.
//
// What the permission bits mean: a file or folder is shown 0644/0755 when the store
// calls it writable and 0444/0555 when not; chmod sets the writable state from the
// owner's write bit and ignores every other bit; owner and group are the mounting user's.
//
// Close and fsync. A close(2) returns once the bytes are in the overlay (its cache on
// local disk); they reach the store in the background. fsync(2) returns once every change
// of the file queued so far has reached the store. A change the store refused for good
// (after the overlay's retries) makes the file's next close or fsync fail with EIO, once.
//
// The kernel caches attributes and names for a second, and keeps a file's pages while
// its size and time stamp stay as they were. When the store reports a change made
// elsewhere, the kernel's pages and attributes of the item and of its folder are dropped;
// its cached names expire with their time-out.
//
// Thread-safety: libfuse calls the operations from several threads at once; every member
// is safe for that.
#pragma once

#include <foundation/storage/provider/StorageItem.hpp>
#include <foundation/storage/provider/extensions/IWriteBehindStatus.hpp>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <sys/stat.h>
#include <sys/statvfs.h>

struct fuse;
struct fuse_operations;

namespace ovl::mount {

namespace fsp = foundation::storage::provider;

class FuseFileSystem {
 public:
  // Serves the overlay item `root` (an overlay folder) laid over the store folder `store`;
  // `status` is the overlay provider's write-behind status (not owned; may be null for a
  // provider without one). `storeRootPath` is the path, in the store's own IRIs, of the
  // folder under the overlay root: the locations of the store's change events and of
  // failed changes are mapped to mount paths with it. statfs shows the overlay's quota
  // figures, else the store's own (asked at most every few seconds).
  FuseFileSystem(fsp::StorageItem root, fsp::StorageItem store, fsp::extensions::IWriteBehindStatus* status,
                 std::u16string storeRootPath);
  ~FuseFileSystem();
  FuseFileSystem(FuseFileSystem const&) = delete;
  FuseFileSystem& operator=(FuseFileSystem const&) = delete;

  // The operation table; libfuse's private data must be this object.
  static fuse_operations const& operations();

  // From now on the store's change events drop what the kernel of `mounted` caches for
  // the items they name, once the overlay has acted on them (IAppliedChanges; a provider
  // without it: at the event). Call once, after mounting; stopWatching() before
  // unmounting.
  void watchStore(struct fuse* mounted);
  void stopWatching();

  // A change that did not reach the store, as the mount tells it.
  struct Failure {
    std::string path;    // the mount path ("/docs/a.txt")
    std::string change;  // "write", "close", "moveFile", ...
    std::string cause;
  };
  // What `ovl status` shows besides the queue's figures.
  struct Snapshot {
    std::vector<std::string> openForWriting;  // mount paths, sorted
    std::size_t openFiles = 0;
    std::vector<Failure> failures;  // since the mount, oldest first (at most the last 100)
    std::uint64_t failureCount = 0;
  };
  Snapshot snapshot();

  // The mount path of a store location; empty when it lies outside the mount.
  std::string mountPathOf(fsp::StorageIRI const& location) const;

  // Implementation of the operations (public for the table's trampolines).
  struct OpenFile;
  int getattr(char const* path, struct stat* st, OpenFile* open);
  // The folder's entries with their attributes (without "." and "..").
  int readdir(char const* path, std::vector<std::pair<std::string, struct stat>>& entries);
  int mkdir(char const* path);
  int unlink(char const* path);
  int rmdir(char const* path);
  int rename(char const* from, char const* to, unsigned int flags);
  int chmod(char const* path, unsigned mode);
  int truncate(char const* path, long long size, OpenFile* open);
  int utimens(char const* path, struct timespec const times[2]);
  int open(char const* path, int flags, OpenFile*& opened, bool create);
  int read(OpenFile& file, char* buffer, std::size_t size, long long offset);
  int write(OpenFile& file, char const* buffer, std::size_t size, long long offset);
  int flush(char const* path);
  int release(OpenFile* file);
  int fsync(char const* path, OpenFile* file);
  int statfs(struct statvfs* out);
  int getxattr(char const* path, char const* name, char* value, std::size_t size);
  int listxattr(char const* path, char* list, std::size_t size);

 private:
  fsp::StorageItem item(char const* path) const;
  // Closes the writable stream of `file` (its bytes and close go to the queue), runs
  // `between`, and opens the stream of `it` again as it was opened, without emptying it.
  void reopenAround(OpenFile& file, fsp::StorageItem const& it, std::function<void()> const& between);
  // Takes the provider's undelivered changes into failures_ and pending_.
  void collectFailures();
  // True (and forgets it) when a change of `path` failed since its last close or fsync.
  bool takeFailure(std::string const& path);
  void invalidate(std::string const& path);
  // The dropper thread: drops what toDrop_ names until stopWatching().
  void dropQueued();

  fsp::StorageItem const root_;
  fsp::StorageItem const store_;
  fsp::extensions::IWriteBehindStatus* const status_;
  std::u16string const storeRootPath_;

  std::mutex mutex_;
  std::map<OpenFile*, std::unique_ptr<OpenFile>> open_;  // guarded by mutex_
  std::vector<Failure> failures_;                        // guarded by mutex_
  std::uint64_t failureCount_ = 0;                       // guarded by mutex_
  std::map<std::string, std::string> pending_;           // failed, not yet told: path -> cause; mutex_

  std::mutex storageMutex_;
  std::optional<fsp::ProviderStorageInfo> storage_;            // guarded by storageMutex_
  std::chrono::steady_clock::time_point storageAsked_{};      // guarded by storageMutex_

  // The kernel's caches are dropped on a thread of their own: dropping a file's pages
  // waits for the reads of it under way, and those may wait for the overlay's queue,
  // whose worker tells of the changes (a deadlock when the worker dropped them itself).
  std::mutex watchMutex_;
  std::condition_variable watchWake_;
  struct fuse* mounted_ = nullptr;  // guarded by watchMutex_; set while watching
  bool watching_ = false;           // guarded by watchMutex_
  std::deque<std::string> toDrop_;  // guarded by watchMutex_: paths whose caches to drop
  std::thread dropper_;             // runs dropQueued() while watching
};

}  // namespace ovl::mount
