#define FUSE_USE_VERSION 312
#include <ovl/FuseFileSystem.hpp>

#include <ovl/Errno.hpp>

#include <fl/i18n.hpp>
#include <foundation/storage/provider/Exception.hpp>
#include <foundation/storage/provider/extensions/IAppliedChanges.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <fuse3/fuse.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <linux/fs.h>
#include <unistd.h>

namespace ovl::mount {

namespace pt = boost::posix_time;

struct FuseFileSystem::OpenFile {
  std::mutex mutex;
  fsp::ByteStreamPtr stream;  // guarded by mutex; null once closed (or when a reopen failed)
  fsp::ByteStreamOpenOptions options;  // how a writable stream is opened again after fsync
  bool writable = false;
  std::string path;  // as opened, for ovl status
};

namespace {

// Seconds the kernel may keep attributes, names and the absence of names.
constexpr double kKernelCacheSeconds = 1.0;

FuseFileSystem& self() { return *static_cast<FuseFileSystem*>(fuse_get_context()->private_data); }

FuseFileSystem::OpenFile* openFile(fuse_file_info* fi) {
  return fi ? reinterpret_cast<FuseFileSystem::OpenFile*>(fi->fh) : nullptr;
}

// Runs `operation`; an exception becomes its negative errno.
template <class Operation>
int guarded(Operation&& operation) noexcept {
  try {
    return operation();
  } catch (...) {
    return -errnoOf(std::current_exception());
  }
}

pt::ptime const kEpoch(boost::gregorian::date(1970, 1, 1));

timespec timespecOf(pt::ptime const& time) {
  if (time.is_special()) return {};
  auto const since = time - kEpoch;
  timespec out{};
  out.tv_sec = static_cast<time_t>(since.total_seconds());
  out.tv_nsec = static_cast<long>(since.fractional_seconds() * (1000000000 / pt::time_duration::ticks_per_second()));
  return out;
}

pt::ptime ptimeOf(timespec const& time) {
  return kEpoch + pt::seconds(time.tv_sec) + pt::microseconds(time.tv_nsec / 1000);
}

void fill(struct stat& st, bool folder, unsigned long size, pt::ptime const& modified, bool writable) {
  st = {};
  st.st_mode = folder ? (S_IFDIR | (writable ? 0755 : 0555)) : (S_IFREG | (writable ? 0644 : 0444));
  st.st_nlink = folder ? 2 : 1;
  // Every entry belongs to the user who mounted (asked once: a listing fills thousands).
  static uid_t const uid = getuid();
  static gid_t const gid = getgid();
  st.st_uid = uid;
  st.st_gid = gid;
  st.st_size = static_cast<off_t>(size);
  st.st_blksize = 65536;
  st.st_blocks = static_cast<blkcnt_t>((size + 511) / 512);
  st.st_mtim = st.st_atim = st.st_ctim = timespecOf(modified);
}

void fill(struct stat& st, fsp::FileAttributes const& a) {
  fill(st, false, a.getSize().value_or(0), a.getLastModified(), a.isWritable());
}
void fill(struct stat& st, fsp::FolderAttributes const& a) { fill(st, true, 0, a.getLastModified(), a.isWritable()); }

// Copies `text` into a getxattr/listxattr buffer: its length when `size` is 0, ERANGE when
// it does not fit.
int answer(std::string const& text, char* out, std::size_t size) {
  if (size == 0) return static_cast<int>(text.size());
  if (text.size() > size) return -ERANGE;
  std::memcpy(out, text.data(), text.size());
  return static_cast<int>(text.size());
}

constexpr char kUserPrefix[] = "user.";

// The table's entries: libfuse's signatures onto the members.
void* opInit(fuse_conn_info* conn, fuse_config* cfg) {
  // Plain listings: with attributes sent along, the kernel makes an entry for every name
  // listed, which costs a walk over a big tree (find) a fifth more than it gains a stat
  // of each file (one lookup each, answered from the cache).
  conn->want &= ~FUSE_CAP_READDIRPLUS;
  cfg->entry_timeout = kKernelCacheSeconds;
  cfg->attr_timeout = kKernelCacheSeconds;
  cfg->negative_timeout = kKernelCacheSeconds;
  cfg->auto_cache = 1;  // pages are kept while size and time stamp stay the same
  cfg->use_ino = 0;
  return fuse_get_context()->private_data;
}
int opGetattr(char const* path, struct stat* st, fuse_file_info* fi) { return self().getattr(path, st, openFile(fi)); }
int opReaddir(char const* path, void* buffer, fuse_fill_dir_t filler, off_t, fuse_file_info*,
              fuse_readdir_flags flags) {
  std::vector<std::pair<std::string, struct stat>> entries;
  if (int const result = self().readdir(path, entries); result != 0) return result;
  filler(buffer, ".", nullptr, 0, fuse_fill_dir_flags{});
  filler(buffer, "..", nullptr, 0, fuse_fill_dir_flags{});
  // The attributes go with the names only when the kernel asked for them (it does when
  // it expects them to be wanted, as by `ls -l`); a plain listing (`find`) carries the
  // kind alone, and the kernel makes no entry per name.
  auto const fill = (flags & FUSE_READDIR_PLUS) != 0 ? FUSE_FILL_DIR_PLUS : fuse_fill_dir_flags{};
  for (auto const& [name, st] : entries) {
    if (filler(buffer, name.c_str(), &st, 0, fill) != 0) break;
  }
  return 0;
}
int opMkdir(char const* path, mode_t) { return self().mkdir(path); }
int opUnlink(char const* path) { return self().unlink(path); }
int opRmdir(char const* path) { return self().rmdir(path); }
int opRename(char const* from, char const* to, unsigned int flags) { return self().rename(from, to, flags); }
int opChmod(char const* path, mode_t mode, fuse_file_info*) { return self().chmod(path, mode); }
int opChown(char const*, uid_t uid, gid_t gid, fuse_file_info*) {
  bool const same = (uid == static_cast<uid_t>(-1) || uid == getuid()) && (gid == static_cast<gid_t>(-1) || gid == getgid());
  return same ? 0 : -EPERM;
}
int opTruncate(char const* path, off_t size, fuse_file_info* fi) { return self().truncate(path, size, openFile(fi)); }
int opUtimens(char const* path, timespec const times[2], fuse_file_info*) { return self().utimens(path, times); }
int opOpenOrCreate(char const* path, fuse_file_info* fi, bool create) {
  FuseFileSystem::OpenFile* opened = nullptr;
  int const result = self().open(path, fi->flags, opened, create);
  if (result == 0) fi->fh = reinterpret_cast<std::uint64_t>(opened);
  return result;
}
int opOpen(char const* path, fuse_file_info* fi) { return opOpenOrCreate(path, fi, false); }
int opCreate(char const* path, mode_t, fuse_file_info* fi) { return opOpenOrCreate(path, fi, true); }
int opRead(char const*, char* buffer, size_t size, off_t offset, fuse_file_info* fi) {
  return self().read(*openFile(fi), buffer, size, offset);
}
int opWrite(char const*, char const* buffer, size_t size, off_t offset, fuse_file_info* fi) {
  return self().write(*openFile(fi), buffer, size, offset);
}
int opStatfs(char const*, struct statvfs* out) { return self().statfs(out); }
int opFlush(char const* path, fuse_file_info*) { return self().flush(path); }
int opRelease(char const*, fuse_file_info* fi) { return self().release(openFile(fi)); }
int opFsync(char const* path, int, fuse_file_info* fi) { return self().fsync(path, openFile(fi)); }
int opGetxattr(char const* path, char const* name, char* value, size_t size) {
  return self().getxattr(path, name, value, size);
}
int opListxattr(char const* path, char* list, size_t size) { return self().listxattr(path, list, size); }
int opUnsupported2(char const*, char const*) { return -EPERM; }  // symlink, link
int opMknod(char const*, mode_t, dev_t) { return -EPERM; }
int opReadlink(char const*, char*, size_t) { return -EINVAL; }  // nothing here is a link

fuse_operations makeOperations() {
  fuse_operations ops{};
  ops.init = opInit;
  ops.getattr = opGetattr;
  ops.readdir = opReaddir;
  ops.mkdir = opMkdir;
  ops.unlink = opUnlink;
  ops.rmdir = opRmdir;
  ops.rename = opRename;
  ops.chmod = opChmod;
  ops.chown = opChown;
  ops.truncate = opTruncate;
  ops.utimens = opUtimens;
  ops.open = opOpen;
  ops.create = opCreate;
  ops.read = opRead;
  ops.write = opWrite;
  ops.statfs = opStatfs;
  ops.flush = opFlush;
  ops.release = opRelease;
  ops.fsync = opFsync;
  ops.getxattr = opGetxattr;
  ops.listxattr = opListxattr;
  ops.symlink = opUnsupported2;
  ops.link = opUnsupported2;
  ops.mknod = opMknod;
  ops.readlink = opReadlink;
  return ops;
}

}  // namespace

fuse_operations const& FuseFileSystem::operations() {
  static fuse_operations const table = makeOperations();
  return table;
}

FuseFileSystem::FuseFileSystem(fsp::StorageItem root, fsp::StorageItem store,
                               fsp::extensions::IWriteBehindStatus* status, std::u16string storeRootPath)
    : root_(std::move(root)), store_(std::move(store)), status_(status), storeRootPath_(std::move(storeRootPath)) {}

FuseFileSystem::~FuseFileSystem() { stopWatching(); }

fsp::StorageItem FuseFileSystem::item(char const* path) const { return fsp::StorageItem(root_, fl::i18n::to_ustring(path)); }

int FuseFileSystem::getattr(char const* path, struct stat* st, OpenFile*) {
  return guarded([&] {
    auto const it = item(path);
    // Asking for existence first works off the store's change events the overlay holds
    // (asking for attributes alone would not): a file made elsewhere shows up here.
    switch (it.existsExtended()) {
      case fsp::ExistenceKind::File:
        fill(*st, it.getFileAttributes());
        return 0;
      case fsp::ExistenceKind::Folder:
        fill(*st, it.getFolderAttributes());
        return 0;
      case fsp::ExistenceKind::None:
        break;
    }
    return -ENOENT;
  });
}

int FuseFileSystem::readdir(char const* path, std::vector<std::pair<std::string, struct stat>>& entries) {
  return guarded([&] {
    auto listing = item(path).listAll();
    while (listing->notAtEnd()) {
      listing->advance();
      auto const entry = listing->current();
      struct stat st;
      if (entry.isFile()) {
        fill(st, entry.getFileAttributes());
      } else {
        fill(st, entry.getFolderAttributes());
      }
      entries.emplace_back(fl::i18n::ustring_to_utf8(entry.getName()), st);
    }
    return 0;
  });
}

int FuseFileSystem::mkdir(char const* path) {
  return guarded([&] {
    item(path).createFolder();
    return 0;
  });
}

int FuseFileSystem::unlink(char const* path) {
  return guarded([&] {
    item(path).removeFile();
    return 0;
  });
}

int FuseFileSystem::rmdir(char const* path) {
  return guarded([&] {
    item(path).removeFolder();
    return 0;
  });
}

int FuseFileSystem::rename(char const* from, char const* to, unsigned int flags) {
  return guarded([&] {
    if (flags & RENAME_EXCHANGE) return -EINVAL;
    if (flags & ~static_cast<unsigned>(RENAME_NOREPLACE)) return -EINVAL;
    auto const source = item(from);
    auto const target = item(to);
    auto const kind = source.existsExtended();
    auto const existing = target.existsExtended();
    if (kind == fsp::ExistenceKind::None) return -ENOENT;
    if (existing != fsp::ExistenceKind::None && (flags & RENAME_NOREPLACE)) return -EEXIST;
    if (kind == fsp::ExistenceKind::File) {
      if (existing == fsp::ExistenceKind::Folder) return -EISDIR;
      source.moveFile(target.getLocation(), fsp::ReplacementPolicy::Always);
      return 0;
    }
    if (existing == fsp::ExistenceKind::File) return -ENOTDIR;
    // A folder replaces only an empty folder, as on a local disk.
    if (existing == fsp::ExistenceKind::Folder) target.removeFolder();
    source.moveFolder(target.getLocation(), fsp::ReplacementPolicy::Never);
    return 0;
  });
}

int FuseFileSystem::chmod(char const* path, unsigned mode) {
  return guarded([&] {
    item(path).setWritable((mode & S_IWUSR) != 0);
    return 0;
  });
}

void FuseFileSystem::reopenAround(OpenFile& file, fsp::StorageItem const& it, std::function<void()> const& between) {
  std::lock_guard lock(file.mutex);
  if (file.stream) {
    auto stream = std::move(file.stream);
    stream->close();
  }
  between();
  auto again = file.options;
  again.openMode = fsp::ByteStreamOpenOptions::OpenExisting;
  again.truncate = false;
  file.stream = it.openStream(again);
}

int FuseFileSystem::truncate(char const* path, long long size, OpenFile* open) {
  if (size < 0) return -EINVAL;
  return guarded([&] {
    auto const it = item(path);
    if (!open || !open->writable) {
      it.truncateToSize(static_cast<unsigned long long>(size));
      return 0;
    }
    // The truncation opens the file itself: the open stream is closed around it.
    reopenAround(*open, it, [&] { it.truncateToSize(static_cast<unsigned long long>(size)); });
    return 0;
  });
}

int FuseFileSystem::utimens(char const* path, timespec const times[2]) {
  return guarded([&] {
    auto const& modified = times[1];
    if (modified.tv_nsec == UTIME_OMIT) return 0;
    item(path).setLastModified(modified.tv_nsec == UTIME_NOW ? pt::microsec_clock::universal_time() : ptimeOf(modified));
    return 0;
  });
}

int FuseFileSystem::open(char const* path, int flags, OpenFile*& opened, bool create) {
  return guarded([&] {
    auto const it = item(path);
    auto file = std::make_unique<OpenFile>();
    file->path = path;
    // As in getattr: the overlay works off the changes made elsewhere that it holds, so
    // that an opening after the kernel's caches were dropped reads the file as it is
    // now (the kernel keeps what this opening reads while size and time stay).
    if (!create) it.exists();
    if ((flags & O_ACCMODE) == O_RDONLY && !create && !(flags & O_TRUNC)) {
      file->stream = it.openReadOnlyStream();
    } else {
      file->writable = true;
      file->options.openMode = create ? fsp::ByteStreamOpenOptions::OpenOrCreate : fsp::ByteStreamOpenOptions::OpenExisting;
      file->options.truncate = (flags & O_TRUNC) != 0;
      file->options.append = (flags & O_APPEND) != 0;
      file->stream = it.openStream(file->options);
    }
    std::lock_guard lock(mutex_);
    opened = file.get();
    open_.emplace(opened, std::move(file));
    return 0;
  });
}

int FuseFileSystem::read(OpenFile& file, char* buffer, std::size_t size, long long offset) {
  return guarded([&] {
    std::lock_guard lock(file.mutex);
    if (!file.stream) return -EIO;
    file.stream->seek(static_cast<long>(offset), std::ios_base::beg);
    std::size_t done = 0;
    while (done < size) {
      long const n = file.stream->read(buffer + done, static_cast<long>(size - done));
      if (n <= 0) break;
      done += static_cast<std::size_t>(n);
    }
    return static_cast<int>(done);
  });
}

int FuseFileSystem::write(OpenFile& file, char const* buffer, std::size_t size, long long offset) {
  return guarded([&] {
    std::lock_guard lock(file.mutex);
    if (!file.stream) return -EIO;
    if (!file.options.append) file.stream->seek(static_cast<long>(offset), std::ios_base::beg);
    std::size_t done = 0;
    while (done < size) {
      long const n = file.stream->write(buffer + done, static_cast<long>(size - done));
      if (n <= 0) return -EIO;
      done += static_cast<std::size_t>(n);
    }
    return static_cast<int>(done);
  });
}

int FuseFileSystem::flush(char const* path) {
  return guarded([&] {
    collectFailures();
    return takeFailure(path) ? -EIO : 0;
  });
}

int FuseFileSystem::release(OpenFile* file) {
  std::unique_ptr<OpenFile> owned;
  {
    std::lock_guard lock(mutex_);
    auto found = open_.find(file);
    if (found == open_.end()) return 0;
    owned = std::move(found->second);
    open_.erase(found);
  }
  try {
    std::lock_guard lock(owned->mutex);
    if (owned->stream) owned->stream->close();
  } catch (std::exception const& e) {
    // The program has closed its descriptor already: the next close or fsync of the file
    // tells it.
    std::lock_guard lock(mutex_);
    pending_[owned->path] = e.what();
  }
  return 0;
}

int FuseFileSystem::fsync(char const* path, OpenFile* file) {
  return guarded([&] {
    auto const it = item(path);
    if (file && file->writable) {
      // What the stream holds goes to the overlay's queue with its close.
      reopenAround(*file, it, [] {});
    }
    if (status_) status_->waitForDelivery(it.getLocation());
    collectFailures();
    return takeFailure(path) ? -EIO : 0;
  });
}

int FuseFileSystem::statfs(struct statvfs* out) {
  *out = {};
  out->f_bsize = out->f_frsize = 4096;
  out->f_namemax = 255;
  out->f_files = out->f_ffree = out->f_favail = 1u << 30;
  std::optional<fsp::ProviderStorageInfo> info;
  try {
    info = root_.getProviderStorageInfo();
  } catch (...) {
    // No quota figures in the overlay: the store's own, which may be slow to ask.
    std::lock_guard lock(storageMutex_);
    auto const now = std::chrono::steady_clock::now();
    if (!storage_ || now - storageAsked_ > std::chrono::seconds(5)) {
      storageAsked_ = now;
      try {
        storage_ = store_.getProviderStorageInfo();
      } catch (...) {
        // The store tells no figures either: the file system shows none (0 blocks), as
        // network file systems without quota do.
      }
    }
    info = storage_;
  }
  if (info) {
    auto const capacity = info->getStorageCapacity();
    auto const free = capacity > info->getSpaceOccupied() ? capacity - info->getSpaceOccupied() : 0;
    out->f_blocks = capacity / out->f_frsize;
    out->f_bfree = out->f_bavail = free / out->f_frsize;
  }
  return 0;
}

int FuseFileSystem::getxattr(char const* path, char const* name, char* value, std::size_t size) {
  return guarded([&] {
    std::string const full(name);
    if (full.rfind(kUserPrefix, 0) != 0) return -ENODATA;
    auto const attributes = item(path).getExtendedAttributes();
    auto const key = full.substr(std::strlen(kUserPrefix));
    if (!attributes.hasAttribute(key)) return -ENODATA;
    return answer(attributes.getString(key), value, size);
  });
}

int FuseFileSystem::listxattr(char const* path, char* list, std::size_t size) {
  return guarded([&] {
    std::string names;
    for (auto const& name : item(path).getExtendedAttributes().getNames()) {
      names += kUserPrefix + name;
      names.push_back('\0');
    }
    return answer(names, list, size);
  });
}

std::string FuseFileSystem::mountPathOf(fsp::StorageIRI const& location) const {
  auto const& path = location.getPath();
  if (storeRootPath_ == u"/" || storeRootPath_.empty()) return fl::i18n::ustring_to_utf8(path);
  if (path == storeRootPath_) return "/";
  if (path.size() > storeRootPath_.size() && path.compare(0, storeRootPath_.size(), storeRootPath_) == 0 &&
      path[storeRootPath_.size()] == u'/') {
    return fl::i18n::ustring_to_utf8(path.substr(storeRootPath_.size()));
  }
  return {};
}

void FuseFileSystem::collectFailures() {
  if (!status_) return;
  auto changes = status_->takeUndeliveredChanges();
  if (changes.empty()) return;
  std::lock_guard lock(mutex_);
  for (auto& change : changes) {
    Failure failure{mountPathOf(change.location), change.change, change.cause};
    if (failure.path.empty()) failure.path = fl::i18n::ustring_to_utf8(change.location.toString());
    pending_[failure.path] = failure.cause;
    failures_.push_back(std::move(failure));
    ++failureCount_;
  }
  constexpr std::size_t kKept = 100;
  if (failures_.size() > kKept) failures_.erase(failures_.begin(), failures_.end() - kKept);
}

bool FuseFileSystem::takeFailure(std::string const& path) {
  std::lock_guard lock(mutex_);
  return pending_.erase(path) != 0;
}

FuseFileSystem::Snapshot FuseFileSystem::snapshot() {
  collectFailures();
  Snapshot out;
  std::lock_guard lock(mutex_);
  for (auto const& [key, file] : open_) {
    if (file->writable) out.openForWriting.push_back(file->path);
  }
  std::sort(out.openForWriting.begin(), out.openForWriting.end());
  out.openFiles = open_.size();
  out.failures = failures_;
  out.failureCount = failureCount_;
  return out;
}

void FuseFileSystem::watchStore(struct fuse* mounted) {
  {
    std::lock_guard lock(watchMutex_);
    mounted_ = mounted;
    watching_ = true;
  }
  dropper_ = std::thread([this] { dropQueued(); });
  auto dropKernelCaches = [this](fsp::StorageIRI const& location) {
    auto const path = mountPathOf(location);
    if (path.empty()) return;
    invalidate(path);
    if (path != "/") invalidate(path.substr(0, std::max<std::size_t>(1, path.rfind('/'))));
  };
  // Once the overlay has acted on a change, not at the store's event: the kernel would
  // otherwise read the item again from caches that still hold it as it was, and keep it.
  if (auto* applied = dynamic_cast<fsp::extensions::IAppliedChanges*>(root_.getProvider().get())) {
    applied->onAppliedChanges(dropKernelCaches);
    return;
  }
  root_.publishFolderEvents([dropKernelCaches](foundation::storage::events::Kind const&, fsp::StorageIRI const&,
                                               fsp::StorageIRI const& location,
                                               foundation::storage::events::EntryType const&,
                                               boost::property_tree::ptree) { dropKernelCaches(location); });
}

void FuseFileSystem::stopWatching() {
  if (auto* applied = dynamic_cast<fsp::extensions::IAppliedChanges*>(root_.getProvider().get())) {
    applied->onAppliedChanges(nullptr);
  }
  // A store subscription itself ends with the provider: ending it here would end the
  // overlay's own subscription to the same folder too.
  {
    std::lock_guard lock(watchMutex_);
    watching_ = false;
    toDrop_.clear();
  }
  watchWake_.notify_all();
  if (dropper_.joinable()) dropper_.join();
  std::lock_guard lock(watchMutex_);
  mounted_ = nullptr;
}

void FuseFileSystem::invalidate(std::string const& path) {
  {
    std::lock_guard lock(watchMutex_);
    if (!watching_) return;
    // A burst of changes to one folder names it once.
    if (std::find(toDrop_.begin(), toDrop_.end(), path) != toDrop_.end()) return;
    toDrop_.push_back(path);
  }
  watchWake_.notify_one();
}

void FuseFileSystem::dropQueued() {
  std::unique_lock lock(watchMutex_);
  for (;;) {
    watchWake_.wait(lock, [this] { return !watching_ || !toDrop_.empty(); });
    if (!watching_) return;
    auto const path = std::move(toDrop_.front());
    toDrop_.pop_front();
    auto* const mounted = mounted_;
    lock.unlock();
    fuse_invalidate_path(mounted, path.c_str());
    lock.lock();
  }
}

}  // namespace ovl::mount
