#include <core/content/ContentCache.hpp>

#include <core/content/CacheFileNaming.hpp>
#include <core/content/FilesystemCacheResource.hpp>
#include <core/util/Logger.hpp>
#include <core/metadata/MetadataCache.hpp>
#include <core/content/Versioning.hpp>

#include <foundation/log/Severity.hpp>

#include <exception>
#include <iterator>
#include <stdexcept>
#include <utility>

namespace storage::overlayprovider {

namespace {

using foundation::log::Severity;
namespace fsp = foundation::storage::provider;

constexpr char const* kInitializationFailure = "Problem initializing cache root.";
constexpr char const* kUnknownFailure = "Caching failed due to an unknown error.";
constexpr char const* kNoSpaceFailure = "Caching failed due to a lack of filespace.";

// Logs `message` as a failure, then what is being handled.
void logFailure(std::string const& message) noexcept {
  try {
    getLogger().log(Severity::Error, message);
    getLogger().log(Severity::Diagnostic, "Exception caught: " + describeCurrentException());
  } catch (...) {
  }
}

fl::filesystem::path defaultCacheRoot() {
  return fl::filesystem::temp_directory_name() / fl::filesystem::to_path(u"overlay_cache-" + generateUUIDString());
}

// `location` below `to` at the place it has below `from` (whose path has `depth`
// segments).
fsp::StorageIRI relocated(fsp::StorageIRI const& location, std::size_t depth, fsp::StorageIRI const& to) {
  auto const segments = location.getPathView().segments();
  std::u16string rest;
  for (std::size_t i = depth; i < segments.size(); ++i) {
    if (!rest.empty()) rest += u'/';
    rest += segments[i];
  }
  return fsp::StorageIRI(to, rest);
}

}  // namespace

ContentCache::ContentCache(EntryTiming entryTiming, LocalFSCacheSpaceArbitrator::SpaceQuery spaceQuery)
    : entryTiming_(std::move(entryTiming)), spaceQuery_(std::move(spaceQuery)), cacheRoot_(defaultCacheRoot()) {}

ContentCache::~ContentCache() = default;

ContentCache& ContentCache::withCacheRoot(fl::filesystem::path cacheRoot) {
  LockGuard lock(mutex_);
  cacheRoot_ = std::move(cacheRoot);
  if (initialized_ && arbitratorIsOwn_) {
    // The arbitrator measured the old root's volume; the next operation measures anew.
    spaceArbitrator_.reset();
    arbitratorIsOwn_ = false;
  }
  initialized_ = false;
  return *this;
}

void ContentCache::setCacheSpaceArbitrator(std::unique_ptr<ICacheSpaceArbitrator> arbitrator) {
  LockGuard lock(mutex_);
  spaceArbitrator_ = std::move(arbitrator);
  arbitratorIsOwn_ = false;
}

void ContentCache::setFlushAttributeReads(std::shared_ptr<FlushAttributeReads> reads) {
  LockGuard lock(mutex_);
  flushReads_ = std::move(reads);
}

void ContentCache::setThawWritten(WorkingFileEntry::ThawWritten thaw) {
  LockGuard lock(mutex_);
  thawWritten_ = std::move(thaw);
}

void ContentCache::setDeliveryReport(std::shared_ptr<DeliveryReport> report) {
  LockGuard lock(mutex_);
  deliveryReport_ = std::move(report);
}

void ContentCache::setBeforeStalenessCheck(std::function<void(StorageIRI const&)> hook) {
  beforeStalenessCheck_ = std::move(hook);
}

// ---- initialization ------------------------------------------------------------------------

fl::filesystem::path ContentCache::doGetDataDirectory() const {
  return cacheRoot_ / fl::filesystem::to_path(Versioning::GetVersionString());
}

void ContentCache::doLazyInitialize() const {
  fl::filesystem::path dataDirectory;
  try {
    dataDirectory = doGetDataDirectory();
    // Every time: a data directory removed from outside is made again.
    if (!fl::filesystem::exists(dataDirectory)) fl::filesystem::create_directories(dataDirectory);
  } catch (...) {
    logFailure("Problem checking or creating cache root");
    throw CachingErrorException(kInitializationFailure);
  }
  if (initialized_) return;
  if (spaceArbitrator_) {
    initialized_ = true;
    return;
  }
  try {
    spaceArbitrator_ = std::make_unique<LocalFSCacheSpaceArbitrator>(dataDirectory, spaceQuery_);
    arbitratorIsOwn_ = true;
  } catch (...) {
    logFailure("Problem initializing space arbitrator");
    throw CachingErrorException(kInitializationFailure);
  }
  initialized_ = true;
}

void ContentCache::lazyInitialize() const {
  LockGuard lock(mutex_);
  doLazyInitialize();
}

// ---- queries --------------------------------------------------------------------------------

bool ContentCache::hasEntry(StorageIRI const& location) const {
  LockGuard lock(mutex_);
  doLazyInitialize();
  return entries_.count(location) != 0;
}

bool ContentCache::hasAliveEntry(StorageIRI const& location, bool forWriting) const {
  LockGuard lock(mutex_);
  doLazyInitialize();
  auto it = entries_.find(location);
  if (it == entries_.end() || it->second->getRefCount() < 1) return false;
  return !forWriting || !it->second->isReadOnly();
}

bool ContentCache::hasEntryOpenForWriting() const {
  LockGuard lock(mutex_);
  doLazyInitialize();
  for (auto const& [location, entry] : entries_) {
    if (entry->getRefCount() >= 1 && !entry->isReadOnly()) return true;
  }
  return false;
}

// ---- entries ----------------------------------------------------------------------------------

std::shared_ptr<WorkingFileEntry> ContentCache::retrieveEntry(
    StorageIRI const& location, std::shared_ptr<fsp::StorageItem> innerItem, std::shared_ptr<FileMetadata> metadata,
    std::shared_ptr<IExecutor> executor, std::shared_ptr<IQuotaAccountant> quota, std::shared_ptr<TimedLatch> latch,
    WorkingFileEntryParams params, std::atomic<bool>& shutdownFlag) const {
  LockGuard lock(mutex_);
  doLazyInitialize();

  if (auto it = entries_.find(location); it != entries_.end()) {
    if (!it->second->wasAbortedDueToWriteProblem()) return it->second;
    // Its write-behind failed: the cached bytes may never reach the inner store, so they
    // are thrown away and the file starts afresh.
    getLogger().log(Severity::Notice, "Retrieving " + location.toUtf8() + " due to previous abort.");
    it->second->removeCachedEntry();
    dispose(std::move(it->second));
    entries_.erase(it);
  }

  try {
    if (!metadata) throw std::invalid_argument("no metadata record for " + location.toUtf8());
    if (spaceArbitrator_) {
      auto const size = static_cast<unsigned long>(metadata->getFileSize());
      while (!spaceArbitrator_->spaceAvailable(size)) {
        if (entries_.empty()) {
          getLogger().log(Severity::Error, "Content caching failure (no space).");
          throw CachingErrorException(kNoSpaceFailure);
        }
        removeLeastRecentlyUsedItem();
      }
    }
    auto const dataDirectory = doGetDataDirectory();
    fl::filesystem::path checkoutPath;
    if (params.usesDiskCaching()) {
      checkoutPath = FilesystemCacheResource::checkoutPathFor(dataDirectory, metadata->getLocation());
    }
    EntryPtr entry;
    if (!checkoutPath.empty() && madePaths_.count(checkoutPath) != 0) {
      // An earlier entry of this cache used this file and may still be using it through
      // its open handle; what the file holds is known to that entry only. The new entry
      // gets a file of its own and starts with nothing cached: it is made as a copy of a
      // file that does not exist (no cache file is named ".none"), which adopts nothing,
      // whatever appears under the cache file's name meanwhile.
      fl::filesystem::remove(checkoutPath);
      auto nothing = checkoutPath;
      nothing.replace_extension(".none");
      entry = std::make_shared<WorkingFileEntry>(dataDirectory, std::move(metadata), std::move(innerItem),
                                                 std::move(executor), std::move(quota), std::move(latch), nothing,
                                                 std::streampos(0), std::move(params), shutdownFlag, entryTiming_);
    } else {
      entry = std::make_shared<WorkingFileEntry>(dataDirectory, std::move(metadata), std::move(innerItem),
                                                 std::move(executor), std::move(quota), std::move(latch),
                                                 std::move(params), shutdownFlag, entryTiming_);
      if (!checkoutPath.empty()) madePaths_.insert(std::move(checkoutPath));
    }
    entry->setFlushAttributeReads(flushReads_);
    entry->setThawWritten(thawWritten_);
    entry->setDeliveryReport(deliveryReport_);
    entries_[location] = entry;
    return entry;
  } catch (...) {
    // Whatever went wrong, the caller sees one text and falls back to the inner store.
    logFailure("Content caching failure.");
    if (deliveryReport_) deliveryReport_->localCacheFailed(location, "Content caching failure.", std::current_exception());
    throw CachingErrorException(kUnknownFailure);
  }
}

void ContentCache::dispose(EntryPtr entry) const {
  if (recycleBinEmptyRequested_.exchange(false)) {
    while (!recycleBin_.empty()) recycleBin_.pop_back();
  }
  recycleBin_.push_back(std::move(entry));
}

void ContentCache::removeLeastRecentlyUsedItem() const {
  getLogger().log(Severity::Notice, "Content cache out of space. Removing least recently accessed item.");
  if (entries_.empty()) return;
  auto victim = entries_.begin();
  for (auto it = std::next(victim); it != entries_.end(); ++it) {
    // Strictly less: among equal times the first in location order stays the victim.
    if (it->second->getLastAccessTime() < victim->second->getLastAccessTime()) victim = it;
  }
  victim->second->removeCachedEntry();
  dispose(std::move(victim->second));
  entries_.erase(victim);
  spaceArbitrator_->setItemWasRemoved();
}

void ContentCache::replaceEntry(StorageIRI const& location, EntryPtr entry) const {
  auto [it, inserted] = entries_.try_emplace(location, entry);
  if (inserted) return;
  if (it->second != entry) dispose(std::move(it->second));
  it->second = std::move(entry);
}

void ContentCache::noteCheckoutPath(WorkingFileEntry const& entry) const {
  auto path = entry.getCheckoutPath();
  if (!path.empty()) madePaths_.insert(std::move(path));
}

// ---- invalidation -----------------------------------------------------------------------------

ContentCache::EntryPtr ContentCache::takeSettledEntry(StorageIRI const& location) const {
  auto it = entries_.find(location);
  if (it == entries_.end()) return nullptr;
  EntryPtr entry = std::move(it->second);
  entries_.erase(it);
  try {
    // An entry that a stream holds first completes its queued open, so that it is in a
    // defined state before it is abandoned or moved.
    entry->checkAndOpenIfNecessary();
  } catch (...) {
    // Logged by the entry; it is abandoned or moved all the same.
  }
  return entry;
}

void ContentCache::doInvalidate(StorageIRI const& location, bool abort) const {
  EntryPtr entry = takeSettledEntry(location);
  if (!entry) return;
  if (abort) entry->setAbort();
  entry->setInvalidationWasTriggered();
  dispose(std::move(entry));
}

void ContentCache::invalidate(StorageIRI const& location, bool abort) const {
  LockGuard lock(mutex_);
  doLazyInitialize();
  doInvalidate(location, abort);
}

void ContentCache::invalidateOldEntry(StorageIRI const& location, std::string const& watermark, bool abort) const {
  invalidateOldEntryIf(location, [&](WorkingFileEntry const& entry) { return entry.hasDifferentWatermark(watermark); },
                       abort);
}

void ContentCache::invalidateOldEntry(StorageIRI const& location, FileMetadata const& record, bool abort) const {
  invalidateOldEntryIf(location, [&](WorkingFileEntry const& entry) { return entry.hasDifferentWatermark(record); },
                       abort);
}

template <class Stale>
void ContentCache::invalidateOldEntryIf(StorageIRI const& location, Stale const& isStale, bool abort) const {
  if (beforeStalenessCheck_) beforeStalenessCheck_(location);
  LockGuard lock(mutex_);
  doLazyInitialize();
  auto it = entries_.find(location);
  if (it == entries_.end() || !isStale(*it->second)) return;
  if (abort) it->second->setAbort();
  it->second->removeCachedEntry();
  dispose(std::move(it->second));
  entries_.erase(it);
}

std::shared_ptr<WorkingFileEntry> ContentCache::currentEntry(StorageIRI const& location,
                                                            std::string const& watermark) const {
  return currentEntryIf(location, [&](WorkingFileEntry const& entry) { return entry.hasDifferentWatermark(watermark); });
}

std::shared_ptr<WorkingFileEntry> ContentCache::currentEntry(StorageIRI const& location,
                                                            FileMetadata const& record) const {
  return currentEntryIf(location, [&](WorkingFileEntry const& entry) { return entry.hasDifferentWatermark(record); });
}

template <class Stale>
std::shared_ptr<WorkingFileEntry> ContentCache::currentEntryIf(StorageIRI const& location, Stale const& isStale) const {
  LockGuard lock(mutex_);
  auto it = entries_.find(location);
  if (it == entries_.end()) return nullptr;
  if (!isStale(*it->second)) return it->second;
  it->second->removeCachedEntry();
  dispose(std::move(it->second));
  entries_.erase(it);
  return nullptr;
}

void ContentCache::invalidateAllDescendantsOf(StorageIRI const& folder, bool abort) const {
  LockGuard lock(mutex_);
  doLazyInitialize();
  for (auto it = entries_.begin(); it != entries_.end();) {
    if (!folder.isAncestorOf(it->first)) {
      ++it;
      continue;
    }
    if (abort) it->second->setAbort();
    dispose(std::move(it->second));
    it = entries_.erase(it);
  }
}

// ---- following mutations ------------------------------------------------------------------------

void ContentCache::moveFile(StorageIRI const& from, StorageIRI const& to, std::shared_ptr<FileMetadata> newMetadata) const {
  LockGuard lock(mutex_);
  doLazyInitialize();
  EntryPtr entry = takeSettledEntry(from);
  if (!entry) return;
  entry->moveToNewLocation(to, std::move(newMetadata));
  noteCheckoutPath(*entry);
  replaceEntry(to, std::move(entry));
}

void ContentCache::copyFile(StorageIRI const& from, StorageIRI const& to, std::shared_ptr<FileMetadata> newMetadata) const {
  LockGuard lock(mutex_);
  doLazyInitialize();
  auto it = entries_.find(from);
  if (it == entries_.end()) return;
  EntryPtr copy;
  try {
    copy = it->second->copy(std::move(newMetadata));
  } catch (...) {
    logFailure("Content cache could not copy " + from.toUtf8() + " to " + to.toUtf8());
    doInvalidate(to, true);
    return;
  }
  noteCheckoutPath(*copy);
  replaceEntry(to, std::move(copy));
}

void ContentCache::moveFolder(StorageIRI const& from, StorageIRI const& to,
                              foundation::storage::provider::ReplacementPolicy policy,
                              MetadataCache const& metadataCache) const {
  LockGuard lock(mutex_);
  doLazyInitialize();
  // The moves are decided first and made afterwards, so that no entry is met twice, even
  // when the destination lies below the source.
  std::vector<StorageIRI> moving;
  for (auto const& [location, entry] : entries_) {
    if (from.isAncestorOf(location)) moving.push_back(location);
  }
  std::size_t const depth = from.getPathView().size();
  bool const keepExisting = static_cast<int>(policy) == 4;
  for (auto const& old : moving) {
    auto it = entries_.find(old);
    if (it == entries_.end()) continue;
    EntryPtr entry = std::move(it->second);
    entries_.erase(it);
    StorageIRI target;
    std::shared_ptr<FileMetadata> record;
    try {
      target = relocated(old, depth, to);
      record = metadataCache.getFileMetadata(target);
    } catch (...) {
      logFailure("Content cache could not follow the move of " + old.toUtf8());
      record = nullptr;
    }
    if (!record || (keepExisting && record != entry->getMetadata())) {
      // Nothing the overlay knows is there, or the destination kept its own file: the
      // moving bytes describe no file any more.
      entry->setAbort();
      entry->setInvalidationWasTriggered();
      dispose(std::move(entry));
      continue;
    }
    doInvalidate(target, true);
    entry->withNewLocation(target);
    noteCheckoutPath(*entry);
    entry->withNewMetadata(std::move(record));
    entries_[target] = std::move(entry);
  }
}

// ---- recycle bin and reset -------------------------------------------------------------------

void ContentCache::emptyRecycleBin() const { recycleBinEmptyRequested_.store(true); }

void ContentCache::invalidateAll() const {
  {
    LockGuard lock(mutex_);
    doLazyInitialize();
  }
  releaseAll();
}

void ContentCache::releaseAll() const {
  std::vector<EntryPtr> bin;
  std::map<StorageIRI, EntryPtr> entries;
  {
    LockGuard lock(mutex_);
    recycleBinEmptyRequested_.store(false);
    bin.swap(recycleBin_);
    entries.swap(entries_);
  }
  // The entries are released here, outside the lock; from the last bin element to the
  // first, then the map.
  while (!bin.empty()) bin.pop_back();
}

// ---- inspection -------------------------------------------------------------------------------

fl::filesystem::path ContentCache::getCacheRoot() const {
  LockGuard lock(mutex_);
  return cacheRoot_;
}

fl::filesystem::path ContentCache::getDataDirectory() const {
  LockGuard lock(mutex_);
  return doGetDataDirectory();
}

std::size_t ContentCache::recycleBinSize() const {
  LockGuard lock(mutex_);
  return recycleBin_.size();
}

std::vector<fsp::StorageIRI> ContentCache::entryLocations() const {
  LockGuard lock(mutex_);
  std::vector<StorageIRI> locations;
  for (auto const& [location, entry] : entries_) locations.push_back(location);
  return locations;
}

}  // namespace storage::overlayprovider
